// How SQLite reaches the files of the store: as a process does that holds them by a lock of its own, and in a directory
// where others may have put anything.
#ifndef REPOSITORY_SQLITE_VFS_H
#define REPOSITORY_SQLITE_VFS_H

#include <string>

namespace repository {

// The name of the VFS, SQLite's access to files. `file` is open on the store, the only one in the process: what SQLite
// locks is compared with it. Threads: any; of two with different files the later one counts.
const char *sqlite_vfs(int file);

// How a message names the process whose lock on the file SQLite waits for; empty if there is none that counts.
std::string sqlite_lock_holder(int file);

} // namespace repository

#endif
