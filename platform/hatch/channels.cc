// Channels: the handlers of a hatch beside the first one. They are only ever added, so that a request finds its own without a lock.
#include <cerrno>
#include <new>

#include "base/fail.h"
#include "hatch/server.h"

namespace hatch {
namespace {

int add(Hatch *hatch, uint32_t number, hatch_handler_t *handler, void *cookie, unsigned int flags)
{
	MutexLock hold(hatch->lock); // against another one that is added
	Channel *last = &hatch->main;
	for (Channel *channel = last; channel != nullptr; channel = channel->next) {
		if (channel->number == number)
			return EEXIST;
		last = channel;
	}
	auto *added = new (std::nothrow) Channel{number, handler, cookie, flags};
	if (added == nullptr)
		return ENOMEM;
	last->next = added;
	return 0;
}

} // namespace

const Channel *find_channel(const Hatch &hatch, uint32_t number)
{
	const Channel *channel = &hatch.main;
	while (channel != nullptr && channel->number != number)
		channel = channel->next;
	return channel;
}

void forget_channels(Hatch *hatch)
{
	for (Channel *channel = hatch->main.next; channel != nullptr;) {
		Channel *next = channel->next;
		delete channel;
		channel = next;
	}
}

} // namespace hatch

int hatch_channel(int fd, uint32_t channel, hatch_handler_t *handler, void *cookie, unsigned int flags)
{
	CancellationWaits cancellation;
	if (handler == nullptr || (flags & ~HATCH_NEVER_WAITS) != 0)
		return fail_with(EINVAL);
	const hatch::FoundHatch found(fd);
	return fail_with(found ? hatch::add(&*found, channel, handler, cookie, flags) : EBADF);
}
