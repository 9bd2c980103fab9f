/*
 * The lines of a database file as they stand. The library skips damaged lines, comments and empty lines in silence, and an
 * update by it drops them; a line in another form than the writer's it rewrites. So the tool reads the lines itself, with the
 * library's own parser: to say what is wrong (check), what an update would lose, and to keep all other lines to the byte.
 */
#ifndef OSTREL_TOOL_LINES_H
#define OSTREL_TOOL_LINES_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "database_name.h"
#include "failure.h"
#include "object.h"

struct Line {
	size_t number;
	std::string_view bytes; // with its newline; the beginning of a line that is too long to be read
	size_t length;          // of all its bytes
	bool has_nul;           // anywhere in it
};

// Calls `visit` for each line of the file. Keeps only the beginning of a line in memory, however long it is. Throws Failure,
// also for a device that doesn't end within the first block, as the library does.
void each_line(const DatabaseName &file, const std::function<void(const Line &line)> &visit);

// The text of a file of which one object changes. `change` gets each object of these identifiers, and returns whether it
// stays. Every other line that is in the writer's form stays as it is. Throws Failure.
std::string changed_lines(
    const DatabaseName &file, const Identifiers &id, const std::function<bool(Object &object)> &change);

// Looks for lines that an update would drop or rewrite. Reports how many in a warning if that is accepted, else in the Failure
// that it throws.
void look_for_lost_lines(const DatabaseName &file, bool accepted);

// Warns of lines that can't be read, and so are missing from what is shown. Reads a regular file once more, and nothing else.
void tell_unread_lines(const DatabaseName &file);

// An update failed since the library couldn't write another object back.
Failure others_damaged(const std::string &label);

#endif
