// The library's front: the tables of the back ends, open and close, and the operations but for the read
// (libostrel_read.cc). An operation calls a slot of the handle's table and knows nothing of stores.
//
// Divisions: the tables; open and close; updates; walk; authorization.
#include "libostrel_impl.h"

#include <cstdlib>

#include "base/guards.h"
#include "libostrel_cairn.h"
#include "libostrel_hatches_live.h"
#include "libostrel_more.h"
#include "libostrel_trace.h"

// ---- The tables ----

static constexpr struct ostrel_db_cmds files_db_cmds = {
    .dbc_open = nullptr,
    .dbc_close = nullptr,
    .dbc_read = ostrel_read_objects_from_file,
    .dbc_write = ostrel_write_object_to_file,
    .dbc_rename = ostrel_rename_object_in_file,
    .dbc_remove = ostrel_remove_object_from_file,
    .dbc_audit = ostrel_audit,
    .dbc_auth = nullptr,
    .dbc_visit = ostrel_visit_objects_of_file,
    .dbc_stays = ostrel_idlist_stays,
    .dbc_more = &ostrel_more,
    .dbc_commit = ostrel_commit_batch_to_file,
    .dbc_version = ostrel_version_of_file,
    .dbc_notify = ostrel_notify_of_file,
};

// Read only, by having no slots to update with.
static constexpr struct ostrel_db_cmds rawfiles_db_cmds = {
    .dbc_open = nullptr,
    .dbc_close = nullptr,
    .dbc_read = ostrel_read_objects_from_rawfile,
    .dbc_write = nullptr,
    .dbc_rename = nullptr,
    .dbc_remove = nullptr,
    .dbc_audit = nullptr,
    .dbc_auth = nullptr,
    .dbc_stays = ostrel_idlist_stays,
    .dbc_more = &ostrel_more,
    .dbc_version = ostrel_version_of_file,
    .dbc_notify = ostrel_notify_of_file,
};

// No audit records here: the server's back end makes them. Where a list leads to, the server alone knows.
static constexpr struct ostrel_db_cmds hatches_db_cmds = {
    .dbc_open = ostrel_hatch_db_open,
    .dbc_close = ostrel_hatch_db_close,
    .dbc_read = ostrel_read_objects_from_hatch,
    .dbc_write = ostrel_write_object_to_hatch,
    .dbc_rename = ostrel_rename_object_in_hatch,
    .dbc_remove = ostrel_remove_object_from_hatch,
    .dbc_audit = nullptr,
    .dbc_auth = ostrel_hatch_check_auth,
    .dbc_more = &ostrel_more,
    .dbc_commit = ostrel_commit_batch_to_hatch,
    .dbc_version = ostrel_version_of_hatch,
    .dbc_notify = ostrel_notify_of_hatch,
};

static constexpr struct ostrel_db_cmds cairn_db_cmds = {
    .dbc_open = ostrel_open_cairn,
    .dbc_close = ostrel_close_cairn,
    .dbc_read = ostrel_read_objects_from_cairn,
    .dbc_write = ostrel_write_object_to_cairn,
    .dbc_rename = ostrel_rename_object_in_cairn,
    .dbc_remove = ostrel_remove_object_from_cairn,
    .dbc_audit = ostrel_audit,
    .dbc_auth = nullptr,
    .dbc_stays = ostrel_idlist_stays,
};

ostrel_db_cmds_t ostrel_cairn_db_cmds = &cairn_db_cmds;
ostrel_db_cmds_t ostrel_files_db_cmds = &files_db_cmds;
ostrel_db_cmds_t ostrel_rawfiles_db_cmds = &rawfiles_db_cmds;
ostrel_db_cmds_t ostrel_hatches_db_cmds = &hatches_db_cmds;

// ---- Open and close ----

ostrel_error_t ostrel_db_open(
    const char *name, enclaveid_t enclave, ostrel_db_cmds_t cmds, uint64_t flags, ostrel_db_t *dbp)
{
	if (name == nullptr || cmds == nullptr || dbp == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);

	Handle<struct ostrel_db, ostrel_handle_destroy> db;
	if (ostrel_error_t result = ostrel_handle_create(name, enclave, cmds, flags, db.out()))
		return result;
	if (cmds->dbc_open != nullptr) {
		CancellationWaits cancellation;
		if (ostrel_error_t result = cmds->dbc_open(db.get()))
			return result;
	}
	*dbp = db.release();
	return OSTREL_SUCCESS;
}

void ostrel_db_close(ostrel_db_t db)
{
	Handle<struct ostrel_db, ostrel_handle_destroy> closing(db);
	if (!closing || db->db_cmds == nullptr || db->db_cmds->dbc_close == nullptr)
		return;
	CancellationWaits cancellation;
	DbWriteLock lock(db);
	db->db_cmds->dbc_close(db);
}

