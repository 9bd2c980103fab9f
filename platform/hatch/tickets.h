// Tickets: the numbers by which calls are known that may be parked, and the table of those that stand.
//
// A ticket belongs to one connection, and ends when its call is answered, ends otherwise, or loses its connection. The
// thread that takes it out of the table under the hatch's lock has the connection from then on: a parked one is in nobody's hand. Outside
// this table a parked call is known by the number alone, in the epoll set too: the connection may be gone by the time when a
// thread comes to an event.
#ifndef MERIDON_HATCH_TICKETS_H
#define MERIDON_HATCH_TICKETS_H

#include <cstddef>
#include <cstdint>

#include "base/growing_array.h"
#include "base/guards.h"
#include "hatch/pool.h"

namespace hatch {

struct Peer;

struct Ticket {
	Ticket(Peer *whose, uid_t user) : peer(whose), charge(user) {}

	uint64_t number = 0;
	Peer *peer;
	Charge charge; // for itself and the answer that is kept

	// An answer that came before the call was parked.
	bool answered = false;
	Heap<char> answer;
	size_t answer_size = 0;
};

// A number is a place in the table, below, and how often that has been used: found at once, and never the same again. An epoll
// event has two bits less than a number could have.
class TicketTable {
public:
	static constexpr int number_bits = 62;

	// NULL: it doesn't stand.
	Ticket *find(uint64_t number) const;
	// Numbers a ticket. False: no memory.
	bool add(Ticket *ticket);
	void remove(const Ticket *ticket);
	size_t count() const { return count_; }

private:
	static constexpr int place_bits = 24;
	static constexpr uint64_t places_max = uint64_t{1} << place_bits;

	struct Place {
		Ticket *ticket; // NULL: it is free
		uint64_t uses;
		uint64_t next_free;
	};

	GrowingArray<Place> places_;
	uint64_t free_ = places_max; // the first free place
	size_t count_ = 0;
};

} // namespace hatch

#endif
