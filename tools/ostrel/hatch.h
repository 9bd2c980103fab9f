// Hatches as seen from outside: whether a server is there, and what is wrong if none is. The library's own result doesn't tell:
// it reports a server that has ended as a general failure.
#ifndef OSTREL_TOOL_HATCH_H
#define OSTREL_TOOL_HATCH_H

#include <optional>
#include <string>

#include <sys/types.h>

#include "failure.h"

// The process that serves the hatch at `path`; 0 if it can't be seen from here; nothing if there is no server.
std::optional<pid_t> hatch_server(const std::string &path);

// Why the hatch at `path` can't be called; nothing if it can.
std::optional<Failure> hatch_unreachable(const std::string &path);

// Why the server at `path` ignores the file of rights, as the end of a sentence; empty if it doesn't, as far as can be seen.
std::string rights_fault_at(const std::string &path);

#endif
