// The library's front. In this order: results; the tables of the back ends; the handle and its accessors; open and
// close; the dispatcher, which holds the handle's lock around a back end's slot and knows nothing of stores.
#include "libostrel_impl.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <libintl.h>

#include <meridon/process.h>

#include "base/guards.h"
#include "libostrel_cairn.h"
#include "libostrel_trace.h"

// ---- Results ----

static constexpr char text_domain[] = "meridon_lib_libostrel";

const struct ostrel_error_info ostrel_errors[OSTREL_ERROR_COUNT] = {
    {OSTREL_SUCCESS, "no error"},
    {OSTREL_EPERM, "permission denied"},
    {OSTREL_INVALID_ARG, "invalid argument"},
    {OSTREL_EXISTS, "object exists"},
    {OSTREL_NOT_FOUND, "object not found"},
    {OSTREL_WALK_HALTED, "callback function halted walk"},
    {OSTREL_NO_MEMORY, "insufficient memory"},
    {OSTREL_FAILURE, "failure"},
    {OSTREL_NOTSUP, "unsupported action"},
    {OSTREL_NEEDS_RETRY, "retry needed"},
};

// The two conversions aren't inverses of one another: several errno values share a result.
static constexpr struct {
	int from;
	ostrel_error_t to;
} errno_results[] = {
    {0, OSTREL_SUCCESS},
    {EPERM, OSTREL_EPERM},
    {EACCES, OSTREL_EPERM},
    {ENOENT, OSTREL_NOT_FOUND},
    {ENOTDIR, OSTREL_NOT_FOUND},
    {ENOMEM, OSTREL_NO_MEMORY},
    {ENOSPC, OSTREL_NO_MEMORY},
    {EFAULT, OSTREL_INVALID_ARG},
    {EINVAL, OSTREL_INVALID_ARG},
    {EEXIST, OSTREL_EXISTS},
    {ENOTSUP, OSTREL_NOTSUP},
};

static constexpr struct {
	ostrel_error_t from;
	int to;
} result_errnos[] = {
    {OSTREL_SUCCESS, 0},
    {OSTREL_EPERM, EACCES},
    {OSTREL_INVALID_ARG, EINVAL},
    {OSTREL_EXISTS, EEXIST},
    {OSTREL_NOT_FOUND, ENOENT},
    {OSTREL_WALK_HALTED, ECANCELED},
    {OSTREL_NO_MEMORY, ENOMEM},
    {OSTREL_FAILURE, EINVAL},
    {OSTREL_NOTSUP, ENOTSUP},
};

const char *ostrel_strerror(ostrel_error_t err)
{
	CancellationWaits cancellation;
	for (const auto &row : ostrel_errors) {
		if (row.error_code == err)
			return dgettext(text_domain, row.error_desc);
	}
	return dgettext(text_domain, "<unknown error>");
}

ostrel_error_t ostrel_errno2error(int err)
{
	for (const auto &row : errno_results) {
		if (row.from == err)
			return row.to;
	}
	return OSTREL_FAILURE;
}

int ostrel_error2errno(ostrel_error_t err)
{
	for (const auto &row : result_errnos) {
		if (row.from == err)
			return row.to;
	}
	return EINVAL;
}

ostrel_error_t ostrel_seterror_verbose(const char *file, int line, ostrel_error_t err)
{
	if (err != OSTREL_SUCCESS && OSTREL_TRACED(seterror))
		ostrel_trace_seterror(err, file, line);
	return err;
}

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

// ---- The handle ----

const char *ostrel_db_get_name(ostrel_db_t db)
{
	return db == nullptr ? nullptr : db->db_name;
}

ostrel_db_cmds_t ostrel_db_get_cmds(ostrel_db_t db)
{
	return db == nullptr ? nullptr : db->db_cmds;
}

uint64_t ostrel_db_get_flags(ostrel_db_t db)
{
	return db == nullptr ? 0 : db->db_flags;
}

enclaveid_t ostrel_db_get_enclaveid(ostrel_db_t db)
{
	return db->db_enclave;
}

void *ostrel_db_get_priv(ostrel_db_t db)
{
	return db->db_priv;
}

void ostrel_db_set_priv(ostrel_db_t db, void *priv)
{
	db->db_priv = priv;
}

const char *ostrel_db_get_read_auth(ostrel_db_t db)
{
	return db->db_read_auth;
}

const char *ostrel_db_get_write_auth(ostrel_db_t db)
{
	return db->db_write_auth;
}

template <size_t Size>
static void set_text(char (&field)[Size], const char *text)
{
	const size_t length = text == nullptr ? 0 : strnlen(text, Size - 1);
	if (length > 0)
		memcpy(field, text, length);
	field[length] = '\0';
}

