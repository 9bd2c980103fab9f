// The mark lies in a page that the kernel wipes in a forked child: handlers of fork() don't run in each kind of child.
#include "hatch/epoch.h"

#include <atomic>
#include <pthread.h>
#include <sys/mman.h>

#include <meridon/process.h>

#include "hatch/mapping.h"

namespace hatch {
namespace {

using Mark = std::atomic<uint64_t>;

pthread_once_t once = PTHREAD_ONCE_INIT;
Mark *mark;                 // its page is zero in a child that hasn't asked yet
Mark unwiped;               // stands in where no page can be had: children are then seen by their fork handlers alone
std::atomic<uint64_t> last; // the last number given, in this process or in one that it was forked from

void make_mark()
{
	void *page = mmap(nullptr, page_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	mark = &unwiped;
	if (page != MAP_FAILED && madvise(page, page_size, MADV_WIPEONFORK) == 0) {
		mark = static_cast<Mark *>(page);
		return;
	}
	if (page != MAP_FAILED)
		(void) munmap(page, page_size);
	(void) pthread_atfork(nullptr, nullptr, [] { unwiped.store(0, std::memory_order_relaxed); });
}

} // namespace

uint64_t epoch()
{
	(void) pthread_once(&once, make_mark);
	uint64_t now = mark->load(std::memory_order_relaxed);
	if (now != 0)
		return now;
	uint64_t next = last.fetch_add(1) + 1;
	// Of two threads of a new child that come here at once, the first to store wins.
	return mark->compare_exchange_strong(now, next) ? next : now;
}

} // namespace hatch

uint64_t _meridon_process(void)
{
	return hatch::epoch();
}
