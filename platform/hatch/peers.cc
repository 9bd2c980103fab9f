// Connections: accepting them, what they hold, and which is dropped when something runs out.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include "hatch/server.h"

namespace hatch {
namespace {

constexpr int accept_batch = 64;

// The bound of what hatches hold for clients and can take back: requests that aren't finished, replies that aren't read.
constexpr size_t held_max = 256U << 20;
constexpr int64_t held_ns_max = 60'000'000'000;

void run_timer(Hatch *hatch, bool run) REQUIRES(hatch->lock)
{
	if (hatch->timer_runs == run)
		return;
	struct itimerspec each = {};
	each.it_value.tv_sec = each.it_interval.tv_sec = run ? 1 : 0;
	hatch->timer_runs = timerfd_settime(hatch->timer.get(), 0, &each, nullptr) == 0 && run;
}

// Connections take at most half of the descriptors that the process may have: handlers need some too.
size_t connections_max()
{
	struct rlimit limit;
	return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur / 2 : SIZE_MAX;
}

// Takes a connection in. Its event is armed last: from then on another thread may have it.
bool add_peer(Hatch *hatch, Fd socket)
{
	int fd = socket.get();
	struct ucred connector = {};
	socklen_t len = sizeof connector;
	if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &connector, &len) == -1)
		return false; // nobody to charge
	auto *peer = new (std::nothrow) Peer(std::move(socket), connector.uid, connector.uid);
	if (peer == nullptr)
		return false;
	bool joined;
	{
		MutexLock hold_lock(hatch->lock);
		joined = join(hatch, peer);
		if (joined) {
			peer->in_hand = false;
			become_idle(peer);
		}
	}
	if (joined && arm(*hatch, EPOLL_CTL_ADD, fd, EPOLLIN | EPOLLRDHUP, event_of(peer)) == 0) {
		if (all_live > connections_max())
			evict_connection(peer);
		return true;
	}
	if (joined) {
		MutexLock hold_lock(hatch->lock);
		leave_queue(peer);
		leave(hatch, peer);
	}
	delete peer;
	return false;
}

int accept_socket(Hatch *hatch, Fd *socket)
{
	MutexLock hold_accept(hatch->accept_lock);
	if (hatch->listening == -1)
		return EAGAIN;
	socket->reset(accept4(hatch->listening, nullptr, nullptr, SOCK_CLOEXEC));
	return *socket ? 0 : errno;
}

// Nothing is accepted until a connection is closed, or until the timer's next tick.
void pause_accepting(Hatch *hatch)
{
	evict_connection(nullptr);
	MutexLock hold_lock(hatch->lock);
	hatch->paused = true;
	run_timer(hatch, true);
}

// False: stop for now.
bool accept_one(Hatch *hatch)
{
	Fd socket;
	switch (accept_socket(hatch, &socket)) {
	case 0:
		// At the bound each new connection evicts another, which is closed before the next one is accepted.
		return add_peer(hatch, std::move(socket)) && all_live < connections_max();
	case EINTR:
	case ECONNABORTED:
		return true;
	case EMFILE:
	case ENFILE:
	case ENOBUFS:
	case ENOMEM:
		pause_accepting(hatch);
		return false;
	default:
		return false;
	}
}

} // namespace

int arm(const Hatch &hatch, int how, int fd, uint32_t events, uint64_t what)
{
	struct epoll_event event = {};
	event.events = events | EPOLLONESHOT;
	event.data.u64 = what;
	return epoll_ctl(hatch.events.get(), how, fd, &event) == -1 ? errno : 0;
}

int watch_listener(Hatch *hatch)
{
	MutexLock hold_accept(hatch->accept_lock);
	hatch->listening = hatch->point.listener.get();
	return arm(*hatch, EPOLL_CTL_ADD, hatch->listening, EPOLLIN, event_of(&hatch->point.listener));
}

void forget_listener(Hatch *hatch)
{
	MutexLock hold_accept(hatch->accept_lock);
	hatch->listening = -1;
}

void resume_accepting(Hatch *hatch)
{
	hatch->paused = false;
	MutexLock hold_accept(hatch->accept_lock);
	if (hatch->listening != -1)
		(void) arm(*hatch, EPOLL_CTL_MOD, hatch->listening, EPOLLIN, event_of(&hatch->point.listener));
}

void accept_peers(Hatch *hatch)
{
	for (int i = 0; i < accept_batch; i++) {
		if (!accept_one(hatch))
			break;
	}
	MutexLock hold_lock(hatch->lock);
	if (!hatch->paused)
		resume_accepting(hatch);
}

// The thread that reads the resulting event closes it. What an idle client has sent already is still served, and what it
// sends from now on fails on its side, so that no call is lost. The caller of an unfinished request, and
// of a parked call, gets a refusal.
void drop(Hatch *hatch, Peer *peer)
{
	if (peer->in_queue == Queue::parked)
		let_go(hatch, peer);
	else if (!peer->dedicated && peer->request)
		send_refusal(*peer, Refusal::no_memory);
	(void) shutdown(peer->socket.get(), peer->held > 0 ? SHUT_RDWR : SHUT_RD);
	count_out(hatch, peer);
}

void tick(Hatch *hatch)
{
	MutexLock hold_lock(hatch->lock);
	const int64_t too_old = now_ns() - held_ns_max;
	for (const auto &row : hatch->most_held.rows) {
		for (Account *account = row.first, *next; account != nullptr; account = next) {
			next = account->by_held.next; // dropping its last one takes it out of the row
			Peer *peer = account->holding.first;
			while (peer != nullptr && peer->held_since < too_old) {
				Peer *old = peer;
				peer = peer->hold.next;
				if (!old->in_hand)
					drop(hatch, old);
			}
		}
	}
	if (hatch->paused)
		resume_accepting(hatch);
	if (hatch->held == 0)
		run_timer(hatch, false);
}

void hang_up(Hatch *hatch)
{
	for (Peer *peer = hatch->peers.first; peer != nullptr; peer = peer->all.next)
		(void) shutdown(peer->socket.get(), peer->in_hand ? SHUT_RD : SHUT_RDWR);
}

bool hold(Hatch *hatch, Peer *peer, size_t bytes)
{
	if (!peer->charge.resize(bytes))
		return false;
	{
		MutexLock hold_lock(hatch->lock);
		if (peer->dropped)
			return true; // it is about to end
		set_held(hatch, peer, bytes);
		run_timer(hatch, true);
	}
	if (all_held > std::min(held_max, pool_size() / 4))
		evict_held();
	return true;
}

void unhold(Hatch *hatch, Peer *peer)
{
	if (peer->charge.bytes() == 0)
		return;
	{
		MutexLock hold_lock(hatch->lock);
		set_held(hatch, peer, 0);
	}
	(void) peer->charge.resize(0);
}

} // namespace hatch
