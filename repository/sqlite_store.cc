// The store in SQLite: a rollback journal that is truncated, everything synced. The database is open only around updates,
// so that its file system can be remounted read-only; the connection is closed once a second has gone by without one.
//
// It stands on sqlite_paths (the file from outside), sqlite_connection (how it is opened, what failures mean) and
// sqlite_schema (what is in it). sqlite_vfs is what SQLite itself reaches files by.
// Divisions: opening; the idle connection; committing; the file.
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <sqlite3.h>
#include <syslog.h>
#include <thread>

#include "base/clock.h"
#include "base/thread_safety.h"
#include "log.h"
#include "signals.h"
#include "sqlite_connection.h"
#include "sqlite_paths.h"
#include "sqlite_schema.h"
#include "store.h"

namespace repository {
namespace {

constexpr int64_t idle_ns = second_ns;
constexpr const char *no_journal = ": not a regular file, or one with several links: nobody's journal";
constexpr const char *no_leftover = ": in the place of a new repository's journal, and no journal";

// `lock_` guards the connection and what is known of the last commit. It is held around a whole commit, and while the
// file is verified or copied: these wait for one another. What the file system shows is looked at without it.
class SqliteStore : public Store, public StoreFile {
public:
	SqliteStore(const std::string &path, int file) : paths_(path, file), connection_(&paths_)
	{
		lock_.init();
		changed_.init();
	}
	SqliteStore(const SqliteStore &) = delete;
	SqliteStore &operator=(const SqliteStore &) = delete;
	~SqliteStore() override;

	Failure open(const Loader &loader, uint64_t *next) override;
	Committed commit(const Rows &rows, uint64_t next) override;
	bool writable() override;
	StoreFile *file() override { return this; }

	uint64_t bytes() override { return paths_.bytes(); }
	bool verify(std::string *findings) override;
	bool copy(std::string *bytes) override;

private:
	int connect_to_look(std::unique_ptr<PrivateCopy> *copy, bool *read_only) REQUIRES(lock_);
	Failure make_or_check(bool read_only) REQUIRES(lock_);
	void close_when_idle();
	bool may_commit() REQUIRES(lock_);
	int write(const Rows &rows, const StoreState &state) REQUIRES(lock_);
	rpy_error_t refuse(int code) REQUIRES(lock_);
	rpy_error_t settle(int code) REQUIRES(lock_);
	bool stands_as_committed() REQUIRES(lock_);

