// One daemon at a time holds a repository file: an flock() on it, for as long as it lives. One that starts with another
// hatch takes the file over, by asking the holder to end as an operator would: with SIGTERM, so that the kernel decides who
// may. A private daemon, which the library starts where an enclave's own doesn't answer, takes it from other private ones
// alone: the own one may just be starting.
#ifndef REPOSITORY_HOLDER_H
#define REPOSITORY_HOLDER_H

#include <string>
#include <sys/types.h>

#include "base/guards.h"
#include "store.h"

namespace repository {

// Whether a hatch is one of the library's, for a daemon that stands in where an enclave's own isn't up.
bool is_private(const std::string &hatch);

enum class Hold { ours, served_already };

struct Start {
	const std::string &file;
	const std::string &hatch;
	// Whether the hatch can be served. Asked before a daemon of another one is told to end, which would else be for nothing.
	Failure (*can_serve)(const std::string &hatch);
};

// Opens the file, making an empty one if there is none, and locks it. If a daemon of the same hatch holds it, waits until
// that one answers: `served_already`.
Failure hold_file(const Start &start, Fd *held, Hold *hold);

// Whether a process acts as root or as this process's user, and as nobody else.
bool is_of_ours(pid_t pid);

// How a message names a process.
std::string process_name(pid_t pid);

} // namespace repository

#endif
