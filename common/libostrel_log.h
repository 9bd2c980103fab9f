// The inside of the log: its types and its state, for libostrel_log.cc and for tests.
#ifndef LIBOSTREL_LOG_H
#define LIBOSTREL_LOG_H

#include <cstdio>
#include <syslog.h>

#include "libostrel.h"

struct ostrel_log_type {
	const char *nlt_name;
	void (*nlt_open)();  // called when the type is chosen; may be NULL
	void (*nlt_close)(); // called when the type is given up; may be NULL
	void (*nlt_log)(int priority, const char *text);
};
typedef const struct ostrel_log_type ostrel_log_type_t;

extern ostrel_log_type_t ostrel_log_types[3];

// All of these belong to the log's lock; only tests without a second thread look at them without it.
extern ostrel_log_type_t *ostrel_log_type; // NULL while nothing is chosen
extern char ostrel_log_execname[1024];
extern int ostrel_msglog_fd;
extern FILE *ostrel_msglog_fp;

void ostrel_msglog_open();
void ostrel_msglog_close();
void ostrel_msglog(int priority, const char *text);
void ostrel_syslog_open();
void ostrel_syslog_close();
void ostrel_syslog(int priority, const char *text);
void ostrel_stderrlog(int priority, const char *text);

#endif
