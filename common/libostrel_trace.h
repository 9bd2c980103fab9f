/*
 * The trace points of the operations on a database. Each function makes the texts of its probe's arguments, on its own
 * stack, and fires; call it only while the probe is OSTREL_TRACED().
 */
#ifndef LIBOSTREL_TRACE_H
#define LIBOSTREL_TRACE_H

#include "libostrel.h"
#include "libostrel_probe.h"

// `db` may be NULL in each of these, as in a refused call.
void ostrel_trace_db_read(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl, attrlist_t *props);
void ostrel_trace_db_write(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl, attrlist_t *props);
void ostrel_trace_db_rename(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl, attrlist_t *newidl);
void ostrel_trace_db_remove(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl);
void ostrel_trace_db_walk(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl);
void ostrel_trace_db_walk_cb(int returned, ostrel_db_t db, attrlist_t *idl, attrlist_t *props, void *arg);

#endif
