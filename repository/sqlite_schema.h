// What the store's file holds, as SQL: its tables, the check of a file that others left, and the rows on their way in and
// out. Functions that return an int return SQLite's codes.
#ifndef REPOSITORY_SQLITE_SCHEMA_H
#define REPOSITORY_SQLITE_SCHEMA_H

#include <cstdint>
#include <string>

#include "sqlite_connection.h"
#include "store.h"

namespace repository {

// The one row of `state`. A commit raises `commits` by one, so that the number tells whether it took effect.
struct StoreState {
	int64_t commits = 0;
	uint64_t next = 0; // free id
};

// Whether the file is this daemon's store, or empty and still to be made: *fresh. Anything else is a failure.
Failure check_format(SqliteConnection *store, const std::string &path, bool *fresh);
int make_format(SqliteConnection *store);

// Hands all versions to the loader, then all nodes by id, and gives the state that goes with them.
Failure load(SqliteConnection *store, const std::string &path, const Store::Loader &loader, StoreState *state);
int read_state(SqliteConnection *store, StoreState *state);

// Inside a transaction of the caller's. A row that meets another state than it was made for is refused.
int write_row(SqliteConnection *store, const Row &row);
// Puts the state in place of the one before, whose `commits` is one less.
int write_state(SqliteConnection *store, const StoreState &state);

} // namespace repository

#endif
