// Files that an operator names, read and written whole. Failures are thrown.
#ifndef CAIRNCTL_FILES_H
#define CAIRNCTL_FILES_H

#include <string>
#include <string_view>

// What a file holds; an empty path or "-" is the standard input.
std::string read_file(const std::string &path);

// Replaces a file by these bytes, durably: whenever the tool ends, the file is either the new one or the old one.
void write_file(const std::string &path, std::string_view bytes);

#endif
