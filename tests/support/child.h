// Children of a test: one that does something and ends, one that stays, one that is another user.
#ifndef TESTS_CHILD_H
#define TESTS_CHILD_H

#include <functional>
#include <sys/types.h>
#include <unistd.h>

#include <gtest/gtest.h>

// A forked child that does something and then stays until it is ended, by its parent's end at the latest.
class StayingChild {
public:
	// pid() is 0 if that fails.
	explicit StayingChild(const std::function<bool()> &begin);
	~StayingChild() { end(); }
	StayingChild(const StayingChild &) = delete;
	StayingChild &operator=(const StayingChild &) = delete;

	pid_t pid() const { return pid_; }
	void end();

private:
	pid_t pid_ = 0;
};

// Runs something in a forked child and gives its result, cut to 8 bits; 1000 and the signal's number if one ended it.
// Works in a process that ignores SIGCHLD too.
int in_child(const std::function<int()> &body);
// The same as that user, with the group of the same number and no others. Needs root.
int as_user(uid_t user, const std::function<int()> &body);

#define SKIP_UNLESS_ROOT()                                                                                             \
	if (geteuid() != 0)                                                                                            \
	GTEST_SKIP() << "needs root, to be other users"

#endif
