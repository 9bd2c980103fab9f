// What a store remembers of its changes.
#ifndef OSTREL_TOOL_HISTORY_H
#define OSTREL_TOOL_HISTORY_H

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "database.h"

struct PastChange {
	uint64_t revision;
	uint32_t part;
	std::string what; // added, changed, removed, reverted
	int64_t at_ns;
	uid_t uid;
	std::optional<uid_t> behalf;
	bool hidden;
	Identifiers id;
	std::optional<Object> before, after; // nothing: there was none, or they are hidden
};

// The changes after a revision of the objects that the identifiers select, oldest first; with `revision` those of that alone.
// Throws Failure.
std::vector<PastChange> changes_since(Database &database, const Identifiers &id, uint64_t since);
std::vector<PastChange> changes_of_revision(Database &database, uint64_t revision);

// Takes a revision back. Throws Failure; anything but Outcome::done has changed nothing.
Outcome undo(Database &database, uint64_t revision);

// A user as text: the name, or the number of one that has none.
std::string user_text(uid_t uid);

#endif
