// The snapshot "running" of an instance is taken some seconds after its last update, so that a burst of updates costs one
// snapshot. An update notes the time; a thread of the native resources looks every few seconds.
//
// A snapshot may be taken once too often, never once too seldom: whatever is in doubt counts as an update without one. It is a
// comfort, and no part of the update: that was reported long before, and what becomes of the snapshot isn't.
//
// Locks: the gate's lock guards which thread goes on. It is never held during a pass. A pass takes the lock of the resources for
// a step at a time, and calls the daemon without any.
#include <cstdlib>
#include <new>
#include <pthread.h>

#include "base/clock.h"
#include "libostrel_cairn.h"
#include "libostrel_thread.h"

namespace {

// B_TRUE: some resources of this process may have an update without a snapshot. A writer stores the time before it sets the
// flag, and a pass reads the flag before the time, so that none is missed.
std::atomic<boolean_t> ostrel_refresh_needed{B_FALSE};

constexpr char snapshot_name[] = "running";
constexpr char thread_name[] = "ostrel_refresh"; // the system cuts a longer one

time_t now_seconds()
{
	struct timespec now = {};
	(void) clock_gettime(CLOCK_REALTIME, &now);
	return now.tv_sec;
}

} // namespace

void ostrel_request_refresh_cairn(ostrel_rpy_resources_t *res)
{
	if (res->nsr_svclevelop)
		return; // a snapshot is an instance's
	res->nsr_last_tx.store(now_seconds());
	ostrel_refresh_needed.store(B_TRUE);
}

// A snapshot that fails isn't noticed: the next update asks for another one.
static void ostrel_refresh_cairn_take_snap(ostrel_rpy_resources_t *res)
{
	if (rpy_instance_get_snapshot(res->nsr_inst, snapshot_name, res->nsr_snap) == 0)
		(void) _rpy_snapshot_take_attach(res->nsr_inst, res->nsr_snap);
	else
		(void) _rpy_snapshot_take_new(res->nsr_inst, snapshot_name, res->nsr_snap);
}

// Only whole seconds are compared. An update in the very second of the snapshot counts as younger: one snapshot too many is
// better than one too few.
bool ostrel_refresh_is_pending(const ostrel_rpy_resources_t *res)
{
	const time_t last_tx = res->nsr_last_tx.load();
	return last_tx != 0 && last_tx >= res->nsr_last_refresh.load();
}

void ostrel_hand_refresh_on(ostrel_rpy_resources_t *res, ostrel_rpy_resources_t *before)
{
	if (!ostrel_refresh_is_pending(before))
		return;
	res->nsr_last_tx.store(before->nsr_last_tx.exchange(0));
	ostrel_refresh_needed.store(B_TRUE);
}

// The time and the flag are set before the snapshot is taken: an update that runs at the same time counts as younger.
void ostrel_refresh_cairn(ostrel_rpy_resources_t *res, bool force)
{
	if (res->nsr_issvc || !ostrel_refresh_is_pending(res))
		return;
	const time_t now = now_seconds();
	if (!force && now - res->nsr_last_tx.load() < OSTREL_REFRESH_QUIET)
		return;
	res->nsr_last_refresh.store(now);
	ostrel_refresh_needed.store(B_FALSE);
	ostrel_refresh_cairn_take_snap(res);
}

// ---- The thread ----

// Where the refresh threads of a database wait, and are counted. Only the one with the present number goes on; an earlier
// one may still be in its last pass.
struct RefreshGate {
	RefreshGate() { init(); }
	~RefreshGate()
	{
		changed.destroy();
		lock.destroy();
	}
	RefreshGate(const RefreshGate &) = delete;
	RefreshGate &operator=(const RefreshGate &) = delete;
	void init()
	{
		lock.init();
		changed.init();
	}

	Mutex lock;
	CondVar changed;
	uint64_t made GUARDED_BY(lock) = 0;    // numbers given
	uint64_t present GUARDED_BY(lock) = 0; // 0: none goes on
	int threads GUARDED_BY(lock) = 0;      // that haven't ended
};

