// The server's side of a hatch. This is the room's plan; the client's side is call.h, connections.h and connect.h.
//
// Threads
//   The threads of a hatch are its own, started when they are needed, at most HATCH_THREADS_MAX (start_thread()). All of
//   them wait in one epoll set. Two wait for ever, others end after 5 s without work. A thread that is about to run a
//   handler, or to wait for one client alone, first makes sure that another thread waits in the set (ensure_waiting()): a
//   handler may block as long as it likes.
//   A thread is dedicated to a connection while it waits some milliseconds for that client's next request: most of what a
//   small call costs is waking a thread. Few threads are dedicated at a time, and fewer for one user.
//
// Fairness
//   Whose a connection is decides, not how many it has. Connections with something to do wait in a ready queue of their
//   user (Account). Users whose ready queue isn't empty stand in a ring, and each thread takes the next user's first
//   connection: users take turns. A user has a share of the threads (threads_share()), of the memory (pool.h) and of the
//   connections; root and the server's own user are exempt from the shares.
//
// Life of a connection
//   accept_peers() takes it in, idle, its event armed once (EPOLLONESHOT). Its event moves it to the ready queue
//   (deal_out()). begin_turn() hands it to one thread, which has it to itself until end_turn(): only that thread reads from
//   it, writes to it and closes it. A turn receives what has come of a request, or runs one call, or sends more of a reply;
//   then the connection is idle again, with its event armed, or it is closed.
//   Another thread may end a connection from outside only by drop(): it shuts the socket down and stops counting it; the
//   thread that reads the resulting event closes it.
//   A call may be parked at the end of its turn (tickets.h): its connection is in nobody's hand, with its event armed for a
//   hang-up alone, and is found by its ticket. The thread that takes the ticket out of the table has the connection: one that
//   answers (hatch_answer(), any thread of the process), that reads the hang-up, or that drops it.
//
// Life of a hatch
//   hatch_create() makes it, in the list of the process. fattach() puts its record and its listening socket into the file
//   system (attach_point.h) and starts its first thread. hatch_revoke() takes the record and the socket away, refuses new
//   requests, waits for its threads (running handlers reply before) and for answers on their way, and frees it with what
//   is parked. A handler that revokes its own hatch leaves it an orphan, which its last thread frees. A forked child gets none of it: renew() in hatches.cc.
//
// Locks, in the order in which they are taken
//   the list's (hatches.cc)   which hatches there are; held around attaching, evicting, draining
//   Hatch::lock               all of a hatch but its atomics, with its connections' queues and accounts; a few instructions,
//                             but for attaching
//   Hatch::accept_lock        the listener; around an accept
//   the pool's (pool.cc)      what users hold, in all hatches
//   Fields of a connection that no lock guards belong to the thread that has the connection. Atomics are counters that may
//   be a little old where they are read without the lock.
//
// What a client can't do
//   Hold up a thread: nothing waits for a client but for a bounded time. Be somebody else: each message has the kernel's
//   word for its sender, who must be the user who connected. Hand over descriptors: they are refused or closed. Make the
//   process hold more than its user's share. Keep a thread of another user's from its turn. Have a request carried out
//   twice, or half of one.
#ifndef MERIDON_HATCH_SERVER_H
#define MERIDON_HATCH_SERVER_H

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <pthread.h>

#include <meridon/hatch.h>

#include "base/clock.h"
#include "base/guards.h"
#include "base/row.h"
#include "base/thread_safety.h"
#include "hatch/attach_point.h"
#include "hatch/hatches.h"
#include "hatch/mapping.h"
#include "hatch/pool.h"
#include "hatch/record.h"
#include "hatch/tickets.h"
#include "hatch/user_table.h"
#include "hatch/wire.h"

namespace hatch {

// What a thread keeps between calls, for requests and for replies: large ones often come in a row, and fresh pages cost
// more than the bytes in them. A MiB, and what callers put around it.
inline constexpr size_t memory_kept = (1U << 20) + (64U << 10);

// Where a thread receives requests: a head, followed by the payload.
struct RequestMemory {
	Mapping map;
	size_t filled = 0; // payload bytes that have their pages

