// A connection to the store's database: how it is opened, what its failures mean. It has no lock; one thread at a time
// uses it.
#ifndef REPOSITORY_SQLITE_CONNECTION_H
#define REPOSITORY_SQLITE_CONNECTION_H

#include <array>
#include <cstddef>
#include <sqlite3.h>
#include <string>
#include <string_view>

#include <meridon/rpy.h>

#include "base/guards.h"
#include "sqlite_paths.h"
#include "store.h"

namespace repository {

using Database = Handle<sqlite3, sqlite3_close_v2>;
using Statement = Handle<sqlite3_stmt, sqlite3_finalize>;

// Functions that return an int return SQLite's codes.
inline int run(sqlite3 *database, const char *text)
{
	return sqlite3_exec(database, text, nullptr, nullptr, nullptr);
}

inline int prepare(sqlite3 *database, const char *text, Statement *statement)
{
	return sqlite3_prepare_v2(database, text, -1, statement->out(), nullptr);
}

class SqliteConnection {
public:
	explicit SqliteConnection(const StorePath *paths) : paths_(paths) {}

	// Opens the store's file or another one, in place of what was open. A failed open leaves a handle that knows why:
	// failure(), error_of() and describe() read it, close() drops it.
	int open(int flags) { return open(flags, paths_->path()); }
	int open(int flags, const std::string &path);
	// Takes back what an open transaction wrote. Nothing happens if nothing is open.
	void close();

	bool is_open() const { return static_cast<bool>(database_); }
	bool is_read_only() const { return sqlite3_db_readonly(database_.get(), "main") == 1; }
	sqlite3 *get() const { return database_.get(); }

	int run(const char *text) { return repository::run(database_.get(), text); }
	int prepare(const char *text, Statement *statement) const
	{
		return repository::prepare(database_.get(), text, statement);
	}
	// A statement that stays prepared until close(): of each number there is one text. NULL on failure.
	static constexpr size_t kept_most = 6;
	sqlite3_stmt *keep(size_t number, const char *text, int *code);
	// Runs a kept statement that has to change exactly one row. Another number is SQLITE_CORRUPT: the file doesn't hold
	// what it is known to hold.
	int change_one(sqlite3_stmt *statement);

	// What to tell the starter of the daemon.
	Failure failure(int code, const char *what) const;
	// What a failing update tells its client.
	rpy_error_t error_of(int code) const;
	// For the log: SQLite's text, with the process that keeps the file locked, if that is the reason.
	std::string describe(int code) const;

private:
	const StorePath *const paths_;
	Database database_;
	std::array<Statement, kept_most> kept_;
};

inline std::string_view blob_of(sqlite3_stmt *statement, int column)
{
	const void *data = sqlite3_column_blob(statement, column);
	return {static_cast<const char *>(data), static_cast<size_t>(sqlite3_column_bytes(statement, column))};
}

inline bool is_damage(int code)
{
	return (code & 0xff) == SQLITE_CORRUPT || (code & 0xff) == SQLITE_NOTADB;
}

} // namespace repository

#endif