namespace {

struct RefreshJob {
	ostrel_db_t db;
	RefreshGate *gate;
	uint64_t number;
};

// Sleeps until the next pass. False if this thread is to end.
bool wait_for_pass(const RefreshJob &job)
{
	RefreshGate *gate = job.gate;
	const Deadline end = Deadline::in(OSTREL_REFRESH_PERIOD * second_ns);
	MutexLock lock(gate->lock);
	while (gate->present == job.number && gate->changed.wait_until(gate->lock, end))
		continue;
	return gate->present == job.number;
}

void leave(RefreshGate *gate)
{
	MutexLock lock(gate->lock);
	gate->threads--;
	gate->changed.notify_all();
}

// The resources of the next enclave after `after`, with a hold, so that the list may change between two steps.
ostrel_rpy_resources_t *hold_next(
    ostrel_db_t db, const ostrel_rpy_resources_t *native, const ostrel_rpy_resources_t *after) EXCLUDES(rpy_lock)
{
	RpyLock lock(db);
	for (auto *entry = native->nsr_enclave_resources; entry != nullptr; entry = entry->nsr_enclave_node) {
		if (after == nullptr || cmp_resources_by_enclaveid(entry, after) > 0) {
			entry->nsr_refcnt++;
			return entry;
		}
	}
	return nullptr;
}

// False if there are no native resources to be had.
bool pass(ostrel_db_t db)
{
	ostrel_rpy_resources_t *native = nullptr;
	if (ostrel_get_rpy_resources_for_enclave(db, ostrel_db_get_enclaveid(db), &native) != OSTREL_SUCCESS)
		return false;
	ostrel_refresh_cairn(native, false);
	ostrel_rpy_resources_t *entry = hold_next(db, native, nullptr);
	while (entry != nullptr) {
		ostrel_refresh_cairn(entry, false);
		ostrel_rpy_resources_t *next = hold_next(db, native, entry);
		ostrel_rele_rpy_resources(db, entry, nullptr);
		entry = next;
	}
	ostrel_rele_rpy_resources(db, native, nullptr);
	return true;
}

// Whether anything of this database waits for its snapshot: one that another database took has reset the flag.
bool is_waiting(ostrel_db_t db)
{
	RpyLock lock(db);
	ostrel_rpy_resources_t *native = ostrel_native_rpy_resources(db);
	if (native == nullptr || ostrel_refresh_is_pending(native))
		return native != nullptr;
	ostrel_rpy_resources_t *entry = native->nsr_enclave_resources;
	while (entry != nullptr && !ostrel_refresh_is_pending(entry))
		entry = entry->nsr_enclave_node;
	return entry != nullptr;
}

void *ostrel_refresh_cairn_thread(void *arg)
{
	Heap<RefreshJob> job(static_cast<RefreshJob *>(arg));
	(void) pthread_setname_np(pthread_self(), thread_name);
	while (wait_for_pass(*job.get())) {
		if ((ostrel_refresh_needed.load() || is_waiting(job->db)) && !pass(job->db))
			break;
	}
	leave(job->gate);
	return nullptr;
}

} // namespace

// The number that a thread gets is the present one until the next thread starts: an older one finds another number at its next
// look and ends. So nobody has to be joined, or cancelled in the middle of a pass.
void ostrel_start_refresh(ostrel_rpy_resources_t *res, const ostrel_rpy_resources_t *before)
{
	RefreshGate *gate = before != nullptr ? before->nsr_gate : nullptr;
	res->nsr_gate = gate != nullptr ? gate : gate = new (std::nothrow) RefreshGate;
	Heap<RefreshJob> job(static_cast<RefreshJob *>(malloc(sizeof(RefreshJob))));
	if (gate == nullptr || !job)
		return;
	MutexLock lock(gate->lock);
	const uint64_t number = ++gate->made;
	*job.get() = {res->nsr_db, gate, number};
	if (ostrel_start_thread(ostrel_refresh_cairn_thread, job.get(), thread_name) != 0)
		return;
	(void) job.release(); // the thread's now
	gate->present = number;
	gate->threads++;
	res->nsr_refresh_thread = number;
	gate->changed.notify_all(); // the thread before ends
}

void ostrel_stop_refresh(ostrel_rpy_resources_t *res)
{
	RefreshGate *gate = res->nsr_gate;
	MutexLock lock(gate->lock);
	if (gate->present == res->nsr_refresh_thread)
		gate->present = 0;
	gate->changed.notify_all();
}

void ostrel_close_refresh(RefreshGate *gate)
{
	if (gate == nullptr)
		return;
	MutexLock lock(gate->lock);
	// A pass that replaces the resources starts another thread, which has to end here, too.
	while (gate->threads > 0) {
		gate->present = 0;
		gate->changed.notify_all();
		gate->changed.wait(gate->lock);
	}
}

// To the child, the threads of its parent wait at the gate for ever.
void ostrel_renew_refresh_gate(RefreshGate *gate) NO_THREAD_SAFETY_ANALYSIS
{
	if (gate == nullptr)
		return;
	gate->init();
	gate->present = 0;
	gate->threads = 0;
}

void ostrel_free_refresh_gate(RefreshGate *gate)
{
	delete gate;
}
