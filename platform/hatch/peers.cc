// Connections: accepting, receiving requests, and who is dropped when something runs out.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <new>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "hatch/server.h"

namespace hatch {
namespace {

constexpr int accept_batch = 64;

// A thread waits for one client alone for so long, and so many threads of a hatch do: for the next request of one that
// asked again that soon, and for the rest of a request that is on its way.
constexpr int64_t moment_ns = 5'000'000;
constexpr int64_t expecting_ns = 4 * moment_ns;
constexpr int staying_max = HATCH_THREADS_MAX / 4;
constexpr int expecting_max = 4;

int arm(const Hatch &hatch, int how, int fd, uint32_t events, void *what)
{
	struct epoll_event event = {};
	event.events = events | EPOLLONESHOT;
	event.data.ptr = what;
	return epoll_ctl(hatch.events.get(), how, fd, &event) == -1 ? errno : 0;
}

void run_timer(Hatch *hatch, bool run) REQUIRES(hatch->lock)
{
	if (hatch->timer_runs == run)
		return;
	struct itimerspec each = {};
	each.it_value.tv_sec = each.it_interval.tv_sec = run ? 1 : 0;
	hatch->timer_runs = timerfd_settime(hatch->timer.get(), 0, &each, nullptr) == 0 && run;
}

void link_peer(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock)
{
	peer->next = hatch->peers;
	if (peer->next != nullptr)
		peer->next->prev = peer;
	hatch->peers = peer;
	hatch->peer_count++;
}

void unlink_peer(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock)
{
	if (peer->prev != nullptr)
		peer->prev->next = peer->next;
	else
		hatch->peers = peer->next;
	if (peer->next != nullptr)
		peer->next->prev = peer->prev;
	hatch->peer_count--;
}

// Ends a connection from outside: its owner-to-be closes it. What an idle one has sent already is still served, and
// what it sends from now on fails at its end, so that no call is lost.
void drop(Peer *peer)
{
	(void) shutdown(peer->socket.get(), peer->held > 0 ? SHUT_RDWR : SHUT_RD);
	peer->since = INT64_MAX; // not the next one again
}

enum class Only { holders, any };

// Drops the connection whose last call ended first, of those that no thread deals with.
void drop_oldest(Hatch *hatch, Only which, const Peer *but) REQUIRES(hatch->lock)
{
	Peer *oldest = nullptr;
	for (Peer *peer = hatch->peers; peer != nullptr; peer = peer->next) {
		if (peer == but || peer->in_hand || (which == Only::holders && peer->held == 0))
			continue;
		if (oldest == nullptr || peer->since < oldest->since)
			oldest = peer;
	}
	if (oldest != nullptr && oldest->since != INT64_MAX)
		drop(oldest);
}

// Connections take at most half of the descriptors that the process may have: handlers need some too.
bool is_crowded(const Hatch &hatch) REQUIRES(hatch.lock)
{
	struct rlimit limit;
	return getrlimit(RLIMIT_NOFILE, &limit) == 0 && hatch.peer_count > limit.rlim_cur / 2;
}

void set_moment(int fd)
{
	timeval moment = {0, moment_ns / 1000};
	(void) setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &moment, sizeof moment);
}

void add_peer(Hatch *hatch, Fd socket) REQUIRES(hatch->lock)
{
	int fd = socket.get();
	struct ucred connector = {};
	socklen_t len = sizeof connector;
	if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &connector, &len) == -1)
		return; // whose it is can't be told
	auto *peer = new (std::nothrow) Peer(std::move(socket), connector.uid);
	if (peer == nullptr)
		return;
	peer->piece = prepare_sending(fd);
	set_moment(fd);
	peer->since = now_ns();
	if (arm(*hatch, EPOLL_CTL_ADD, fd, EPOLLIN, peer) != 0) {
		delete peer;
		return;
	}
	link_peer(hatch, peer); // whoever gets its first event needs the lock to let it go
	if (is_crowded(*hatch))
		drop_oldest(hatch, Only::any, peer);
}

