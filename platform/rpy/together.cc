// Divisions: a thread that waits; one call for several; the turns.
#include "rpy/together.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "hatch/epoch.h"
#include "rpy/object.h"

namespace rpy {

enum FellowState : uint32_t {
	fellow_waits,
	fellow_leads, // it is this thread's turn to call
	fellow_done,  // another one has called for it
	fellow_alone, // another one has, and the daemon left this read to a call of its own
};

// A thread with a read. What it gets is its reply as the daemon would have sent it alone, or why there is none.
struct Fellow {
	Call *call;
	rpy_error_t error = RPY_ERROR_NONE;
	std::atomic<uint32_t> state{fellow_waits};
	Fellow *next = nullptr;
	uid_t uid = 0; // the daemon looks at who sends: threads of the same ids share a call
	gid_t gid = 0;

	explicit Fellow(Call *its_call) : call(its_call) {}
	Fellow(const Fellow &) = delete;
	Fellow &operator=(const Fellow &) = delete;
};

namespace {

constexpr int calls_max = 2;
constexpr size_t requests_max = 12288; // bytes of a shared request: the daemon receives them at once

// ---- A thread that waits ----

// Once its state is set, the other thread may have gone with all that lies on its stack: the address is a name only.
void wake(Fellow *fellow, FellowState state)
{
	std::atomic<uint32_t> *word = &fellow->state;
	word->store(state, std::memory_order_release);
	(void) syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

FellowState wait(Fellow *fellow)
{
	uint32_t state;
	while ((state = fellow->state.load(std::memory_order_acquire)) == fellow_waits)
		(void) syscall(SYS_futex, &fellow->state, FUTEX_WAIT_PRIVATE, fellow_waits, nullptr, nullptr, 0);
	return static_cast<FellowState>(state);
}

// ---- One call for several ----

// Takes those out of the queue that can share a call with the leader, behind it.
void take_along(Together *together, Fellow *leader) REQUIRES(together->lock)
{
	size_t size = leader->call->out.size();
	Fellow *end = leader, *left = nullptr;
	Fellow **place = &together->first;
	while (Fellow *fellow = *place) {
		size_t with = size + fellow->call->out.size();
		if (fellow->uid == leader->uid && fellow->gid == leader->gid && with <= requests_max) {
			size = with;
			*place = fellow->next;
			fellow->next = nullptr;
			end = end->next = fellow;
		} else {
			left = fellow;
			place = &fellow->next;
		}
	}
	together->last = left;
}

// Takes a shared reply apart, and lets those behind the leader go on. The daemon ends it where it gets too long: who finds
// nothing there asks alone.
void hand_out(Call *shared, rpy_error_t error, Fellow *leader)
{
	bool leads = true;
	for (Fellow *fellow = leader; fellow != nullptr; leads = false) {
		Fellow *next = fellow->next;
		FellowState state = fellow_done;
		fellow->error = error;
		if (error == RPY_ERROR_NONE && shared->in.left() == 0) {
			state = fellow_alone;
		} else if (error == RPY_ERROR_NONE) {
			std::string_view reply = shared->in.text();
			fellow->error = shared->in.ok() ? fellow->call->keep(reply) : RPY_ERROR_INTERNAL;
		}
		if (leads)
			fellow->state.store(state, std::memory_order_relaxed);
		else
			wake(fellow, state);
		fellow = next;
	}
}

// In the leader's time: it came before the others.
void call_together(rpy_handle_t *handle, Fellow *leader, Budget *budget)
{
	Call shared(Op::read_batch);
	for (Fellow *fellow = leader; fellow != nullptr; fellow = fellow->next)
		shared.out.text(fellow->call->out.view());
	rpy_error_t error = shared.out.ok() ? shared.exchange(handle, budget) : RPY_ERROR_NO_MEMORY;
	// A daemon of another release, or one that is short of memory, has nothing for anybody: each then asks alone.
	if (error == RPY_ERROR_NONE && shared.take_head() != RPY_ERROR_NONE)
		shared.in = Reader();
	hand_out(&shared, error, leader);
}

// ---- The turns ----

// In a forked child: of its parent's threads one may have held the lock, and all others will never come back.
void forget_parent(Together *together) NO_THREAD_SAFETY_ANALYSIS
{
	together->lock.init();
	together->calls = 0;
	together->first = together->last = nullptr;
}

// Takes a turn, or has the thread wait for one. False if it is to wait.
bool take_turn(Together *together, Fellow *fellow)
{
	MutexLock hold(together->lock);
	if (together->calls < calls_max) {
		together->calls++;
		return true;
	}
	fellow->uid = getuid();
	fellow->gid = getgid();
	(together->last == nullptr ? together->first : together->last->next) = fellow;
	together->last = fellow;
	return false;
}

// Passes a turn on, or gives all up that wait.
void end_turn(Together *together, bool give_up)
{
	Fellow *next;
	{
		MutexLock hold(together->lock);
		next = together->first;
		if (next == nullptr || give_up) {
			together->calls--;
			together->first = together->last = nullptr;
		} else {
			together->first = next->next;
			next->next = nullptr;
			if (together->first == nullptr)
				together->last = nullptr;
		}
	}
	if (!give_up) {
		if (next != nullptr)
			wake(next, fellow_leads);
		return;
	}
	while (Fellow *fellow = next) {
		next = fellow->next;
		fellow->error = RPY_ERROR_CONNECTION_BROKEN;
		wake(fellow, fellow_done);
	}
}

} // namespace

rpy_error_t exchange_together(rpy_handle_t *handle, Call *call)
{
	Budget budget;
	CancellationWaits cancellation; // other threads hold what lies on this one's stack
	Together *together = &handle->together;
	Fellow own(call);
	bool had_all_the_time = true;
	together->process.enter(hatch::epoch(), [together] { forget_parent(together); });
	if (!take_turn(together, &own)) {
		FellowState state = wait(&own);
		if (state == fellow_done)
			return own.error;
		if (state == fellow_alone)
			return call->exchange(handle, &budget);
		had_all_the_time = false;
		int seconds;
		size_t bytes;
		MutexLock hold(together->lock);
		if (budget.left(&seconds, &bytes)) // who has no time left takes nobody along
			take_along(together, &own);
		else
			own.next = nullptr;
	}
	if (own.next == nullptr)
		own.error = call->exchange(handle, &budget);
	else
		call_together(handle, &own, &budget);
	// Nobody waits for a daemon that has gone, or that hasn't answered for as long as one may take.
	end_turn(together,
	    own.error == RPY_ERROR_CONNECTION_BROKEN && (had_all_the_time || find_daemon(handle) != RPY_ERROR_NONE));
	return own.state.load(std::memory_order_relaxed) == fellow_alone ? call->exchange(handle, &budget) : own.error;
}

} // namespace rpy
