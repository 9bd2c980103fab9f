// The daemon's messages: to stderr until it serves, and with -f for ever; else to the system's log.
#ifndef REPOSITORY_LOG_H
#define REPOSITORY_LOG_H

namespace repository {

void log_to_syslog();
void log_message(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));

} // namespace repository

#endif