	char *payload() const { return map.data() + head_size; }
	size_t room() const { return map.size() - head_size; }
	void give_up()
	{
		map.reset();
		filled = 0;
	}
};

struct Account;

// Which queue of its user a connection is in: `idle` with its event armed, `ready` for a thread, `parked` with its call, or
// none while a thread has it. One with a dedicated thread stays in `idle`, so that it can be dropped.
enum class Queue { none, idle, ready, parked };

// A handler, for the requests that name its channel. Never changed nor freed while the hatch lives, so that it is read without a lock.
struct Channel {
	uint32_t number;
	hatch_handler_t *handler;
	void *cookie;
	unsigned int flags;
	std::atomic<Channel *> next{nullptr};
};

// A descriptor that the hatch's threads wait for. Guarded by the hatch's lock.
struct Source {
	Source *next;
	const uint64_t number;
	const int fd;
	void (*const ready)(void *);
	void *const cookie;
	bool runs = false;
	bool removed = false; // while it ran
	pthread_t runner = {};
};

// A connection from a client. Fields without another word are those of the thread that has the connection.
struct Peer {
	Peer(Fd taken, uid_t made_by, uid_t whose)
	    : socket(std::move(taken)), connector(made_by), owner(whose), charge(whose)
	{}

	// Guarded by the hatch's lock.
	Links<Peer> all;   // in the hatch
	Links<Peer> queue; // in one of its user's queues
	Links<Peer> hold;  // in its user's holding ones
	Account *account = nullptr;
	Queue in_queue = Queue::none;
	int64_t held_since = 0;   // when it began to hold something
	bool dropped = false;     // shut down from outside; it doesn't count any more
	bool dedicated = false;   // a thread waits for its next request
	Ticket *ticket = nullptr; // of its call; changed under the lock

	Fd socket;
	const uid_t connector;                // the user who connected
	const uid_t owner;                    // the user who is charged for it
	std::atomic<bool> in_hand{true};      // a thread has it
	std::atomic<size_t> held{0};          // bytes that it makes the hatch hold; changed under the lock
	Charge charge;                        // for the same
	size_t piece = 0;                     // the payload that one of our messages can have; 0: not asked yet
	std::atomic<int64_t> since{now_ns()}; // when it was made, or its last call ended
	Mapping request;                      // a request that comes slowly, or is too large for the thread's memory
	size_t request_size = 0;
	size_t request_have = 0;
	const Channel *channel = nullptr; // that the request is for
	struct ucred sender = {};         // who sent the request
	Mapping rest;                     // what is left of a reply that the client didn't take at once
	size_t rest_sent = 0;
	bool called = false;   // it has sent a request
	bool parks = false;    // its call is to be parked at the end of the turn
	bool finished = false; // its thread is to close it
};

using PeerQueue = Row<Peer, &Peer::queue>;

// What one user has of a hatch. It lives while the user has connections. Guarded by the hatch's lock, but for the atomics.
struct Account {
	Account(uid_t user, bool all) : uid(user), exempt(all) {}

	const uid_t uid;
	const bool exempt;       // from shares
	Account *next = nullptr; // in the table
	size_t connections = 0;  // dropped ones too
	size_t peers = 0;        // without them
	size_t held = 0;         // bytes
	int running = 0;         // threads that have one of its connections
	PeerQueue idle;          // by their last use
	PeerQueue ready;
	PeerQueue parked;               // by the time when they were
	Row<Peer, &Peer::hold> holding; // by the time when it began

	Links<Account> turn; // in the ring: it has ready connections, and may have another thread
	bool in_ring = false;
	Links<Account> by_peers, by_held; // among those with about as many
	int peers_rank = 0, held_rank = 0;

	std::atomic<size_t> queued{0}; // ready connections
	std::atomic<int> dedicated{0}; // threads that wait for the next request of one client
	std::atomic<int> receiving{0}; // threads that wait for the next piece of one request
	std::atomic<unsigned> calls{0};
	std::atomic<int64_t> call_us{0}; // processor time of a call that waits for nothing, an average of the last ones
};

// The users by what they have, in powers of two: the one with most, or about, is found without a look at the others.
template <Links<Account> Account::*links, size_t Account::*amount, int Account::*rank>
struct Ranking {
	static constexpr int ranks = 65;
	Row<Account, links> rows[ranks]; // the first is for nothing, and empty

	void put(Account *account)
	{
		const size_t has = account->*amount;
		const int now = has == 0 ? 0 : 64 - __builtin_clzl(has);
		int &before = account->*rank;
		if (now == before)
			return;
		if (before != 0)
			rows[before].leave(account);
		if (now != 0)
			rows[now].join(account);
		before = now;
	}
};

struct Hatch {
	Hatch *next; // in the process's list
	int fd;      // what the owner was given, and which socket it must still be
	ino_t inode;

