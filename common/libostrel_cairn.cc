// The repository's resources: the connections of a database, their pools of readers, and their holds.
//
// Divisions: results; what an operation is about; building and destroying; the pool; places; the resources of an
// operation and its level; open and close.
#include "libostrel_cairn.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include <meridon/process.h>

#include "base/clock.h"

// ---- Results ----

static constexpr struct {
	rpy_error_t from;
	ostrel_error_t to;
} rpy_results[] = {
    {RPY_ERROR_NONE, OSTREL_SUCCESS},
    {RPY_ERROR_NOT_FOUND, OSTREL_NOT_FOUND},
    {RPY_ERROR_INVALID_ARGUMENT, OSTREL_INVALID_ARG},
    {RPY_ERROR_NO_MEMORY, OSTREL_NO_MEMORY},
    {RPY_ERROR_EXISTS, OSTREL_EXISTS},
    {RPY_ERROR_PERMISSION_DENIED, OSTREL_EPERM},
    {RPY_ERROR_BACKEND_ACCESS, OSTREL_EPERM},
    {RPY_ERROR_BACKEND_READONLY, OSTREL_NEEDS_RETRY},
};

ostrel_error_t rpy_error_to_ostrel_error(rpy_error_t error)
{
	for (const auto &row : rpy_results) {
		if (row.from == error)
			return row.to;
	}
	return OSTREL_FAILURE;
}

ostrel_error_t ostrel_rpy_failure()
{
	ostrel_error_t result = rpy_error_to_ostrel_error(rpy_error());
	return result != OSTREL_SUCCESS ? result : OSTREL_FAILURE;
}

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

int cmp_resources_by_enclaveid(const ostrel_rpy_resources_t *a, const ostrel_rpy_resources_t *b)
{
	return a->nsr_enclaveid < b->nsr_enclaveid ? -1 : a->nsr_enclaveid > b->nsr_enclaveid ? 1 : 0;
}

// ---- Building and destroying ----

static bool create_work(rpy_handle_t *handle, ostrel_rpy_work_t *work)
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

static void destroy_work(ostrel_rpy_work_t *work)
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

static void ostrel_destroy_rpy_read_resource(ostrel_rpy_read_resources_t *rres)
{
	destroy_work(rres);
	rpy_instance_destroy(rres->nsr_own_inst);
	rpy_scope_destroy(rres->nsr_scope);
	free(rres);
}
using ReadResources = Handle<ostrel_rpy_read_resources_t, ostrel_destroy_rpy_read_resource>;

static void ostrel_destroy_rpy_read_resources(ostrel_rpy_resources_t *res)
{
	while (ostrel_rpy_read_resources_t *first = res->nsr_read_resources) {
		res->nsr_read_resources = first->nsr_list_node;
		ostrel_destroy_rpy_read_resource(first);
	}
	res->nsr_num_readers = 0;
}

// All that hangs on resources which have no place any more.
static void free_resources(ostrel_rpy_resources_t *res)
{
	rpy_transaction_destroy_children(res->nsr_tx);
	rpy_transaction_destroy(res->nsr_tx);
	destroy_work(res);
	rpy_snapshot_destroy(res->nsr_snap);
	rpy_instance_destroy(res->nsr_inst);
	rpy_service_destroy(res->nsr_svc);
	rpy_scope_destroy(res->nsr_scope);
	ostrel_destroy_rpy_read_resources(res);
	if (res->nsr_handle != nullptr)
		(void) rpy_handle_unbind(res->nsr_handle); // fails for one that was never bound
	rpy_handle_destroy(res->nsr_handle);
	(void) pthread_cond_destroy(&res->nsr_reader_left);
	free(res->nsr_locator);
	res->~ostrel_rpy_resources_t();
	free(res);
}

// Takes the first of the other enclaves' resources out of the list and gives up its place's hold.
static void release_first_of(ostrel_db_t db, ostrel_rpy_resources_t **listp) REQUIRES(db->db_privlock)
{
	ostrel_rpy_resources_t *first = *listp;
	*listp = first->nsr_enclave_node;
	first->nsr_enclave_node = nullptr;
	ostrel_rele_rpy_resources_locked(db, first, nullptr);
}

