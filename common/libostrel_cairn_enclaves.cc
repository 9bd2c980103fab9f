// Which resources serve an enclave. The native ones hang in db_priv, those of other enclaves in their list. Resources whose
// connection broke, whose enclave has another root now, or whose private daemon has to give way to the enclave's own are
// replaced when an operation asks for them.
//
// Divisions: holds; where resources hang; choosing.
#include "libostrel_cairn.h"

#include <meridon/enclave.h>

// These two require rpy_lock, which stands for db_privlock here: that db_priv is guarded by that one, the analysis can't know.
ostrel_rpy_resources_t *ostrel_native_rpy_resources(ostrel_db_t db) NO_THREAD_SAFETY_ANALYSIS
{
	return static_cast<ostrel_rpy_resources_t *>(ostrel_db_get_priv(db));
}

static void set_native(ostrel_db_t db, ostrel_rpy_resources_t *res) REQUIRES(rpy_lock) NO_THREAD_SAFETY_ANALYSIS
{
	ostrel_db_set_priv(db, res);
}

int cmp_resources_by_enclaveid(const ostrel_rpy_resources_t *a, const ostrel_rpy_resources_t *b)
{
	return a->nsr_enclaveid < b->nsr_enclaveid ? -1 : a->nsr_enclaveid > b->nsr_enclaveid ? 1 : 0;
}

// ---- Holds ----

void ostrel_rele_rpy_resources_locked(ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t *rres)
{
	if (res == nullptr)
		return;
	if (rres != nullptr)
		ostrel_give_back_rpy_read_resources(res, rres);
	if (--res->nsr_refcnt == 0)
		ostrel_destroy_rpy_resources(res);
}

void ostrel_rele_rpy_resources(ostrel_db_t db, ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t *rres)
{
	if (res == nullptr)
		return;
	RpyLock lock(db);
	ostrel_rele_rpy_resources_locked(res, rres);
}

// Takes the first of the other enclaves' resources out of the list and gives up the list's hold.
static void release_first_of(ostrel_rpy_resources_t **listp) REQUIRES(rpy_lock)
{
	ostrel_rpy_resources_t *first = *listp;
	*listp = first->nsr_enclave_node;
	first->nsr_enclave_node = nullptr;
	ostrel_rele_rpy_resources_locked(first, nullptr);
}

void ostrel_destroy_rpy_resources(ostrel_rpy_resources_t *res)
{
	if (res == nullptr)
		return;
	if (res->nsr_refresh_thread != 0) {
		ostrel_stop_refresh(res);
		ostrel_refresh_cairn(res, true);
	}
	while (res->nsr_enclave_resources != nullptr)
		release_first_of(&res->nsr_enclave_resources);
	ostrel_end_private_configd(res);
	ostrel_free_rpy_resources(res);
}

// ---- Where resources hang ----

// The link that points to the resources of an enclave in a list, or that would have to.
static ostrel_rpy_resources_t **link_in(ostrel_rpy_resources_t **listp, const ostrel_rpy_resources_t *key)
    REQUIRES(rpy_lock)
{
	while (*listp != nullptr && cmp_resources_by_enclaveid(*listp, key) < 0)
		listp = &(*listp)->nsr_enclave_node;
	return listp;
}

static bool points_to_enclave(ostrel_rpy_resources_t *const *link, const ostrel_rpy_resources_t *key)
{
	return *link != nullptr && cmp_resources_by_enclaveid(*link, key) == 0;
}

static void put_among_enclaves(ostrel_db_t db, ostrel_rpy_resources_t *res) REQUIRES(rpy_lock)
{
	ostrel_rpy_resources_t **link = link_in(&ostrel_native_rpy_resources(db)->nsr_enclave_resources, res);
	if (points_to_enclave(link, res)) {
		ostrel_hand_refresh_on(res, *link);
		release_first_of(link);
	}
	// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a building that succeeds gives them
	if (res->nsr_private_configd)
		return; // they live as long as the operation
	// The release may have destroyed resources, but it has changed nothing in this list.
	res->nsr_enclave_node = *link;
	*link = res;
	res->nsr_refcnt = 1;
}

// Moves resources of other enclaves that wait for their snapshot to new native ones. The others are built again on demand.
static void move_waiting(ostrel_rpy_resources_t *res, ostrel_rpy_resources_t *before) REQUIRES(rpy_lock)
{
	for (auto **from = &before->nsr_enclave_resources; *from != nullptr;) {
		ostrel_rpy_resources_t *entry = *from;
		if (!ostrel_refresh_is_pending(entry)) {
			from = &entry->nsr_enclave_node;
			continue;
		}
		*from = entry->nsr_enclave_node;
		auto **to = link_in(&res->nsr_enclave_resources, entry);
		entry->nsr_enclave_node = *to;
		*to = entry;
	}
}

