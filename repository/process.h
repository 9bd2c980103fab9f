// What can be seen of other processes: who holds a file, and what it is. All of it is read from /proc, and may be out of
// date when it is returned; nothing here is relied on beyond what the caller then asks the kernel or the process itself.
//
// Errors:  what can't be seen is 0, empty or false. Without /proc that is everything.
// Threads: any. Memory that is missing comes out as std::bad_alloc.
#ifndef REPOSITORY_PROCESS_H
#define REPOSITORY_PROCESS_H

#include <string>
#include <sys/types.h>
#include <vector>

namespace repository {

// The process that took the flock() on a file, as the kernel's list of locks names it. It may have ended since, while
// another process has the lock by an inherited descriptor.
pid_t lock_holder(int file);
// A process that has a locked descriptor of the file open. Dearer: it looks at the descriptors of all processes.
pid_t lock_holder_by_descriptor(int file);

// The words of its command line; empty once it is ending, for its memory goes before its locks.
std::vector<std::string> command_line(pid_t pid);

// Whether it is a daemon of this program, and not a process that merely has a file of ours open and locked.
bool is_daemon(pid_t pid);

// Whether it acts as root or as this process's user, and as nobody else.
bool is_of_ours(pid_t pid);

// Whether it began less than so many seconds ago.
bool is_younger(pid_t pid, int seconds);

// How a message names it.
std::string process_name(pid_t pid);

} // namespace repository

#endif