void ostrel_destroy_rpy_resources(ostrel_db_t db, ostrel_rpy_resources_t *res)
{
	if (res == nullptr)
		return;
	if (res->nsr_refresh_thread != 0) {
		ostrel_stop_refresh(res);
		ostrel_refresh_cairn(res, true);
	}
	while (res->nsr_enclave_resources != nullptr)
		release_first_of(db, &res->nsr_enclave_resources);
	ostrel_end_private_configd(res);
	free_resources(res);
}

// Resources that nobody else knows yet.
using NewResources = Handle<ostrel_rpy_resources_t, free_resources>;

bool ostrel_init_monotonic(pthread_cond_t *condition)
{
	pthread_condattr_t attributes;
	if (pthread_condattr_init(&attributes) != 0)
		return false;
	bool done = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC) == 0 &&
		    pthread_cond_init(condition, &attributes) == 0;
	(void) pthread_condattr_destroy(&attributes);
	return done;
}

static ostrel_rpy_resources_t *allocate_resources(ostrel_db_t db, enclaveid_t enclave)
{
	void *memory = calloc(1, sizeof(ostrel_rpy_resources_t));
	if (memory == nullptr)
		return nullptr;
	auto *res = new (memory) ostrel_rpy_resources_t();
	if (!ostrel_init_monotonic(&res->nsr_reader_left)) {
		free(memory);
		return nullptr;
	}
	res->nsr_db = db;
	res->nsr_enclaveid = enclave;
	return res;
}

static ostrel_error_t create_objects(ostrel_rpy_resources_t *res)
{
	rpy_handle_t *handle = res->nsr_handle;
	if ((res->nsr_scope = rpy_scope_create(handle)) == nullptr ||
	    (res->nsr_svc = rpy_service_create(handle)) == nullptr ||
	    (res->nsr_inst = rpy_instance_create(handle)) == nullptr ||
	    (res->nsr_snap = rpy_snapshot_create(handle)) == nullptr || !create_work(handle, res) ||
	    (res->nsr_tx = rpy_transaction_create(handle)) == nullptr)
		return SETERROR(ostrel_rpy_failure());
	res->nsr_op_inst = res->nsr_inst;
	return OSTREL_SUCCESS;
}

// Finds the service, or the instance, that the database is named by.
static ostrel_error_t look_locator_up(ostrel_rpy_resources_t *res)
{
	const char *name = ostrel_db_get_name(res->nsr_db);
	const char *instance = nullptr;
	res->nsr_locator = strdup(name);
	Heap<char> scratch(strdup(name));
	if (res->nsr_locator == nullptr || !scratch)
		return SETERROR(OSTREL_NO_MEMORY);
	if (rpy_parse_svc_locator(scratch.get(), nullptr, &instance) != 0)
		return SETERROR(ostrel_rpy_failure());
	res->nsr_issvc = instance == nullptr ? B_TRUE : B_FALSE;
	if (rpy_handle_decode_locator(
		res->nsr_handle, name, nullptr, res->nsr_svc, res->nsr_inst, nullptr, nullptr, 0) != 0)
		return SETERROR(ostrel_rpy_failure());
	return OSTREL_SUCCESS;
}

// ---- Places ----

static ostrel_rpy_resources_t *native_of(ostrel_db_t db)
{
	return static_cast<ostrel_rpy_resources_t *>(ostrel_db_get_priv(db));
}

// Where resources of an enclave are in a list, or would have to be.
static ostrel_rpy_resources_t **place_in(ostrel_rpy_resources_t **listp, const ostrel_rpy_resources_t *key)
{
	while (*listp != nullptr && cmp_resources_by_enclaveid(*listp, key) < 0)
		listp = &(*listp)->nsr_enclave_node;
	return listp;
}

static bool is_at(ostrel_rpy_resources_t *const *place, const ostrel_rpy_resources_t *key)
{
	return *place != nullptr && cmp_resources_by_enclaveid(*place, key) == 0;
}

static void put_among_enclaves(ostrel_db_t db, ostrel_rpy_resources_t *res) REQUIRES(db->db_privlock)
{
	ostrel_rpy_resources_t **place = place_in(&native_of(db)->nsr_enclave_resources, res);
	if (is_at(place, res)) {
		ostrel_hand_refresh_on(res, *place);
		release_first_of(db, place);
	}
	// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a building that succeeds gives them
	if (res->nsr_private_configd)
		return; // they live as long as the operation
	// The release may have destroyed resources, but it has changed nothing in this list.
	res->nsr_enclave_node = *place;
	*place = res;
	res->nsr_refcnt = 1;
}

