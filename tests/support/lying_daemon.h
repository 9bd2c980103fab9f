// A server at a repository's hatch that answers as it likes.
#ifndef TESTS_LYING_DAEMON_H
#define TESTS_LYING_DAEMON_H

#include <atomic>
#include <string>

enum class Lie {
	none,             // each name is that of a group without properties
	bad_error,        // a shared read is refused, by a number that there isn't
	no_replies,       // a shared reply holds none
	too_long_a_reply, // the second one in a shared reply is longer than all
	garbage,          // the second one is no reply
	endless_pages,    // more always follows
	empty_pages,      // the same, with nothing in them
	slow,             // a group takes a third of a second
	much,             // each group has five below it, with a text of 6 MB each
	stale,            // a commit is always overtaken by another
};

class LyingDaemon {
public:
	LyingDaemon() = default;
	LyingDaemon(const LyingDaemon &) = delete;
	LyingDaemon &operator=(const LyingDaemon &) = delete;
	~LyingDaemon();

	// Serves at the path, whose directory is there. False if it can't.
	bool serve(const std::string &path);

	std::atomic<Lie> lie{Lie::none};

private:
	int hatch_ = -1;
};

#endif
