// Files that an operator names, read and written whole. Failures are thrown.
#ifndef CAIRNCTL_FILES_H
#define CAIRNCTL_FILES_H

#include <string>
#include <string_view>

// What a file holds; an empty path or "-" is the standard input.
std::string read_file(const std::string &path);

// Puts these bytes in a file's place, durably: the file is the new one or as it was, whenever the tool ends.
void write_file(const std::string &path, std::string_view bytes);

#endif
