/*
 * Taking an apply back: what goes back of each object, what stays, and one batch for all of it.
 */
#ifndef LIBOSTRELX_UNDO_H
#define LIBOSTRELX_UNDO_H

#include "record.h"

/*
 * Takes back what a record says, or plans it: `flags` and `cb` are those of ostrelx_rollback(), whose contract says what goes back.
 * Carried out a second time it changes nothing.
 * Errors: as ostrelx_rollback()
 */
ostrelx_error_t undo_take_back(
    ostrel_db_t db, const UndoRecord &record, uint64_t flags, ostrelx_undonecb_t *cb, void *arg);

// The word for a handle's back end in a record, and back. NULL: none that has batches.
const char *undo_store_word(ostrel_db_t db);
// Errors: OSTREL_INVALID_ARG  no such word; those of ostrel_db_open()
ostrelx_error_t undo_open_database(const UndoHead &head, ostrel_db_t *dbp);

#endif