// Resources of other enclaves that wait for their snapshot wait on. The others are built anew on demand.
static void hand_waiting_on(ostrel_rpy_resources_t *res, ostrel_rpy_resources_t *before)
{
	for (auto **from = &before->nsr_enclave_resources; *from != nullptr;) {
		ostrel_rpy_resources_t *entry = *from;
		if (!ostrel_refresh_is_pending(entry)) {
			from = &entry->nsr_enclave_node;
			continue;
		}
		*from = entry->nsr_enclave_node;
		auto **to = place_in(&res->nsr_enclave_resources, entry);
		entry->nsr_enclave_node = *to;
		*to = entry;
	}
}

static void put_as_native(ostrel_db_t db, ostrel_rpy_resources_t *res) REQUIRES(db->db_privlock)
{
	ostrel_rpy_resources_t *before = native_of(db);
	// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a building that succeeds gives them
	res->nsr_refcnt = 1;
	ostrel_db_set_priv(db, res);
	if (!res->nsr_issvc)
		ostrel_start_refresh(res, before);
	if (before != nullptr) {
		ostrel_hand_refresh_on(res, before);
		hand_waiting_on(res, before);
		ostrel_inherit_private_configd(res, before);
	}
	ostrel_rele_rpy_resources_locked(db, before, nullptr);
}

static ostrel_error_t build_once(ostrel_db_t db, enclaveid_t enclave, NewResources *out, bool *is_lost)
{
	NewResources res(allocate_resources(db, enclave));
	if (!res)
		return SETERROR(OSTREL_NO_MEMORY);
	res->nsr_handle = rpy_handle_create(RPY_CLIENT_VERSION);
	if (res->nsr_handle == nullptr)
		return ostrel_rpy_failure();
	ostrel_error_t result = ostrel_bind_cairn_configd(enclave, res.get());
	if (result == OSTREL_SUCCESS)
		result = create_objects(res.get());
	if (result == OSTREL_SUCCESS) {
		result = look_locator_up(res.get());
		*is_lost = result != OSTREL_SUCCESS && res->nsr_private_configd && res->nsr_private_configd_pid == 0 &&
			   rpy_error() == RPY_ERROR_CONNECTION_BROKEN;
	}
	if (result == OSTREL_SUCCESS)
		*out = std::move(res);
	else
		ostrel_end_private_configd(res.get());
	return result;
}

// Without any lock: a daemon takes its time, and that of another enclave as much as it likes. A private one that was found may
// end before it is called for the first time, as often as others start and end one.
static ostrel_error_t build_resources(ostrel_db_t db, enclaveid_t enclave, NewResources *out)
{
	for (int tries = 0;; tries++) {
		bool is_lost = false;
		ostrel_error_t result = build_once(db, enclave, out, &is_lost);
		if (!is_lost || tries == OSTREL_RPY_BUILD_TRIES)
			return result;
	}
}

ostrel_error_t ostrel_create_rpy_resources(ostrel_db_t db, ostrel_rpy_resources_t **resp)
{
	NewResources res;
	if (ostrel_error_t result = build_resources(db, ostrel_db_get_enclaveid(db), &res))
		return result;
	*resp = res.release();
	put_as_native(db, *resp);
	return OSTREL_SUCCESS;
}

// ---- The pool ----

static ostrel_error_t ostrel_create_rpy_read_resources(ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t **rresp)
{
	*rresp = nullptr;
	if (res->nsr_num_readers >= OSTREL_RPY_MAX_READERS)
		return OSTREL_NEEDS_RETRY;
	ReadResources rres(static_cast<ostrel_rpy_read_resources_t *>(calloc(1, sizeof(ostrel_rpy_read_resources_t))));
	if (!rres)
		return SETERROR(OSTREL_NO_MEMORY);
	if (!create_work(res->nsr_handle, rres.get()))
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
	ostrel_rpy_read_resources_t **end = &res->nsr_read_resources;
	while (*end != nullptr)
		end = &(*end)->nsr_list_node;
	*end = rres.get();
	res->nsr_num_readers++;
	*rresp = rres.release();
	return OSTREL_SUCCESS;
}

