// Writing: a write makes a group hold exactly the given properties, in one transaction, and creates the group if need be. A
// remove deletes the group.
#include "base/clock.h"
#include "libostrel_cairn.h"

namespace {

// The daemon refuses a commit on a version of the group that isn't the latest. The transaction is then built again from the
// start, deletions included, so that the group ends up with exactly `props`, whatever others have written in between. There is
// no bound on the attempts but the time of an operation in another enclave. While others keep changing the group, this writer
// waits between its attempts, ever longer.
ostrel_error_t commit(ostrel_rpy_resources_t *res, attrlist_t *props, bool created)
{
	for (Backoff backoff(50 * microsecond_ns, 100 * millisecond_ns);;) {
		if (ostrel_error_t result = ostrel_rpy_build_transaction(res, props, created))
			return result;
		int committed = rpy_transaction_commit(res->nsr_tx);
		if (committed == 1)
			return OSTREL_SUCCESS;
		if (committed != 0)
			return SETERROR(ostrel_rpy_failure());
		if (ostrel_rpy_is_over(res))
			return SETERROR(OSTREL_FAILURE);
		// Before the group is read again: the fresher it is, the likelier the next attempt lands.
		backoff.pause();
		if (rpy_pg_update(ostrel_res_pg_curr(res)) == -1)
			return SETERROR(ostrel_rpy_failure());
		// Others may have put properties into a group that this write has made. They go, too.
		created = false;
	}
}

// Takes back what a failed write has created: the current group, if it is one of those. What others have put there stays. A
// commit that may still be carried out finds no group then, or is taken back with it.
void undo_creation(ostrel_rpy_resources_t *res, const RpyCreation &made, uint64_t change)
{
	if (made.first == -1 || res->nsr_pgdepth < made.first || res->nsr_pgdepth > made.last)
		return;
	(void) _rpy_pg_withdraw(ostrel_res_pg_curr(res), change); // after a failure it stays, and is empty
}

struct RpyPaths {
	char *pgname = nullptr;
	char *pgtype = nullptr; // none if the list has none
};

// Finds the group of a write, or creates it. Whatever the update makes from here on is part of its change, so that it can be
// withdrawn without hitting what others have done.
ostrel_error_t find_or_create(RpyOperation *operation, attrlist_t *idl, const char *pgname, const char *pgtype,
    uint64_t change, RpyCreation *made)
{
	ostrel_error_t result = operation->find(idl, pgname);
	_rpy_handle_set_change(operation->res()->nsr_handle, change);
	if (result != OSTREL_NOT_FOUND)
		return result == OSTREL_SUCCESS ? result : SETERROR(result);
	if (pgtype == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	return ostrel_rpy_add_pg(operation->res(), pgname, pgtype, made);
}

// One attempt at a write, as part of a change. *is_gone: others deleted the group, or one above it, meanwhile.
ostrel_error_t write_once(
    RpyOperation *operation, attrlist_t *idl, const RpyPaths &path, attrlist_t *props, uint64_t change, bool *is_gone)
{
	RpyCreation made;
	ostrel_error_t result = find_or_create(operation, idl, path.pgname, path.pgtype, change, &made);
	ostrel_rpy_resources_t *res = operation->res();
	if (result == OSTREL_SUCCESS)
		result = commit(res, props, made.first != -1);
	rpy_transaction_destroy_children(res->nsr_tx);
	*is_gone = result == OSTREL_FAILURE && rpy_error() == RPY_ERROR_DELETED;
	if (result == OSTREL_SUCCESS)
		ostrel_request_refresh_cairn(res);
	else
		undo_creation(res, made, change);
	return result;
}

constexpr int write_tries = 20;

} // namespace

ostrel_error_t ostrel_rpy_write(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *props, uint64_t change)
{
	RpyPaths path;
	if (ostrel_idlist2pginfo(idl, &path.pgname, &path.pgtype) != OSTREL_SUCCESS || path.pgname == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	RpyOperation operation(db);
	if (ostrel_error_t result = operation.begin_update(idl, flags))
		return SETERROR(result);
	// Others may have created the group and, when their write failed, taken it back: it is created again.
	ostrel_error_t result = OSTREL_FAILURE;
	bool is_gone = true;
	for (int tries = 0; is_gone && tries < write_tries; tries++)
		result = write_once(&operation, idl, path, props, change, &is_gone);
	return result;
}

// A remove whose reply is lost may have been carried out, or may be later. It isn't repeated: the group may be another one by
// then. *fate says what the caller, a rename, can rely on.
ostrel_error_t ostrel_rpy_remove(ostrel_db_t db, attrlist_t *idl, uint64_t flags, RpyRemoveFate *fate)
{
	RpyOperation operation(db);
	if (ostrel_error_t result = operation.begin_update_at(idl, flags))
		return result;
	ostrel_rpy_resources_t *res = operation.res();
	if (rpy_pg_delete(ostrel_res_pg_curr(res)) != 0) {
		ostrel_error_t result = ostrel_rpy_failure();
		fate->is_open = _rpy_is_open() != 0;
		fate->daemon_ended = fate->is_open && _rpy_daemon_has_ended(res->nsr_handle) != 0;
		return result;
	}
	ostrel_request_refresh_cairn(res);
	return OSTREL_SUCCESS;
}

// ---- Slots ----

ostrel_error_t ostrel_write_object_to_cairn(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *props)
{
	if (idl == nullptr || props == nullptr || ostrel_idlist_is_empty(idl))
		return SETERROR(OSTREL_INVALID_ARG);
	return ostrel_rpy_write(db, idl, flags, props, _rpy_new_change());
}

ostrel_error_t ostrel_remove_object_from_cairn(ostrel_db_t db, attrlist_t *idl, uint64_t flags)
{
	if (idl == nullptr || ostrel_idlist_is_empty(idl))
		return OSTREL_INVALID_ARG;
	RpyRemoveFate ignored;
	return ostrel_rpy_remove(db, idl, flags, &ignored);
}
