// A server that has run out of descriptors goes on serving, and its updates have to leave their records all the same.
//
// - The socket is opened for the first who asks that it be kept, and closed with the last. If it couldn't be opened, the next
//   who asks tries again; until then sessions find no reserve.
// - One session has it at a time: replies of the kernel come back over it, and would reach the wrong one. A session that waits
//   longer than a second goes without, and reports why it has no way to the log.
// - The last keeper may leave while a session has it. Then the session's end closes it.
// - A forked child shares the socket's file with its parent, and would take the replies meant for that. It never uses it, and
//   closes its copy when it keeps a reserve of its own.
#include "trail/reserve.h"

#include <cstddef>
#include <sys/socket.h>
#include <unistd.h>

#include <meridon/trail.h>

#include "base/guards.h"
#include "base/process_mark.h"
#include "base/thread_safety.h"
#include "trail/libaudit.h"

namespace {

constexpr time_t longest_wait = 1; // seconds; a record takes microseconds

Mutex reserve_lock;
CondVar reserve_is_free;
ProcessMark reserve_process; // whose all this is
size_t keepers GUARDED_BY(reserve_lock);
int reserve GUARDED_BY(reserve_lock) = -1;
bool taken GUARDED_BY(reserve_lock);

// A forked child has a copy of its parent's socket and locks, which it doesn't use.
bool is_kept_here()
{
	return reserve_process.is_own();
}

void close_reserve() REQUIRES(reserve_lock)
{
	if (reserve != -1)
		(void) close(reserve); // nothing waits in it
	reserve = -1;
}

void renew() NO_THREAD_SAFETY_ANALYSIS // nobody else has it yet
{
	reserve_lock.init();
	reserve_is_free.init();
	close_reserve();
	keepers = 0;
	taken = false;
}

// What came too late for the session before.
void drain(int socket)
{
	char scrap[256];
	while (recv(socket, scrap, sizeof(scrap), MSG_DONTWAIT | MSG_TRUNC) > 0)
		continue;
}

} // namespace

int trail::take_reserve()
{
	if (!is_kept_here())
		return -1;
	const Deadline end = Deadline::in(longest_wait * second_ns);
	MutexLock lock(reserve_lock);
	for (bool waited = true; taken && waited;)
		waited = reserve_is_free.wait_until(reserve_lock, end);
	if (taken || reserve == -1)
		return -1;
	taken = true;
	drain(reserve);
	return reserve;
}

void trail::give_reserve_back()
{
	if (!is_kept_here())
		return;
	MutexLock lock(reserve_lock);
	taken = false;
	if (keepers == 0)
		close_reserve();
	reserve_is_free.notify_one();
}

void trl_keep_way(void)
{
	CancellationWaits cancellation;
	reserve_process.enter(renew);
	MutexLock lock(reserve_lock);
	keepers++;
	if (reserve != -1)
		return;
	if (const Libaudit *library = libaudit())
		reserve = library->open();
}

void trl_leave_way(void)
{
	if (!is_kept_here())
		return;
	CancellationWaits cancellation;
	MutexLock lock(reserve_lock);
	if (keepers == 0 || --keepers > 0)
		return;
	if (!taken)
		close_reserve();
}