	const StorePath paths_;
	Mutex lock_;
	SqliteConnection connection_ GUARDED_BY(lock_);
	int64_t commits_ GUARDED_BY(lock_) = 0; // the number of the last commit
	int64_t last_use_ GUARDED_BY(lock_) = 0;
	bool ending_ GUARDED_BY(lock_) = false;
	CondVar changed_;    // the connection was opened, or the store ends
	std::thread closer_; // of open() and the destructor
};

// ---- Opening ----

// Connects for reading what the store holds. A journal that a crash left is rolled back here: in the file, or, where
// nothing can be written, in a copy.
int SqliteStore::connect_to_look(std::unique_ptr<PrivateCopy> *copy, bool *read_only)
{
	int code = connection_.open(SQLITE_OPEN_READWRITE);
	*read_only = code != SQLITE_OK || connection_.is_read_only();
	if (code == SQLITE_OK || is_damage(code))
		return code;
	code = connection_.open(SQLITE_OPEN_READONLY);
	if (code != SQLITE_READONLY_ROLLBACK)
		return code;
	connection_.close();
	*copy = std::make_unique<PrivateCopy>(paths_);
	return **copy ? connection_.open(SQLITE_OPEN_READWRITE, (*copy)->file()) : code;
}

// Leaves a transaction open for the look at what is there: the file's locks are taken once.
Failure SqliteStore::make_or_check(bool read_only)
{
	int code = connection_.run("begin");
	if (code != SQLITE_OK)
		return connection_.failure(code, "can't be read");
	bool fresh = false;
	if (Failure bad = check_format(&connection_, paths_.path(), &fresh))
		return bad;
	if (!fresh)
		return {};
	if (read_only)
		return {EROFS, paths_.path() + ": is empty and can't be written"};
	code = connection_.run("commit; begin immediate");
	if (code == SQLITE_OK)
		code = make_format(&connection_);
	if (code == SQLITE_OK)
		code = connection_.run("commit; begin");
	if (code != SQLITE_OK)
		return connection_.failure(code, "can't be made");
	if (int error = paths_.sync_directory())
		return {EIO, paths_.directory() + ": can't be synced: " + strerror(error)};
	return {};
}

Failure SqliteStore::open(const Loader &loader, uint64_t *next)
{
	MutexLock hold(lock_);
	if (paths_.journal_state() == StorePath::Journal::other)
		return {EINVAL, paths_.journal() + no_journal};
	if (paths_.bytes() == 0 &&
	    paths_.has_foreign_journal()) // an empty database can have none, so SQLite deletes it
		return {EINVAL, paths_.journal() + no_leftover};
	std::unique_ptr<PrivateCopy> copy; // which goes after the connection to it
	bool read_only = false;
	const int code = connect_to_look(&copy, &read_only);
	if (code != SQLITE_OK)
		return connection_.failure(
		    code, (code & 0xff) == SQLITE_NOTADB ? "not a repository" : "can't be opened");
	if (Failure bad = make_or_check(read_only))
		return bad;
	StoreState state;
	if (Failure bad = load(&connection_, paths_.path(), loader, &state))
		return bad;
	connection_.close();
	commits_ = state.commits;
	*next = state.next;
	EndDeferred its_mask; // the thread that serves waits for them
	closer_ = std::thread([this] { close_when_idle(); });
	return {};
}

// ---- The idle connection ----

// A thread closes the connection, since hours may pass until the next request. A commit that opens it wakes the thread, which
// then sleeps until a second has gone by since the last one.
void SqliteStore::close_when_idle()
{
	MutexLock hold(lock_);
	while (!ending_) {
		const Deadline end = Deadline::at(last_use_ + idle_ns);
		if (!connection_.is_open())
			changed_.wait(lock_);
		else if (end.has_passed())
			connection_.close();
		else
			changed_.wait_until(lock_, end);
	}
	connection_.close();
}

SqliteStore::~SqliteStore()
{
	{
		MutexLock hold(lock_);
		ending_ = true;
	}
	changed_.notify_all();
	if (closer_.joinable())
		closer_.join();
	changed_.destroy();
	lock_.destroy();
}

// ---- Committing ----

// What a failure leaves, by when it comes:
//   before the transaction  nothing was written: refused, and the next update may work
//   before the COMMIT       as refuse() says: nothing, once the connection is closed
//   at the COMMIT           all or nothing, which settle() finds out, or the daemon ends
//   after it                the update stands. A file that isn't at its path any more would be lost with it: the daemon ends
//
// `commits_` is the number in the file's row `state`. A commit replaces that row only if it has the number before: so a
// file that somebody restored or wrote to in the meantime fails the update instead of getting rows of another history. And
// after a COMMIT of unknown fate the number tells what became of it.
//
// Everything runs under `lock_`, also while SQLite waits 5 s for a lock of somebody else's.

// Whether the file is there to be written, and nothing is in its journal's place that SQLite mustn't touch.
bool SqliteStore::may_commit()
{
	if (!paths_.leads_to_file()) {
		log_message(LOG_ERR,
		    "%s: the file was removed, replaced or emptied; nothing is written until it is back, or the "
		    "daemon is started again",
		    paths_.path().c_str());
		return false;
	}
	if (paths_.journal_state() == StorePath::Journal::other) {
		log_message(
		    LOG_ERR, "%s%s; nothing is written while it is there", paths_.journal().c_str(), no_journal);
		return false;
	}
	return true;
}

// Opens a transaction, and writes all of it but the COMMIT.
int SqliteStore::write(const Rows &rows, const StoreState &state)
{
	// Looked at before the transaction, which makes the journal: if it is new, its name has to be on the disk before the COMMIT,
	// or a power failure could leave the half-written file without it.
	const bool makes_journal = paths_.journal_state() == StorePath::Journal::none;
	int code = connection_.is_open() ? SQLITE_OK : connection_.open(SQLITE_OPEN_READWRITE);
	if (code == SQLITE_OK && (connection_.is_read_only() || !paths_.takes_writes()))
		code = SQLITE_READONLY;
	if (code == SQLITE_OK)
		code = connection_.run("begin immediate");
	for (size_t i = 0; code == SQLITE_OK && i < rows.size(); i++)
		code = write_row(&connection_, rows[i]);
	if (code == SQLITE_OK)
		code = write_state(&connection_, state);
	if (code == SQLITE_OK && makes_journal && paths_.sync_directory() != 0)
		code = SQLITE_IOERR_DIR_FSYNC;
	return code;
}

// Before the COMMIT nothing has happened: closing takes back what the transaction wrote, and if that fails, the journal
// is there for the next connection.
rpy_error_t SqliteStore::refuse(int code)
{
	rpy_error_t error = connection_.error_of(code);
	if (error == RPY_ERROR_INTERNAL && !paths_.takes_writes())
		error = RPY_ERROR_BACKEND_READONLY;
	try {
		log_message(LOG_WARNING, "%s: an update was refused: %s", paths_.path().c_str(),
		    connection_.describe(code).c_str());
	} catch (const std::bad_alloc &) { // the client hears of it all the same
	}
	connection_.close();
	return error;
}

// After a COMMIT that failed: did it take effect? A fresh connection is asked for what the disk holds. If it can't tell,
// or the update stands although it was reported as failed, the daemon ends: where a sync failed, what is read back now may be
// in the kernel's memory alone, so the update can't be called done, and it can't be called failed either.
rpy_error_t SqliteStore::settle(int code)
{
	const rpy_error_t error = connection_.error_of(code);
	int again = connection_.open(SQLITE_OPEN_READWRITE); // which rolls back what isn't committed
	if (again != SQLITE_OK)
		again = connection_.open(SQLITE_OPEN_READONLY);
	StoreState state;
	if (again == SQLITE_OK)
		again = read_state(&connection_, &state);
	if (again != SQLITE_OK || (state.commits != commits_ && state.commits != commits_ + 1))
		end_daemon("%s: an update failed (%s), and the file can't be read to see what became of it; ending, so "
			   "that the next start reads what it holds",
		    paths_.path().c_str(), sqlite3_errstr(code));
	if (state.commits != commits_)
		end_daemon("%s: an update was reported as failed (%s) and stands in the file nevertheless; ending, so "
			   "that the next start reads it",
		    paths_.path().c_str(), sqlite3_errstr(code));
	log_message(LOG_ERR, "%s: an update failed: %s", paths_.path().c_str(), sqlite3_errstr(code));
	connection_.close();
	return error;
}

// Whether the file that was written is still the one that the path leads to.
bool SqliteStore::stands_as_committed()
{
	int moved = 0;
	(void) sqlite3_file_control(connection_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved);
	return moved == 0 && paths_.leads_to_file();
}

Committed SqliteStore::commit(const Rows &rows, uint64_t next)
{
	MutexLock hold(lock_);
	if (!may_commit()) {
		connection_.close();
		return RPY_ERROR_INTERNAL;
	}
	const bool opens = !connection_.is_open();
	int code = write(rows, {commits_ + 1, next});
	last_use_ = now_ns();
	if (code != SQLITE_OK)
		return refuse(code);
	code = connection_.run("commit");
	if (code != SQLITE_OK)
		return settle(code);
	commits_++;
	if (!stands_as_committed())
		end_daemon("%s: the file was replaced during an update; ending", paths_.path().c_str());
	if (opens)
		changed_.notify_all(); // for who closes it
	Committed made;
	made.revision = static_cast<uint64_t>(commits_);
	return made;
}

bool SqliteStore::writable()
{
	return paths_.leads_to_file() && paths_.takes_writes() && paths_.takes_new_files();
}

// ---- The file ----

bool SqliteStore::verify(std::string *findings)
{
	MutexLock hold(lock_);
	if (!paths_.leads_to_file()) {
		*findings += "the file was removed, replaced or emptied\n";
		return true;
	}
	const int opened = connection_.is_open() ? SQLITE_OK : connection_.open(SQLITE_OPEN_READONLY);
	if (opened != SQLITE_OK) {
		connection_.close();
		if (is_damage(opened))
			*findings += std::string(sqlite3_errstr(opened)) + "\n";
		return is_damage(opened);
	}
	for (const char *text : {"pragma integrity_check", "pragma foreign_key_check"}) {
		Statement check;
		int code = connection_.prepare(text, &check);
		while (code == SQLITE_OK && (code = sqlite3_step(check.get())) == SQLITE_ROW) {
			if (std::string_view line = blob_of(check.get(), 0); line != "ok")
				*findings += std::string(line) + "\n";
			code = SQLITE_OK;
		}
		if (code != SQLITE_DONE)
			*findings += std::string(sqlite3_errstr(code)) + "\n";
	}
	connection_.close();
	return true;
}

bool SqliteStore::copy(std::string *bytes)
{
	MutexLock hold(lock_);
	connection_.close();
	StoreState state;
	sqlite3_int64 size = 0;
	Handle<unsigned char, sqlite3_free> image;
	// What was put at the path meanwhile, or in the file, is no copy of what is served.
	if (paths_.leads_to_file() && connection_.open(SQLITE_OPEN_READONLY) == SQLITE_OK &&
	    read_state(&connection_, &state) == SQLITE_OK && state.commits == commits_)
		image.reset(sqlite3_serialize(connection_.get(), "main", &size, 0));
	connection_.close();
	if (!image || !paths_.leads_to_file())
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
