// Messages that the library writes to its log only.
#ifndef OSTREL_TOOL_LOG_MESSAGES_H
#define OSTREL_TOOL_LOG_MESSAGES_H

#include <functional>
#include <string>
#include <vector>

// The messages that the library logs while `what` runs, without the program's name and the priority.
std::vector<std::string> log_messages(const std::function<void()> &what);

#endif
