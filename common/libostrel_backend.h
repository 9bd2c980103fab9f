/*
 * The table of a back end: the types of its slots and their duties. A back end is nothing but such a table; the four of
 * them stand in libostrel.cc.
 */
#ifndef LIBOSTREL_BACKEND_H
#define LIBOSTREL_BACKEND_H

#include "libostrel.h"

typedef ostrel_error_t ostrel_opencmd_t(ostrel_db_t db);
typedef void ostrel_closecmd_t(ostrel_db_t db);
typedef ostrel_error_t ostrel_readcmd_t(
    ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t ***objs, unsigned int *count);
typedef ostrel_error_t ostrel_writecmd_t(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *props);
typedef ostrel_error_t ostrel_renamecmd_t(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *newidl);
typedef ostrel_error_t ostrel_removecmd_t(ostrel_db_t db, attrlist_t *idl, uint64_t flags);
typedef void ostrel_auditcmd_t(ostrel_db_t db, unsigned short event, attrlist_t *idl, ostrel_error_t result);
typedef ostrel_error_t ostrel_authcmd_t(ostrel_db_t db, boolean_t write);
// Gets one object with its properties; anything but OSTREL_SUCCESS ends the visit. It may change the object, not free it.
typedef ostrel_error_t ostrel_visit_t(attrlist_t *object, void *arg);
typedef ostrel_error_t ostrel_visitcmd_t(
    ostrel_db_t db, attrlist_t *idl, uint64_t flags, ostrel_visit_t *visit, void *arg);
typedef bool ostrel_stayscmd_t(ostrel_db_t db, attrlist_t *idl);

// A back end: what it receives and must return, slot by slot. An empty slot (NULL) means what stands in brackets.
struct ostrel_db_cmds {
	// At the end of ostrel_db_open(), on a complete handle that the caller can't see yet, with no lock held. Makes
	// the private data. If it fails, it has released what it allocated, and the handle is freed. [nothing to do]
	ostrel_opencmd_t *dbc_open;
	// With db_lock held for writing; releases db_priv. The handle is freed afterwards. [nothing to do, and no lock
	// taken]
	ostrel_closecmd_t *dbc_close;
	// With db_lock held for reading from ostrel_db_read(), with no lock from ostrel_db_walk() and a hatch server:
	// it must be safe by itself against updates in other threads. On success it has stored an array (malloc family;
	// NULL or valid if the count is 0) of objects made with ostrel_object_create(), which belong to the caller:
	// Objects in libostrel_objects.h. On failure the caller looks at neither, and nothing is left to free.
	// [OSTREL_INVALID_ARG]
	ostrel_readcmd_t *dbc_read;
	// These three with db_lock held for writing. They own no list. One that reads through ostrel_db_read() gives the
	// lock up before and takes it again afterwards. OSTREL_NEEDS_RETRY: nothing was changed, and the same
	// call is to be repeated later. [OSTREL_INVALID_ARG: a database without them is read only]
	ostrel_writecmd_t *dbc_write;
	ostrel_renamecmd_t *dbc_rename;
	ostrel_removecmd_t *dbc_remove;
	// Right after each of these three, whatever it returned, under the same hold of the lock; the event is
	// TRL_ostrel_update for a write or a rename, with the old identifiers, TRL_ostrel_remove for a remove. [no record]
	ostrel_auditcmd_t *dbc_audit;
	// With no lock held; B_TRUE for an update. [OSTREL_SUCCESS without any test]
	ostrel_authcmd_t *dbc_auth;
	// For a walk in the store's order: as dbc_read with properties, but the objects are made one by one, so that
	// they needn't all be in memory. All that can fail in the store comes before the first visit, and the
	// objects are those of one moment. Returns what the visit returned. [dbc_read serves]
	ostrel_visitcmd_t *dbc_visit = nullptr;
	// For a hatch server, with no lock held: whether an operation with this list, which may be NULL, stays in the
	// handle's database, and goes to no other file, level, instance or enclave. In doubt it doesn't stay.
	// [no list with one of the keys that choose these stays]
	ostrel_stayscmd_t *dbc_stays = nullptr;
};

#endif
