// The lines of a database file as they stand, which the library takes apart and passes over in silence if they are damaged.
#ifndef OSTREL_TOOL_LINES_H
#define OSTREL_TOOL_LINES_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "object.h"

class Database;

struct Line {
	size_t number;
	std::string_view bytes; // its newline included; of a line that is too long to be read, the beginning
	size_t length;          // of all its bytes
	bool has_nul;           // anywhere in it
};

// Calls `visit` for each line of the file. Holds a line's beginning alone, however long it is. Throws Failure, also for
// a device that doesn't end within the first block, as the library does.
void each_line(const Database &database, const std::function<void(const Line &line)> &visit);

// The text of a file of which one object changes. `change` gets each object of these identifiers, and tells whether it stays.
// Every other line that is in the writer's form is taken as it stands. Throws Failure.
std::string changed_lines(
    const Database &database, const Identifiers &id, const std::function<bool(Object &object)> &change);

// Looks for lines that an update would drop or rewrite: the library writes back what it could read, in a form of its own.
// Says how many, as a warning if that is accepted, else as the Failure that it throws.
void look_for_lost_lines(const Database &database, bool accepted);

// Warns of lines that can't be read, and are missing from what is shown. Reads a regular file once more; no other is.
void tell_unread_lines(const Database &database);

#endif
