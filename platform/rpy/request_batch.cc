// At most two calls of a handle are under way. Each has its turn, and a turn ends in one of three ways: it is passed to the thread
// that has waited longest; nobody waits, and there is one call less; or the daemon has gone, and all that wait are told so,
// instead of each of them waiting for its own failure.
//
// A waiter belongs to the queue, then to the leader that took it out of there, then, once its state is set, to its own thread
// again, which may return at once. So the state is the last thing that a leader writes to it.
//
// A reply that doesn't hold a waiter's part is no failure: that thread asks again in a call of its own, with a budget that
// began when it did.
//
// Divisions: a thread that waits; one call for several; the turns.
#include "rpy/request_batch.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "rpy/call.h"
#include "rpy/handle.h"

namespace rpy {

enum WaiterState : uint32_t {
	waits,
	leads,      // it is this thread's turn to call
	is_served,  // another one has called for it
	asks_alone, // another one has, and the daemon left this read to a call of its own
};

// A thread with a read. What it gets is its reply as the daemon would have sent it alone, or why there is none.
struct Waiter {
	Call *call;
	rpy_error_t error = RPY_ERROR_NONE;
	std::atomic<uint32_t> state{waits};
	Waiter *next = nullptr;
	uid_t uid = 0; // the daemon looks at the sender: only threads of the same ids share a call
	gid_t gid = 0;

