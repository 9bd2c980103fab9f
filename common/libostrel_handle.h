/*
 * The handle of an open database, with its two locks.
 *
 * Locks. db_lock, a reader-writer lock, keeps updates through the handle apart from one another and from reads: the
 * dispatcher holds it around the slots of the back end (libostrel_backend.h says how around which). db_privlock guards db_priv
 * and what it points to, and belongs to the back end, which takes it inside its slots and never around a callback. Where
 * both are held, db_lock was taken first. Neither is recursive.
 *
 * Without a lock. Name, flags, enclave and table don't change after the open. The authorization texts are set once, when a
 * server is made: before its hatch has clients, whose requests are all that read them.
 *
 * Forks. A forked child finds the locks as they were, perhaps held by threads that it doesn't have. So what takes a lock
 * asks its ProcessMark first, which initializes the lock again at the first use in a new process: for db_lock the functions
 * and guards below, for db_privlock the back end at the start of an operation. The log and the audit trail keep the same
 * rule for their locks. Handlers of pthread_atfork() don't serve: they would have to wait for an update that runs, and a
 * bare clone() doesn't call them.
 */
#ifndef LIBOSTREL_HANDLE_H
#define LIBOSTREL_HANDLE_H

#include "base/process_mark.h"
#include "base/thread_safety.h"
#include "libostrel.h"

struct ostrel_db {
	// The first four stay where they are: libostrelx finds the table of any build by them.
	char db_name[OSTREL_DB_NAME_MAX + 1];
	uint64_t db_flags;
	enclaveid_t db_enclave;
	ostrel_db_cmds_t db_cmds; // never NULL in an open handle
	char db_read_auth[1024];  // empty: none needed
	char db_write_auth[1024];
	RwLock db_lock ACQUIRED_BEFORE(db_privlock);
	Mutex db_privlock;
	void *db_priv GUARDED_BY(db_privlock); // the back end's; NULL until it sets it
	// The process that the locks were initialized in.
	ProcessMark db_lock_process;
	ProcessMark db_priv_process;
};

// With a NULL handle the first three give NULL, NULL and 0, and the privlock's two do nothing; the others need a
// handle.
const char *ostrel_db_get_name(ostrel_db_t db);
ostrel_db_cmds_t ostrel_db_get_cmds(ostrel_db_t db);
uint64_t ostrel_db_get_flags(ostrel_db_t db);
inline bool ostrel_is_case_sensitive(ostrel_db_t db)
{
	return (ostrel_db_get_flags(db) & OSTREL_DB_CASE_SENSITIVE) != 0;
}
enclaveid_t ostrel_db_get_enclaveid(ostrel_db_t db);
void *ostrel_db_get_priv(ostrel_db_t db) REQUIRES(db->db_privlock);
void ostrel_db_set_priv(ostrel_db_t db, void *priv) REQUIRES(db->db_privlock);
const char *ostrel_db_get_read_auth(ostrel_db_t db);
const char *ostrel_db_get_write_auth(ostrel_db_t db);
// A text is cut to 1023 bytes; NULL empties the field.
void ostrel_db_set_read_auth(ostrel_db_t db, const char *auth);
void ostrel_db_set_write_auth(ostrel_db_t db, const char *auth);
void ostrel_db_rdlock(ostrel_db_t db) ACQUIRE_SHARED(db->db_lock);
void ostrel_db_wrlock(ostrel_db_t db) ACQUIRE(db->db_lock);
void ostrel_db_unlock(ostrel_db_t db) RELEASE_GENERIC(db->db_lock);
// Whether this thread is inside ostrel_db_read() of that handle, and so has db_lock for reading.
bool ostrel_db_is_read_locked_here(ostrel_db_t db);
void ostrel_db_lock_priv(ostrel_db_t db) ACQUIRE(db->db_privlock);
void ostrel_db_unlock_priv(ostrel_db_t db) RELEASE(db->db_privlock);

// db_lock for the length of a read. The thread is marked, so that a back end knows whether its caller holds the lock:
// ostrel_db_walk() and a hatch server call dbc_read without it.
class SCOPED_CAPABILITY DbReadLock {
public:
	explicit DbReadLock(ostrel_db_t db) ACQUIRE_SHARED(db->db_lock);
	~DbReadLock() RELEASE_GENERIC();
	DbReadLock(const DbReadLock &) = delete;
	DbReadLock &operator=(const DbReadLock &) = delete;

private:
	ostrel_db_t db_;
};

// db_lock for the length of an update or a close.
class SCOPED_CAPABILITY DbWriteLock {
public:
	explicit DbWriteLock(ostrel_db_t db) ACQUIRE(db->db_lock) : db_(db) { ostrel_db_wrlock(db_); }
	~DbWriteLock() RELEASE() { ostrel_db_unlock(db_); }
	DbWriteLock(const DbWriteLock &) = delete;
	DbWriteLock &operator=(const DbWriteLock &) = delete;

private:
	ostrel_db_t db_;
};

// Makes a handle without private data. Owns: *dbp is new. Errors: OSTREL_INVALID_ARG  the name is too long;
// OSTREL_NO_MEMORY
ostrel_error_t ostrel_handle_create(
    const char *name, enclaveid_t enclave, ostrel_db_cmds_t cmds, uint64_t flags, ostrel_db_t *dbp);
// Frees a handle that nobody uses, and takes NULL. What db_priv points to has to be released before.
void ostrel_handle_destroy(ostrel_db_t db);

#endif
