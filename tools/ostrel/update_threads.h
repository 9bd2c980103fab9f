/*
 * Deferred updates. The library gives each a thread of its own, in this process or in that of a server, on which it is tried
 * again once a second. Here such threads are found and followed, by three means that together leave few gaps:
 *
 *   their name     in /proc, for as long as they run; the only means for a server's threads
 *   their records  in the audit trail of this process, with the object and the result of each attempt; needs a privilege
 *   their order    threads that come up while an update is made are taken for its own, so updates are made one by one. In a
 *                  server's process they may be those of another client
 *
 * Where none of them tells, State says so, and the caller compares what is stored (deferred.h).
 */
#ifndef OSTREL_TOOL_UPDATE_THREADS_H
#define OSTREL_TOOL_UPDATE_THREADS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

#include <meridon/trail.h>

#include "base/thread_safety.h"

// The threads of the updates that are deferred at the moment, in this process.
std::vector<pid_t> update_threads();
bool is_update_thread(pid_t thread, pid_t process = getpid());
inline size_t own_deferred_updates()
{
	return update_threads().size();
}

// Follows the audit records of this process's update threads: which object each is about, and how its last attempt ended. A
// process that may not write records learns nothing. The records come on the update threads.
class UpdateWatch {
public:
	struct Attempt {
		std::string object; // its identifiers, as text
		const char *operation;
		bool landed;
	};

	// `running`: forgets threads that have ended.
	enum class Keep { running, all };
	explicit UpdateWatch(Keep keep = Keep::running) : look_at_(keep == Keep::all ? SIZE_MAX : 64)
	{
		lock_.init();
		trl_watch(take, this);
	}
	~UpdateWatch()
	{
		trl_watch(nullptr, nullptr);
		lock_.destroy();
	}
	UpdateWatch(const UpdateWatch &) = delete;
	UpdateWatch &operator=(const UpdateWatch &) = delete;

	// The last attempt of a thread, also of one that has ended; nothing if it left no record.
	std::optional<Attempt> last(pid_t thread);
	// The threads that left any.
	std::vector<pid_t> threads();

private:
	static void take(void *cookie, trl_event_t event, const trl_object_t *object, int status, int retval);
	void keep(Attempt &&attempt);

	Mutex lock_;
	std::map<pid_t, Attempt> last_ GUARDED_BY(lock_);
	size_t look_at_ GUARDED_BY(lock_); // at that number of threads those that have ended are forgotten
};

// The threads on which a deferred update goes on. A default one is that of an update that wasn't deferred.
class Retries {
public:
	enum class State {
		none,     // it wasn't deferred
		going_on, // it is tried again
		landed,   // by its record
		refused,  // or given up: its last record is a failure
		ended,    // its thread has, and left no record
		unseen,   // the process can't be looked at
	};
	State state() const;
	// Whether a server makes the update, and goes on when this process ends.
	bool is_by_server() const { return is_by_server_; }
	// Makes this the retries of several updates, with the one state that matters.
	void add(const Retries &other);
	// Looks for the threads several times more: a listing may miss threads while others end.
	void look_again();

private:
	friend class RetryFinder;
	bool is_by_server_ = false;
	bool is_unseen_ = false;
	pid_t process_ = 0;
	UpdateWatch *watch_ = nullptr;
	std::set<pid_t> others_; // of updates before this one
	std::set<pid_t> threads_;
};

// Finds the threads of updates that are made one after the other: those that come up while one is made.
class RetryFinder {
public:
	// For updates that this process tries again.
	explicit RetryFinder(UpdateWatch *watch);
	// For updates that a server tries again, if there is one; 0 is one that can't be seen.
	explicit RetryFinder(std::optional<pid_t> server);
	// Those of the update that was just made.
	Retries find();

private:
	void see_those_before();

	Retries empty_; // with the process and no threads
	std::set<pid_t> known_;
};

#endif
