// The working objects of operations, and the pool that readers have of them. The pool grows on demand to
// OSTREL_RPY_MAX_READERS entries and never shrinks; an entry goes with its resources.
#include <new>

#include "base/clock.h"
#include "libostrel_cairn.h"

// ---- Working objects ----

bool ostrel_create_rpy_work(rpy_handle_t *handle, ostrel_rpy_work_t *work)
{
	work->nsr_prop = rpy_property_create(handle);
	if (work->nsr_prop == nullptr)
		return false;
	work->nsr_propiter = rpy_iter_create(handle);
	if (work->nsr_propiter == nullptr)
		return false;
	work->nsr_val = rpy_value_create(handle);
	if (work->nsr_val == nullptr)
		return false;
	work->nsr_valiter = rpy_iter_create(handle);
	if (work->nsr_valiter == nullptr)
		return false;
	for (int depth = 0; depth < OSTREL_RPY_MAX_DEPTH; depth++) {
		work->nsr_pg[depth] = rpy_pg_create(handle);
		if (work->nsr_pg[depth] == nullptr)
			return false;
		work->nsr_pgiter[depth] = rpy_iter_create(handle);
		if (work->nsr_pgiter[depth] == nullptr)
			return false;
	}
	return true;
}

void ostrel_destroy_rpy_work(ostrel_rpy_work_t *work)
{
	for (int depth = 0; depth < OSTREL_RPY_MAX_DEPTH; depth++) {
		rpy_pg_destroy(work->nsr_pg[depth]);
		rpy_iter_destroy(work->nsr_pgiter[depth]);
	}
	rpy_property_destroy(work->nsr_prop);
	rpy_iter_destroy(work->nsr_propiter);
	rpy_value_destroy(work->nsr_val);
	rpy_iter_destroy(work->nsr_valiter);
}

// ---- Entries ----

static void ostrel_destroy_rpy_read_resource(ostrel_rpy_read_resources_t *rres)
{
	ostrel_destroy_rpy_work(rres);
	rpy_instance_destroy(rres->nsr_own_inst);
	rpy_scope_destroy(rres->nsr_scope);
	delete rres;
}
using ReadResources = Handle<ostrel_rpy_read_resources_t, ostrel_destroy_rpy_read_resource>;

void ostrel_destroy_rpy_read_resources(ostrel_rpy_resources_t *res)
{
	while (ostrel_rpy_read_resources_t *first = res->nsr_read_resources) {
		res->nsr_read_resources = first->nsr_list_node;
		ostrel_destroy_rpy_read_resource(first);
	}
	res->nsr_num_readers = 0;
}

void ostrel_forget_rpy_read_resources(ostrel_rpy_resources_t *res)
{
	res->nsr_reader_left.init();
	res->nsr_read_resources = nullptr;
	res->nsr_num_readers = 0;
}

static void append_entry(ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t *rres) REQUIRES(rpy_lock)
{
	ostrel_rpy_read_resources_t **end = &res->nsr_read_resources;
	while (*end != nullptr)
		end = &(*end)->nsr_list_node;
	*end = rres;
	res->nsr_num_readers++;
}

static ostrel_error_t ostrel_create_rpy_read_resources(ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t **rresp)
    REQUIRES(rpy_lock)
{
	*rresp = nullptr;
	if (res->nsr_num_readers >= OSTREL_RPY_MAX_READERS)
		return OSTREL_NEEDS_RETRY;
	ReadResources rres(new (std::nothrow) ostrel_rpy_read_resources_t());
	if (!rres)
		return SETERROR(OSTREL_NO_MEMORY);
	if (!ostrel_create_rpy_work(res->nsr_handle, rres.get()))
		return ostrel_rpy_failure();
	rres->nsr_own_inst = rpy_instance_create(res->nsr_handle);
	if (rres->nsr_own_inst == nullptr)
		return ostrel_rpy_failure();
	rres->nsr_scope = rpy_scope_create(res->nsr_handle);
	if (rres->nsr_scope == nullptr)
		return ostrel_rpy_failure();
	rres->nsr_svc = res->nsr_svc;
	rres->nsr_op_inst = res->nsr_issvc ? rres->nsr_own_inst : res->nsr_inst;
	rres->nsr_inuse = B_TRUE;
	append_entry(res, rres.get());
	*rresp = rres.release();
	return OSTREL_SUCCESS;
}

// ---- Taking and giving back ----

ostrel_error_t ostrel_take_rpy_read_resources(ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t **rresp)
{
	for (auto *entry = res->nsr_read_resources; entry != nullptr; entry = entry->nsr_list_node) {
		if (entry->nsr_inuse)
			continue;
		entry->nsr_inuse = B_TRUE;
		*rresp = entry;
		return OSTREL_SUCCESS;
	}
	return ostrel_create_rpy_read_resources(res, rresp);
}

void ostrel_give_back_rpy_read_resources(ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t *rres)
{
	rres->nsr_inuse = B_FALSE;
	res->nsr_reader_left.notify_one();
}

static ostrel_error_t take_at_once(ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t **rresp) EXCLUDES(rpy_lock)
{
	RpyLock lock(res->nsr_db);
	return ostrel_take_rpy_read_resources(res, rresp);
}

// Waits for others to give an entry up, with no lock held while it sleeps: with db_lock held, an update would wait for as long,
// and all readers after it.
static ostrel_error_t wait_for_entry(ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t **rresp)
    EXCLUDES(rpy_lock)
{
	ostrel_db_t db = res->nsr_db;
	const Deadline end = Deadline::in(OSTREL_RPY_READ_WAITS * second_ns);
	RpyLock lock(db);
	for (bool is_last = false;;) {
		ostrel_error_t result = ostrel_take_rpy_read_resources(res, rresp);
		if (result != OSTREL_NEEDS_RETRY || is_last)
			return result;
		is_last = !res->nsr_reader_left.wait_until(db->db_privlock, end);
	}
}

// ostrel_db_read() holds db_lock for reading; ostrel_db_walk() and a hatch server read without it. Which it is depends on the
// thread, which the analysis can't follow.
ostrel_error_t ostrel_get_rpy_read_resources(
    ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t **rresp) NO_THREAD_SAFETY_ANALYSIS
{
	// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): the caller holds resources
	ostrel_db_t db = res->nsr_db;
	*rresp = nullptr;
	ostrel_error_t result = take_at_once(res, rresp);
	if (result != OSTREL_NEEDS_RETRY)
		return result;
	const bool is_locked = ostrel_db_is_read_locked_here(db);
	if (is_locked)
		ostrel_db_unlock(db);
	result = wait_for_entry(res, rresp);
	if (is_locked)
		ostrel_db_rdlock(db);
	return result;
}
