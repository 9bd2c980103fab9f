// What can be seen of the path of a database file, where an operation on it failed or would fail. Nothing is opened: a FIFO
// would make the tool wait.
#ifndef OSTREL_TOOL_FILE_PLACE_H
#define OSTREL_TOOL_FILE_PLACE_H

#include <optional>
#include <string>

#include <libostrel.h>

#include "failure.h"

// Why an operation on the file ended with this result; nothing if that can't be seen.
std::optional<Failure> why_path_fails(const std::string &path, ostrel_error_t result);

// What keeps a file from being made or replaced there, whatever rights the caller has. An update makes a new file beside it.
std::optional<Failure> why_place_fails(const std::string &path);

// Why what is there can't be updated: it isn't a regular file.
std::optional<Failure> why_not_regular(const std::string &path);

// Whether an update by the library leaves the file's mode and owner as they are: they are those of a file that it makes.
bool library_keeps_owner(const std::string &path);

// Why no update can use the temporary file beside the database, which failed with this errno value; nothing if that can't be
// seen. `is_own_path`: the path is one of this process's file system.
std::optional<Failure> why_temporary_fails(const std::string &path, bool is_own_path, int error);

// The name of the temporary file beside a database.
inline std::string temporary_of(const std::string &path)
{
	return path + ".new";
}

#endif