// A free entry, or a new one. OSTREL_NEEDS_RETRY if the pool is full and all are in use.
static ostrel_error_t take_entry(ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t **rresp)
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

// Waits for others to give an entry up. With no lock held but, for as long as it looks, db_privlock.
static ostrel_error_t wait_for_entry(ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t **rresp)
{
	ostrel_db_t db = res->nsr_db;
	struct timespec end;
	(void) clock_gettime(CLOCK_MONOTONIC, &end);
	end.tv_sec += OSTREL_RPY_READ_WAITS;
	MutexLock lock(db->db_privlock);
	for (bool waited = true;;) {
		ostrel_error_t result = take_entry(res, rresp);
		if (result != OSTREL_NEEDS_RETRY || !waited)
			return result;
		waited = pthread_cond_timedwait(&res->nsr_reader_left, &db->db_privlock.raw, &end) == 0;
	}
}

// A reader that has db_lock gives it up while it waits, and one that hasn't doesn't get it: ostrel_db_walk() and a hatch
// server read without it. That is a question of a value, which the analysis can't follow.
static ostrel_error_t ostrel_get_rpy_read_resources(
    ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t **rresp) NO_THREAD_SAFETY_ANALYSIS
{
	// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): the caller holds resources
	ostrel_db_t db = res->nsr_db;
	*rresp = nullptr;
	ostrel_db_lock_priv(db);
	ostrel_error_t result = take_entry(res, rresp);
	ostrel_db_unlock_priv(db);
	if (result != OSTREL_NEEDS_RETRY)
		return result;
	bool locked = ostrel_db_is_read_locked_here(db);
	if (locked)
		ostrel_db_unlock(db);
	result = wait_for_entry(res, rresp);
	if (locked)
		ostrel_db_rdlock(db);
	return result;
}

// ---- Holds ----

void ostrel_rele_rpy_resources_locked(ostrel_db_t db, ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t *rres)
{
	if (res == nullptr)
		return;
	if (rres != nullptr) {
		rres->nsr_inuse = B_FALSE;
		(void) pthread_cond_signal(&res->nsr_reader_left);
	}
	if (--res->nsr_refcnt == 0)
		ostrel_destroy_rpy_resources(db, res);
}

void ostrel_rele_rpy_resources(ostrel_db_t db, ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t *rres)
{
	if (res == nullptr)
		return;
	MutexLock lock(db->db_privlock);
	ostrel_rele_rpy_resources_locked(db, res, rres);
}

// Whether the connection is alive, as far as anybody knows: one call, which fills `scope`.
static bool ostrel_rpy_handle_has_server(const ostrel_rpy_resources_t *res, rpy_scope_t *scope)
{
	return rpy_handle_get_scope(res->nsr_handle, RPY_SCOPE_LOCAL, scope) == 0 ||
	       rpy_error() != RPY_ERROR_CONNECTION_BROKEN;
}

// Whether an enclave has another root directory now than its resources were bound below.
static bool has_moved(const ostrel_rpy_resources_t *res, const EnclaveRoot &root)
{
	const EnclaveRoot &bound = res->nsr_root;
	return root.state != EnclaveRoot::unknown &&
	       (root.state != bound.state || root.device != bound.device || root.inode != bound.inode);
}

// Whether an operation can begin on the resources. A private daemon that is about to end goes on for those who have called it.
static bool is_usable(const ostrel_rpy_resources_t *res, const EnclaveRoot &root, rpy_scope_t *scope)
{
	if (res->nsr_deleted || has_moved(res, root) || !ostrel_rpy_handle_has_server(res, scope))
		return false;
	rpy_status_t status;
	return !res->nsr_private_configd || _rpy_status(res->nsr_handle, &status) == 0 ||
	       rpy_error() != RPY_ERROR_CONNECTION_BROKEN;
}

static bool is_active(enclaveid_t enclave)
{
	char name[ENCLAVE_NAME_MAX + 1];
	enclave_state_t state;
	if (getenclavenamebyid(enclave, name, sizeof(name)) == -1 || enclave_get_state(name, &state) != 0)
		return false;
	return state == ENCLAVE_STATE_READY || state == ENCLAVE_STATE_RUNNING || state == ENCLAVE_STATE_SHUTTING_DOWN;
}

