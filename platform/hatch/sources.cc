// Sources: descriptors of the server's that a hatch's threads wait for beside their clients.
//
// An event names its source by a number, so that one that was removed meanwhile is found to be gone. Its event is armed once,
// and again after each run.
#include <cerrno>
#include <new>
#include <sys/epoll.h>

#include "base/fail.h"
#include "hatch/server.h"

namespace hatch {
namespace {

template <typename Is>
Source **find(Hatch *hatch, Is is) REQUIRES(hatch->lock)
{
	Source **link = &hatch->sources;
	while (*link != nullptr && !is(**link))
		link = &(*link)->next;
	return link;
}

Source **find_numbered(Hatch *hatch, uint64_t number) REQUIRES(hatch->lock)
{
	return find(hatch, [number](const Source &source) { return source.number == number; });
}

// A removed one keeps its place while it runs.
Source **find_of(Hatch *hatch, int fd) REQUIRES(hatch->lock)
{
	return find(hatch, [fd](const Source &source) { return source.fd == fd && !source.removed; });
}

void forget(Source **link)
{
	Source *source = *link;
	*link = source->next;
	delete source;
}

int add(Hatch *hatch, int fd, void (*ready)(void *), void *cookie) REQUIRES(hatch->lock)
{
	if (*find_of(hatch, fd) != nullptr)
		return EEXIST;
	auto *source = new (std::nothrow) Source{hatch->sources, ++hatch->sources_made, fd, ready, cookie};
	if (source == nullptr)
		return ENOMEM;
	if (int error = arm(*hatch, EPOLL_CTL_ADD, fd, EPOLLIN, event_of(*source))) {
		delete source;
		return error;
	}
	hatch->sources = source;
	return 0;
}

// Waits for a run that another thread is at.
int remove(Hatch *hatch, int fd) REQUIRES(hatch->lock)
{
	Source **link = find_of(hatch, fd);
	if (*link == nullptr)
		return ENOENT;
	Source *source = *link;
	(void) epoll_ctl(hatch->events.get(), EPOLL_CTL_DEL, fd, nullptr);
	if (!source->runs) {
		forget(link);
		return 0;
	}
	const uint64_t number = source->number;
	source->removed = true;
	if (pthread_equal(source->runner, pthread_self()) != 0)
		return 0;
	while (*find_numbered(hatch, number) != nullptr)
		hatch->ended.wait(hatch->lock);
	return 0;
}

// Doesn't hold the list of hatches while it waits: what runs may need that.
int change(int fd, int source, void (*ready)(void *), void *cookie)
{
	Hatch *hatch;
	{
		const FoundHatch found(fd);
		if (!found)
			return EBADF;
		hatch = &*found;
		MutexLock hold_lock(hatch->lock);
		hatch->uses++;
	}
	int error;
	{
		MutexLock hold_lock(hatch->lock);
		error = ready == nullptr ? remove(hatch, source) : add(hatch, source, ready, cookie);
	}
	end_use(hatch);
	return error;
}

} // namespace

void run_source(Hatch *hatch, uint64_t number)
{
	Source *source;
	{
		MutexLock hold_lock(hatch->lock);
		source = *find_numbered(hatch, number);
		if (source == nullptr)
			return;
		source->runs = true;
		source->runner = pthread_self();
	}
	ensure_waiting(hatch);
	source->ready(source->cookie);
	MutexLock hold_lock(hatch->lock);
	source->runs = false;
	if (!source->removed) {
		(void) arm(*hatch, EPOLL_CTL_MOD, source->fd, EPOLLIN, event_of(*source)); // it was armed before
		return;
	}
	forget(find_numbered(hatch, number));
	hatch->ended.notify_all();
}

void forget_sources(Hatch *hatch)
{
	while (hatch->sources != nullptr)
		forget(&hatch->sources);
}

} // namespace hatch

int hatch_source(int fd, int source, void (*ready)(void *cookie), void *cookie)
{
	CancellationWaits cancellation;
	return fail_with(hatch::change(fd, source, ready, cookie));
}
