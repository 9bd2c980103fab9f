// The server's side: a hatch, its connections and their users, and the threads that serve them.
//
// All threads of a hatch wait in one epoll set. An event of a connection is disarmed when it is read; the connection then
// lines up behind the others of its user, and the users that have something to do stand in a ring. A thread takes the first user's
// first connection, and has it to itself until its turn is over: only it closes the connection. Whoever begins to run a
// handler, or to wait for one client alone, sees to it that another thread waits for all of them, up to a bound.
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
#include "hatch/mapping.h"
#include "hatch/pool.h"
#include "hatch/record.h"
#include "hatch/wire.h"

namespace hatch {

// What a thread keeps between calls, for requests and for replies: a large one comes in again, and fresh pages cost more
// than the bytes in them. A MiB, and what callers put around it.
inline constexpr size_t memory_kept = (1U << 20) + (64U << 10);

// Where a thread receives requests: a head, and the payload behind it.
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

// Which line of its user's a connection stands in: `idle` with its event armed, `waiting` for a thread, or none while a
// thread has it. One that a thread stays with stands in `idle` all the while.
enum class Standing { none, idle, waiting };

// A connection of a client's. What isn't said otherwise is the thread's that has it.
struct Peer {
	Peer(Fd taken, uid_t made_by, uid_t whose)
	    : socket(std::move(taken)), connector(made_by), owner(whose), charge(whose)
	{}

	// Guarded by the hatch's lock.
	Links<Peer> all;  // in the hatch
	Links<Peer> line; // in its user's idle or waiting ones
	Links<Peer> hold; // in its user's holding ones
	Account *account = nullptr;
	Standing standing = Standing::none;
	int64_t held_since = 0;   // when what it holds began
	bool dropped = false;     // shut from outside; it doesn't count any more
	bool stayed_with = false; // idle, and a thread waits for its next request

	Fd socket;
	const uid_t connector;                // the user who connected
	const uid_t owner;                    // whose all is that the connection costs
	std::atomic<bool> in_hand{true};      // a thread deals with it
	std::atomic<size_t> held{0};          // bytes that it makes the hatch hold; changed under the lock
	Charge charge;                        // for the same
	size_t piece = 0;                     // payload that a message of ours can have; 0: not asked yet
	std::atomic<int64_t> since{now_ns()}; // it was made, or its last call ended
	Mapping request;                      // a request that comes slowly, or is too large for the thread's memory
	size_t request_size = 0;
	size_t request_have = 0;
	struct ucred sender = {}; // who sent the request
	Mapping rest;             // what is left of a reply that the client didn't take at once
	size_t rest_sent = 0;
	bool called = false;   // a request came over it
	bool finished = false; // to be closed by its owner
};

using Line = Row<Peer, &Peer::line>;

// What a user has of a hatch. It lives while the user has connections. Guarded by the hatch's lock, but for the atomics.
struct Account {
	Account(uid_t user, bool all) : uid(user), exempt(all) {}

	const uid_t uid;
	const bool exempt;       // from shares
	Account *next = nullptr; // in the table
	size_t connections = 0;  // dropped ones too
	size_t peers = 0;        // without them
	size_t held = 0;         // bytes
	int running = 0;         // threads that deal with its connections
	Line idle;               // by their last use
	Line waiting;
	Row<Peer, &Peer::hold> holding; // by the time when it began

	Links<Account> turn; // in the ring: it has connections that wait, and may have another thread
	bool in_ring = false;
	Links<Account> by_peers, by_held; // among those with about as many
	int peers_rank = 0, held_rank = 0;

	std::atomic<size_t> in_line{0}; // waiting connections
	std::atomic<int> staying{0};    // threads that wait for the next request of one client
	std::atomic<int> expecting{0};  // threads that wait for the next piece of one request

	std::atomic<unsigned> calls{0};
	std::atomic<int64_t> call_us{
	    0}; // processor time of a call that waits for nothing, the average of the last ones
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

// A place in the file system. Guarded by the hatch's lock; all of it is empty while the hatch isn't attached.
struct Place {
	Fd directory;
	Fd record; // open and locked: the sign of life
	Fd listener;
	Id id;
};

struct Hatch {
	static constexpr size_t buckets = 256;

	Hatch *next; // in the process's list
	int fd;      // what the owner was given, and which socket it must still be
	ino_t inode;

	hatch_handler_t *handler;
	void *cookie;
	std::atomic<size_t> data_min;

	Fd events;        // the epoll set
	Fd stop;          // readable once the hatch is revoked
	Fd wake;          // written to have one more thread look at the ring
	Fd timer;         // runs while something is held, or accepting is paused
	sigset_t signals; // what handler threads block

