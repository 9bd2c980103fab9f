#include "log.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <syslog.h>
#include <unistd.h>

namespace repository {
namespace {

std::atomic<bool> to_syslog{false};

__attribute__((format(printf, 2, 0))) void put(int priority, const char *format, va_list arguments)
{
	char text[1024];
	(void) vsnprintf(text, sizeof(text), format, arguments);
	if (to_syslog)
		syslog(priority, "%s", text);
	else
		(void) fprintf(stderr, "cairn.configd: %s\n", text);
}

} // namespace

void log_to_syslog()
{
	openlog("cairn.configd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
	to_syslog = true;
}

void log_message(int priority, const char *format, ...)
{
	va_list arguments;
	va_start(arguments, format);
	put(priority, format, arguments);
	va_end(arguments);
}

void end_daemon(const char *format, ...)
{
	va_list arguments;
	va_start(arguments, format);
	put(LOG_CRIT, format, arguments);
	va_end(arguments);
	_exit(EIO);
}

} // namespace repository
