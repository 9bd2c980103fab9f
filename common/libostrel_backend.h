/*
 * The table of a back end: the types of its slots and their duties. A back end is nothing but such a table; the four of
 * them stand in libostrel.cc.
 */
#ifndef LIBOSTREL_BACKEND_H
#define LIBOSTREL_BACKEND_H

#include "libostrel.h"

class Batch;          // libostrel_batch.h
struct ObjectVersion; // libostrel_version.h

// A condition of a batch doesn't hold: somebody changed the object. A result of batches alone.
constexpr ostrel_error_t OSTREL_CONFLICT = static_cast<ostrel_error_t>(32);

// Tells when a look at a database may find something new. Used by one thread at a time.
class Notifier {
public:
	// A descriptor that is readable as long as look() may have something to tell: the same one for the object's life.
	virtual int fd() const = 0;
	/*
	 * Takes what has been told so far, without waiting. *changed: since the last call the database may have changed. It is set
	 * in doubt, and never left out: a caller that reads after each true one holds, at rest, what the store holds.
	 * Errors: why not everything is told at present (no server, no right, no descriptors). *changed counts all the same; it isn't
	 *         set in each call, so that a caller who looks until nothing comes gets to an end. The notifier goes on trying, sets
	 *         *changed once it is back, and fd() is readable then
	 */
	virtual ostrel_error_t look(bool *changed) = 0;
	// Gives everything up, the object included.
	virtual void end() = 0;

protected:
	~Notifier() = default;
};

// One change of one object. Everything is the giver's, until the visit returns.
struct HistoryEntry {
	uint64_t revision; // of the commit; it grows
	uint32_t part;     // of that, from 0
	int64_t at_ns;     // since the epoch
	uid_t uid;         // who asked for it, as the kernel said
	bool has_behalf;
	uid_t behalf;  // for whom: a server of root's may say so
	uint32_t what; // OSTRELX_ADDED, _CHANGED, _REMOVED, _REVERTED
	attrlist_t *idl;
	attrlist_t *before; // properties; NULL: there was no object, or the caller may not see it
	attrlist_t *after;
	bool is_hidden; // before and after aren't for this caller
};

typedef ostrel_error_t ostrel_history_visit_t(const HistoryEntry &entry, void *arg);
typedef ostrel_error_t ostrel_commitcmd_t(ostrel_db_t db, const Batch &batch, int *failed);
typedef ostrel_error_t ostrel_versioncmd_t(ostrel_db_t db, ObjectVersion *version);
typedef ostrel_error_t ostrel_notifycmd_t(ostrel_db_t db, attrlist_t *idl, Notifier **notifier);
typedef ostrel_error_t ostrel_historycmd_t(
    ostrel_db_t db, attrlist_t *idl, uint64_t since, ostrel_history_visit_t *visit, void *arg);
typedef ostrel_error_t ostrel_undocmd_t(ostrel_db_t db, uint64_t revision, Batch *batch);

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

	// ---- What libostrelx reaches: libostrel_more.h ----

	// The same table for all back ends. A new back end's own table also goes into the list of live/store.cc.
	const struct ostrel_more *dbc_more = nullptr;
	// With db_lock held for writing: looks at all conditions against one state of the store, then carries the steps out in
	// their order, each as the slot of its kind; all of it or nothing, durable at the return. *failed is the number of the
	// condition or step that failed, or -1. OSTREL_CONFLICT: a condition doesn't hold. Nothing is ever taken over for
	// later. [OSTREL_NOTSUP]
	ostrel_commitcmd_t *dbc_commit = nullptr;
	// With db_lock held for reading: a text that changes with anything in the database. [OSTREL_NOTSUP]
	ostrel_versioncmd_t *dbc_version = nullptr;
	// With no lock held: a notifier of the objects that a list, which may be NULL, selects, or of more than those. It reads
	// nothing and waits for nobody; a database that isn't there is no failure. [OSTREL_NOTSUP]
	ostrel_notifycmd_t *dbc_notify = nullptr;
	// With no lock held: visits the changes after the revision `since`, oldest first, of the objects that a list, which may be
	// NULL, selects. [OSTREL_NOTSUP]
	ostrel_historycmd_t *dbc_history = nullptr;
	// With no lock held: fills an empty batch with what takes a revision back, and with the conditions that nothing it
	// changed was changed since. [OSTREL_NOTSUP]
	ostrel_undocmd_t *dbc_undo = nullptr;
};

#endif