void ostrel_db_set_read_auth(ostrel_db_t db, const char *auth)
{
	set_text(db->db_read_auth, auth);
}

void ostrel_db_set_write_auth(ostrel_db_t db, const char *auth)
{
	set_text(db->db_write_auth, auth);
}

// In a forked child, before the lock is taken: a thread that it doesn't have may hold it.
static void enter_process(ostrel_db_t db)
{
	db->db_lock_process.enter(_meridon_process(), [db] { db->db_lock.init(); });
}

void ostrel_db_rdlock(ostrel_db_t db)
{
	enter_process(db);
	db->db_lock.rdlock();
}

void ostrel_db_wrlock(ostrel_db_t db)
{
	enter_process(db);
	db->db_lock.wrlock();
}

void ostrel_db_unlock(ostrel_db_t db)
{
	db->db_lock.unlock();
}

// A NULL handle has no lock to take: that is a question of a value, which the analysis can't follow.
void ostrel_db_lock_priv(ostrel_db_t db) NO_THREAD_SAFETY_ANALYSIS
{
	if (db != nullptr)
		db->db_privlock.lock();
}

void ostrel_db_unlock_priv(ostrel_db_t db) NO_THREAD_SAFETY_ANALYSIS
{
	if (db != nullptr)
		db->db_privlock.unlock();
}

static void destroy_handle(ostrel_db_t db)
{
	db->db_lock.destroy();
	db->db_privlock.destroy();
	free(db);
}

using DbHandle = Handle<struct ostrel_db, destroy_handle>;

// ---- Open and close ----

ostrel_error_t ostrel_db_open(
    const char *name, enclaveid_t enclave, ostrel_db_cmds_t cmds, uint64_t flags, ostrel_db_t *dbp)
{
	if (name == nullptr || cmds == nullptr || dbp == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);

	DbHandle db(static_cast<ostrel_db_t>(calloc(1, sizeof(struct ostrel_db))));
	if (!db)
		return SETERRNO(errno);
	db->db_lock.init();
	db->db_privlock.init();
	const size_t length = strnlen(name, sizeof(db->db_name));
	if (length == sizeof(db->db_name))
		return SETERROR(OSTREL_INVALID_ARG);
	memcpy(db->db_name, name, length);
	db->db_cmds = cmds;
	db->db_enclave = enclave;
	db->db_flags = flags & (OSTREL_DB_CASE_SENSITIVE | OSTREL_FLAG_TEMPORARY);

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
	DbHandle closing(db);
	if (!closing || db->db_cmds == nullptr || db->db_cmds->dbc_close == nullptr)
		return;
	CancellationWaits cancellation;
	enter_process(db);
	WriteLock lock(db->db_lock);
	db->db_cmds->dbc_close(db);
}

// ---- Read ----

// The database whose lock this thread holds for reading. One at a time: no callback runs under it.
static thread_local ostrel_db_t read_locked_here;

bool ostrel_db_is_read_locked_here(ostrel_db_t db)
{
	return read_locked_here == db;
}

// Tells a back end that it was called with the lock, which not all callers of dbc_read hold.
class ReadMark {
public:
	explicit ReadMark(ostrel_db_t db) { read_locked_here = db; }
	~ReadMark() { read_locked_here = nullptr; }
	ReadMark(const ReadMark &) = delete;
	ReadMark &operator=(const ReadMark &) = delete;
};

static ostrel_error_t read_locked(ostrel_db_t db, attrlist_t *idl, uint64_t flags, Objects &objs)
{
	CancellationWaits cancellation;
	enter_process(db);
	ReadLock lock(db->db_lock);
	ReadMark mark(db);
	return db->db_cmds->dbc_read(db, idl, db->db_flags | flags | OSTREL_FLAG_EXACT_MATCH | OSTREL_FLAG_WITH_PROPS,
	    objs.out(), objs.out_count());
}

// Hands out what a read found, which has to be one object. The properties are the only copy that is made of it.
static ostrel_error_t hand_out_the_one(Objects &objs, attrlist_t *idl, attrlist_t **objl)
{
	attrlist_t *stored_idl;
	attrlist_t *stored_props;

	if (objs.count() == 0)
		return OSTREL_NOT_FOUND;
	if (objs.count() > 1)
		return SETERROR(OSTREL_INVALID_ARG);
	if (ostrel_error_t result = ostrel_object_look(objs[0], &stored_idl, &stored_props))
		return result;
	if (objl != nullptr) {
		if (int error = attrlist_dup(stored_props, objl, 0))
			return ostrel_errno2error(error);
	}
	// The object was found, so the read succeeds even if the caller's list can't take all its identifiers.
	(void) attrlist_merge(idl, stored_idl, ATL_UNIQUE_NAME_TYPE);
	return OSTREL_SUCCESS;
}

