#include "hatch/drain.h"

#include "hatch/record.h"
#include "hatch/server.h"

namespace hatch {
namespace {

constexpr int64_t silent_ns = 2 * second_ns;
constexpr int64_t pause_ns = 2 * millisecond_ns;

bool is_at_work(const Hatch &hatch, int64_t now) REQUIRES(hatch.lock)
{
	for (const Peer *peer = hatch.peers.first; peer != nullptr; peer = peer->all.next)
		if (peer->in_hand || peer->in_queue == Queue::ready || peer->held > 0 || peer->since > now - silent_ns)
			return true;
	return false;
}

// Whether there is nothing to wait for. A dropped connection counts until it is closed.
bool is_drained(int fd)
{
	FoundHatch found(fd);
	if (!found)
		return true;
	MutexLock hold(found->lock);
	return !is_at_work(*found, now_ns());
}

} // namespace

void drain(int fd, int seconds)
{
	{
		FoundHatch found(fd);
		if (!found)
			return;
		MutexLock hold(found->lock);
		unlock_record(found->point.record.get());
	}
	const Deadline end = Deadline::in(seconds * second_ns);
	while (!is_drained(fd) && !end.has_passed())
		sleep_ns(pause_ns);
}

} // namespace hatch
