// The deferred updates of this process: each has a thread of the library's.
#ifndef OSTREL_TOOL_UPDATE_THREADS_H
#define OSTREL_TOOL_UPDATE_THREADS_H

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include <meridon/trail.h>

// The threads of the updates that are put off at the moment.
std::vector<pid_t> update_threads();
bool is_update_thread(pid_t thread);
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

	UpdateWatch() { trl_watch(take, this); }
	~UpdateWatch() { trl_watch(nullptr, nullptr); }
	UpdateWatch(const UpdateWatch &) = delete;
	UpdateWatch &operator=(const UpdateWatch &) = delete;

	// The last attempt of a thread, also of one that has ended; nothing if it left no record.
	std::optional<Attempt> last(pid_t thread);

private:
	static void take(void *cookie, trl_event_t event, const trl_object_t *object, int status, int retval);
	void keep(Attempt &&attempt);

	std::mutex lock_;
	std::map<pid_t, Attempt> last_;
	size_t look_at_ = 64; // from that number on it is looked which threads have ended
};

#endif
