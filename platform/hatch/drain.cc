#include "hatch/drain.h"

#include <ctime>

#include "hatch/record.h"
#include "hatch/server.h"

namespace hatch {
namespace {

constexpr int64_t silent_ns = 2 * second_ns;
constexpr timespec pause = {0, 2'000'000};

bool is_at_work(const Hatch &hatch, int64_t now) REQUIRES(hatch.lock)
{
	for (const Peer *peer = hatch.peers.first; peer != nullptr; peer = peer->all.next)
		if (peer->in_hand || peer->standing == Standing::waiting || peer->held > 0 ||
		    peer->since > now - silent_ns)
			return true;
	return false;
}

// Whether there is nothing to wait for. A connection that was dropped on purpose counts until it is closed.
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
		unlock_record(found->place.record.get());
	}
	const int64_t end = now_ns() + seconds * second_ns;
	while (!is_drained(fd) && now_ns() < end)
		(void) nanosleep(&pause, nullptr);
}

} // namespace hatch
