// The threads of a hatch: how many there are, and what each waits for.
#include <cerrno>
#include <pthread.h>
#include <sys/epoll.h>

#include "hatch/server.h"

namespace hatch {
namespace {

constexpr size_t stack_size = 2U << 20;
constexpr int spare_max = 2;    // threads that wait for ever
constexpr int spare_ms = 5'000; // for how long the others do

// Waits for something to do and gives what it is about; NULL when the thread has to end. The thread counts as waiting
// when it comes here, and no longer when it leaves.
void *next_event(Hatch *hatch)
{
	for (;;) {
		struct epoll_event event;
		int count = epoll_wait(hatch->events.get(), &event, 1, hatch->waiting > spare_max ? spare_ms : -1);
		int error = errno;
		int waiting = hatch->waiting--;
		if (hatch->revoked || (count == 0 && waiting > spare_max))
			return nullptr;
		if (count == 1)
			return event.data.ptr;
		if (count == -1 && error != EINTR)
			return nullptr; // closed by a fork that this thread came through
		hatch->waiting++;
	}
}

void work(Hatch *hatch)
{
	RequestMemory memory;
	while (void *what = next_event(hatch)) {
		if (what == &hatch->timer)
			tick(hatch);
		else if (what == &hatch->place.listener)
			accept_peers(hatch);
		else if (what != &hatch->stop)
			serve_peer(hatch, static_cast<Peer *>(what), &memory);
		hatch->waiting++;
	}
}

void *thread_main(void *argument)
{
	auto *hatch = static_cast<Hatch *>(argument);
	(void) pthread_setname_np(pthread_self(), "hatch");
	work(hatch);
	free_reply_memory();
	bool last;
	{
		MutexLock hold(hatch->lock);
		last = --hatch->threads == 0 && hatch->orphan;
		(void) pthread_cond_broadcast(&hatch->ended);
	}
	if (last)
		destroy(hatch);
	return nullptr;
}

} // namespace

int start_thread(Hatch *hatch)
{
	if (hatch->threads >= HATCH_THREADS_MAX || hatch->revoked)
		return 0;
	pthread_attr_t attributes;
	if (int error = pthread_attr_init(&attributes))
		return error;
	(void) pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
	(void) pthread_attr_setstacksize(&attributes, stack_size);
	(void) pthread_attr_setsigmask_np(&attributes, &hatch->signals);
	pthread_t thread;
	hatch->waiting++; // a thread on its way is as good as there: nobody needs to start another one
	int error = pthread_create(&thread, &attributes, thread_main, hatch);
	(void) pthread_attr_destroy(&attributes);
	if (error == 0)
		hatch->threads++;
	else
		hatch->waiting--;
	return error;
}

void ensure_waiting(Hatch *hatch)
{
	if (hatch->waiting > 0)
		return;
	MutexLock hold(hatch->lock);
	(void) start_thread(hatch); // without one, calls wait until this handler ends
}

} // namespace hatch