// Gives up the resources of enclaves that have gone.
static void ostrel_destroy_inactive_rpy_enclave_resources(ostrel_db_t db) REQUIRES(db->db_privlock)
{
	for (auto **place = &native_of(db)->nsr_enclave_resources; *place != nullptr;) {
		if (is_active((*place)->nsr_enclaveid))
			place = &(*place)->nsr_enclave_node;
		else
			release_first_of(db, place);
	}
}

static ostrel_rpy_resources_t *find_resources(ostrel_db_t db, enclaveid_t enclave) REQUIRES(db->db_privlock)
{
	ostrel_rpy_resources_t *native = native_of(db);
	if (enclave == native->nsr_enclaveid)
		return native;
	ostrel_destroy_inactive_rpy_enclave_resources(db);
	for (auto *entry = native->nsr_enclave_resources; entry != nullptr; entry = entry->nsr_enclave_node) {
		if (entry->nsr_enclaveid == enclave)
			return entry;
	}
	return nullptr;
}

// Takes resources that are there, alive, and not to give way to the enclave's own daemon.
static bool take_found(ostrel_db_t db, enclaveid_t enclave, const EnclaveRoot &root, ostrel_rpy_resources_t **resp)
    REQUIRES(db->db_privlock)
{
	ostrel_rpy_resources_t *found = find_resources(db, enclave);
	if (found == nullptr || !is_usable(found, root, found->nsr_scope) ||
	    ostrel_native_configd_inenclave_ready(found))
		return false;
	found->nsr_cache_hits++;
	found->nsr_refcnt++;
	*resp = found;
	return true;
}

