// The snapshot "running" of an instance is taken some seconds after its last update, so that a burst costs one. An update
// notes the time; a thread of the native resources looks every few seconds.
#include <cstdlib>
#include <pthread.h>
#include <unistd.h>

#include "libostrel_cairn.h"

namespace {

// B_TRUE: some resources of this process may have an update without a snapshot. Set after the time was noted, and looked
// at before.
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

// The time and the flag are set before the snapshot is taken, so that an update beside it is seen to be younger.
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

// Where the refresh threads of a database wait, and are counted. Only the one with the present number goes on; one before
// it may still be in its last pass.
struct RefreshGate {
	Mutex lock;
	pthread_cond_t changed;
	uint64_t made;    // numbers given
	uint64_t present; // 0: none goes on
	int threads;      // that haven't ended
};

namespace {

struct RefreshJob {
	ostrel_db_t db;
	RefreshGate *gate;
	uint64_t number;
};

RefreshGate *make_gate()
{
	auto *gate = static_cast<RefreshGate *>(calloc(1, sizeof(RefreshGate)));
	if (gate == nullptr)
		return nullptr;
	if (!ostrel_init_monotonic(&gate->changed)) {
		free(gate);
		return nullptr;
	}
	gate->lock.init();
	return gate;
}

// Sleeps until the next pass. False if this thread is to end.
bool wait_for_pass(const RefreshJob &job)
{
	RefreshGate *gate = job.gate;
	struct timespec end = {};
	(void) clock_gettime(CLOCK_MONOTONIC, &end);
	end.tv_sec += OSTREL_REFRESH_PERIOD;
	MutexLock lock(gate->lock);
	for (bool waited = true; waited && gate->present == job.number;)
		waited = pthread_cond_timedwait(&gate->changed, &gate->lock.raw, &end) == 0;
	return gate->present == job.number;
}

void leave(RefreshGate *gate)
{
	MutexLock lock(gate->lock);
	gate->threads--;
	(void) pthread_cond_broadcast(&gate->changed);
}

// The resources of the next enclave behind `after`, with a hold: the list may change at any time but under the lock.
ostrel_rpy_resources_t *hold_next(
    ostrel_db_t db, const ostrel_rpy_resources_t *native, const ostrel_rpy_resources_t *after)
{
	MutexLock lock(db->db_privlock);
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
	MutexLock lock(db->db_privlock);
	auto *native = static_cast<ostrel_rpy_resources_t *>(ostrel_db_get_priv(db));
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

void ostrel_start_refresh(ostrel_rpy_resources_t *res, const ostrel_rpy_resources_t *before)
{
	RefreshGate *gate = before != nullptr ? before->nsr_gate : nullptr;
	res->nsr_gate = gate != nullptr ? gate : gate = make_gate();
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
	(void) pthread_cond_broadcast(&gate->changed); // for the one before
}

void ostrel_stop_refresh(ostrel_rpy_resources_t *res)
{
	RefreshGate *gate = res->nsr_gate;
	MutexLock lock(gate->lock);
	if (gate->present == res->nsr_refresh_thread)
		gate->present = 0;
	(void) pthread_cond_broadcast(&gate->changed);
}

void ostrel_close_refresh(RefreshGate *gate)
{
	if (gate == nullptr)
		return;
	MutexLock lock(gate->lock);
	// A pass that replaces the resources starts another thread, which is told to end here, too.
	while (gate->threads > 0) {
		gate->present = 0;
		(void) pthread_cond_broadcast(&gate->changed);
		(void) pthread_cond_wait(&gate->changed, &gate->lock.raw);
	}
}

// To the child its parent's threads wait at the gate for ever, and whoever wakes them may wait for them.
void ostrel_renew_refresh_gate(RefreshGate *gate)
{
	if (gate == nullptr)
		return;
	gate->lock.init();
	(void) ostrel_init_monotonic(&gate->changed); // it went well before, and takes no memory
	gate->present = 0;
	gate->threads = 0;
}

void ostrel_free_refresh_gate(RefreshGate *gate)
{
	if (gate == nullptr)
		return;
	(void) pthread_cond_destroy(&gate->changed);
	gate->lock.destroy();
	free(gate);
}