	explicit Waiter(Call *its_call) : call(its_call) {}
	Waiter(const Waiter &) = delete;
	Waiter &operator=(const Waiter &) = delete;
};

namespace {

constexpr int calls_max = 2;
constexpr size_t requests_max = 12288; // bytes of a shared request: the daemon receives them at once

// ---- A thread that waits ----

// Once its state is set, the other thread may have gone with all that lies on its stack: only the address is used then.
void wake(Waiter *waiter, WaiterState state)
{
	std::atomic<uint32_t> *word = &waiter->state;
	word->store(state, std::memory_order_release);
	(void) syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

WaiterState wait(Waiter *waiter)
{
	uint32_t state;
	while ((state = waiter->state.load(std::memory_order_acquire)) == waits)
		(void) syscall(SYS_futex, &waiter->state, FUTEX_WAIT_PRIVATE, waits, nullptr, nullptr, 0);
	return static_cast<WaiterState>(state);
}

// ---- One call for several ----

// Takes the waiters that can share a call with the leader out of the queue, and links them to it.
void gather(RequestBatch *batch, Waiter *leader) REQUIRES(batch->lock)
{
	size_t size = leader->call->out.size();
	Waiter *end = leader, *left = nullptr;
	Waiter **link = &batch->first;
	while (Waiter *waiter = *link) {
		size_t with = size + waiter->call->out.size();
		if (waiter->uid == leader->uid && waiter->gid == leader->gid && with <= requests_max) {
			size = with;
			*link = waiter->next;
			waiter->next = nullptr;
			end = end->next = waiter;
		} else {
			left = waiter;
			link = &waiter->next;
		}
	}
	batch->last = left;
}

// Splits a shared reply and lets the waiters after the leader go on. The daemon ends the reply where it gets too long: a
// waiter whose reply is missing repeats its read by itself.
void hand_out(Call *shared, rpy_error_t error, Waiter *leader)
{
	bool is_leader = true;
	for (Waiter *waiter = leader; waiter != nullptr; is_leader = false) {
		Waiter *next = waiter->next;
		WaiterState state = is_served;
		waiter->error = error;
		if (error == RPY_ERROR_NONE && shared->in.left() == 0) {
			state = asks_alone;
		} else if (error == RPY_ERROR_NONE) {
			std::string_view reply = shared->in.text();
			waiter->error = shared->in.ok() ? waiter->call->keep(reply) : RPY_ERROR_INTERNAL;
		}
		if (is_leader)
			waiter->state.store(state, std::memory_order_relaxed);
		else
			wake(waiter, state);
		waiter = next;
	}
}

// Within the leader's time: it came before the others.
void call_for_all(rpy_handle_t *handle, Waiter *leader, Budget *budget)
{
	Call shared(Op::read_batch);
	for (Waiter *waiter = leader; waiter != nullptr; waiter = waiter->next)
		shared.out.text(waiter->call->out.view());
	rpy_error_t error = shared.out.ok() ? shared.exchange(handle, budget) : RPY_ERROR_NO_MEMORY;
	// A daemon of another release, or one that is short of memory, answers none of them: each waiter then asks alone.
	if (error == RPY_ERROR_NONE && shared.take_head() != RPY_ERROR_NONE)
		shared.in = Reader();
	hand_out(&shared, error, leader);
}

// ---- The turns ----

// In a forked child: a thread of its parent may have held the lock, and none of the others will come back.
void forget_parent(RequestBatch *batch) NO_THREAD_SAFETY_ANALYSIS
{
	batch->lock.init();
	batch->calls = 0;
	batch->first = batch->last = nullptr;
}

// Takes a turn, or puts the thread into the queue. False if it has to wait.
bool take_turn(RequestBatch *batch, Waiter *waiter)
{
	MutexLock hold(batch->lock);
	if (batch->calls < calls_max) {
		batch->calls++;
		return true;
	}
	waiter->uid = getuid();
	waiter->gid = getgid();
	(batch->last == nullptr ? batch->first : batch->last->next) = waiter;
	batch->last = waiter;
	return false;
}

// Passes a turn on to the next waiter.
void pass_turn_on(RequestBatch *batch)
{
	Waiter *next;
	{
		MutexLock hold(batch->lock);
		next = batch->first;
		if (next == nullptr) {
			batch->calls--;
			return;
		}
		batch->first = next->next;
		next->next = nullptr;
		if (batch->first == nullptr)
			batch->last = nullptr;
	}
	wake(next, leads);
}

// Ends a turn with all that wait for one: the daemon has gone.
void give_up(RequestBatch *batch)
{
	Waiter *next;
	{
		MutexLock hold(batch->lock);
		batch->calls--;
		next = batch->first;
		batch->first = batch->last = nullptr;
	}
	while (Waiter *waiter = next) {
		next = waiter->next;
		waiter->error = RPY_ERROR_CONNECTION_BROKEN;
		wake(waiter, is_served);
	}
}

rpy_error_t exchange(rpy_handle_t *handle, Call *call)
{
	Budget budget;
	CancellationWaits cancellation; // other threads use what lies on this one's stack
	RequestBatch *batch = &handle->batch;
	Waiter own(call);
	bool had_all_the_time = true;
	batch->process.enter([batch] { forget_parent(batch); });
	if (!take_turn(batch, &own)) {
		WaiterState state = wait(&own);
		if (state == is_served)
			return own.error;
		if (state == asks_alone)
			return call->exchange(handle, &budget);
		had_all_the_time = false;
		int seconds;
		size_t bytes;
		MutexLock hold(batch->lock);
		if (budget.left(&seconds, &bytes)) // without time left it calls for nobody else
			gather(batch, &own);
		else
			own.next = nullptr;
	}
	if (own.next == nullptr)
		own.error = call->exchange(handle, &budget);
	else
		call_for_all(handle, &own, &budget);
	// Nobody waits for a daemon that has gone, or that hasn't answered for as long as a call may take.
	if (own.error == RPY_ERROR_CONNECTION_BROKEN && (had_all_the_time || find_daemon(handle) != RPY_ERROR_NONE))
		give_up(batch);
	else
		pass_turn_on(batch);
	return own.state.load(std::memory_order_relaxed) == asks_alone ? call->exchange(handle, &budget) : own.error;
}

} // namespace

bool send_in_batch(rpy_handle_t *handle, Call *call)
{
	if (!request_of(call->op).is(Request::batchable))
		return call->send(handle);
	return call->ready(handle) && call->take(exchange(handle, call));
}

} // namespace rpy
