// Parked calls: taking a ticket, parking, answering, and what ends a call that waits.
//
// An answer may come before its call is parked, from another thread or from the handler itself. It is kept in the ticket then,
// and park() looks for it under the same lock under which it parks: no answer falls between.
#include "hatch/tickets.h"

#include <cassert>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <sys/epoll.h>
#include <sys/socket.h>

#include "base/fail.h"
#include "hatch/server.h"

namespace hatch {

Ticket *TicketTable::find(uint64_t number) const
{
	const uint64_t place = number % places_max;
	if (place >= places_.size())
		return nullptr;
	Ticket *ticket = places_[place].ticket;
	return ticket != nullptr && ticket->number == number ? ticket : nullptr;
}

bool TicketTable::add(Ticket *ticket)
{
	if (free_ == places_max) {
		if (places_.size() == places_max || !places_.append({nullptr, 0, places_max}))
			return false;
		free_ = places_.size() - 1;
	}
	constexpr uint64_t uses_max = (uint64_t{1} << (number_bits - place_bits)) - 1;
	Place &place = places_[free_];
	place.uses = place.uses % uses_max + 1; // so that no number is 0
	ticket->number = place.uses << place_bits | free_;
	place.ticket = ticket;
	free_ = place.next_free;
	count_++;
	return true;
}

void TicketTable::remove(const Ticket *ticket)
{
	const uint64_t number = ticket->number % places_max;
	Place &place = places_[number];
	assert(place.ticket == ticket);
	place.ticket = nullptr;
	place.next_free = free_;
	free_ = number;
	count_--;
}

namespace {

using OwnTicket = std::unique_ptr<Ticket>;

// The ticket of a connection is no more; it goes at the end of what is returned.
OwnTicket take_out(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock)
{
	OwnTicket ticket(std::exchange(peer->ticket, nullptr));
	hatch->tickets.remove(ticket.get());
	return ticket;
}

// Gives the calling thread a parked connection. The ticket ends.
Peer *unpark(Hatch *hatch, const Ticket *ticket) REQUIRES(hatch->lock)
{
	Peer *peer = ticket->peer;
	(void) take_out(hatch, peer);
	leave_queue(peer);
	return peer;
}

bool is_parked(const Ticket &ticket)
{
	return ticket.peer->in_queue == Queue::parked;
}

// Keeps an answer that came early. ENOMEM: its user's share doesn't hold it.
int keep_answer(Ticket *ticket, Heap<char> *copy, size_t size)
{
	if (!ticket->charge.resize(HATCH_TICKET_BYTES + size))
		return ENOMEM;
	ticket->answer = std::move(*copy);
	ticket->answer_size = size;
	ticket->answered = true;
	return 0;
}

// What is to be sent by the thread that answers. The hatch isn't freed before end_use().
struct Claimed {
	Hatch *hatch = nullptr;
	Peer *peer = nullptr; // NULL: the answer was kept
};

// Claims the connection of a parked call, or keeps the answer for one that runs: then it needs a copy, and if there is none it
// gives EAGAIN. Errors: 0, EAGAIN, and those of hatch_answer().
int claim(int fd, uint64_t number, size_t size, Heap<char> *copy, Claimed *out)
{
	const FoundHatch found(fd);
	if (!found)
		return EBADF;
	Hatch *hatch = &*found;
	MutexLock hold_lock(hatch->lock);
	Ticket *ticket = hatch->tickets.find(number);
	if (ticket == nullptr || ticket->answered)
		return ENOENT;
	if (!is_parked(*ticket))
		return *copy || size == 0 ? keep_answer(ticket, copy, size) : EAGAIN;
	*out = {hatch, unpark(hatch, ticket)};
	out->peer->in_hand = true;
	out->peer->account->running++; // as a turn; finish_turn() ends it
	hatch->uses++;
	return 0;
}

int answer(int fd, uint64_t number, const char *data, size_t size)
{
	Heap<char> copy;
	Claimed claimed;
	int error = claim(fd, number, size, &copy, &claimed);
	if (error == EAGAIN) {
		copy.reset(static_cast<char *>(malloc(size)));
		if (!copy)
			return ENOMEM;
		memcpy(copy.get(), data, size);
		error = claim(fd, number, size, &copy, &claimed);
	}
	if (error != 0 || claimed.peer == nullptr)
		return error;
	send_reply(claimed.hatch, claimed.peer, Refusal::none, data, size, Patience::none);
	claimed.peer->since = now_ns();
	finish_turn(claimed.hatch, claimed.peer);
	end_use(claimed.hatch);
	return 0;
}

int check(int fd, uint64_t number)
{
	const FoundHatch found(fd);
	if (!found)
		return EBADF;
	MutexLock hold_lock(found->lock);
	const Ticket *ticket = found->tickets.find(number);
	return ticket == nullptr || ticket->answered ? ENOENT : 0;
}

} // namespace

int give_ticket(Hatch *hatch, Peer *peer, uint64_t *number)
{
	if (peer->ticket == nullptr) {
		OwnTicket ticket(new (std::nothrow) Ticket(peer, peer->owner));
		if (!ticket || !ticket->charge.resize(HATCH_TICKET_BYTES))
			return ENOMEM;
		MutexLock hold_lock(hatch->lock);
		if (!hatch->tickets.add(ticket.get()))
			return ENOMEM;
		peer->ticket = ticket.release();
	}
	*number = peer->ticket->number;
	return 0;
}

void end_ticket(Hatch *hatch, Peer *peer)
{
	if (peer->ticket != nullptr)
		(void) take_out(hatch, peer);
}

bool park(Hatch *hatch, Peer *peer)
{
	OwnTicket ticket;
	peer->parks = false;
	{
		MutexLock hold_lock(hatch->lock);
		// A dropped one was told to go before its call had come.
		if (!peer->ticket->answered && !peer->dropped && !hatch->revoked) {
			peer->in_hand = false;
			become_parked(peer);
			if (arm(*hatch, EPOLL_CTL_MOD, peer->socket.get(), EPOLLRDHUP, event_of(*peer->ticket)) == 0) {
				end_turn(hatch, peer->account);
				return true;
			}
			leave_queue(peer);
			peer->in_hand = true;
		}
		ticket = take_out(hatch, peer);
	}
	(void) ticket->charge.resize(0); // before the client can call again
	const Refusal refusal = ticket->answered ? Refusal::none : Refusal::let_go;
	send_reply(hatch, peer, refusal, ticket->answer.get(), ticket->answer_size);
	peer->finished |= refusal != Refusal::none;
	return false;
}

Peer *unpark_gone(Hatch *hatch, uint64_t number)
{
	const Ticket *ticket = hatch->tickets.find(number);
	return ticket == nullptr || !is_parked(*ticket) ? nullptr : unpark(hatch, ticket);
}

void let_go(Hatch *hatch, Peer *peer)
{
	assert(peer->in_queue == Queue::parked);
	(void) unpark(hatch, peer->ticket);
	send_refusal(*peer, Refusal::let_go);
	become_idle(peer);
	(void) arm(
	    *hatch, EPOLL_CTL_MOD, peer->socket.get(), EPOLLIN | EPOLLRDHUP, event_of(peer)); // it was armed before
}

size_t standing_tickets(int fd)
{
	const FoundHatch found(fd);
	if (!found)
		return 0;
	MutexLock hold_lock(found->lock);
	return found->tickets.count();
}

void end_use(Hatch *hatch)
{
	MutexLock hold_lock(hatch->lock);
	hatch->uses--;
	hatch->ended.notify_all();
}

} // namespace hatch

int hatch_answer(int fd, uint64_t ticket, const char *data, size_t size)
{
	CancellationWaits cancellation;
	if (data == nullptr && size != 0)
		return fail_with(EFAULT);
	return fail_with(hatch::answer(fd, ticket, data, size));
}

int hatch_ticket_check(int fd, uint64_t ticket)
{
	CancellationWaits cancellation;
	return fail_with(hatch::check(fd, ticket));
}
