// Deferred updates: an update thread repeats a write, rename or remove that the store can't take now, once a second. The
// caller has its success already.
#include "libostrel_deferred.h"

#include <cstdlib>
#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include "base/guards.h"
#include "libostrel_error.h"
#include "libostrel_thread.h"

namespace {

constexpr int retries_max = 100;
constexpr unsigned int retry_seconds = 1;

// Marks the thread as an update thread. Its name can't be relied on: the system cuts it at 15 bytes, and a caller's thread
// may have any name.
thread_local bool on_update_thread;
constexpr char thread_name[] = "ostrel_update"; // for people who look at the process

void free_update(ostrel_update_arg_t *update)
{
	attrlist_free(update->nua_idl);
	attrlist_free(update->nua_objl);
	free(update);
}
using DeferredUpdate = Handle<ostrel_update_arg_t, free_update>;

// Tries until the store takes the update, refuses it for another reason, or has asked for a retry too often. Each attempt takes
// the lock and is audited, as a caller's.
ostrel_error_t carry_out(const ostrel_update_arg_t &update)
{
	for (int retries = 0; retries < retries_max; retries++) {
		ostrel_error_t result = ostrel_attempt_update(update);
		if (result != OSTREL_NEEDS_RETRY)
			return result;
		(void) SETERROR(result); // each attempt leaves a trace of its own
		(void) sleep(retry_seconds);
	}
	ostrel_log(LOG_ERR, "maximum number of retries exceeded for %s operation, giving up",
	    ostrel_update_word(update.nua_op));
	return OSTREL_NEEDS_RETRY;
}

} // namespace

void *ostrel_update_thread(void *arg)
{
	DeferredUpdate update(static_cast<ostrel_update_arg_t *>(arg));
	on_update_thread = true;
	(void) pthread_setname_np(pthread_self(), thread_name);
	(void) SETERROR(carry_out(*update.get())); // the last report: no caller is left to return it to
	return nullptr;
}

ostrel_error_t ostrel_create_update_thread(
    ostrel_op_t op, ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *objl)
{
	if (on_update_thread)
		return OSTREL_NEEDS_RETRY; // the loop of this thread makes the next attempt
	AttrList idl_copy;
	if (int error = attrlist_dup(idl, idl_copy.out(), 0))
		return ostrel_errno2error(error);
	AttrList objl_copy;
	if (objl != nullptr) {
		if (int error = attrlist_dup(objl, objl_copy.out(), 0))
			return ostrel_errno2error(error);
	}
	DeferredUpdate update(static_cast<ostrel_update_arg_t *>(calloc(1, sizeof(ostrel_update_arg_t))));
	if (!update)
		return SETERROR(OSTREL_NO_MEMORY);
	*update.get() = {op, db, idl_copy.release(), flags, objl_copy.release()};
	if (int error = ostrel_start_thread(ostrel_update_thread, update.get(), thread_name))
		return ostrel_errno2error(error);
	(void) update.release(); // the thread's now
	return OSTREL_SUCCESS;
}
