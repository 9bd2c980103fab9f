// Deferred updates: each has a thread of the library's, in this process or in that of a server.
#ifndef OSTREL_TOOL_UPDATE_THREADS_H
#define OSTREL_TOOL_UPDATE_THREADS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

#include <meridon/trail.h>

// The threads of the updates that are put off at the moment, in this process.
std::vector<pid_t> update_threads();
bool is_update_thread(pid_t thread, pid_t process = getpid());
inline size_t own_deferred_updates()
{
	return update_threads().size();
}

// What the audit records of update threads tell: which object each is about, and what its last attempt came to. A process
// that may not write records learns nothing.
class UpdateWatch {
public:
	struct Attempt {
		std::string object; // its identifiers, as text
		const char *operation;
		bool landed;
	};

	// Forgets threads that have ended, unless it's to keep them all.
	enum class Keep { running, all };
	explicit UpdateWatch(Keep keep = Keep::running) : look_at_(keep == Keep::all ? SIZE_MAX : 64)
	{
		trl_watch(take, this);
	}
	~UpdateWatch() { trl_watch(nullptr, nullptr); }
	UpdateWatch(const UpdateWatch &) = delete;
	UpdateWatch &operator=(const UpdateWatch &) = delete;

	// The last attempt of a thread, also of one that has ended; nothing if it left no record.
	std::optional<Attempt> last(pid_t thread);
	// The threads that left any.
	std::vector<pid_t> threads();

private:
	static void take(void *cookie, trl_event_t event, const trl_object_t *object, int status, int retval);
	void keep(Attempt &&attempt);

	std::mutex lock_;
	std::map<pid_t, Attempt> last_;
	size_t look_at_; // from that number on it is looked which threads have ended
};

// The threads on which one update goes on that a store has put off.
class Retries {
public:
	enum class State {
		none,     // it wasn't put off
		going_on, // it is tried again
		landed,   // its own record says so
		refused,  // or given up: its last record is a failure
		ended,    // it is known no more of it
		unseen,   // the process can't be looked at
	};
	State state() const;
	// Of several updates: the one state that matters.
	void add(const Retries &other);
	// Looks for them once more, several times: a listing may pass over threads while others end.
	void look_again();

private:
	friend class RetryFinder;
	std::optional<pid_t> process_;
	UpdateWatch *watch_ = nullptr;
	std::set<pid_t> others_;
	std::set<pid_t> threads_;
};

// Tells the threads of an update by looking which ones come up while it is made, one update after the other. In a server's
// process, those of others' updates may be among them.
class RetryFinder {
public:
	// `process` is where updates are tried again; none if it can't be seen. `watch` is of the same process, or NULL.
	RetryFinder(std::optional<pid_t> process, UpdateWatch *watch);
	// Those of the update that was just made.
	Retries find();

private:
	std::optional<pid_t> process_;
	UpdateWatch *watch_;
	std::set<pid_t> known_;
};

#endif
