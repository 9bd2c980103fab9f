// The scripts that teach shells the words of cairnctl.
#ifndef CAIRNCTL_COMPLETION_H
#define CAIRNCTL_COMPLETION_H

#include <string>

// The script for a shell, with the names of the commands between blanks; empty if the shell isn't known.
std::string completion_script(const std::string &shell, const std::string &command_words);

#endif
