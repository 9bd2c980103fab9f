// The lines of a database file as they stand, which the library takes apart and passes over in silence if they are damaged.
#ifndef OSTREL_TOOL_LINES_H
#define OSTREL_TOOL_LINES_H

#include <cstddef>
#include <functional>
#include <string_view>

class Database;

// Calls `visit` for each line of the file, its newline included, with its number. Throws Failure.
void each_line(const Database &database, const std::function<void(size_t number, std::string_view bytes)> &visit);

// Throws Failure if an update would drop a line, or a part of one: the library writes back what it could read.
void refuse_lost_lines(const Database &database);

#endif