// Resources of another enclave, in the caller's hold. Of threads that build them at the same moment the first one's stay.
static ostrel_error_t create_for_enclave(ostrel_db_t db, enclaveid_t enclave, const EnclaveRoot &root,
    ostrel_rpy_resources_t **resp) EXCLUDES(db->db_privlock)
{
	NewResources res;
	if (ostrel_error_t result = build_resources(db, enclave, &res))
		return result;
	MutexLock lock(db->db_privlock);
	// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a building that succeeds gives them
	if (!res->nsr_private_configd && take_found(db, enclave, root, resp))
		return OSTREL_SUCCESS;
	*resp = res.release();
	put_among_enclaves(db, *resp);
	(*resp)->nsr_refcnt++;
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_get_rpy_resources_for_enclave(ostrel_db_t db, enclaveid_t enclave, ostrel_rpy_resources_t **resp)
{
	const EnclaveRoot root = ostrel_look_at_root(enclave); // without the lock
	{
		MutexLock lock(db->db_privlock);
		if (native_of(db) == nullptr)
			return SETERROR(OSTREL_INVALID_ARG);
		if (take_found(db, enclave, root, resp))
			return OSTREL_SUCCESS;
		if (enclave == native_of(db)->nsr_enclaveid) {
			if (ostrel_error_t result = ostrel_create_rpy_resources(db, resp))
				return result;
			// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a creation that succeeds gives them
			(*resp)->nsr_refcnt++;
			return OSTREL_SUCCESS;
		}
	}
	return create_for_enclave(db, enclave, root, resp);
}

// ---- The level of an operation ----

// An instance of a service-level database. A text that merely begins like the service could name another one.
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

// The entries that threads of the parent use stay as they are, and lost.
static void forget_readers(ostrel_rpy_resources_t *res)
{
	(void) ostrel_init_monotonic(&res->nsr_reader_left);
	res->nsr_read_resources = nullptr;
	res->nsr_num_readers = 0;
}

// In a forked child: threads that it doesn't have may have held the lock, or have waited for something.
static void forget_parent(ostrel_db_t db) NO_THREAD_SAFETY_ANALYSIS
{
	db->db_privlock.init();
	ostrel_rpy_resources_t *native = native_of(db);
	if (native == nullptr)
		return;
	ostrel_renew_refresh_gate(native->nsr_gate);
	native->nsr_private_daemon.is_inherited = true;
	forget_readers(native);
	for (auto *entry = native->nsr_enclave_resources; entry != nullptr; entry = entry->nsr_enclave_node)
		forget_readers(entry);
	if (native->nsr_refresh_thread != 0)
		ostrel_start_refresh(native, native);
}

static void enter_process(ostrel_db_t db)
{
	db->db_priv_process.enter(_meridon_process(), [db] { forget_parent(db); });
}

RpyOperation::RpyOperation(ostrel_db_t db) : db_(db)
{
	enter_process(db);
}

static time_t monotonic_seconds()
{
	return now_ns() / second_ns;
}

static time_t end_of_operation(enclaveid_t enclave)
{
	return enclave == getenclaveid() ? 0 : monotonic_seconds() + OSTREL_RPY_FOREIGN_SECONDS;
}

bool ostrel_rpy_is_over(const ostrel_rpy_work_t *work)
{
	return work->nsr_until != 0 && monotonic_seconds() >= work->nsr_until;
}

// What an update keeps in the resources nobody else stores there: readers have their own, and the refresh thread takes
// resources without being an operation.
ostrel_error_t RpyOperation::begin_update(attrlist_t *idl, bool temp)
{
	const char *name;
	enclaveid_t enclave;
	if (ostrel_error_t result = ostrel_db_info(db_, idl, &name, &enclave))
		return result;
	if (ostrel_error_t result = ostrel_get_rpy_resources_for_enclave(db_, enclave, &res_))
		return result;
	// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a look-up that succeeds gives them
	res_->nsr_temp = temp ? B_TRUE : B_FALSE;
	res_->nsr_until = end_of_operation(enclave);
	return ostrel_get_rpy_dbname_for_op(idl, res_, res_);
}

// Takes resources that are there with a free entry of their pool, and tests the connection with the entry's own object, so
// that readers' calls run beside each other. What isn't as simple is left to the long road.
bool RpyOperation::take_ready(enclaveid_t enclave)
{
	const EnclaveRoot root = ostrel_look_at_root(enclave);
	{
		MutexLock lock(db_->db_privlock);
		ostrel_rpy_resources_t *found = native_of(db_) == nullptr ? nullptr : find_resources(db_, enclave);
		if (found == nullptr || found->nsr_private_configd || take_entry(found, &rres_) != OSTREL_SUCCESS)
			return false;
		found->nsr_refcnt++;
		found->nsr_cache_hits++;
		res_ = found;
	}
	// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a taken entry is one
	if (is_usable(res_, root, rres_->nsr_scope))
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
	ostrel_error_t result =
	    rres_ != nullptr ? next.begin_read(idl) : next.begin_update(idl, res_->nsr_temp != B_FALSE);
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

// ---- Open and close ----

ostrel_error_t ostrel_open_cairn(ostrel_db_t db)
{
	enter_process(db);
	MutexLock lock(db->db_privlock);
	ostrel_rpy_resources_t *res;
	return ostrel_create_rpy_resources(db, &res);
}

// All native resources of a database have the same gate, one after the other.
static RefreshGate *gate_of(ostrel_db_t db)
{
	MutexLock lock(db->db_privlock);
	ostrel_rpy_resources_t *native = native_of(db);
	return native == nullptr ? nullptr : native->nsr_gate;
}

// A snapshot that is pending on a connection that broke is taken on another one.
static void take_last_snapshot(ostrel_db_t db)
{
	MutexLock lock(db->db_privlock);
	ostrel_rpy_resources_t *native = native_of(db);
	if (native == nullptr || native->nsr_issvc || !ostrel_refresh_is_pending(native) ||
	    is_usable(native, ostrel_look_at_root(native->nsr_enclaveid), native->nsr_scope))
		return;
	NewResources fresh;
	if (build_resources(db, native->nsr_enclaveid, &fresh) != OSTREL_SUCCESS)
		return;
	ostrel_hand_refresh_on(fresh.get(), native);
	ostrel_refresh_cairn(fresh.get(), true);
	ostrel_end_private_configd(fresh.get());
}

// The native resources that are there when the last refresh thread has ended are the last ones: nobody is left who could
// replace them.
void ostrel_close_cairn(ostrel_db_t db)
{
	enter_process(db);
	RefreshGate *gate = gate_of(db);
	ostrel_close_refresh(gate);
	take_last_snapshot(db);
	MutexLock lock(db->db_privlock);
	ostrel_rpy_resources_t *res = native_of(db);
	ostrel_db_set_priv(db, nullptr);
	ostrel_destroy_rpy_resources(db, res);
	ostrel_free_refresh_gate(gate);
}
