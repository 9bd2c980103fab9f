// Operations of the repository back end: what an operation is about, the resources that it holds, and the level, service or
// instance, that it works on. Opening and closing a database.
//
// Divisions: what an operation is about; the level of an operation; the resources of an operation; open and close.
#include "libostrel_cairn.h"

#include <cstring>
#include <utility>

#include "base/clock.h"

// ---- What an operation is about ----

ostrel_error_t ostrel_db_info(ostrel_db_t db, attrlist_t *idl, const char **name, enclaveid_t *enclave)
{
	*name = ostrel_db_get_name(db);
	*enclave = ostrel_db_get_enclaveid(db);
	if (idl != nullptr)
		(void) ostrel_idlist_get_enclaveid(idl, enclave); // without the key the database's stays
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_idlist2pginfo(attrlist_t *idl, char **pgname, char **pgtype)
{
	bool found = false;
	if (pgname != nullptr && ostrel_idlist_get(idl, OSTREL_ID_PGNAME, pgname) == OSTREL_SUCCESS)
		found = true;
	if (pgtype != nullptr && ostrel_idlist_get(idl, OSTREL_ID_PGTYPE, pgtype) == OSTREL_SUCCESS)
		found = true;
	return found ? OSTREL_SUCCESS : OSTREL_INVALID_ARG;
}

// ---- The level of an operation ----

// An instance of a service-level database. After the service's name comes a colon: "net/link2:i" is no instance of "net/link".
static ostrel_error_t choose_instance(ostrel_rpy_resources_t *res, ostrel_rpy_work_t *work, const char *opname)
{
	const char *db_name = ostrel_db_get_name(res->nsr_db);
	size_t length = strlen(db_name);
	if (strncmp(opname, db_name, length) != 0 || opname[length] != ':')
		return SETERROR(OSTREL_INVALID_ARG);
	if (rpy_handle_decode_locator(
		res->nsr_handle, opname, nullptr, nullptr, work->nsr_op_inst, nullptr, nullptr, 0) != 0)
		return SETERROR(ostrel_rpy_failure());
	work->nsr_svclevelop = B_FALSE;
	return OSTREL_SUCCESS;
}

static ostrel_error_t ostrel_get_rpy_dbname_for_op(
    attrlist_t *idl, ostrel_rpy_resources_t *res, ostrel_rpy_work_t *work)
{
	const char *db_name = ostrel_db_get_name(res->nsr_db);
	char *opname = nullptr;
	// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): an entry, or the resources themselves
	work->nsr_svclevelop = res->nsr_issvc;
	if (idl == nullptr || ostrel_idlist_get_db_name(idl, &opname) != OSTREL_SUCCESS || strcmp(opname, db_name) == 0)
		return OSTREL_SUCCESS;
	if (res->nsr_issvc)
		return choose_instance(res, work, opname);
	if (strncmp(opname, db_name, strlen(opname)) != 0)
		return SETERROR(OSTREL_INVALID_ARG);
	work->nsr_svclevelop = B_TRUE;
	return OSTREL_SUCCESS;
}

// ---- The resources of an operation ----

// In a forked child: threads of the parent, which it doesn't have, may have held the lock or used the pools.
static void forget_parent(ostrel_db_t db)
{
	rpy_lock.not_shared();
	db->db_privlock.init();
	ostrel_rpy_resources_t *native = ostrel_native_rpy_resources(db);
	if (native == nullptr)
		return;
	ostrel_renew_refresh_gate(native->nsr_gate);
	native->nsr_private_daemon.is_inherited = true;
	ostrel_forget_rpy_read_resources(native);
	for (auto *entry = native->nsr_enclave_resources; entry != nullptr; entry = entry->nsr_enclave_node)
		ostrel_forget_rpy_read_resources(entry);
	if (native->nsr_refresh_thread != 0)
		ostrel_start_refresh(native, native);
}

static void enter_process(ostrel_db_t db)
{
	db->db_priv_process.enter([db] { forget_parent(db); });
}

RpyOperation::RpyOperation(ostrel_db_t db) : db_(db)
{
	enter_process(db);
}

static Deadline end_of_operation(enclaveid_t enclave)
{
	return enclave == getenclaveid() ? Deadline::never() : Deadline::in(OSTREL_RPY_FOREIGN_SECONDS * second_ns);
}

bool ostrel_rpy_is_over(const ostrel_rpy_work_t *work)
{
	return work->nsr_until.has_passed();
}

// An update alone stores its level and its time in the resources: readers have their own work, and the refresh thread takes
// resources without being an operation.
ostrel_error_t RpyOperation::begin_update(attrlist_t *idl, uint64_t flags)
{
	const char *name;
	enclaveid_t enclave;
	if (ostrel_error_t result = ostrel_db_info(db_, idl, &name, &enclave))
		return result;
	if (ostrel_error_t result = ostrel_get_rpy_resources_for_enclave(db_, enclave, &res_))
		return result;
	// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a look-up that succeeds gives them
	res_->nsr_temp = (flags & OSTREL_FLAG_TEMPORARY) != 0 ? B_TRUE : B_FALSE;
	res_->nsr_until = end_of_operation(enclave);
	return ostrel_get_rpy_dbname_for_op(idl, res_, res_);
}

// Takes resources that are there with a free entry of their pool, and tests the connection with the entry's own object, so
// that readers' calls run side by side. The fast path: false leaves everything else to begin_read().
bool RpyOperation::take_ready(enclaveid_t enclave)
{
	const EnclaveRoot root = ostrel_look_at_root(enclave);
	{
		RpyLock lock(db_);
		ostrel_rpy_resources_t *found = ostrel_find_rpy_resources(db_, enclave);
		if (found == nullptr || found->nsr_private_configd ||
		    ostrel_take_rpy_read_resources(found, &rres_) != OSTREL_SUCCESS)
			return false;
		found->nsr_refcnt++;
		found->nsr_cache_hits++;
		res_ = found;
	}
	// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a taken entry is one
	if (ostrel_rpy_is_usable(res_, root, rres_->nsr_scope))
		return true;
	ostrel_rele_rpy_resources(db_, res_, rres_);
	res_ = nullptr;
	rres_ = nullptr;
	return false;
}

ostrel_error_t RpyOperation::begin_read(attrlist_t *idl)
{
	const char *name;
	enclaveid_t enclave;
	if (ostrel_error_t result = ostrel_db_info(db_, idl, &name, &enclave))
		return result;
	if (!take_ready(enclave)) {
		if (ostrel_error_t result = ostrel_get_rpy_resources_for_enclave(db_, enclave, &res_))
			return result;
		if (ostrel_error_t result = ostrel_get_rpy_read_resources(res_, &rres_))
			return result;
	}
	// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a taken entry is one
	rres_->nsr_until = end_of_operation(enclave);
	return ostrel_get_rpy_dbname_for_op(idl, res_, rres_);
}

// Whether what an operation works on, a service or an instance, was deleted.
static bool top_is_deleted(const ostrel_rpy_work_t *work)
{
	int found = work->nsr_svclevelop ? rpy_service_get_pg(work->nsr_svc, "any", work->nsr_pg[0])
					 : rpy_instance_get_pg(work->nsr_op_inst, "any", work->nsr_pg[0]);
	return found != 0 && rpy_error() == RPY_ERROR_DELETED;
}

bool RpyOperation::renew(attrlist_t *idl)
{
	if (rpy_error() != RPY_ERROR_DELETED || !top_is_deleted(work()))
		return false;
	res_->nsr_deleted = true;
	RpyOperation next(db_);
	ostrel_error_t result = rres_ != nullptr ? next.begin_read(idl)
						 : next.begin_update(idl, res_->nsr_temp ? OSTREL_FLAG_TEMPORARY : 0);
	if (result != OSTREL_SUCCESS) {
		res_->nsr_deleted = false; // an instance's service may still be there
		return false;
	}
	std::swap(res_, next.res_);
	std::swap(rres_, next.rres_);
	return true;
}

ostrel_error_t RpyOperation::find(attrlist_t *idl, const char *pgname)
{
	ostrel_error_t result = ostrel_rpy_get_real_pg(db_, work(), pgname);
	return result == OSTREL_FAILURE && renew(idl) ? ostrel_rpy_get_real_pg(db_, work(), pgname) : result;
}

ostrel_error_t RpyOperation::begin_update_at(attrlist_t *idl, uint64_t flags)
{
	char *pgname;
	if (ostrel_idlist2pginfo(idl, &pgname, nullptr) != OSTREL_SUCCESS)
		return OSTREL_INVALID_ARG;
	ostrel_error_t result = begin_update(idl, flags);
	return result == OSTREL_SUCCESS ? find(idl, pgname) : result;
}

// ---- Open and close ----

ostrel_error_t ostrel_open_cairn(ostrel_db_t db)
{
	enter_process(db);
	RpyLock lock(db);
	ostrel_rpy_resources_t *res;
	return ostrel_create_rpy_resources(db, &res);
}

// All native resources that a database has in turn share one gate.
static RefreshGate *gate_of(ostrel_db_t db)
{
	RpyLock lock(db);
	ostrel_rpy_resources_t *native = ostrel_native_rpy_resources(db);
	return native == nullptr ? nullptr : native->nsr_gate;
}

// Takes a pending snapshot whose connection broke on a new connection. A sound one takes it when it is destroyed.
static void take_last_snapshot(ostrel_db_t db)
{
	RpyLock lock(db);
	ostrel_rpy_resources_t *native = ostrel_native_rpy_resources(db);
	if (native == nullptr || native->nsr_issvc || !ostrel_refresh_is_pending(native) ||
	    ostrel_rpy_is_usable(native, ostrel_look_at_root(native->nsr_enclaveid), native->nsr_scope))
		return;
	NewResources fresh;
	if (ostrel_build_rpy_resources(db, native->nsr_enclaveid, &fresh) != OSTREL_SUCCESS)
		return;
	ostrel_hand_refresh_on(fresh.get(), native);
	ostrel_refresh_cairn(fresh.get(), true);
	ostrel_end_private_configd(fresh.get());
}

// A refresh thread may replace the native resources, so that they are looked up after the last one has ended.
void ostrel_close_cairn(ostrel_db_t db)
{
	enter_process(db);
	RefreshGate *gate = gate_of(db);
	ostrel_close_refresh(gate);
	take_last_snapshot(db);
	RpyLock lock(db);
	ostrel_rpy_resources_t *res = ostrel_native_rpy_resources(db);
	ostrel_db_set_priv(db, nullptr);
	ostrel_destroy_rpy_resources(res);
	ostrel_free_refresh_gate(gate);
}
