// Deferred updates: a write, rename or remove that the store can't take now goes on on a thread of its own, which tries
// it once a second, while the caller has its success already.
#include <csignal>
#include <cstdlib>
#include <pthread.h>
#include <unistd.h>

#include "base/guards.h"
#include "libostrel_impl.h"
#include "libostrel_log.h"

namespace {

constexpr int retries_max = 100;
constexpr unsigned int retry_seconds = 1;

// What a thread is, is told by this mark. The name of a thread can't tell: the system cuts it at 15 bytes, and a
// caller's thread may bear any name.
thread_local bool on_update_thread;
constexpr char thread_name[] = "ostrel_update"; // for people who look at the process

struct DeferredOp {
	ostrel_op_t op;
	const char *word;
	ostrel_error_t (*attempt)(const ostrel_update_arg_t *update);
};

// The public operations: each attempt takes the lock, and is audited, like a caller's.
constexpr DeferredOp deferred_ops[] = {
    {OSTREL_OP_WRITE, "write",
	[](const ostrel_update_arg_t *u) { return ostrel_db_write(u->nua_db, u->nua_idl, u->nua_flags, u->nua_objl); }},
    {OSTREL_OP_RENAME, "rename",
	[](const ostrel_update_arg_t *u) {
		return ostrel_db_rename(u->nua_db, u->nua_idl, u->nua_flags, u->nua_objl);
	}},
    {OSTREL_OP_REMOVE, "remove",
	[](const ostrel_update_arg_t *u) { return ostrel_db_remove(u->nua_db, u->nua_idl, u->nua_flags); }},
};

void free_update(ostrel_update_arg_t *update)
{
	attrlist_free(update->nua_idl);
	attrlist_free(update->nua_objl);
	free(update);
}
using Update = Handle<ostrel_update_arg_t, free_update>;

// Tries until the store takes the update, refuses it for another reason, or has asked too often to come again.
ostrel_error_t carry_out(const DeferredOp &op, const ostrel_update_arg_t *update)
{
	for (int retries = 0; retries < retries_max; retries++) {
		ostrel_error_t result = op.attempt(update);
		if (result != OSTREL_NEEDS_RETRY)
			return result;
		(void) SETERROR(result); // each attempt leaves a trace of its own
		(void) sleep(retry_seconds);
	}
	ostrel_log(LOG_ERR, "maximum number of retries exceeded for %s operation, giving up", op.word);
	return OSTREL_NEEDS_RETRY;
}

ostrel_error_t carry_out(const ostrel_update_arg_t *update)
{
	for (const DeferredOp &op : deferred_ops) {
		if (op.op == update->nua_op)
			return carry_out(op, update);
	}
	return OSTREL_INVALID_ARG;
}

} // namespace

int ostrel_start_thread(void *(*run)(void *), void *arg, const char *name)
{
	pthread_attr_t attributes;
	if (int error = pthread_attr_init(&attributes))
		return error;
	sigset_t all;
	(void) sigfillset(&all);
	int error = pthread_attr_setsigmask_np(&attributes, &all);
	pthread_t thread;
	if (error == 0)
		error = pthread_create(&thread, &attributes, run, arg);
	(void) pthread_attr_destroy(&attributes);
	if (error != 0)
		return error;
	// Whoever looks for the thread by its name finds it from now on. It may have ended already.
	CancellationWaits cancellation;
	(void) pthread_setname_np(thread, name);
	(void) pthread_detach(thread);
	return 0;
}

void *ostrel_update_thread(void *arg)
{
	Update update(static_cast<ostrel_update_arg_t *>(arg));
	on_update_thread = true;
	(void) pthread_setname_np(pthread_self(), thread_name);
	(void) SETERROR(carry_out(update.get())); // the end of the road: nobody is left to tell
	return nullptr;
}

ostrel_error_t ostrel_create_update_thread(
    ostrel_op_t op, ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *objl)
{
	if (on_update_thread)
		return OSTREL_NEEDS_RETRY; // its own loop goes on with the attempts
	AttrList idl_copy;
	if (int error = attrlist_dup(idl, idl_copy.out(), 0))
		return ostrel_errno2error(error);
	AttrList objl_copy;
	if (objl != nullptr) {
		if (int error = attrlist_dup(objl, objl_copy.out(), 0))
			return ostrel_errno2error(error);
	}
	Update update(static_cast<ostrel_update_arg_t *>(calloc(1, sizeof(ostrel_update_arg_t))));
	if (!update)
		return SETERROR(OSTREL_NO_MEMORY);
	*update.get() = {op, db, idl_copy.release(), flags, objl_copy.release()};
	if (int error = ostrel_start_thread(ostrel_update_thread, update.get(), thread_name))
		return ostrel_errno2error(error);
	(void) update.release(); // the thread's now
	return OSTREL_SUCCESS;
}
