#include "sqlite_connection.h"

#include <cerrno>

#include "sqlite_vfs.h"

namespace repository {
namespace {

constexpr int busy_ms = 5000; // how long an update waits for somebody else's lock

// No mapping of the file: if somebody cut it short, a read would be a signal instead of an error. Cells are checked, since a
// file may be damaged, or come from an enclave. And a commit that returned is on the disk.
constexpr const char *settings =
    "pragma mmap_size=0; pragma foreign_keys=on; pragma cell_size_check=on; pragma synchronous=extra";

bool is_readonly_errno(int error)
{
	return error == EROFS || error == EACCES || error == EPERM;
}

// Whether a write was refused by a limit of the process or of its user. After a COMMIT only the file knows.
bool is_beyond_limit(sqlite3 *database)
{
	int error = database == nullptr ? 0 : sqlite3_system_errno(database);
	if (database != nullptr && error == 0)
		(void) sqlite3_file_control(database, "main", SQLITE_FCNTL_LAST_ERRNO, &error);
	return error == EFBIG || error == EDQUOT;
}

} // namespace

int SqliteConnection::open(int flags, const std::string &path)
{
	close();
	sqlite3 *opened = nullptr;
	int code = sqlite3_open_v2(path.c_str(), &opened, flags | SQLITE_OPEN_NOMUTEX, sqlite_vfs(paths_->file()));
	database_.reset(opened);
	if (code != SQLITE_OK)
		return code;
	(void) sqlite3_extended_result_codes(opened, 1);
	(void) sqlite3_busy_timeout(opened, busy_ms);
	// Nothing of the file's own runs in the daemon, and SQL that damages the file is refused.
	(void) sqlite3_db_config(opened, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
	(void) sqlite3_db_config(opened, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
	(void) sqlite3_db_config(opened, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
	(void) sqlite3_db_config(opened, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
	code = run(settings);
	if (code == SQLITE_OK && (flags & SQLITE_OPEN_READWRITE) != 0)
		code = run("pragma journal_mode=truncate");
	return code;
}

void SqliteConnection::close()
{
	// Before the connection: a statement that is still there would keep it open.
	for (Statement &statement : kept_)
		statement.reset();
	database_.reset();
}

sqlite3_stmt *SqliteConnection::keep(size_t number, const char *text, int *code)
{
	Statement &statement = kept_[number];
	*code = SQLITE_OK;
	if (!statement)
		*code =
		    sqlite3_prepare_v3(database_.get(), text, -1, SQLITE_PREPARE_PERSISTENT, statement.out(), nullptr);
	return statement.get();
}

int SqliteConnection::change_one(sqlite3_stmt *statement)
{
	const int code = sqlite3_step(statement);
	(void) sqlite3_reset(statement); // says again what the step said
	if (code != SQLITE_DONE)
		return code;
	return sqlite3_changes(database_.get()) == 1 ? SQLITE_OK : SQLITE_CORRUPT;
}

// Memory and rights have exit codes of their own (main.cc); to the starter all else is EIO, and the text tells.
Failure SqliteConnection::failure(int code, const char *what) const
{
	int error = EIO;
	if (code == SQLITE_NOMEM || code == SQLITE_IOERR_NOMEM)
		error = ENOMEM;
	if ((code & 0xff) == SQLITE_PERM ||
	    (is_open() && (code & 0xff) == SQLITE_CANTOPEN && sqlite3_system_errno(database_.get()) == EACCES))
		error = EACCES;
	return {error, paths_->path() + ": " + what + ": " + describe(code)};
}

// SQLite's own text is there only for its own failures: SQLITE_READONLY for a read-only mount, say, is the store's finding.
std::string SqliteConnection::describe(int code) const
{
	const bool knows = is_open() && sqlite3_errcode(database_.get()) != SQLITE_OK;
	std::string text = knows ? sqlite3_errmsg(database_.get()) : sqlite3_errstr(code);
	const std::string holder = (code & 0xff) == SQLITE_BUSY ? sqlite_lock_holder(paths_->file()) : std::string();
	return holder.empty() ? text : text + " by " + holder;
}

// The system's error comes first where there is one: SQLite folds a read-only mount, a quota and a full disk into the code of
// a failed write, and a client that is told which of them it was knows whether it should try again.
rpy_error_t SqliteConnection::error_of(int code) const
{
	sqlite3 *database = database_.get();
	if (database != nullptr && is_readonly_errno(sqlite3_system_errno(database)) && (code & 0xff) != SQLITE_FULL)
		return RPY_ERROR_BACKEND_READONLY;
	if ((code & 0xff) == SQLITE_IOERR && is_beyond_limit(database))
		return RPY_ERROR_NO_RESOURCES;
	switch (code & 0xff) {
	case SQLITE_READONLY:
		return RPY_ERROR_BACKEND_READONLY;
	case SQLITE_PERM:
	case SQLITE_AUTH:
		return RPY_ERROR_PERMISSION_DENIED;
	case SQLITE_NOMEM:
		return RPY_ERROR_NO_MEMORY;
	case SQLITE_FULL:
		return RPY_ERROR_NO_RESOURCES;
	default:
		return RPY_ERROR_INTERNAL;
	}
}

} // namespace repository
