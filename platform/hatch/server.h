// The server's side: a hatch, its connections, and the threads that serve them.
//
// All threads of a hatch wait in one epoll set. An event of it is disarmed while a thread deals with it, so that a
// connection belongs to one thread at a time, and only its owner closes it. Whoever begins to run a handler, or to wait
// for one client alone, sees to it that another thread waits for all of them, up to a bound.
#ifndef MERIDON_HATCH_SERVER_H
#define MERIDON_HATCH_SERVER_H

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <pthread.h>

#include <meridon/hatch.h>

#include "base/guards.h"
#include "base/thread_safety.h"
#include "hatch/mapping.h"
#include "hatch/pool.h"
#include "hatch/record.h"
#include "hatch/wire.h"

namespace hatch {

// What clients may make a hatch hold for them: requests that they don't finish, replies that they don't read.
inline constexpr size_t held_max = 256U << 20;
inline constexpr int64_t held_ns_max = 60'000'000'000;

// What a thread keeps between calls, for requests and for replies: a large one comes in again, and fresh pages cost more
// than the bytes in them. A MiB, and what callers put around it.
inline constexpr size_t memory_kept = (1U << 20) + (64U << 10);

// Where a thread receives requests: a head, and the payload behind it.
struct RequestMemory {
	Mapping map;
	size_t filled = 0; // payload bytes that have their pages

	char *payload() const { return map.data() + head_size; }
	size_t room() const { return map.size() - head_size; }
};

// A connection of a client's. `in_hand`, `since` and `held` are read by other threads that look for one to drop.
struct Peer {
	Peer(Fd taken, uid_t user) : socket(std::move(taken)), owner(user), charge(user) {}

	Peer *next = nullptr;
	Peer *prev = nullptr;
	Fd socket;
	uid_t owner;                      // who connected: all that the connection costs is this user's
	size_t piece = 0;                 // payload that a message of ours can have
	std::atomic<bool> in_hand{false}; // a thread deals with it
	std::atomic<int64_t> since{0};    // its last call ended, or what it holds began
	std::atomic<size_t> held{0};      // bytes that it makes the hatch hold
	Charge charge;                    // for the same
	Mapping request;                  // a request that comes slowly, or is too large for the thread's memory
	size_t request_size = 0;
	size_t request_have = 0;
	struct ucred sender = {}; // who sent the request
	Mapping rest;             // what is left of a reply that the client didn't take at once
	size_t rest_sent = 0;
	bool called = false;   // a request came over it
	bool finished = false; // to be closed by its owner
};

// A place in the file system. Guarded by the hatch's lock; all of it is empty while the hatch isn't attached.
struct Place {
	Fd directory;
	Fd record; // open and locked: the sign of life
	Fd listener;
	Id id;
};

struct Hatch {
	Hatch *next; // in the process's list
	int fd;      // what the owner was given, and which socket it must still be
	ino_t inode;

	hatch_handler_t *handler;
	void *cookie;
	std::atomic<size_t> data_min;

	Fd events;        // the epoll set
	Fd stop;          // readable once the hatch is revoked
	Fd timer;         // runs while something is held, or accepting is paused
	sigset_t signals; // what handler threads block

	Mutex lock;
	pthread_cond_t ended; // a thread has ended
	Place place GUARDED_BY(lock);
	Peer *peers GUARDED_BY(lock);
	size_t peer_count GUARDED_BY(lock);
	int threads GUARDED_BY(lock);
	bool orphan GUARDED_BY(lock); // revoked by a handler of its own: its last thread frees it
	bool paused GUARDED_BY(lock); // no descriptors to accept with
	bool timer_runs GUARDED_BY(lock);
	std::atomic<bool> revoked;
	std::atomic<int> waiting;   // threads that wait for an event
	std::atomic<int> staying;   // threads that wait for the next request of one client
	std::atomic<int> expecting; // threads that wait for the next piece of one request
	std::atomic<size_t> held;   // bytes, all peers'
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

// ---- Threads (threads.cc) ----

// Starts a thread for a hatch, unless it has as many as it may. Errors: 0, or an errno value.
int start_thread(Hatch *hatch) REQUIRES(hatch->lock);
// Has another thread ready before the calling one runs a handler.
void ensure_waiting(Hatch *hatch);

// ---- Connections (peers.cc) ----

int64_t now_ns();
// Takes connections that wait at the listener.
void accept_peers(Hatch *hatch);
// Deals with a connection that has something to read, or room to send into.
void serve_peer(Hatch *hatch, Peer *peer, RequestMemory *memory);
// Drops what is held for too long, and accepts again.
void tick(Hatch *hatch);
// Begins to accept at the listener, which is new to the hatch. Errors: 0, or an errno value.
int watch_listener(Hatch *hatch) REQUIRES(hatch->lock);
// Refuses new requests: connections that no handler runs for are ended, the others when they have their reply.
void hang_up(Hatch *hatch) REQUIRES(hatch->lock);
void close_peer(Hatch *hatch, Peer *peer);
// Counts bytes that a peer makes the hatch hold, and drops others when it is too much. False, and nothing is counted, if
// that is more than its user may have: nobody needs a right to send bytes.
bool hold(Hatch *hatch, Peer *peer, size_t bytes);
void unhold(Hatch *hatch, Peer *peer);

// ---- Calls (handler.cc) ----

// Runs the handler for a request. Afterwards the peer is finished, holds the rest of a reply, or waits for a request.
void run_call(Hatch *hatch, Peer *peer, char *data, size_t size);
// The hatch whose handler the calling thread runs, or NULL.
Hatch *running_hatch();
// A forked child runs no handler, whatever its parent's thread did.
void leave_call();
// Frees what the thread kept for large replies.
void free_reply_memory();
// Sends a reply: a head, then `size` bytes from `data`. What the client doesn't take soon becomes the peer's rest.
void send_reply(Hatch *hatch, Peer *peer, Refusal refusal, const char *data, size_t size);
// Goes on with a rest.
void send_rest(Hatch *hatch, Peer *peer);

} // namespace hatch

#endif