static void put_as_native(ostrel_db_t db, ostrel_rpy_resources_t *res) REQUIRES(rpy_lock)
{
	ostrel_rpy_resources_t *before = ostrel_native_rpy_resources(db);
	// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a building that succeeds gives them
	res->nsr_refcnt = 1;
	set_native(db, res);
	if (!res->nsr_issvc)
		ostrel_start_refresh(res, before);
	if (before != nullptr) {
		ostrel_hand_refresh_on(res, before);
		move_waiting(res, before);
		ostrel_inherit_private_configd(res, before);
	}
	ostrel_rele_rpy_resources_locked(before, nullptr);
}

ostrel_error_t ostrel_create_rpy_resources(ostrel_db_t db, ostrel_rpy_resources_t **resp)
{
	NewResources res;
	if (ostrel_error_t result = ostrel_build_rpy_resources(db, ostrel_db_get_enclaveid(db), &res))
		return result;
	*resp = res.release();
	put_as_native(db, *resp);
	return OSTREL_SUCCESS;
}

// ---- Choosing ----

// Whether the connection is alive, as far as this process knows: one call, which fills `scope`.
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

// A private daemon that is about to end goes on for those who have called it: its status is asked for.
bool ostrel_rpy_is_usable(const ostrel_rpy_resources_t *res, const EnclaveRoot &root, rpy_scope_t *scope)
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

static void ostrel_destroy_inactive_rpy_enclave_resources(ostrel_db_t db) REQUIRES(rpy_lock)
{
	for (auto **link = &ostrel_native_rpy_resources(db)->nsr_enclave_resources; *link != nullptr;) {
		if (is_active((*link)->nsr_enclaveid))
			link = &(*link)->nsr_enclave_node;
		else
			release_first_of(link);
	}
}

ostrel_rpy_resources_t *ostrel_find_rpy_resources(ostrel_db_t db, enclaveid_t enclave)
{
	ostrel_rpy_resources_t *native = ostrel_native_rpy_resources(db);
	if (native == nullptr || enclave == native->nsr_enclaveid)
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
    REQUIRES(rpy_lock)
{
	ostrel_rpy_resources_t *found = ostrel_find_rpy_resources(db, enclave);
	if (found == nullptr || !ostrel_rpy_is_usable(found, root, found->nsr_scope) ||
	    ostrel_native_configd_inenclave_ready(found))
		return false;
	found->nsr_cache_hits++;
	found->nsr_refcnt++;
	*resp = found;
	return true;
}

// Resources of another enclave, with a hold for the caller. Of threads that build them at the same moment the first one's
// stay.
static ostrel_error_t create_for_enclave(
    ostrel_db_t db, enclaveid_t enclave, const EnclaveRoot &root, ostrel_rpy_resources_t **resp) EXCLUDES(rpy_lock)
{
	NewResources res;
	if (ostrel_error_t result = ostrel_build_rpy_resources(db, enclave, &res))
		return result;
	RpyLock lock(db);
	// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a building that succeeds gives them
	if (!res->nsr_private_configd && take_found(db, enclave, root, resp))
		return OSTREL_SUCCESS;
	*resp = res.release();
	put_among_enclaves(db, *resp);
	(*resp)->nsr_refcnt++;
	return OSTREL_SUCCESS;
}

// Native resources are built with the lock held, so that no two threads build them: their daemon is the system's own, or one
// that belongs to the enclave of the database. Those of other enclaves are built without it, since their daemon may never
// answer, and every operation of the database takes this lock.
ostrel_error_t ostrel_get_rpy_resources_for_enclave(ostrel_db_t db, enclaveid_t enclave, ostrel_rpy_resources_t **resp)
{
	const EnclaveRoot root = ostrel_look_at_root(enclave); // without the lock
	{
		RpyLock lock(db);
		if (ostrel_native_rpy_resources(db) == nullptr)
			return SETERROR(OSTREL_INVALID_ARG);
		if (take_found(db, enclave, root, resp))
			return OSTREL_SUCCESS;
		if (enclave == ostrel_native_rpy_resources(db)->nsr_enclaveid) {
			if (ostrel_error_t result = ostrel_create_rpy_resources(db, resp))
				return result;
			// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a creation that succeeds gives them
			(*resp)->nsr_refcnt++;
			return OSTREL_SUCCESS;
		}
	}
	return create_for_enclave(db, enclave, root, resp);
}
