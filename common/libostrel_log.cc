// The log that the library and its callers share: one message, a priority and a text, to one of three outputs.
//
// One mutex guards the choice of the output and each write to it, so that nothing is written to an output that another
// thread is closing. It costs no parallel work: each of the outputs takes one message at a time in any case.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <unistd.h>
#include <utility>

#include <meridon/msglog.h>
#include <meridon/progpath.h>

#include "base/thread_safety.h"
#include "libostrel_log.h"
#include "libostrel_trace.h"

#define LOG_LINE_FORMAT "%s: %d: %s\n"

ostrel_log_type_t ostrel_log_types[3] = {
    {"msglog", ostrel_msglog_open, ostrel_msglog_close, ostrel_msglog},
    {"syslog", ostrel_syslog_open, ostrel_syslog_close, ostrel_syslog},
    {"stderr", nullptr, nullptr, ostrel_stderrlog},
};

ostrel_log_type_t *ostrel_log_type;
char ostrel_log_execname[1024];
int ostrel_msglog_fd = -1;
FILE *ostrel_msglog_fp;

namespace {

Mutex log_mutex;

void before_fork() NO_THREAD_SAFETY_ANALYSIS
{
	log_mutex.lock();
}

void after_fork() NO_THREAD_SAFETY_ANALYSIS
{
	log_mutex.unlock();
}

// Before the mutex is taken for the first time: a child that is forked while another thread logs would find it locked,
// with nobody to unlock it.
void watch_forks()
{
	static pthread_once_t once = PTHREAD_ONCE_INIT;
	(void) pthread_once(&once, [] { (void) pthread_atfork(before_fork, after_fork, after_fork); });
}

// Holds the log. A thread that is cancelled in the middle of a write would leave the mutex locked for ever, so that
// waits until the message is out. The caller's errno outlives a message.
class SCOPED_CAPABILITY LogHold {
public:
	LogHold() ACQUIRE(log_mutex) : errno_(errno)
	{
		(void) pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_);
		watch_forks();
		log_mutex.lock();
	}
	~LogHold() RELEASE()
	{
		log_mutex.unlock();
		(void) pthread_setcancelstate(cancel_state_, nullptr);
		errno = errno_;
	}
	LogHold(const LogHold &) = delete;
	LogHold &operator=(const LogHold &) = delete;

private:
	int errno_;
	int cancel_state_;
};

// The choice goes with the output: what was closed is never written again, and the same name opens it anew.
void close_locked() REQUIRES(log_mutex)
{
	ostrel_log_type_t *type = std::exchange(ostrel_log_type, nullptr);
	if (type != nullptr && type->nlt_close != nullptr)
		type->nlt_close();
}

void take_program_name() REQUIRES(log_mutex)
{
	const char *path = getprogpath();
	size_t length = path == nullptr ? 0 : strnlen(path, sizeof(ostrel_log_execname) - 1);
	if (length > 0)
		memcpy(ostrel_log_execname, path, length);
	ostrel_log_execname[length] = '\0';
}

void open_locked(const char *name) REQUIRES(log_mutex)
{
	if (name == nullptr || (ostrel_log_type != nullptr && strcmp(ostrel_log_type->nlt_name, name) == 0))
		return;
	close_locked();
	for (ostrel_log_type_t &type : ostrel_log_types) {
		if (strcmp(type.nlt_name, name) != 0)
			continue;
		ostrel_log_type = &type;
		take_program_name();
		if (type.nlt_open != nullptr)
			type.nlt_open();
		return;
	}
}

// Writes one record of at most `limit` bytes. What is too long loses the front of the program's name first, since the
// end of a path tells more, and then the end of the text.
bool write_record(int priority, const char *text, size_t limit) REQUIRES(log_mutex)
{
	char record[MSGLOG_RECORD_MAX + 1];
	const char *name = ostrel_log_execname;
	size_t fixed = static_cast<size_t>(snprintf(nullptr, 0, LOG_LINE_FORMAT, "", priority, ""));
	size_t text_length = std::min(strlen(text), limit - fixed);
	size_t name_length = std::min(strlen(name), limit - fixed - text_length);
	int length = snprintf(record, sizeof(record), "%s: %d: %.*s\n", name + strlen(name) - name_length, priority,
	    static_cast<int>(text_length), text);
	return fwrite(record, 1, static_cast<size_t>(length), ostrel_msglog_fp) == static_cast<size_t>(length);
}

} // namespace

// ---- The three outputs. All of them are called with the log's mutex held. ----

void ostrel_msglog_open()
{
	ostrel_msglog_fd = msglog_open();
	if (ostrel_msglog_fd < 0)
		return;
	ostrel_msglog_fp = fdopen(ostrel_msglog_fd, "a");
	if (ostrel_msglog_fp == nullptr) {
		(void) close(std::exchange(ostrel_msglog_fd, -1)); // nothing was written to it
		return;
	}
	// A whole record goes to the stream at a time, and the stream keeps nothing back. A line buffer would make two
	// records of a text with a newline in it, and keep a record that the device refused, to spoil the next one.
	(void) setvbuf(ostrel_msglog_fp, nullptr, _IONBF, 0);
}

void ostrel_msglog_close()
{
	if (ostrel_msglog_fp != nullptr)
		(void) fclose(ostrel_msglog_fp); // nobody to tell of a failure
	ostrel_msglog_fp = nullptr;
	ostrel_msglog_fd = -1;
	ostrel_syslog_close();
}

void ostrel_msglog(int priority, const char *text) NO_THREAD_SAFETY_ANALYSIS // reached through the table
{
	if (ostrel_msglog_fp != nullptr && !write_record(priority, text, MSGLOG_RECORD_MAX) && errno == EINVAL)
		(void) write_record(priority, text, MSGLOG_RECORD_MAX_OLD);
	ostrel_syslog(priority, text);
}

void ostrel_syslog_open()
{
	openlog(ostrel_log_execname, LOG_PID | LOG_NOWAIT, LOG_DAEMON);
}

void ostrel_syslog_close()
{
	closelog();
}

void ostrel_syslog(int priority, const char *text)
{
	syslog(priority, "%s", text);
}

void ostrel_stderrlog(int priority, const char *text)
{
	(void) fprintf(stderr, LOG_LINE_FORMAT, ostrel_log_execname, priority, text);
}

// ---- The exported operations ----

void ostrel_log_open(const char *name)
{
	LogHold hold;
	open_locked(name);
}

void ostrel_log_close(void)
{
	LogHold hold;
	close_locked();
}

void ostrel_log_fmt(int priority, const char *text)
{
	{
		LogHold hold;
		if (ostrel_log_type == nullptr)
			open_locked(getenv("OSTREL_LOG"));
		if (ostrel_log_type != nullptr)
			ostrel_log_type->nlt_log(priority, text);
	}
	if (OSTREL_TRACED(log))
		ostrel_trace_log(priority, text);
}

void ostrel_log(int priority, const char *format, ...)
{
	char text[OSTREL_LOG_TEXT_MAX + 1];
	va_list args;
	va_start(args, format);
	int length = vsnprintf(text, sizeof(text), format, args);
	va_end(args);
	ostrel_log_fmt(priority, length < 0 ? format : text);
}
