// Reads of single groups by many threads over one handle. A few of them have a call each; those that come meanwhile wait
// for one of these to end, and go in one call then, since most of what a call costs is to wake the daemon and to be woken.
#ifndef MERIDON_RPY_TOGETHER_H
#define MERIDON_RPY_TOGETHER_H

#include <cstdint>

#include "base/process_mark.h"
#include "base/thread_safety.h"

namespace rpy {

class Call;
struct Fellow;

// The calls of a handle that are on their way, and the threads that wait for one of them to end.
struct Together {
	Together() { lock.init(); }
	~Together() { lock.destroy(); }
	Together(const Together &) = delete;
	Together &operator=(const Together &) = delete;

	Mutex lock;
	int calls GUARDED_BY(lock) = 0;
	Fellow *first GUARDED_BY(lock) = nullptr; // the longest waiting
	Fellow *last GUARDED_BY(lock) = nullptr;
	ProcessMark process{}; // a forked child has none of its parent's threads
};

} // namespace rpy

#endif
