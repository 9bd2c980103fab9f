// What a forked child has to make anew before it uses it, since a thread that it doesn't have may have been in the middle
// of it: a lock above all, which nobody would ever release.
#ifndef MERIDON_BASE_PROCESS_MARK_H
#define MERIDON_BASE_PROCESS_MARK_H

#include <atomic>
#include <cstdint>
#include <sched.h>

// Remembers the process that something belongs to. Zero-filled, it belongs to none.
class ProcessMark {
public:
	bool is(uint64_t now) const { return process_.load(std::memory_order_acquire) == now; }
	// Calls `renew` if that is another process than `now`, a number that two processes don't share; other threads wait
	// until it is done. The first call in a process renews, too.
	template <typename Renew>
	void enter(uint64_t now, Renew renew)
	{
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