	Mutex lock;
	CondVar ended; // a thread has ended
	Place place GUARDED_BY(lock);
	Row<Peer, &Peer::all> peers GUARDED_BY(lock);
	Account *accounts[buckets] GUARDED_BY(lock);
	Row<Account, &Account::turn> ring GUARDED_BY(lock);
	Ranking<&Account::by_peers, &Account::peers, &Account::peers_rank> most_peers GUARDED_BY(lock);
	Ranking<&Account::by_held, &Account::held, &Account::held_rank> most_held GUARDED_BY(lock);
	int threads GUARDED_BY(lock);
	bool orphan GUARDED_BY(lock); // revoked by a handler of its own: its last thread frees it
	bool paused GUARDED_BY(lock); // no descriptors to accept with
	bool timer_runs GUARDED_BY(lock);
	Mutex accept_lock;                          // after `lock`, never before it
	int listening GUARDED_BY(accept_lock) = -1; // the listener, as long as it may be accepted from; else -1
	std::atomic<bool> revoked;
	std::atomic<int> waiting;    // threads that wait for an event
	std::atomic<int> staying;    // threads that wait for the next request of one client
	std::atomic<int> expecting;  // threads that wait for the next piece of one request
	std::atomic<size_t> in_ring; // users
	std::atomic<size_t> live;    // connections that aren't dropped
	std::atomic<size_t> held;    // bytes, all peers'
};

// ---- The process's hatches (hatches.cc) ----

// Finds the hatch that a descriptor stands for and locks the list, so that it isn't revoked meanwhile. NULL: none.
class FoundHatch {
public:
	explicit FoundHatch(int fd);
	~FoundHatch();
	FoundHatch(const FoundHatch &) = delete;
	FoundHatch &operator=(const FoundHatch &) = delete;
	Hatch *operator->() const { return hatch_; }
	Hatch &operator*() const { return *hatch_; }
	explicit operator bool() const { return hatch_ != nullptr; }

private:
	Hatch *hatch_;
};

bool is_own_hatch(int fd);
// Frees a hatch that has no threads left.
void destroy(Hatch *hatch);
// Makes room for a new connection, or for bytes, at the hatch that has most of them. Called without a hatch's lock.
void push_out_connection(const Peer *but);
void push_out_held();

// ---- Users and their lines (accounts.cc) ----

// What all hatches of the process have: connections that aren't dropped, bytes that they hold.
extern std::atomic<size_t> all_live;
extern std::atomic<size_t> all_held;
extern std::atomic<int> all_threads;

// Threads that one user's connections may have at a time.
int threads_share(const Account &account);
// Take note of the processor time that a call took, 0 if it waited; of a turn that received a part of a request and no more.
void note_call(Account *account, int64_t us);
void note_part(Account *account);
// Takes a new connection in, as one that a thread has. False: no memory.
bool join(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock);
// Takes a connection out, which stands in no line. The caller deletes it, best without the lock.
void leave(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock);
void stand_idle(Peer *peer);
// Takes a connection out of the line it stands in, if any.
void leave_line(Peer *peer);
// Has an idle connection wait for a thread.
void line_up(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock);
// Gives the connection whose turn it is, for the calling thread to deal with. NULL: none.
Peer *begin_turn(Hatch *hatch) REQUIRES(hatch->lock);
void end_turn(Hatch *hatch, Account *account) REQUIRES(hatch->lock);
void set_held(Hatch *hatch, Peer *peer, size_t bytes) REQUIRES(hatch->lock);
// A dropped connection doesn't count, nor does what it holds.
void count_out(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock);
// Of the user with most: the connection whose last use is longest ago, or which has held something for longest. NULL: none
// that no thread deals with.
Peer *longest_unused(Hatch *hatch, const Peer *but, size_t bound) REQUIRES(hatch->lock);
Peer *longest_holding(Hatch *hatch) REQUIRES(hatch->lock);

// ---- Threads (threads.cc) ----

// Handlers and what else needs a thread, at a time.
int threads_max();
// Starts a thread for a hatch, unless it has as many as it may. Errors: 0, or an errno value.
int start_thread(Hatch *hatch) REQUIRES(hatch->lock);
// Has another thread ready before the calling one runs a handler.
void ensure_waiting(Hatch *hatch);

// ---- Connections (peers.cc) ----

// Has the set of events tell once of a descriptor. Errors: 0, or an errno value.
int arm(const Hatch &hatch, int how, int fd, uint32_t events, void *what);
// Takes connections that wait at the listener.
void accept_peers(Hatch *hatch);
// Drops what is held for too long, and accepts again.
void tick(Hatch *hatch);
// Begins to accept at the listener, which is new to the hatch. Errors: 0, or an errno value.
int watch_listener(Hatch *hatch) REQUIRES(hatch->lock);
// Accepts no more, before the listener is closed.
void forget_listener(Hatch *hatch) REQUIRES(hatch->lock);
// Accepts again, if that was paused for want of descriptors.
void resume_accepting(Hatch *hatch) REQUIRES(hatch->lock);
// Ends a connection from outside that no thread has.
void drop(Hatch *hatch, Peer *peer) REQUIRES(hatch->lock);
// Refuses new requests: connections that no handler runs for are ended, the others when they have their reply.
void hang_up(Hatch *hatch) REQUIRES(hatch->lock);
// Counts bytes that a peer makes the hatch hold, and drops others when it is too much. False, and nothing is counted, if
// that is more than its user may have: nobody needs a right to send bytes.
bool hold(Hatch *hatch, Peer *peer, size_t bytes);
void unhold(Hatch *hatch, Peer *peer);

// ---- Requests (requests.cc) ----

// Deals with a connection that has something to read, or room to send into, and ends its turn.
void serve_peer(Hatch *hatch, Peer *peer, RequestMemory *memory);

// ---- Calls (handler.cc) ----

// Runs the handler for a request. Afterwards the peer is finished, holds the rest of a reply, or waits for a request.
void run_call(Hatch *hatch, Peer *peer, char *data, size_t size);
// The hatch whose handler the calling thread runs, or NULL.
Hatch *running_hatch();
// A forked child runs no handler, whatever its parent's thread did.
void leave_call();
// Frees what the thread kept for replies.
void free_reply_memory();
// Sends a reply: a head, then `size` bytes from `data`. What the client doesn't take soon becomes the peer's rest.
void send_reply(Hatch *hatch, Peer *peer, Refusal refusal, const char *data, size_t size);
// Sends a refusal to a connection that is dropped.
void send_refusal(const Peer &peer, Refusal refusal);
// Goes on with a rest.
void send_rest(Hatch *hatch, Peer *peer);

} // namespace hatch

#endif