static ostrel_error_t read_one(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t **objl)
{
	if (db == nullptr || db->db_cmds->dbc_read == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	Objects objs;
	ostrel_error_t result = read_locked(db, idl, flags, objs);
	if (result != OSTREL_SUCCESS) {
		objs.forget();
		return result;
	}
	return hand_out_the_one(objs, idl, objl);
}

ostrel_error_t ostrel_db_read(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t **objl)
{
	ostrel_error_t result = read_one(db, idl, flags, objl);
	if (OSTREL_TRACED(db__read))
		ostrel_trace_db_read(result, db, idl, result == OSTREL_SUCCESS && objl != nullptr ? *objl : nullptr);
	return result;
}

ostrel_error_t ostrel_db_get_object_props(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t **props)
{
	AttrList found;
	AttrList wanted;

	if (props == nullptr || *props == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	if (ostrel_error_t result = ostrel_db_read(db, idl, flags, found.out()))
		return result;
	// A walk doesn't survive a change of its list, so it goes over a copy.
	if (int error = attrlist_dup(*props, wanted.out(), 0))
		return SETERRNO(error);
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(wanted.get(), pair)) != nullptr;) {
		const char *name = attrpair_name(pair);
		if (!attrlist_exists(found.get(), name)) {
			(void) attrlist_remove(*props, name, attrpair_type(pair)); // it is there
			continue;
		}
		if (ostrel_error_t result = atl_add_entry_val(*props, name, found.get()))
			return result;
	}
	return OSTREL_SUCCESS;
}

// ---- Write, rename, remove ----

// The slot, then its audit record, under one hold of the write lock: records come in the order of the updates.
template <typename Slot>
static ostrel_error_t update_locked(ostrel_db_t db, unsigned short event, attrlist_t *idl, Slot slot)
{
	CancellationWaits cancellation;
	enter_process(db);
	WriteLock lock(db->db_lock);
	ostrel_error_t result = slot();
	if (db->db_cmds->dbc_audit != nullptr)
		db->db_cmds->dbc_audit(db, event, idl, result);
	return result;
}

ostrel_error_t ostrel_db_write(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *objl)
{
	ostrel_error_t result;
	if (db == nullptr || db->db_cmds->dbc_write == nullptr)
		result = SETERROR(OSTREL_INVALID_ARG);
	else
		result = update_locked(
		    db, TRL_ostrel_update, idl, [=] { return db->db_cmds->dbc_write(db, idl, flags, objl); });
	if (result == OSTREL_NEEDS_RETRY)
		return ostrel_create_update_thread(OSTREL_OP_WRITE, db, idl, flags, objl);
	if (OSTREL_TRACED(db__write))
		ostrel_trace_db_write(result, db, idl, objl);
	return result;
}

ostrel_error_t ostrel_db_rename(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *newidl)
{
	ostrel_error_t result;
	if (db == nullptr || db->db_cmds->dbc_rename == nullptr)
		result = SETERROR(OSTREL_INVALID_ARG);
	else
		result = update_locked(
		    db, TRL_ostrel_update, idl, [=] { return db->db_cmds->dbc_rename(db, idl, flags, newidl); });
	if (result == OSTREL_NEEDS_RETRY)
		return ostrel_create_update_thread(OSTREL_OP_RENAME, db, idl, flags, newidl);
	if (OSTREL_TRACED(db__rename))
		ostrel_trace_db_rename(result, db, idl, newidl);
	return result;
}

ostrel_error_t ostrel_db_remove(ostrel_db_t db, attrlist_t *idl, uint64_t flags)
{
	if (db == nullptr || db->db_cmds->dbc_remove == nullptr)
		return SETERROR(OSTREL_INVALID_ARG); // the one refusal without a trace point of its own
	ostrel_error_t result =
	    update_locked(db, TRL_ostrel_remove, idl, [=] { return db->db_cmds->dbc_remove(db, idl, flags); });
	if (result == OSTREL_NEEDS_RETRY)
		return ostrel_create_update_thread(OSTREL_OP_REMOVE, db, idl, flags, nullptr);
	if (OSTREL_TRACED(db__remove))
		ostrel_trace_db_remove(result, db, idl);
	return result;
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

// Calls back for one object. The callback gets the lists that lie in it, which nobody else will look at again.
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
