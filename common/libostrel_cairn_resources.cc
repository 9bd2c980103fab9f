// Building and freeing resources: a handle that is bound to a daemon, the client objects made against it, and the service or
// instance that the database is named by.
//
// Resources are built whole or not at all: a step that fails ends the private daemon that was started for them, if any, and
// frees the steps before it. Nobody else sees them until they are returned. Objects are destroyed before the handle that they
// were made against.
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "libostrel_cairn.h"

void ostrel_free_rpy_resources(ostrel_rpy_resources_t *res)
{
	rpy_lock.not_shared();
	rpy_transaction_destroy_children(res->nsr_tx);
	rpy_transaction_destroy(res->nsr_tx);
	ostrel_destroy_rpy_work(res);
	rpy_snapshot_destroy(res->nsr_snap);
	rpy_instance_destroy(res->nsr_inst);
	rpy_service_destroy(res->nsr_svc);
	rpy_scope_destroy(res->nsr_scope);
	ostrel_destroy_rpy_read_resources(res);
	if (res->nsr_handle != nullptr)
		(void) rpy_handle_unbind(res->nsr_handle); // fails for one that was never bound
	rpy_handle_destroy(res->nsr_handle);
	res->nsr_reader_left.destroy();
	free(res->nsr_locator);
	delete res;
}

static ostrel_rpy_resources_t *allocate_resources(ostrel_db_t db, enclaveid_t enclave)
{
	auto *res = new (std::nothrow) ostrel_rpy_resources_t();
	if (res == nullptr)
		return nullptr;
	res->nsr_reader_left.init();
	res->nsr_db = db;
	res->nsr_enclaveid = enclave;
	return res;
}

// Every object is made once, here, and filled again by each operation: a look-up allocates nothing but its reply.
static ostrel_error_t create_objects(ostrel_rpy_resources_t *res)
{
	rpy_handle_t *handle = res->nsr_handle;
	if ((res->nsr_scope = rpy_scope_create(handle)) == nullptr ||
	    (res->nsr_svc = rpy_service_create(handle)) == nullptr ||
	    (res->nsr_inst = rpy_instance_create(handle)) == nullptr ||
	    (res->nsr_snap = rpy_snapshot_create(handle)) == nullptr || !ostrel_create_rpy_work(handle, res) ||
	    (res->nsr_tx = rpy_transaction_create(handle)) == nullptr)
		return SETERROR(ostrel_rpy_failure());
	res->nsr_op_inst = res->nsr_inst;
	return OSTREL_SUCCESS;
}

// Finds the service, or the instance, that the database is named by.
static ostrel_error_t look_up_locator(ostrel_rpy_resources_t *res)
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

// *is_lost: the daemon was a private one of others, which ended with them before the first call. That is nobody's fault, and the
// next try finds another one or starts it: pid 0 tells that this process didn't start the one that was lost.
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
		result = look_up_locator(res.get());
		*is_lost = result != OSTREL_SUCCESS && res->nsr_private_configd && res->nsr_private_configd_pid == 0 &&
			   rpy_error() == RPY_ERROR_CONNECTION_BROKEN;
	}
	if (result == OSTREL_SUCCESS)
		*out = std::move(res);
	else
		ostrel_end_private_configd(res.get());
	return result;
}

ostrel_error_t ostrel_build_rpy_resources(ostrel_db_t db, enclaveid_t enclave, NewResources *out)
{
	// A private daemon may be lost as often as others start and end one.
	for (int tries = 0;; tries++) {
		bool is_lost = false;
		ostrel_error_t result = build_once(db, enclave, out, &is_lost);
		if (!is_lost || tries == OSTREL_RPY_BUILD_TRIES)
			return result;
	}
}
