/*
 * Deferred updates: an update thread repeats an update that the store can't take now.
 */
#ifndef LIBOSTREL_DEFERRED_H
#define LIBOSTREL_DEFERRED_H

#include "libostrel_attempt.h"

// Hands an update to a thread of its own, which tries it at once and then once a second, 100 times at most. Called with
// no lock held.
// Owns:   the lists are copied
// Errors: OSTREL_NEEDS_RETRY  the caller is an update thread, whose loop makes the next attempt
//         OSTREL_INVALID_ARG  `idl` is NULL
//         what copying a list or making a thread gave
ostrel_error_t ostrel_create_update_thread(
    ostrel_op_t op, ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *objl);
// The thread's function; `arg` is an ostrel_update_arg_t, which it frees.
void *ostrel_update_thread(void *arg);

#endif
