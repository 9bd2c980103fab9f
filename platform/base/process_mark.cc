// The number of a process lies in a page that the kernel wipes in a forked child, however it was forked.
#include "base/process_mark.h"

#include <pthread.h>
#include <sys/mman.h>

namespace {

using Number = std::atomic<uint64_t>;

constexpr size_t page_size = 4096;

pthread_once_t once = PTHREAD_ONCE_INIT;
Number *number; // its page is zero in a child that hasn't asked yet
Number unwiped; // used if no such page can be had: children are then seen by their fork handlers alone
Number last;    // the last number given, in this process or in one that it was forked from

void make_number()
{
	void *page = mmap(nullptr, page_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	number = &unwiped;
	if (page != MAP_FAILED && madvise(page, page_size, MADV_WIPEONFORK) == 0) {
		number = static_cast<Number *>(page);
		return;
	}
	if (page != MAP_FAILED)
		(void) munmap(page, page_size);
	(void) pthread_atfork(nullptr, nullptr, [] { unwiped.store(0, std::memory_order_relaxed); });
}

} // namespace

uint64_t _meridon_process(void)
{
	(void) pthread_once(&once, make_number);
	uint64_t now = number->load(std::memory_order_relaxed);
	if (now != 0)
		return now;
	uint64_t next = last.fetch_add(1) + 1;
	// Of two threads of a new child that come here at once, the first to store wins.
	return number->compare_exchange_strong(now, next) ? next : now;
}