	Channel main; // channel 0, with the others in its list
	std::atomic<size_t> data_min;

	Fd events;        // the epoll set
	Fd stop;          // readable once the hatch is revoked
	Fd wake;          // written to have one more thread look at the ring
	Fd timer;         // runs while something is held, or accepting is paused
	sigset_t signals; // what handler threads block

	Mutex lock;
	CondVar ended; // a thread has ended, a use, or the run of a source
	AttachPoint point GUARDED_BY(lock);
	Row<Peer, &Peer::all> peers GUARDED_BY(lock);
	TicketTable tickets GUARDED_BY(lock);
	Source *sources GUARDED_BY(lock);
	uint64_t sources_made GUARDED_BY(lock);
	UserTable<Account, 256> accounts GUARDED_BY(lock);
	Row<Account, &Account::turn> ring GUARDED_BY(lock);
	Ranking<&Account::by_peers, &Account::peers, &Account::peers_rank> most_peers GUARDED_BY(lock);
	Ranking<&Account::by_held, &Account::held, &Account::held_rank> most_held GUARDED_BY(lock);
	int threads GUARDED_BY(lock);
	int uses GUARDED_BY(lock);    // by threads of others, which a revoke waits for
	bool orphan GUARDED_BY(lock); // revoked by a handler of its own: its last thread frees it
	bool paused GUARDED_BY(lock); // no descriptors to accept with
	bool timer_runs GUARDED_BY(lock);
	Mutex accept_lock;                          // after `lock`, never before it
	int listening GUARDED_BY(accept_lock) = -1; // the listener while it may be accepted from; else -1
	std::atomic<bool> revoked;
	std::atomic<int> waiting;    // threads that wait for an event
	std::atomic<int> dedicated;  // threads that wait for the next request of one client
	std::atomic<int> receiving;  // threads that wait for the next piece of one request
	std::atomic<size_t> in_ring; // users
	std::atomic<size_t> live;    // connections that aren't dropped
	std::atomic<size_t> held;    // bytes, all peers'
};

// ---- Users and their queues (accounts.cc) ----

// What all hatches of the process have: connections that aren't dropped, bytes that they hold, threads.
extern std::atomic<size_t> all_live;
extern std::atomic<size_t> all_held;
extern std::atomic<int> all_threads;

// Threads that one user's connections may have at a time.
int threads_share(const Account &account);
// Takes note of the processor time that a call took, 0 if it waited.
void note_call(Account *account, int64_t us);
// Takes note of a turn that received a part of a request and no more.
void note_part(Account *account);
// Takes a new connection in; the calling thread has it. False: no memory.
bool join(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock);
// Takes out a connection that is in no queue. The caller deletes it, best without the lock.
void leave(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock);
void become_idle(Peer *peer);
void become_parked(Peer *peer);
// Takes a connection out of its queue, if it is in one.
void leave_queue(Peer *peer);
// Makes a connection ready for a thread.
void enqueue(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock);
// Gives the calling thread the connection whose turn it is. NULL: none.
Peer *begin_turn(Hatch *hatch) REQUIRES(hatch->lock);
void end_turn(Hatch *hatch, Account *account) REQUIRES(hatch->lock);
void set_held(Hatch *hatch, Peer *peer, size_t bytes) REQUIRES(hatch->lock);
// Stops counting a connection and what it holds.
void count_out(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock);
// Of the user with most: the connection whose last use is longest ago, or which has held something for longest. NULL if
// threads have all of them.
Peer *longest_unused(Hatch *hatch, const Peer *but, size_t bound) REQUIRES(hatch->lock);
Peer *longest_holding(Hatch *hatch) REQUIRES(hatch->lock);

// ---- Threads (threads.cc) ----

// Threads that all hatches of the process may have together.
int threads_max();
// Starts a thread for a hatch, unless it has as many as it may. Errors: 0, or an errno value.
int start_thread(Hatch *hatch) REQUIRES(hatch->lock);
// Has another thread ready before the calling one runs a handler.
void ensure_waiting(Hatch *hatch);

// ---- Events ----

// What an event in the epoll set is about: an address, or with one of these in its lowest bits the number of a ticket or a source.
inline constexpr int event_tag_bits = 64 - TicketTable::number_bits;
enum class EventTag : uint64_t { address, ticket, source };

inline uint64_t event_of(const void *what)
{
	return reinterpret_cast<uintptr_t>(what);
}
inline uint64_t event_of(const Ticket &ticket)
{
	return ticket.number << event_tag_bits | static_cast<uint64_t>(EventTag::ticket);
}
inline uint64_t event_of(const Source &source)
{
	return source.number << event_tag_bits | static_cast<uint64_t>(EventTag::source);
}
inline EventTag tag_of(uint64_t event)
{
	return static_cast<EventTag>(event & ((uint64_t{1} << event_tag_bits) - 1));
}

// ---- Connections (peers.cc) ----

// Arms one event of a descriptor in the epoll set. Errors: 0, or an errno value.
int arm(const Hatch &hatch, int how, int fd, uint32_t events, uint64_t what);
// Accepts connections that wait at the listener.
void accept_peers(Hatch *hatch);
// Drops what is held for too long, and resumes accepting.
void tick(Hatch *hatch);
// Begins to accept at the listener, which is new to the hatch. Errors: 0, or an errno value.
int watch_listener(Hatch *hatch) REQUIRES(hatch->lock);
// Stops accepting, before the listener is closed.
void forget_listener(Hatch *hatch) REQUIRES(hatch->lock);
// Accepts again, if that was paused for want of descriptors.
void resume_accepting(Hatch *hatch) REQUIRES(hatch->lock);
// Ends a connection from outside; no thread has it.
void drop(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock);
// Refuses new requests: connections that no handler runs for are ended, the others when they have their reply.
void hang_up(Hatch *hatch) REQUIRES(hatch->lock);
// Counts bytes that a peer makes the hatch hold, and drops others if that is too much. False, and nothing is counted, if it
// is more than its user may have: nobody needs a right to send bytes.
bool hold(Hatch *hatch, Peer *peer, size_t bytes);
void unhold(Hatch *hatch, Peer *peer);

// ---- Requests (requests.cc) ----

// Serves a connection that has something to read, or room to send into, and ends its turn.
void serve_peer(Hatch *hatch, Peer *peer, RequestMemory *memory);
// Ends the turn of a connection: it is closed, or idle with its event armed. Another thread may then have it at once.
void finish_turn(Hatch *hatch, Peer *peer);

// ---- Parked calls (tickets.cc) ----

// Gives the running call of a connection its ticket. Errors: 0, ENOMEM.
int give_ticket(Hatch *hatch, Peer *peer, uint64_t *number);
// Ends the ticket of a connection, if it has one.
void end_ticket(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock);
// Parks the call of a connection, and ends its turn. False: the call was over already, and the calling thread has the connection still.
bool park(Hatch *hatch, Peer *peer);
// Gives the calling thread the connection of a parked call whose client has hung up; NULL if somebody else has it.
Peer *unpark_gone(Hatch *hatch, uint64_t number) REQUIRES(hatch->lock);
// Has a parked call's client ask again, and makes the connection an idle one.
void let_go(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock);
// Ends what `uses` counts.
void end_use(Hatch *hatch);
// For tests: the tickets of a hatch that stand.
size_t standing_tickets(int fd);

// ---- Channels and sources (channels.cc, sources.cc) ----

// NULL: there is no such channel.
const Channel *find_channel(const Hatch &hatch, uint32_t number);
// Runs what a source is for, unless it was removed.
void run_source(Hatch *hatch, uint64_t number);
// For the end of the hatch.
void forget_channels(Hatch *hatch);
void forget_sources(Hatch *hatch) REQUIRES(hatch->lock);

// ---- Calls (handler.cc) ----

// Runs the handler for a request. Afterwards the peer is finished, holds the rest of a reply, or waits for a request.
void run_call(Hatch *hatch, Peer *peer, char *data, size_t size);
// The hatch whose handler the calling thread runs, or NULL.
Hatch *running_hatch();
// A forked child runs no handler, whatever its parent's thread did.
void leave_call();
// Frees what the thread kept for replies.
void free_reply_memory();
// Whether a client gets some milliseconds to read on.
enum class Patience { some, none };
// Sends a reply: a head, then `size` bytes from `data`. What the client doesn't take soon becomes the peer's rest.
void send_reply(
    Hatch *hatch, Peer *peer, Refusal refusal, const char *data, size_t size, Patience patience = Patience::some);
// Sends a refusal to a connection that is dropped.
void send_refusal(const Peer &peer, Refusal refusal);
// Goes on sending a rest.
void send_rest(Hatch *hatch, Peer *peer);

} // namespace hatch

#endif
