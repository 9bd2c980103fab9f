/*
 * One attempt of an update. A caller's thread makes the first one, and an update thread those that follow when the store asks
 * for a retry.
 */
#ifndef LIBOSTREL_ATTEMPT_H
#define LIBOSTREL_ATTEMPT_H

#include "libostrel_handle.h"

// The first two are never deferred.
typedef enum ostrel_op MERIDON_ENUM32 {
	OSTREL_OP_READ = 0,
	OSTREL_OP_WALK = 1,
	OSTREL_OP_WRITE = 2,
	OSTREL_OP_RENAME = 3,
	OSTREL_OP_REMOVE = 4
} ostrel_op_t;

// An update with its arguments. That of an update thread owns its lists.
typedef struct ostrel_update_arg {
	ostrel_op_t nua_op;
	ostrel_db_t nua_db; // a plain pointer: the database stays open until the update has ended
	attrlist_t *nua_idl;
	uint64_t nua_flags;
	attrlist_t *nua_objl; // properties of a write, new identifiers of a rename, NULL for a remove
} ostrel_update_arg_t;

// Calls the slot and leaves its audit record under one hold of db_lock for writing, so that records come in the order of the
// updates; then fires the operation's trace point, but for OSTREL_NEEDS_RETRY, which isn't the update's last result.
// Errors: OSTREL_INVALID_ARG  a NULL handle, an empty slot, or no update at all; those of the slot
ostrel_error_t ostrel_attempt_update(const ostrel_update_arg_t &update);

// "write", "rename" or "remove", for messages.
const char *ostrel_update_word(ostrel_op_t op);

#endif
