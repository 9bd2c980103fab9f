// The handle: what is known of an open database, and its locks.
#include "libostrel_handle.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/guards.h"
#include "libostrel_error.h"

const char *ostrel_db_get_name(ostrel_db_t db)
{
	return db == nullptr ? nullptr : db->db_name;
}

ostrel_db_cmds_t ostrel_db_get_cmds(ostrel_db_t db)
{
	return db == nullptr ? nullptr : db->db_cmds;
}

uint64_t ostrel_db_get_flags(ostrel_db_t db)
{
	return db == nullptr ? 0 : db->db_flags;
}

enclaveid_t ostrel_db_get_enclaveid(ostrel_db_t db)
{
	return db->db_enclave;
}

void *ostrel_db_get_priv(ostrel_db_t db)
{
	return db->db_priv;
}

void ostrel_db_set_priv(ostrel_db_t db, void *priv)
{
	db->db_priv = priv;
}

const char *ostrel_db_get_read_auth(ostrel_db_t db)
{
	return db->db_read_auth;
}

const char *ostrel_db_get_write_auth(ostrel_db_t db)
{
	return db->db_write_auth;
}

template <size_t Size>
static void set_text(char (&field)[Size], const char *text)
{
	const size_t length = text == nullptr ? 0 : strnlen(text, Size - 1);
	if (length > 0)
		memcpy(field, text, length);
	field[length] = '\0';
}

void ostrel_db_set_read_auth(ostrel_db_t db, const char *auth)
{
	set_text(db->db_read_auth, auth);
}

void ostrel_db_set_write_auth(ostrel_db_t db, const char *auth)
{
	set_text(db->db_write_auth, auth);
}

// In a forked child, before the lock is taken: a thread that it doesn't have may hold it.
static void enter_process(ostrel_db_t db)
{
	db->db_lock_process.enter([db] { db->db_lock.init(); });
}

void ostrel_db_rdlock(ostrel_db_t db)
{
	enter_process(db);
	db->db_lock.rdlock();
}

void ostrel_db_wrlock(ostrel_db_t db)
{
	enter_process(db);
	db->db_lock.wrlock();
}

void ostrel_db_unlock(ostrel_db_t db)
{
	db->db_lock.unlock();
}

// A NULL handle has no lock to take: that is a question of a value, which the analysis can't follow.
void ostrel_db_lock_priv(ostrel_db_t db) NO_THREAD_SAFETY_ANALYSIS
{
	if (db != nullptr)
		db->db_privlock.lock();
}

void ostrel_db_unlock_priv(ostrel_db_t db) NO_THREAD_SAFETY_ANALYSIS
{
	if (db != nullptr)
		db->db_privlock.unlock();
}

// ---- Read locks and their mark ----

// The database whose lock this thread holds for reading. One at a time: no callback runs under it.
static thread_local ostrel_db_t read_locked_here;

bool ostrel_db_is_read_locked_here(ostrel_db_t db)
{
	return read_locked_here == db;
}

DbReadLock::DbReadLock(ostrel_db_t db) : db_(db)
{
	ostrel_db_rdlock(db);
	read_locked_here = db;
}

DbReadLock::~DbReadLock()
{
	read_locked_here = nullptr;
	ostrel_db_unlock(db_);
}

// ---- Creation and end ----

void ostrel_handle_destroy(ostrel_db_t db)
{
	if (db == nullptr)
		return;
	db->db_lock.destroy();
	db->db_privlock.destroy();
	free(db);
}

ostrel_error_t ostrel_handle_create(
    const char *name, enclaveid_t enclave, ostrel_db_cmds_t cmds, uint64_t flags, ostrel_db_t *dbp)
{
	Handle<struct ostrel_db, ostrel_handle_destroy> db(
	    static_cast<ostrel_db_t>(calloc(1, sizeof(struct ostrel_db))));
	if (!db)
		return SETERRNO(errno);
	db->db_lock.init();
	db->db_privlock.init();
	const size_t length = strnlen(name, sizeof(db->db_name));
	if (length == sizeof(db->db_name))
		return SETERROR(OSTREL_INVALID_ARG);
	memcpy(db->db_name, name, length);
	db->db_cmds = cmds;
	db->db_enclave = enclave;
	db->db_flags = flags & (OSTREL_DB_CASE_SENSITIVE | OSTREL_FLAG_TEMPORARY);
	*dbp = db.release();
	return OSTREL_SUCCESS;
}
