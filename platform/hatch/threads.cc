// The threads of a hatch: how many there are, and what each waits for.
#include <algorithm>
#include <cerrno>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>

#include "hatch/server.h"

namespace hatch {
namespace {

constexpr size_t stack_size = 2U << 20;
constexpr int spare_max = 2;      // threads that wait without end
constexpr int spare_ms = 5'000;   // how long the others wait
constexpr int keeping_ms = 1'000; // how long a thread keeps its memory

// Threads that each hatch may have, however many the others have; and the part of the pool's size for which one thread is
// allowed. What a thread itself takes isn't counted in the pool.
constexpr int threads_min = 8;
constexpr size_t thread_memory = size_t{16} << 20;

// Events that a thread reads at once if no other thread waits for any.
constexpr int events_max = 64;

// How long a thread waits for an event: that depends on how many wait. One that keeps memory gives that back first.
int timeout_of(const Hatch &hatch, const RequestMemory &memory)
{
	if (hatch.in_ring > 0)
		return 0;
	if (memory.map)
		return keeping_ms;
	return hatch.waiting > spare_max ? spare_ms : -1;
}

// Waits for events. Gives their number, or -1 when the thread has to end. The thread counts as waiting on entry, and no longer
// on return.
int wait_for_events(Hatch *hatch, RequestMemory *memory, struct epoll_event *events)
{
	for (;;) {
		const int timeout_ms = timeout_of(*hatch, *memory);
		const int most = timeout_ms == 0 || hatch->waiting <= 1 ? events_max : 1;
		int count = epoll_wait(hatch->events.get(), events, most, timeout_ms);
		int error = errno;
		int waiting = hatch->waiting--;
		if (hatch->revoked || (count == 0 && timeout_ms == spare_ms && waiting > spare_max))
			return -1;
		if (count > 0 || hatch->in_ring > 0)
			return std::max(count, 0);
		if (count == -1 && error != EINTR)
			return -1; // in a forked child, which has closed the set
		if (count == 0 && timeout_ms == keeping_ms) {
			memory->give_up();
			free_reply_memory();
		}
		hatch->waiting++;
	}
}

// Whether a client, or drop(), has ended a connection, with nothing left to read.
bool has_ended(const Peer &peer, uint32_t events)
{
	int unread = 0;
	return (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0 && ioctl(peer.socket.get(), FIONREAD, &unread) == 0 &&
	       unread == 0;
}

// Events, by what they are about.
struct Events {
	Peer *ready[events_max];
	Peer *ended[events_max];
	uint64_t gone[events_max];    // tickets whose clients have hung up
	uint64_t sources[events_max]; // that have something to read
	int ready_count = 0;
	int ended_count = 0;
	int gone_count = 0;
	int sources_count = 0;
	bool timer = false;
	bool listener = false;

	Events(const Hatch &hatch, const struct epoll_event *events, int count)
	{
		for (int i = 0; i < count; i++) {
			const uint64_t what = events[i].data.u64;
			if (tag_of(what) == EventTag::ticket)
				gone[gone_count++] = what >> event_tag_bits;
			else if (tag_of(what) == EventTag::source)
				sources[sources_count++] = what >> event_tag_bits;
			else
				add(hatch, events[i].data.ptr, events[i].events);
		}
	}
	bool has_duties() const { return listener || timer || sources_count > 0; }
	void add(const Hatch &hatch, void *what, uint32_t events)
	{
		if (what == &hatch.timer)
			timer = true;
		else if (what == &hatch.point.listener)
			listener = true;
		else if (what != &hatch.stop && what != &hatch.wake)
			add(static_cast<Peer *>(what), events);
	}
	void add(Peer *peer, uint32_t events)
	{
		if (has_ended(*peer, events))
			ended[ended_count++] = peer;
		else
			ready[ready_count++] = peer;
	}
};

// Makes connections ready, and takes out those that have ended. Gives the one whose turn it is.
Peer *deal_out(Hatch *hatch, Events &events)
{
	MutexLock hold(hatch->lock);
	for (int i = 0; i < events.gone_count; i++) {
		if (Peer *peer = unpark_gone(hatch, events.gone[i]))
			events.add(peer, EPOLLRDHUP); // what it sent before is served
	}
	for (int i = 0; i < events.ready_count; i++)
		enqueue(hatch, events.ready[i]);
	for (int i = 0; i < events.ended_count; i++) {
		leave_queue(events.ended[i]);
		leave(hatch, events.ended[i]);
	}
	if (events.ended_count > 0 && hatch->paused)
		resume_accepting(hatch);
	return events.has_duties() ? nullptr : begin_turn(hatch);
}

// Gives the next connection to serve; NULL when the thread has to end.
Peer *next_peer(Hatch *hatch, RequestMemory *memory)
{
	for (;;) {
		struct epoll_event ready[events_max];
		int count = wait_for_events(hatch, memory, ready);
		if (count < 0)
			return nullptr;
		Events events(*hatch, ready, count);
		Peer *peer = deal_out(hatch, events);
		for (int i = 0; i < events.ended_count; i++)
			delete events.ended[i];
		if (hatch->in_ring > 0 && hatch->waiting > 0)
			(void) eventfd_write(hatch->wake.get(), 1);
		if (peer != nullptr)
			return peer;
		if (events.timer)
			tick(hatch);
		if (events.listener)
			accept_peers(hatch);
		for (int i = 0; i < events.sources_count; i++)
			run_source(hatch, events.sources[i]);
		hatch->waiting++;
	}
}

void work(Hatch *hatch)
{
	RequestMemory memory;
	while (Peer *peer = next_peer(hatch, &memory)) {
		serve_peer(hatch, peer, &memory);
		hatch->waiting++;
	}
}

void *thread_main(void *argument)
{
	auto *hatch = static_cast<Hatch *>(argument);
	(void) pthread_setname_np(pthread_self(), "hatch");
	work(hatch);
	free_reply_memory();
	all_threads--;
	bool last;
	{
		MutexLock hold(hatch->lock);
		last = --hatch->threads == 0 && hatch->orphan;
		hatch->ended.notify_all();
	}
	if (last)
		destroy(hatch);
	return nullptr;
}

} // namespace

int threads_max()
{
	return static_cast<int>(std::min(pool_size() / thread_memory, size_t{HATCH_THREADS_MAX}));
}

int start_thread(Hatch *hatch)
{
	if (hatch->threads >= HATCH_THREADS_MAX || hatch->revoked)
		return 0;
	if (hatch->threads >= threads_min && all_threads >= threads_max())
		return 0;
	pthread_attr_t attributes;
	if (int error = pthread_attr_init(&attributes))
		return error;
	(void) pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
	(void) pthread_attr_setstacksize(&attributes, stack_size);
	(void) pthread_attr_setsigmask_np(&attributes, &hatch->signals);
	pthread_t thread;
	hatch->waiting++; // already now, so that nobody starts another one
	int error = pthread_create(&thread, &attributes, thread_main, hatch);
	(void) pthread_attr_destroy(&attributes);
	if (error == 0)
		hatch->threads++, all_threads++;
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
