// Audit records of updates that the tool makes of a database file itself: one for each object, as the library leaves them for
// its own updates. docs/man/ostrel-audit.7 describes them.
#ifndef OSTREL_TOOL_TRAIL_H
#define OSTREL_TOOL_TRAIL_H

#include <string>
#include <vector>

#include "failure.h"
#include "object.h"

// Records that these objects were written and those removed, or that the update failed. Without the privilege to write records,
// or on a host without audit, it does nothing.
void record_updates(const std::string &database, const std::vector<const Object *> &writes,
    const std::vector<const Identifiers *> &removals, Exit result);

#endif
