/*
 * The static trace points of the provider "ostrel". A trace point costs one test while nobody is attached to it:
 *
 *	if (OSTREL_TRACED(db__read))
 *		ostrel_trace_db_read(result, db, idl, props);
 *
 * Its function builds the texts, on its own stack, and fires. All of them stand in libostrel_trace.cc, so that each
 * probe has exactly one location. A dash of a probe's name is a double underscore here.
 */
#ifndef LIBOSTREL_TRACE_H
#define LIBOSTREL_TRACE_H

#include "libostrel_impl.h"

// Whoever attaches raises the probe's semaphore, from outside the process: hence the volatile read.
#define OSTREL_TRACED(probe)                                                                                           \
	__builtin_expect(*const_cast<const volatile unsigned short *>(&ostrel_##probe##_semaphore) != 0, false)

extern "C" {
#define OSTREL_SEMAPHORE(probe)                                                                                        \
	extern unsigned short ostrel_##probe##_semaphore __attribute__((visibility("hidden"), section(".probes")))
OSTREL_SEMAPHORE(seterror);
OSTREL_SEMAPHORE(db__read);
OSTREL_SEMAPHORE(db__write);
OSTREL_SEMAPHORE(db__rename);
OSTREL_SEMAPHORE(db__remove);
OSTREL_SEMAPHORE(db__walk);
OSTREL_SEMAPHORE(db__walk__cb);
OSTREL_SEMAPHORE(log);
#undef OSTREL_SEMAPHORE
}

void ostrel_trace_seterror(ostrel_error_t err, const char *file, int line);
// `db` may be NULL in each of these, as in a refused call.
void ostrel_trace_db_read(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl, attrlist_t *props);
void ostrel_trace_db_write(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl, attrlist_t *props);
void ostrel_trace_db_rename(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl, attrlist_t *newidl);
void ostrel_trace_db_remove(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl);
void ostrel_trace_db_walk(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl);
void ostrel_trace_db_walk_cb(int returned, ostrel_db_t db, attrlist_t *idl, attrlist_t *props, void *arg);
void ostrel_trace_log(int priority, const char *text);

#endif
