/*
 * The server's side of channel 1: who waits for changes of a served database, and the requests.
 *
 * The hub has one notifier of the served handle, made with the first wait. Its descriptor is a source of the hatch, so that
 * waiting takes no thread, and it counts a position up with each change that it is told of. A wait with another position than
 * that is answered at once; one with the same is parked, and answered when the position changes. So a client that waits with the
 * position of its last answer misses nothing, wherever a change falls.
 *
 * A change made through this server reaches the waiters when its reply is on its way, not before: else as many woken clients as
 * there are would keep the one who made it waiting. An update that takes long holds them up for a moment only.
 *
 * Locks: begin_lock_ around the making of the notifier; lock_ for a few instructions. Neither is held around an answer.
 */
#ifndef LIBOSTREL_HATCHSERVER_LIVE_H
#define LIBOSTREL_HATCHSERVER_LIVE_H

#include <meridon/peercred.h>

#include "base/guards.h"
#include "base/thread_safety.h"
#include "libostrel_backend.h"
#include "libostrel_hatches_live.h"

using PeerCred = Handle<peercred_t, peercred_free>;

// A wait that is parked, or about to be.
struct Waiter {
	Waiter *next;
	uint64_t ticket;
	uint64_t count; // of the position that it waits with
	peercred_t *cred;
};

// What a wait is told.
struct Told {
	LivePosition position;
	ostrel_error_t blind; // the notifier's failure
};

class Hub {
public:
	explicit Hub(ostrel_db_t db);
	~Hub();
	Hub(const Hub &) = delete;
	Hub &operator=(const Hub &) = delete;

	// Before the hatch is attached.
	void serve_at(int hatch) { hatch_ = hatch; }

	/*
	 * In the handler of a wait. `seen` may be NULL: a client that begins. *parks: the call has a ticket, and is to be parked;
	 * otherwise *told is its answer.
	 * Errors: of the slot dbc_notify; OSTREL_NO_MEMORY
	 */
	ostrel_error_t wait(PeerCred *cred, const LivePosition *seen, Told *told, bool *parks);

	// Around an update by a client, up to its reply.
	void begin_update();
	void end_update();

private:
	static void notice(void *hub);
	static void ring(void *hub);
	ostrel_error_t begin();
	ostrel_error_t make_notifier();
	void drop_notifier();
	void fan_out();
	Waiter *take_told(Told *told);
	void put_back(Waiter *first, Waiter *last);
	void append(Waiter *waiter) REQUIRES(lock_);
	void drop_gone() REQUIRES(lock_);
	bool someone_is_due() const REQUIRES(lock_);
	void ring_in(int64_t ns) const;

	const ostrel_db_t db_;
	int hatch_ = -1;

	Mutex begin_lock_;
	bool has_begun_ GUARDED_BY(begin_lock_) = false;
	Notifier *notifier_ = nullptr; // of the thread that makes it, then of the one that notices
	Fd bell_;                      // a timer; as notifier_

	Mutex lock_;
	LivePosition position_ GUARDED_BY(lock_) = {};
	ostrel_error_t blind_ GUARDED_BY(lock_) = OSTREL_SUCCESS;
	int updates_ GUARDED_BY(lock_) = 0;
	bool is_owed_ GUARDED_BY(lock_) = false;    // a change waits for the reply of an update
	Waiter *first_ GUARDED_BY(lock_) = nullptr; // those with an older position stand first
	Waiter *last_ GUARDED_BY(lock_) = nullptr;
	size_t waiters_ GUARDED_BY(lock_) = 0;
	size_t waiters_after_drop_ GUARDED_BY(lock_) = 0;
};

// The list of an answer to a wait. Errors: OSTREL_NO_MEMORY
ostrel_error_t ostrel_told_list(const Told &told, AttrList *list);

// Serves one call of channel 1. Contract: hatch_handler_t. Every request is answered, or parked.
void ostrel_answer_live_request(ostrel_db_t db, Hub &hub, char *arg, size_t size);

#endif
