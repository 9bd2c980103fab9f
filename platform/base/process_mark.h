// What a forked child makes again before it uses it. One rule for the whole tree:
//
// A child has one of its parent's threads, and a copy of what the others were in the middle of: a locked mutex that nobody
// releases, a list half linked. So state that threads share (a lock with what it guards) has a ProcessMark beside it, and
// each entry to it calls enter() before it takes the lock: the first entry in a process makes the state again. What only
// has to be recognised as a parent's compares is_own().
//
// So a handler of pthread_atfork() that takes such a lock enters first as well.
//
// Handlers of pthread_atfork() are no substitute: they run in no child of clone(), and none runs in a child of vfork() or of
// an enclave's work. They stand only where a child must give something up at once, whether it comes back or not:
// connections and the signs of life of hatches (hatch/connections.cc, hatch/hatches.cc), and the covenants of its parent.
#ifndef MERIDON_BASE_PROCESS_MARK_H
#define MERIDON_BASE_PROCESS_MARK_H

#include <atomic>
#include <cstdint>
#include <sched.h>

#include <meridon/process.h>

// Remembers the process that something belongs to. Zero-filled, it belongs to none.
class ProcessMark {
public:
	bool is_own() const { return process_.load(std::memory_order_acquire) == _meridon_process(); }
	// Has it belong to the calling process. For what one thread uses at a time.
	void claim() { process_.store(_meridon_process(), std::memory_order_release); }
	// Calls `renew` unless it belongs to the calling process already, as it does afterwards; other threads wait until
	// that is done. So the first call in each process renews.
	template <typename Renew>
	void enter(Renew renew)
	{
		const uint64_t now = _meridon_process();
		uint64_t seen = process_.load(std::memory_order_acquire);
		while (seen != now) {
			if (seen == ~now) // another thread is at it
				(void) sched_yield();
			else if (process_.compare_exchange_weak(seen, ~now, std::memory_order_acquire))
				break;
			seen = process_.load(std::memory_order_acquire);
		}
		if (seen == now)
			return;
		renew();
		process_.store(now, std::memory_order_release);
	}

private:
	std::atomic<uint64_t> process_;
};

#endif
