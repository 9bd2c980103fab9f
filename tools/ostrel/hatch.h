// Hatches as the tool sees them: whether somebody serves there, and what is wrong if nobody does.
#ifndef OSTREL_TOOL_HATCH_H
#define OSTREL_TOOL_HATCH_H

#include <optional>
#include <string>

#include <sys/types.h>

#include "failure.h"

// The process that serves the hatch at `path`; 0 if it serves but can't be seen from here; nothing if nobody serves.
std::optional<pid_t> hatch_server(const std::string &path);

// Why the hatch at `path` can't be called; nothing if it can. The library's own result doesn't tell: a server that has
// gone is no more than a failure to it.
std::optional<Failure> hatch_unreachable(const std::string &path);

// Why the server at `path` doesn't go by the file of rights; empty if it does, as far as can be seen from here.
std::string rights_fault_at(const std::string &path);

#endif
