// How SQLite reaches the files of the store: as a process does that holds them by a lock of its own, and in a directory
// where others may have put anything.
#ifndef REPOSITORY_SQLITE_FILES_H
#define REPOSITORY_SQLITE_FILES_H

#include <string>

namespace repository {

// The name of SQLite's way to the files. `file` is open on the store; the process has one store.
const char *sqlite_files(int file);

// The process that keeps SQLite from locking the file, and is heeded; empty if none does.
std::string sqlite_lock_holder(int file);

} // namespace repository

#endif
