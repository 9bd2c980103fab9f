// Requests: received as far as they have come, and handed to the handler when they are whole.
//
// A small request is received in the thread's own memory. One that is larger than that, or whose rest doesn't come within
// some milliseconds, gets memory of its own (Peer::request), which its user is charged for, and waits among all others.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "hatch/server.h"

namespace hatch {
namespace {

// How long a thread waits for one client alone, and how many threads of a hatch may do so: dedicated ones for the next request
// of a client that asked again that soon, receiving ones for the rest of a request. One user may have a quarter of them,
// and half of its threads.
constexpr int64_t dedicated_ns = 5 * millisecond_ns;
constexpr int64_t receiving_ns = 20 * millisecond_ns;
constexpr int dedicated_max = HATCH_THREADS_MAX / 4;
constexpr int receiving_max = 4;

// Messages of one request that are received in one turn.
constexpr int messages_max = 16;

// Refuses a request. The connection serves on if the request has been read to its end.
void refuse(Hatch *hatch, Peer *peer, Refusal refusal, bool whole)
{
	send_reply(hatch, peer, refusal, nullptr, 0);
	peer->finished |= !whole;
}

void complete(Hatch *hatch, Peer *peer, char *data, size_t size)
{
	const Channel &channel = *peer->channel;
	if (channel.number == 0 && size < hatch->data_min)
		return refuse(hatch, peer, Refusal::too_short, true);
	if (hatch->revoked) {
		peer->finished = true;
		return;
	}
	if ((channel.flags & HATCH_NEVER_WAITS) == 0)
		ensure_waiting(hatch);
	run_call(hatch, peer, data, size);
}

bool same_user(const struct ucred &a, const struct ucred &b)
{
	return a.uid == b.uid && a.gid == b.gid;
}

// Whether a message has come. If none can come any more, the peer is finished.
bool received(Peer *peer, const Message &message)
{
	if (message.size > 0 && message.whole && message.signed_)
		return true;
	bool later = message.size == -1 && (errno == EAGAIN || errno == EINTR);
	peer->finished |= !later;
	return false;
}

// A thread's permission to wait for one client alone. Few threads have it at a time, and fewer for one user.
class WaitSlot {
public:
	WaitSlot(std::atomic<int> *all, int most, std::atomic<int> *of_user, const Account &account)
	    : all_(all), of_user_(of_user), has_(all->fetch_add(1) < most)
	{
		const int most_of_user =
		    account.exempt ? most : std::min(std::max(most / 4, 1), threads_share(account) / 2);
		has_ = of_user->fetch_add(1) < most_of_user && has_;
	}
	WaitSlot(const WaitSlot &) = delete;
	WaitSlot &operator=(const WaitSlot &) = delete;
	~WaitSlot()
	{
		all_->fetch_sub(1);
		of_user_->fetch_sub(1);
	}
	explicit operator bool() const { return has_; }

private:
	std::atomic<int> *all_;
	std::atomic<int> *of_user_;
	bool has_;
};

// While it lives, the thread is dedicated to a connection. That is among the idle ones of its user, so that it can be dropped.
class DedicatedThread {
public:
	DedicatedThread(Hatch *hatch, Peer *peer) : hatch_(hatch), peer_(peer)
	{
		MutexLock hold_lock(hatch->lock);
		become_idle(peer);
		peer->dedicated = true;
	}
	DedicatedThread(const DedicatedThread &) = delete;
	DedicatedThread &operator=(const DedicatedThread &) = delete;
	~DedicatedThread()
	{
		MutexLock hold_lock(hatch_->lock);
		leave_queue(peer_);
		peer_->dedicated = false;
	}

private:
	Hatch *hatch_;
	Peer *peer_;
};

// How far a request that comes in pieces gets its pages: as much again as has come, so that a request that comes byte by byte
// costs little.
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

// Charges a request with memory of its own for what it takes by now, and makes room for its next piece: the size that it
// claims costs nothing. False, and the request is refused, if that can't be had.
bool make_room(Hatch *hatch, Peer *peer)
{
	const size_t room = std::min(peer->request_size, peer->request_have + piece_max);
	if (hold(hatch, peer, ahead_of(*peer)) &&
	    (room <= peer->request.size() || peer->request.grow(std::min(peer->request_size, 2 * room))))
		return true;
	refuse(hatch, peer, Refusal::no_memory, false);
	return false;
}

// Receives what has arrived of a request, and what arrives until `end`. True if that is all of it; otherwise the
// peer is finished, or the rest is to come.
bool receive_pieces(Hatch *hatch, Peer *peer, char *data, size_t *filled, const Deadline &end)
{
	for (int messages = 0; peer->request_have < peer->request_size; messages++) {
		if (messages == messages_max)
			return false; // to the end of the queue
		if (peer->request) {
			if (!make_room(hatch, peer))
				return false;
			data = peer->request.data();
		}
		fill_to(data, ahead_of(*peer), filled);
		iovec part = {data + peer->request_have, peer->request_size - peer->request_have};
		const int flags = end.has_passed() ? MSG_DONTWAIT : 0;
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

// Waits a little for the rest of a request. Once only: a client that was too slow is waited for in the epoll set.
bool receive_soon(Hatch *hatch, Peer *peer, char *data, size_t *filled)
{
	const WaitSlot slot(&hatch->receiving, receiving_max, &peer->account->receiving, *peer->account);
	const bool waits = slot && hatch->waiting > 0;
	return receive_pieces(hatch, peer, data, filled, waits ? Deadline::in(receiving_ns) : Deadline::over());
}

// The request counts until its handler is done; by then the peer may hold the rest of a reply instead.
void complete_own(Hatch *hatch, Peer *peer)
{
	Mapping request = std::move(peer->request);
	{
		MutexLock hold_lock(hatch->lock);
		set_held(hatch, peer, 0); // it can't be taken back any more; it stays charged
	}
	complete(hatch, peer, request.data(), peer->request_size);
	if (!peer->rest)
		unhold(hatch, peer);
}

void receive_rest(Hatch *hatch, Peer *peer)
{
	size_t filled = peer->request_have;
	if (receive_pieces(hatch, peer, peer->request.data(), &filled, Deadline::over()))
		complete_own(hatch, peer);
	else
		note_part(peer->account);
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

// What isn't needed for a connection that is only made and closed again.
void prepare(Peer *peer)
{
	const timeval moment = {0, dedicated_ns / 1000};
	(void) setsockopt(peer->socket.get(), SOL_SOCKET, SO_RCVTIMEO, &moment, sizeof moment);
	peer->piece = prepare_sending(peer->socket.get());
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
	if (!received(peer, *message))
		return false;
	if (peer->piece == 0)
		prepare(peer);
	return true;
}

// The sender of a message must be the user who connected. Otherwise somebody could get a program of root's to write to a
// connection of theirs, and speak as root. Clients of this library connect as the real user that their messages have.
bool speaks_for_itself(const Peer &peer, const struct ucred &sender)
{
	return sender.uid == peer.connector || peer.connector == 0;
}

// Serves a request whose first message has arrived, as far as it goes.
void serve_request(Hatch *hatch, Peer *peer, RequestMemory *memory, const Message &message)
{
	RequestHead head = {};
	memcpy(&head, memory->map.data(), head_size);
	size_t have = static_cast<size_t>(message.size) - head_size;
	peer->channel = find_channel(*hatch, head.channel);
	if (message.size < static_cast<ssize_t>(head_size) || head.magic != wire_magic || peer->channel == nullptr ||
	    have > head.size) {
		peer->finished = true;
		return;
	}
	if (!speaks_for_itself(*peer, message.sender))
		return refuse(hatch, peer, Refusal::other_user, false);
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
	return !peer.finished && !peer.parks && !peer.request && !peer.rest;
}

// Waits a little for the next request of a client that asks again and again. That is cheaper than to arm its event. Meanwhile
// the connection counts as idle, and may be dropped. Not while other connections of a user with a share are ready, nor if
// that share has become smaller.
bool receive_next(Hatch *hatch, Peer *peer, RequestMemory *memory, Message *message)
{
	const Account &account = *peer->account;
	if (hatch->waiting == 0 ||
	    (!account.exempt && (account.queued > 0 || account.dedicated > threads_share(account) / 2)))
		return false;
	peer->since = now_ns();
	peer->in_hand = false;
	bool came = receive_first(peer, memory, 0, message);
	peer->in_hand = true;
	return came;
}

// Serves a client's request, and its next ones as long as it asks again soon, if it did so before.
void serve_requests(Hatch *hatch, Peer *peer, RequestMemory *memory)
{
	bool stays = peer->called && now_ns() - peer->since < dedicated_ns;
	Message message;
	if (!receive_first(peer, memory, MSG_DONTWAIT, &message))
		return;
	peer->called = true;
	serve_request(hatch, peer, memory, message);
	if (!stays)
		return;
	const WaitSlot slot(&hatch->dedicated, dedicated_max, &peer->account->dedicated, *peer->account);
	if (!slot || !is_idle(*peer))
		return;
	const DedicatedThread here(hatch, peer);
	while (is_idle(*peer) && receive_next(hatch, peer, memory, &message))
		serve_request(hatch, peer, memory, message);
}

} // namespace

// Another thread may have the connection as soon as its event is armed, but can't close it before this one has given up the lock.
void finish_turn(Hatch *hatch, Peer *peer)
{
	const uint32_t events = peer->rest ? EPOLLOUT : EPOLLIN | EPOLLRDHUP;
	bool finished = peer->finished;
	{
		MutexLock hold_lock(hatch->lock);
		Account *account = peer->account;
		if (!finished) {
			peer->in_hand = false;
			become_idle(peer);
			finished = arm(*hatch, EPOLL_CTL_MOD, peer->socket.get(), events, event_of(peer)) != 0;
			if (finished)
				leave_queue(peer);
		}
		end_turn(hatch, account);
		if (finished)
			leave(hatch, peer);
		if (finished && hatch->paused)
			resume_accepting(hatch);
	}
	if (finished)
		delete peer;
}

void serve_peer(Hatch *hatch, Peer *peer, RequestMemory *memory)
{
	if (peer->finished)
		; // it was dropped meanwhile
	else if (peer->rest)
		send_rest(hatch, peer);
	else if (peer->request)
		receive_rest(hatch, peer);
	else
		serve_requests(hatch, peer, memory);
	peer->since = now_ns();
	if (!peer->parks || !park(hatch, peer))
		finish_turn(hatch, peer);
}

} // namespace hatch
