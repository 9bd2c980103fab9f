// One daemon at a time holds a repository file: by a flock() on it, for as long as it lives. A daemon that starts with
// another hatch takes the file over: it asks the holder to end as an operator would, with SIGTERM, so that the kernel
// decides who may. A private daemon, which the library starts where an enclave's own doesn't answer, takes the file from
// other private ones alone: the enclave's own may just be starting.
#ifndef REPOSITORY_HOLDER_H
#define REPOSITORY_HOLDER_H

#include <string>

#include "base/guards.h"
#include "store.h"

namespace repository {

// Whether a hatch is one of the library's, for a daemon that stands in where an enclave's own isn't up.
bool is_private(const std::string &hatch);

enum class Hold { ours, served_already };

struct Start {
	const std::string &file;
	const std::string &hatch;
	// Whether the hatch can be served. Asked before a daemon of another hatch is told to end, so that it doesn't end for
	// nothing.
	Failure (*can_serve)(const std::string &hatch);
};

// Opens the file, makes an empty one if there is none, and locks it. If a daemon of the same hatch holds it, waits until
// that one answers: *hold is `served_already`, and nothing was locked.
//
// Owns:    *held is the locked file; the lock ends with the descriptor.
// Errors:  EIO    the file is neither empty nor a repository: it stays as it is
//          EBUSY  a process that is no daemon holds it, or a daemon that a private one can't take it from, or the holder
//                 doesn't let go in 7 s
//          EINVAL not a regular file; what opening, locking and Start::can_serve fail with; EPERM if the holder can't be
//                 asked to end
// Threads: the one that starts the daemon.
Failure hold_file(const Start &start, Fd *held, Hold *hold);

} // namespace repository

#endif
