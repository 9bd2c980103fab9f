// Scripts that teach shells the words of a tool, made from the same declarations as its command line.
#ifndef TOOLS_SHARED_COMPLETION_H
#define TOOLS_SHARED_COMPLETION_H

#include <string>

#include "command_table.h"

// The script for bash, zsh or fish. `app` has all that the program's commands declare.
std::string completion_script(const std::string &shell, const Program &program, const CLI::App &app);

#endif
