// The daemon's messages: to stderr until it serves, and with -f for its whole life; else to the system's log. A message
// has 1023 bytes at most; the rest of it is cut off.
//
// Threads: any, at any time. log_to_syslog() is called once, by the thread that starts the daemon.
#ifndef REPOSITORY_LOG_H
#define REPOSITORY_LOG_H

namespace repository {

void log_to_syslog();
// `priority` is one of syslog's.
void log_message(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Logs why, and ends the process with the status EIO, without another look at memory or files. For a store that can't tell
// what became of a commit, or that shows something else than what was acknowledged: memory and store may differ from then
// on, and every answer could be wrong. The next start reads what the store holds.
[[noreturn]] void end_daemon(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace repository

#endif
