// What a handle has for request batching (request_batch.h).
#ifndef MERIDON_RPY_BATCH_STATE_H
#define MERIDON_RPY_BATCH_STATE_H

#include "base/process_mark.h"
#include "base/thread_safety.h"

namespace rpy {

struct Waiter;

// The calls of a handle that are under way, and the threads that wait for one of them to end. A waiter lies on its thread's
// stack: in the queue it is guarded by the lock; taken out of it, it belongs to the leader until its state is set.
struct RequestBatch {
	RequestBatch() { lock.init(); }
	~RequestBatch() { lock.destroy(); }
	RequestBatch(const RequestBatch &) = delete;
	RequestBatch &operator=(const RequestBatch &) = delete;

	Mutex lock;
	int calls GUARDED_BY(lock) = 0;
	Waiter *first GUARDED_BY(lock) = nullptr; // the longest waiting
	Waiter *last GUARDED_BY(lock) = nullptr;
	ProcessMark process{}; // a forked child has none of its parent's threads
};

} // namespace rpy

#endif
