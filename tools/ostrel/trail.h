// The audit trail of what the tool does to a database file by itself: a record for each object, such as the library leaves
// for its own updates.
#ifndef OSTREL_TOOL_TRAIL_H
#define OSTREL_TOOL_TRAIL_H

#include <string>
#include <vector>

#include "failure.h"
#include "object.h"

// Records that these objects were written and these removed, or that it failed. Without the privilege to write records, or
// without audit, it does nothing.
void record_updates(const std::string &database, const std::vector<const Object *> &writes,
    const std::vector<const Identifiers *> &removals, Exit result);

#endif
