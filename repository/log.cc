#include "log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <syslog.h>

namespace repository {
namespace {
std::atomic<bool> to_syslog{false};
}

void log_to_syslog()
{
	openlog("cairn.configd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
	to_syslog = true;
}

void log_message(int priority, const char *format, ...)
{
	char text[1024];
	va_list arguments;
	va_start(arguments, format);
	(void) vsnprintf(text, sizeof(text), format, arguments);
	va_end(arguments);
	if (to_syslog)
		syslog(priority, "%s", text);
	else
		(void) fprintf(stderr, "cairn.configd: %s\n", text);
}

} // namespace repository