// ---- Updates ----

static ostrel_error_t update_or_defer(const ostrel_update_arg_t &update)
{
	ostrel_error_t result = ostrel_attempt_update(update);
	if (result != OSTREL_NEEDS_RETRY)
		return result;
	return ostrel_create_update_thread(
	    update.nua_op, update.nua_db, update.nua_idl, update.nua_flags, update.nua_objl);
}

ostrel_error_t ostrel_db_write(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *objl)
{
	return update_or_defer({OSTREL_OP_WRITE, db, idl, flags, objl});
}

ostrel_error_t ostrel_db_rename(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *newidl)
{
	return update_or_defer({OSTREL_OP_RENAME, db, idl, flags, newidl});
}

ostrel_error_t ostrel_db_remove(ostrel_db_t db, attrlist_t *idl, uint64_t flags)
{
	return update_or_defer({OSTREL_OP_REMOVE, db, idl, flags, nullptr});
}

// ---- Walk ----

static int compare_objects(const void *a, const void *b, void *sortcb)
{
	// qsort's elements are the array's own: a comparison may look into the objects, so they aren't const for it.
	auto element = [](const void *p) { return static_cast<attrlist_t **>(const_cast<void *>(p)); };
	return (*static_cast<ostrel_sortcb_t **>(sortcb))(element(a), element(b));
}

// What a walk was called with.
struct Walk {
	ostrel_db_t db;
	uint64_t flags;
	ostrel_walkcb_t *cb;
	void *arg;
	int *cbret;
};

// Calls back for one object. The callback gets the lists that lie in it, which aren't used afterwards.
static ostrel_error_t call_back(attrlist_t *object, void *arg)
{
	const Walk *walk = static_cast<const Walk *>(arg);
	attrlist_t *idl;
	attrlist_t *props;
	if (ostrel_error_t result = ostrel_object_look(object, &idl, &props))
		return result;
	const int returned = walk->cb(walk->db, idl, props, walk->flags, walk->arg);
	if (OSTREL_TRACED(db__walk__cb))
		ostrel_trace_db_walk_cb(returned, walk->db, idl, props, walk->arg);
	if (returned == 0)
		return OSTREL_SUCCESS;
	if (walk->cbret != nullptr)
		*walk->cbret = returned;
	return OSTREL_WALK_HALTED;
}

static ostrel_error_t read_all(const Walk &walk, attrlist_t *idl, Objects &objs)
{
	CancellationWaits cancellation;
	return walk.db->db_cmds->dbc_read(
	    walk.db, idl, walk.flags | OSTREL_FLAG_WITH_PROPS, objs.out(), objs.out_count());
}

static ostrel_error_t walk_array(Walk *walk, attrlist_t *idl, ostrel_sortcb_t *sortcb)
{
	Objects objs;
	ostrel_error_t result = read_all(*walk, idl, objs);
	if (result != OSTREL_SUCCESS) {
		objs.forget();
		return result;
	}
	if (sortcb != nullptr && objs.count() > 1)
		qsort_r(&objs[0], objs.count(), sizeof(attrlist_t *), compare_objects, &sortcb);
	for (unsigned int i = 0; i < objs.count(); i++) {
		result = call_back(objs[i], walk);
		if (result != OSTREL_SUCCESS)
			return result;
		objs.drop(i);
	}
	return OSTREL_SUCCESS;
}

// No lock at any point: a back end's read stands by itself, and a callback may use the database.
static ostrel_error_t walk(ostrel_db_t db, attrlist_t *idl, uint64_t flags, ostrel_walkcb_t *cb,
    ostrel_sortcb_t *sortcb, void *arg, int *cbret)
{
	if (db == nullptr || db->db_cmds->dbc_read == nullptr || cb == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	Walk all = {db, flags, cb, arg, cbret};
	if (sortcb == nullptr && db->db_cmds->dbc_visit != nullptr)
		return db->db_cmds->dbc_visit(db, idl, flags | OSTREL_FLAG_WITH_PROPS, call_back, &all);
	return walk_array(&all, idl, sortcb);
}

ostrel_error_t ostrel_db_walk(ostrel_db_t db, attrlist_t *idl, uint64_t flags, ostrel_walkcb_t *cb,
    ostrel_sortcb_t *sortcb, void *arg, int *cbret)
{
	ostrel_error_t result = walk(db, idl, flags, cb, sortcb, arg, cbret);
	if (OSTREL_TRACED(db__walk))
		ostrel_trace_db_walk(result, db, idl);
	return result;
}

// ---- Authorization ----

ostrel_error_t ostrel_db_check_auth(ostrel_db_t db, boolean_t write)
{
	CancellationWaits cancellation;
	if (db == nullptr || db->db_cmds->dbc_auth == nullptr)
		return OSTREL_SUCCESS;
	return db->db_cmds->dbc_auth(db, write);
}
