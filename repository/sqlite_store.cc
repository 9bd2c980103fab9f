// The store in SQLite: a rollback journal that is truncated, everything synced. The database is open only around updates,
// so that its file system can be remounted read-only; the connection is closed once a second has gone by without one.
// Divisions: statements; opening and checking; committing; what an operator asks for.
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <sqlite3.h>
#include <sys/stat.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include "base/guards.h"
#include "log.h"
#include "rpy/wire.h"
#include "signals.h"
#include "sqlite_files.h"
#include "store.h"

namespace repository {
namespace {

using namespace std::chrono_literals;

constexpr int application_id = 0x4341524e; // what a file of this kind says it is
constexpr auto idle_time = 1s;
constexpr const char *journal_end = "-journal";
constexpr const char *not_plain = ": not a regular file, or one with several links: nobody's journal";

using Database = Handle<sqlite3, sqlite3_close_v2>;
using Statement = Handle<sqlite3_stmt, sqlite3_finalize>;

constexpr const char *schema = R"(
create table nodes(id integer primary key, kind integer not null, parent integer references nodes(id), name text not null,
	type text not null, version integer not null);
create unique index names on nodes(parent, kind, name);
create table versions(id integer primary key, properties blob not null);
create table state(id integer primary key check (id = 1), commits integer not null, next integer not null);
insert into state values(1, 0, 2);
)";

int run(sqlite3 *database, const char *text)
{
	return sqlite3_exec(database, text, nullptr, nullptr, nullptr);
}

std::string_view blob_of(sqlite3_stmt *statement, int column)
{
	const void *data = sqlite3_column_blob(statement, column);
	return {static_cast<const char *>(data), static_cast<size_t>(sqlite3_column_bytes(statement, column))};
}

// What a database consists of: the statements that made it, but those of the tables that an operator's `analyze` makes.
// Names tell nothing: whoever writes a file gives them.
int schema_of(sqlite3 *database, std::string *text)
{
	Statement rows;
	int code = sqlite3_prepare_v2(database,
	    "select sql from sqlite_schema where sql is not null and sql not in ("
	    "'CREATE TABLE sqlite_stat1(tbl,idx,stat)', 'CREATE TABLE sqlite_stat4(tbl,idx,neq,nlt,ndlt,sample)')"
	    " order by name, sql",
	    -1, rows.out(), nullptr);
	while (code == SQLITE_OK && (code = sqlite3_step(rows.get())) == SQLITE_ROW) {
		*text += std::string(blob_of(rows.get(), 0)) + ";";
		code = SQLITE_OK;
	}
	return code == SQLITE_DONE ? SQLITE_OK : code;
}

int own_schema(std::string *text)
{
	Database made;
	int code = sqlite3_open(":memory:", made.out());
	if (code == SQLITE_OK)
		code = run(made.get(), schema);
	return code == SQLITE_OK ? schema_of(made.get(), text) : code;
}

constexpr const char *row_statements[] = {
    "insert into nodes values(?1, ?2, nullif(?3, 0), ?4, ?5, ?6)",
    "update nodes set version = ?6 where id = ?1",
    "delete from nodes where id = ?1",
    "insert into versions values(?1, ?7)",
    "delete from versions where id = ?1",
};
constexpr size_t row_kinds = sizeof(row_statements) / sizeof(*row_statements);

void bind_text(sqlite3_stmt *statement, int at, std::string_view text)
{
	if (sqlite3_bind_parameter_count(statement) >= at)
		(void) sqlite3_bind_text64(
		    statement, at, text.data() == nullptr ? "" : text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

void bind_number(sqlite3_stmt *statement, int at, uint64_t number)
{
	if (sqlite3_bind_parameter_count(statement) >= at)
		(void) sqlite3_bind_int64(statement, at, static_cast<int64_t>(number));
}

bool is_damage(int code)
{
	return (code & 0xff) == SQLITE_CORRUPT || (code & 0xff) == SQLITE_NOTADB;
}

bool is_readonly_errno(int error)
{
	return error == EROFS || error == EACCES || error == EPERM;
}

// Whether a write was refused by a limit of the process or of its user. At a commit the file alone tells.
bool is_beyond_limit(sqlite3 *database)
{
	int error = database == nullptr ? 0 : sqlite3_system_errno(database);
	if (database != nullptr && error == 0)
		(void) sqlite3_file_control(database, "main", SQLITE_FCNTL_LAST_ERRNO, &error);
	return error == EFBIG || error == EDQUOT;
}

// What a failing update says to its client.
rpy_error_t error_of(sqlite3 *database, int code)
{
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

// A copy of a store, with the journal that a crash left beside it, in a private directory. What can't be rolled back where
// nothing can be written is rolled back there.
class PrivateCopy {
public:
	explicit PrivateCopy(const std::string &path)
	{
		const char *const places[] = {"/dev/shm", getenv("TMPDIR"), "/run", "/tmp"}; // in memory, if it can be
		for (const char *place : places) {
			std::string made = std::string(place == nullptr ? "/tmp" : place) + "/cairn.configd-XXXXXX";
			if (mkdtemp(made.data()) == nullptr)
				continue;
			directory_ = made;
			if (fill(path))
				return;
			remove();
		}
	}
	PrivateCopy(const PrivateCopy &) = delete;
	PrivateCopy &operator=(const PrivateCopy &) = delete;
	~PrivateCopy() { remove(); }

	explicit operator bool() const { return !directory_.empty(); }
	std::string file() const { return directory_ + "/repository.db"; }

private:
	bool fill(const std::string &path) const
	{
		std::error_code bad;
		return std::filesystem::copy_file(path, file(), bad) &&
		       std::filesystem::copy_file(path + journal_end, file() + journal_end, bad) &&
		       chmod(file().c_str(), 0600) == 0 && chmod((file() + journal_end).c_str(), 0600) == 0;
	}
	void remove()
	{
		std::error_code ignored;
		if (!directory_.empty())
			std::filesystem::remove_all(directory_, ignored);
		directory_.clear();
	}

	EndPutOff until_removed_;
	std::string directory_;
};

class SqliteStore : public Store {
public:
	SqliteStore(const std::string &path, int file)
	    : path_(path), journal_(path + journal_end), directory_(path, 0, path.find_last_of('/') + 1), file_(file)
	{}
	~SqliteStore() override
	{
		{
			std::lock_guard<std::mutex> hold(lock_);
			ending_ = true;
		}
		changed_.notify_all();
		if (closer_.joinable())
			closer_.join();
	}

	Failure open(const Loader &loader, uint64_t *next) override;
	Committed commit(const Rows &rows, uint64_t next) override;
	bool writable() override;
	uint64_t bytes() override;
	bool verify(std::string *findings) override;
	bool copy(std::string *bytes) override;

private:
	int connect(int flags) { return connect(flags, path_); }
	int connect(int flags, const std::string &path);
	int connect_to_look(std::unique_ptr<PrivateCopy> *copy, bool *read_only);
	void close();
	void close_when_idle();
	bool path_is_ours() const;
	bool takes_writes() const;
	bool sync_directory() const;
	Failure failure(int code, const char *what) const;
	std::string who_locks(int code) const;
	enum class Journal { none, plain, odd };
	Journal look_at_journal() const;
	Failure check_format(bool *fresh);
	Failure read(const Loader &loader, uint64_t *next);
	int write_rows(const Rows &rows, uint64_t next);
	int write_row(const Row &row);
	bool read_commits(int64_t *commits);
	rpy_error_t settle(int code);

	const std::string path_, journal_;
	const std::string directory_; // with a slash at its end; empty for the current one
	const int file_;
	std::mutex lock_; // guards all that follows
	Database database_;
	Statement statements_[row_kinds];
	Statement state_;
	int64_t commits_ = 0; // the number of the last commit
	std::chrono::steady_clock::time_point last_use_;
	std::condition_variable changed_;
	std::thread closer_;
	bool ending_ = false;
};

// ---- Opening and checking ----

int SqliteStore::connect(int flags, const std::string &path)
{
	sqlite3 *opened = nullptr;
	int code = sqlite3_open_v2(path.c_str(), &opened, flags | SQLITE_OPEN_NOMUTEX, sqlite_files(file_));
	database_.reset(opened);
	if (code != SQLITE_OK)
		return code;
	(void) sqlite3_extended_result_codes(opened, 1);
	(void) sqlite3_busy_timeout(opened, 5000);
	(void) sqlite3_db_config(opened, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
	(void) sqlite3_db_config(opened, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
	(void) sqlite3_db_config(opened, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
	(void) sqlite3_db_config(opened, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
	code = run(
	    opened, "pragma mmap_size=0; pragma foreign_keys=on; pragma cell_size_check=on; pragma synchronous=extra");
	if (code == SQLITE_OK && (flags & SQLITE_OPEN_READWRITE) != 0)
		code = run(opened, "pragma journal_mode=truncate");
	return code;
}

void SqliteStore::close()
{
	for (Statement &statement : statements_)
		statement.reset();
	state_.reset();
	database_.reset();
}

Failure SqliteStore::failure(int code, const char *what) const
{
	int error = code == SQLITE_NOMEM || code == SQLITE_IOERR_NOMEM ? ENOMEM
		    : (code & 0xff) == SQLITE_PERM                     ? EACCES
								       : EIO;
	if (database_ && (code & 0xff) == SQLITE_CANTOPEN && sqlite3_system_errno(database_.get()) == EACCES)
		error = EACCES;
	return {error, path_ + ": " + what + ": " +
			   (database_ ? sqlite3_errmsg(database_.get()) : sqlite3_errstr(code)) + who_locks(code)};
}

// Who keeps a file locked, for a message that says that it is.
std::string SqliteStore::who_locks(int code) const
{
	const std::string holder = (code & 0xff) == SQLITE_BUSY ? sqlite_lock_holder(file_) : std::string();
	return holder.empty() ? holder : " by " + holder;
}

// Tells a store of ours, an empty file, and anything else apart.
Failure SqliteStore::check_format(bool *fresh)
{
	auto number = [this](const char *text, int *value) {
		Statement statement;
		int code = sqlite3_prepare_v2(database_.get(), text, -1, statement.out(), nullptr);
		if (code == SQLITE_OK)
			code = sqlite3_step(statement.get());
		if (code != SQLITE_ROW)
			return code;
		*value = sqlite3_column_int(statement.get(), 0);
		return SQLITE_OK;
	};
	int kind = 0, format = 0, tables = 0;
	if (int code = number("pragma application_id", &kind))
		return failure(code, "not a repository");
	if (int code = number("pragma user_version", &format))
		return failure(code, "not a repository");
	if (int code = number("select count(*) from sqlite_schema", &tables))
		return failure(code, "not a repository");
	*fresh = kind == 0 && format == 0 && tables == 0;
	if (*fresh)
		return {};
	if (kind != application_id)
		return {EIO, path_ + ": not a repository"};
	if (format != static_cast<int>(store_format))
		return {EIO, path_ + ": has format " + std::to_string(format) + ", and this daemon knows " +
				 std::to_string(store_format) + " alone"};
	std::string ours, theirs;
	int code = own_schema(&ours);
	if (code == SQLITE_OK)
		code = schema_of(database_.get(), &theirs);
	if (code != SQLITE_OK)
		return failure(code, "can't be read");
	if (ours != theirs) // a constraint or a trigger of somebody else's would run here
		return {EIO, path_ + ": not a repository: its tables aren't this daemon's"};
	Statement check;
	code = sqlite3_prepare_v2(database_.get(), "pragma quick_check(1)", -1, check.out(), nullptr);
	if (code == SQLITE_OK)
		code = sqlite3_step(check.get());
	if (code == SQLITE_ROW && blob_of(check.get(), 0) == "ok")
		return {};
	if (code != SQLITE_ROW && !is_damage(code))
		return failure(code, "can't be checked");
	return {EIO, path_ + ": is damaged: restore it from a backup"};
}

Failure SqliteStore::read(const Loader &loader, uint64_t *next)
{
	Statement versions, nodes, state;
	int code =
	    sqlite3_prepare_v2(database_.get(), "select id, properties from versions", -1, versions.out(), nullptr);
	if (code == SQLITE_OK)
		code = sqlite3_prepare_v2(database_.get(),
		    "select id, kind, ifnull(parent, 0), name, type, version from nodes order by id", -1, nodes.out(),
		    nullptr);
	if (code == SQLITE_OK)
		code = sqlite3_prepare_v2(database_.get(), "select commits, next from state", -1, state.out(), nullptr);
	if (code != SQLITE_OK)
		return failure(code, "can't be read");
	while ((code = sqlite3_step(versions.get())) == SQLITE_ROW) {
		std::string_view properties = blob_of(versions.get(), 1);
		if (!rpy::are_properties(properties))
			return {EIO, path_ + ": is damaged: a version holds no properties; restore it from a backup"};
		loader.version(static_cast<uint64_t>(sqlite3_column_int64(versions.get(), 0)), properties);
	}
	while (code == SQLITE_DONE && (code = sqlite3_step(nodes.get())) == SQLITE_ROW) {
		auto number = [&](int column) {
			return static_cast<uint64_t>(sqlite3_column_int64(nodes.get(), column));
		};
		Row row = {Row::What::put_node, number(0), static_cast<uint32_t>(number(1)), number(2), number(5),
		    blob_of(nodes.get(), 3), blob_of(nodes.get(), 4), {}};
		if (!loader.node(row))
			return {EIO, path_ + ": is damaged: node " + std::to_string(row.id) +
					 " doesn't fit; restore it from a backup"};
		code = SQLITE_DONE;
	}
	if (code != SQLITE_DONE)
		return failure(code, "can't be read");
	if ((code = sqlite3_step(state.get())) != SQLITE_ROW)
		return failure(code, "can't be read");
	commits_ = sqlite3_column_int64(state.get(), 0);
	*next = static_cast<uint64_t>(sqlite3_column_int64(state.get(), 1));
	return {};
}

// Connects for reading what the store holds. A journal that a crash left is rolled back here: in the file, or, where
// nothing can be written, in a copy.
int SqliteStore::connect_to_look(std::unique_ptr<PrivateCopy> *copy, bool *read_only)
{
	int code = connect(SQLITE_OPEN_READWRITE);
	*read_only = code != SQLITE_OK || sqlite3_db_readonly(database_.get(), "main") == 1;
	if (code == SQLITE_OK || is_damage(code))
		return code;
	code = connect(SQLITE_OPEN_READONLY);
	if (code != SQLITE_READONLY_ROLLBACK)
		return code;
	close();
	*copy = std::make_unique<PrivateCopy>(path_);
	return **copy ? connect(SQLITE_OPEN_READWRITE, (*copy)->file()) : code;
}

Failure SqliteStore::open(const Loader &loader, uint64_t *next)
{
	std::lock_guard<std::mutex> hold(lock_);
	if (look_at_journal() == Journal::odd)
		return {EINVAL, journal_ + not_plain};
	std::unique_ptr<PrivateCopy> copy; // which goes behind the connection to it
	bool read_only = false;
	int code = connect_to_look(&copy, &read_only);
	if (code != SQLITE_OK)
		return failure(code, (code & 0xff) == SQLITE_NOTADB ? "not a repository" : "can't be opened");
	// One look at the file: its locks are taken once. It ends with the connection.
	if ((code = run(database_.get(), "begin")) != SQLITE_OK)
		return failure(code, "can't be read");
	bool fresh = false;
	if (Failure bad = check_format(&fresh))
		return bad;
	if (fresh && read_only)
		return {EROFS, path_ + ": is empty and can't be written"};
	if (fresh) {
		std::string text = std::string("commit;begin immediate;") + schema +
				   "pragma application_id=" + std::to_string(application_id) +
				   ";pragma user_version=" + std::to_string(store_format) + ";commit;begin";
		if ((code = run(database_.get(), text.c_str())) != SQLITE_OK)
			return failure(code, "can't be made");
		if (!sync_directory())
			return {EIO, directory_ + ": can't be synced: " + strerror(errno)};
	}
	Failure bad = read(loader, next);
	close();
	if (!bad) {
		EndPutOff its_mask; // the thread that serves waits for them
		closer_ = std::thread([this] { close_when_idle(); });
	}
	return bad;
}

void SqliteStore::close_when_idle()
{
	std::unique_lock<std::mutex> hold(lock_);
	while (!ending_) {
		if (!database_)
			changed_.wait(hold);
		else if (std::chrono::steady_clock::now() - last_use_ >= idle_time)
			close();
		else
			changed_.wait_until(hold, last_use_ + idle_time);
	}
	close();
}

// Nothing may be acknowledged into a file that the path doesn't lead to any more.
bool SqliteStore::path_is_ours() const
{
	struct stat ours, there;
	return fstat(file_, &ours) == 0 && lstat(path_.c_str(), &there) == 0 && ours.st_dev == there.st_dev &&
	       ours.st_ino == there.st_ino && there.st_size > 0;
}

// What is in the journal's place: nothing, what can be one, or what can't.
SqliteStore::Journal SqliteStore::look_at_journal() const
{
	struct stat there;
	if (lstat(journal_.c_str(), &there) == -1)
		return Journal::none;
	return S_ISREG(there.st_mode) && there.st_nlink == 1 ? Journal::plain : Journal::odd;
}

// Whether the file and its journal may be written, as far as that can be seen. A connection that was opened for writing
// doesn't show that the mount or the file was made read-only since, and fails half-way through.
bool SqliteStore::takes_writes() const
{
	return access(path_.c_str(), W_OK) == 0 && (access(journal_.c_str(), W_OK) == 0 || errno == ENOENT);
}

// Makes the names of the file and of its journal durable. SQLite does so and doesn't look whether it worked.
bool SqliteStore::sync_directory() const
{
	Fd directory(::open(directory_.empty() ? "." : directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	// A file system that can't sync directories isn't an error.
	return directory && (fsync(directory.get()) == 0 || errno == EINVAL || errno == ENOTSUP);
}

// ---- Committing ----

int SqliteStore::write_row(const Row &row)
{
	auto kind = static_cast<size_t>(row.what);
	Statement &statement = statements_[kind];
	if (!statement) {
		int code = sqlite3_prepare_v3(
		    database_.get(), row_statements[kind], -1, SQLITE_PREPARE_PERSISTENT, statement.out(), nullptr);
		if (code != SQLITE_OK)
			return code;
	}
	bind_number(statement.get(), 1, row.id);
	bind_number(statement.get(), 2, row.kind);
	bind_number(statement.get(), 3, row.parent);
	bind_text(statement.get(), 4, row.name);
	bind_text(statement.get(), 5, row.type);
	bind_number(statement.get(), 6, row.version);
	if (row.what == Row::What::put_version)
		(void) sqlite3_bind_blob64(
		    statement.get(), 7, row.properties.data(), row.properties.size(), SQLITE_STATIC);
	int code = sqlite3_step(statement.get());
	(void) sqlite3_reset(statement.get());
	if (code == SQLITE_DONE && sqlite3_changes(database_.get()) != 1)
		return SQLITE_CORRUPT; // the file doesn't hold what it is known to hold
	return code == SQLITE_DONE ? SQLITE_OK : code;
}

int SqliteStore::write_rows(const Rows &rows, uint64_t next)
{
	int code = run(database_.get(), "begin immediate");
	for (size_t i = 0; code == SQLITE_OK && i < rows.size(); i++)
		code = write_row(rows[i]);
	if (code != SQLITE_OK)
		return code;
	if (!state_) {
		code = sqlite3_prepare_v3(database_.get(),
		    "update state set commits = ?1 + 1, next = ?2 where commits = ?1", -1, SQLITE_PREPARE_PERSISTENT,
		    state_.out(), nullptr);
		if (code != SQLITE_OK)
			return code;
	}
	bind_number(state_.get(), 1, static_cast<uint64_t>(commits_));
	bind_number(state_.get(), 2, next);
	code = sqlite3_step(state_.get());
	(void) sqlite3_reset(state_.get());
	if (code == SQLITE_DONE && sqlite3_changes(database_.get()) != 1)
		return SQLITE_CORRUPT;
	return code == SQLITE_DONE ? SQLITE_OK : code;
}

bool SqliteStore::read_commits(int64_t *commits)
{
	Statement state;
	if (sqlite3_prepare_v2(database_.get(), "select commits from state", -1, state.out(), nullptr) != SQLITE_OK ||
	    sqlite3_step(state.get()) != SQLITE_ROW)
		return false;
	*commits = sqlite3_column_int64(state.get(), 0);
	return true;
}

// After a COMMIT that failed: did it take effect? What the disk holds is asked on a fresh connection. If that can't be
// told, the daemon ends: its memory may be wrong, and the next start reads what is there.
rpy_error_t SqliteStore::settle(int code)
{
	rpy_error_t error = error_of(database_.get(), code);
	close();
	int64_t commits = 0;
	int again = connect(SQLITE_OPEN_READWRITE);
	if (again != SQLITE_OK)
		again = connect(SQLITE_OPEN_READONLY);
	if (again != SQLITE_OK || !read_commits(&commits) || (commits != commits_ && commits != commits_ + 1)) {
		log_message(LOG_CRIT,
		    "%s: an update failed (%s), and the file can't be read to see what became of it; ending, so "
		    "that the next start reads what it holds",
		    path_.c_str(), sqlite3_errstr(code));
		_exit(EIO);
	}
	if (commits == commits_)
		return error;
	log_message(LOG_CRIT,
	    "%s: an update was reported as failed (%s) and stands in the file nevertheless; ending, so that "
	    "the next start reads it",
	    path_.c_str(), sqlite3_errstr(code));
	_exit(EIO);
}

Committed SqliteStore::commit(const Rows &rows, uint64_t next)
{
	std::lock_guard<std::mutex> hold(lock_);
	if (!path_is_ours()) {
		close();
		log_message(LOG_ERR,
		    "%s: the file was removed, replaced or emptied; nothing is written until it is back, or the "
		    "daemon is started anew",
		    path_.c_str());
		return RPY_ERROR_INTERNAL;
	}
	const Journal journal = look_at_journal();
	if (journal == Journal::odd) {
		close();
		log_message(LOG_ERR, "%s%s; nothing is written while it is there", journal_.c_str(), not_plain);
		return RPY_ERROR_INTERNAL;
	}
	int code = SQLITE_OK;
	bool opened = !database_;
	if (opened)
		code = connect(SQLITE_OPEN_READWRITE);
	if (code == SQLITE_OK && (sqlite3_db_readonly(database_.get(), "main") == 1 || !takes_writes()))
		code = SQLITE_READONLY;
	if (code == SQLITE_OK)
		code = write_rows(rows, next);
	if (code == SQLITE_OK && journal == Journal::none && !sync_directory())
		code = SQLITE_IOERR_DIR_FSYNC;
	last_use_ = std::chrono::steady_clock::now();
	if (code != SQLITE_OK) {
		rpy_error_t error = error_of(database_.get(), code);
		if (error == RPY_ERROR_INTERNAL && !takes_writes())
			error = RPY_ERROR_BACKEND_READONLY;
		log_message(LOG_WARNING, "%s: an update was refused: %s%s", path_.c_str(),
		    database_ && sqlite3_errcode(database_.get()) != SQLITE_OK ? sqlite3_errmsg(database_.get())
									       : sqlite3_errstr(code),
		    who_locks(code).c_str());
		close(); // which takes back what the transaction wrote
		return error;
	}
	code = run(database_.get(), "commit");
	if (code != SQLITE_OK) {
		rpy_error_t error = settle(code);
		log_message(LOG_ERR, "%s: an update failed: %s", path_.c_str(), sqlite3_errstr(code));
		close();
		return error;
	}
	int moved = 0;
	(void) sqlite3_file_control(database_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved);
	commits_++;
	if (moved != 0 || !path_is_ours()) {
		log_message(LOG_CRIT, "%s: the file was replaced during an update; ending", path_.c_str());
		_exit(EIO);
	}
	if (opened)
		changed_.notify_all(); // somebody has to close it
	return RPY_ERROR_NONE;
}

// ---- What an operator asks for ----

bool SqliteStore::writable()
{
	return path_is_ours() && access(path_.c_str(), W_OK) == 0 &&
	       access(directory_.empty() ? "." : directory_.c_str(), W_OK) == 0;
}

uint64_t SqliteStore::bytes()
{
	struct stat there;
	return fstat(file_, &there) == 0 ? static_cast<uint64_t>(there.st_size) : 0;
}

bool SqliteStore::verify(std::string *findings)
{
	std::lock_guard<std::mutex> hold(lock_);
	if (!path_is_ours()) {
		*findings += "the file was removed, replaced or emptied\n";
		return true;
	}
	int opened = database_ ? SQLITE_OK : connect(SQLITE_OPEN_READONLY);
	if (opened != SQLITE_OK) {
		close();
		if (is_damage(opened))
			*findings += std::string(sqlite3_errstr(opened)) + "\n";
		return is_damage(opened);
	}
	for (const char *text : {"pragma integrity_check", "pragma foreign_key_check"}) {
		Statement check;
		int code = sqlite3_prepare_v2(database_.get(), text, -1, check.out(), nullptr);
		while (code == SQLITE_OK && (code = sqlite3_step(check.get())) == SQLITE_ROW) {
			if (std::string_view line = blob_of(check.get(), 0); line != "ok")
				*findings += std::string(line) + "\n";
			code = SQLITE_OK;
		}
		if (code != SQLITE_DONE)
			*findings += std::string(sqlite3_errstr(code)) + "\n";
	}
	last_use_ = std::chrono::steady_clock::now();
	close();
	return true;
}

bool SqliteStore::copy(std::string *bytes)
{
	std::lock_guard<std::mutex> hold(lock_);
	close();
	int64_t commits = 0;
	sqlite3_int64 size = 0;
	Handle<unsigned char, sqlite3_free> image;
	// What was put at the path meanwhile, or in the file, is no copy of what is served.
	if (path_is_ours() && connect(SQLITE_OPEN_READONLY) == SQLITE_OK && read_commits(&commits) &&
	    commits == commits_)
		image.reset(sqlite3_serialize(database_.get(), "main", &size, 0));
	close();
	if (!image || !path_is_ours())
		return false;
	bytes->assign(reinterpret_cast<const char *>(image.get()), static_cast<size_t>(size));
	return true;
}

} // namespace

std::unique_ptr<Store> make_sqlite_store(const std::string &path, int file)
{
	return std::make_unique<SqliteStore>(path, file);
}

} // namespace repository