bool accept_one(Hatch *hatch) REQUIRES(hatch->lock)
{
	Fd socket(accept4(hatch->place.listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
	if (socket) {
		add_peer(hatch, std::move(socket));
		return true;
	}
	if (errno == EINTR || errno == ECONNABORTED)
		return true;
	if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
		// Nothing is accepted until a connection is closed, or the timer says to try again.
		drop_oldest(hatch, Only::any, nullptr);
		hatch->paused = true;
		run_timer(hatch, true);
	}
	return false;
}

void resume_accepting(Hatch *hatch) REQUIRES(hatch->lock)
{
	hatch->paused = false;
	if (hatch->place.listener)
		(void) arm(*hatch, EPOLL_CTL_MOD, hatch->place.listener.get(), EPOLLIN, &hatch->place.listener);
}

// A refused request: the connection serves on, if the request has been read to its end.
void refuse(Hatch *hatch, Peer *peer, Refusal refusal, bool whole)
{
	send_reply(hatch, peer, refusal, nullptr, 0);
	peer->finished |= !whole;
}

void complete(Hatch *hatch, Peer *peer, char *data, size_t size)
{
	if (size < hatch->data_min)
		return refuse(hatch, peer, Refusal::too_short, true);
	if (hatch->revoked) {
		peer->finished = true;
		return;
	}
	ensure_waiting(hatch);
	run_call(hatch, peer, data, size);
}

bool same_user(const struct ucred &a, const struct ucred &b)
{
	return a.uid == b.uid && a.gid == b.gid;
}

// Looks at what receiving gave. False if there is nothing to go on with now, or ever.
bool received(Peer *peer, const Message &message)
{
	if (message.size > 0 && message.whole && message.signed_)
		return true;
	bool later = message.size == -1 && (errno == EAGAIN || errno == EINTR);
	peer->finished |= !later;
	return false;
}

// The right to wait for one client alone, which few threads have at a time.
class Turn {
public:
	Turn(std::atomic<int> *taken, int most) : taken_(taken), has_(taken->fetch_add(1) < most) {}
	Turn(const Turn &) = delete;
	Turn &operator=(const Turn &) = delete;
	~Turn() { taken_->fetch_sub(1); }
	explicit operator bool() const { return has_; }

private:
	std::atomic<int> *taken_;
	bool has_;
};

// How far a request that comes in pieces is given pages: by as much again as is there, so that one that comes byte by
// byte costs little.
size_t ahead_of(const Peer &peer)
{
	return std::min(peer.request_size, peer.request_have + std::clamp(peer.request_have, page_size, piece_max));
}

void fill_to(char *data, size_t end, size_t *filled)
{
	if (end <= *filled)
		return;
	fill_pages(data + *filled, end - *filled);
	*filled = end;
}

// Has a request of its own memory pay for what it takes by now, and makes room for the next piece; a claim costs no
// addresses. False, and the request is refused, if that can't be had.
bool make_room(Hatch *hatch, Peer *peer)
{
	const size_t room = std::min(peer->request_size, peer->request_have + piece_max);
	if (hold(hatch, peer, ahead_of(*peer)) &&
	    (room <= peer->request.size() || peer->request.grow(std::min(peer->request_size, 2 * room))))
		return true;
	refuse(hatch, peer, Refusal::no_memory, false);
	return false;
}

// Receives what has arrived of a request, and what arrives until `deadline`. True if that is all of it; otherwise the
// peer is finished, or the rest is to come.
bool receive_pieces(Hatch *hatch, Peer *peer, char *data, size_t *filled, int64_t deadline)
{
	while (peer->request_have < peer->request_size) {
		if (peer->request) {
			if (!make_room(hatch, peer))
				return false;
			data = peer->request.data();
		}
		fill_to(data, ahead_of(*peer), filled);
		iovec part = {data + peer->request_have, peer->request_size - peer->request_have};
		int flags = deadline > 0 && now_ns() < deadline ? 0 : MSG_DONTWAIT;
		Message message = receive_message(peer->socket.get(), &part, 1, flags);
		if (!received(peer, message))
			return false;
		// One request has one sender.
		if (message.descriptors || !same_user(message.sender, peer->sender)) {
			peer->finished = true;
			return false;
		}
		peer->request_have += static_cast<size_t>(message.size);
	}
	return !peer->request || make_room(hatch, peer);
}

// Waits a little for the rest of a request. Only for the first time: whoever was too slow is waited for with all others.
bool receive_soon(Hatch *hatch, Peer *peer, char *data, size_t *filled)
{
	Turn turn(&hatch->expecting, expecting_max);
	return receive_pieces(hatch, peer, data, filled, turn && hatch->waiting > 0 ? now_ns() + expecting_ns : 0);
}

// The request counts until its handler is done; by then the peer may hold the rest of a reply instead.
void complete_own(Hatch *hatch, Peer *peer)
{
	Mapping request = std::move(peer->request);
	complete(hatch, peer, request.data(), peer->request_size);
	if (!peer->rest)
		unhold(hatch, peer);
}

void receive_rest(Hatch *hatch, Peer *peer)
{
	size_t filled = peer->request_have;
	if (receive_pieces(hatch, peer, peer->request.data(), &filled, 0))
		complete_own(hatch, peer);
}

// Gives a request memory of its own, with what has arrived of it. False, and the request is refused, if there is none.
bool set_apart(Hatch *hatch, Peer *peer, const char *data)
{
	if (peer->request_size > peer->charge.most() || !hold(hatch, peer, ahead_of(*peer)) ||
	    !peer->request.map(std::min(peer->request_size, peer->request_have + piece_max), Fill::on_use)) {
		refuse(hatch, peer, Refusal::no_memory, false);
		return false;
	}
	fill_pages(peer->request.data(), peer->request_have);
	memcpy(peer->request.data(), data, peer->request_have);
	return true;
}

void receive_large(Hatch *hatch, Peer *peer, const char *first)
{
	if (!set_apart(hatch, peer, first))
		return;
	size_t filled = peer->request_have;
	if (receive_soon(hatch, peer, peer->request.data(), &filled))
		complete_own(hatch, peer);
}

void receive_long(Hatch *hatch, Peer *peer, RequestMemory *memory)
{
	if (peer->request_size > memory->room())
		return receive_large(hatch, peer, memory->payload());
	if (receive_soon(hatch, peer, memory->payload(), &memory->filled))
		complete(hatch, peer, memory->payload(), peer->request_size);
	else if (!peer->finished)
		(void) set_apart(hatch, peer, memory->payload());
}

// Receives the first message of a request. False if there was none.
bool receive_first(Peer *peer, RequestMemory *memory, int flags, Message *message)
{
	if (!memory->map && !memory->map.map(memory_kept, Fill::on_use)) {
		peer->finished = true;
		return false;
	}
	iovec part = {memory->map.data(), head_size + piece_max};
	*message = receive_message(peer->socket.get(), &part, 1, flags);
	return received(peer, *message);
}

// Serves a request whose first message has arrived, as far as it goes.
void serve_request(Hatch *hatch, Peer *peer, RequestMemory *memory, const Message &message)
{
	RequestHead head = {};
	memcpy(&head, memory->map.data(), head_size);
	size_t have = static_cast<size_t>(message.size) - head_size;
	if (message.size < static_cast<ssize_t>(head_size) || head.magic != wire_magic || head.zero != 0 ||
	    have > head.size) {
		peer->finished = true;
		return;
	}
	peer->sender = message.sender;
	peer->request_size = head.size;
	peer->request_have = have;
	if (message.descriptors)
		refuse(hatch, peer, Refusal::descriptors, have == head.size);
	else if (have == head.size)
		complete(hatch, peer, memory->payload(), have);
	else
		receive_long(hatch, peer, memory);
}

bool is_idle(const Peer &peer)
{
	return !peer.finished && !peer.request && !peer.rest;
}

// Waits a little for the next request of a client that asks again and again, which is cheaper than among all others.
// Meanwhile it counts as idle, and may be dropped.
bool receive_next(Hatch *hatch, Peer *peer, RequestMemory *memory, Message *message)
{
	if (hatch->waiting == 0)
		return false;
	peer->since = now_ns();
	peer->in_hand = false;
	bool came = receive_first(peer, memory, 0, message);
	peer->in_hand = true;
	return came;
}

// Has a connection wait among all others. It may then be another thread's at once, which closes it with the lock held,
// and so not before this one is done with it.
bool let_go(Hatch *hatch, Peer *peer)
{
	uint32_t events = peer->rest ? EPOLLOUT : EPOLLIN;
	int fd = peer->socket.get();
	MutexLock hold_lock(hatch->lock);
	peer->in_hand = false;
	return arm(*hatch, EPOLL_CTL_MOD, fd, events, peer) == 0;
}

// Serves a client as long as it asks again soon, if it did so before.
void serve_requests(Hatch *hatch, Peer *peer, RequestMemory *memory)
{
	bool stays = peer->called && now_ns() - peer->since < moment_ns;
	Message message;
	if (!receive_first(peer, memory, MSG_DONTWAIT, &message))
		return;
	peer->called = true;
	serve_request(hatch, peer, memory, message);
	if (!stays)
		return;
	Turn turn(&hatch->staying, staying_max);
	while (turn && is_idle(*peer) && receive_next(hatch, peer, memory, &message))
		serve_request(hatch, peer, memory, message);
}

} // namespace

