/*
 * Rolling one pending apply back, by hand or by the guard, from its record to its end.
 */
#ifndef LIBOSTRELX_GUARD_H
#define LIBOSTRELX_GUARD_H

#include "pending.h"

/*
 * Rolls back the apply `id` of an open directory: as ostrelx_rollback(), also what a rollback that was cut short has left.
 * Errors: as ostrelx_rollback(); OSTREL_INVALID_ARG  the record can't be read
 */
ostrelx_error_t undo_roll_back(
    const PendingDirectory &directory, const char *id, uint64_t flags, ostrelx_undonecb_t *cb, void *arg);

// What the public interface says of a record with that name in the directory. The texts are the record's and `id`.
ostrelx_pending_t undo_pending(const UndoRecord &record, const char *name, ApplyId &id);

#endif