int64_t now_ns()
{
	struct timespec now = {};
	(void) clock_gettime(CLOCK_MONOTONIC, &now);
	return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

int watch_listener(Hatch *hatch)
{
	return arm(*hatch, EPOLL_CTL_ADD, hatch->place.listener.get(), EPOLLIN, &hatch->place.listener);
}

void accept_peers(Hatch *hatch)
{
	MutexLock hold_lock(hatch->lock);
	if (!hatch->place.listener)
		return;
	for (int i = 0; i < accept_batch; i++) {
		if (!accept_one(hatch))
			break;
	}
	if (!hatch->paused)
		resume_accepting(hatch);
}

void serve_peer(Hatch *hatch, Peer *peer, RequestMemory *memory)
{
	// What the last owner left is seen by this one: it wrote `in_hand` last.
	(void) peer->in_hand.exchange(true);
	if (peer->rest)
		send_rest(hatch, peer);
	else if (peer->request)
		receive_rest(hatch, peer);
	else
		serve_requests(hatch, peer, memory);
	if (peer->held == 0)
		peer->since = now_ns();
	if (peer->finished || !let_go(hatch, peer))
		close_peer(hatch, peer);
}

void close_peer(Hatch *hatch, Peer *peer)
{
	unhold(hatch, peer);
	MutexLock hold_lock(hatch->lock);
	unlink_peer(hatch, peer);
	delete peer;
	if (hatch->paused)
		resume_accepting(hatch);
}

void tick(Hatch *hatch)
{
	MutexLock hold_lock(hatch->lock);
	bool needed = hatch->paused;
	int64_t too_old = now_ns() - held_ns_max;
	for (Peer *peer = hatch->peers; peer != nullptr; peer = peer->next) {
		if (peer->held == 0)
			continue;
		needed = true;
		if (!peer->in_hand && peer->since < too_old)
			drop(peer);
	}
	if (hatch->paused)
		resume_accepting(hatch);
	if (!needed)
		run_timer(hatch, false);
}

void hang_up(Hatch *hatch)
{
	for (Peer *peer = hatch->peers; peer != nullptr; peer = peer->next)
		(void) shutdown(peer->socket.get(), peer->in_hand ? SHUT_RD : SHUT_RDWR);
}

bool hold(Hatch *hatch, Peer *peer, size_t bytes)
{
	if (!peer->charge.resize(bytes))
		return false;
	size_t before = peer->held.exchange(bytes);
	if (before == 0)
		peer->since = now_ns();
	hatch->held += bytes - before;
	MutexLock hold_lock(hatch->lock);
	run_timer(hatch, true);
	if (hatch->held > held_max)
		drop_oldest(hatch, Only::holders, peer);
	return true;
}

void unhold(Hatch *hatch, Peer *peer)
{
	size_t bytes = peer->held.exchange(0);
	if (bytes == 0)
		return;
	hatch->held -= bytes;
	(void) peer->charge.resize(0);
}

} // namespace hatch
