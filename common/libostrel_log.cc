// The log that the library and its callers share: one message, a priority and a text, to one of three outputs.
//
// A reader-writer lock guards the choice of the output. A message holds it for reading while it is written, if its output is
// one that another thread could close meanwhile. No handler of a fork takes it: a writer may wait in a full pipe without
// end, and a program's own handlers may log. A forked child initializes the lock again instead.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include <meridon/msglog.h>
#include <meridon/progpath.h>

#include "base/guards.h"
#include "base/process_mark.h"
#include "base/thread_safety.h"
#include "libostrel_log.h"
#include "libostrel_probe.h"

#define LOG_LINE_FORMAT "%s: %d: %s\n"

ostrel_log_type_t ostrel_log_types[3] = {
    {"msglog", ostrel_msglog_open, ostrel_msglog_close, ostrel_msglog},
    {"syslog", ostrel_syslog_open, ostrel_syslog_close, ostrel_syslog},
    {"stderr", nullptr, nullptr, ostrel_stderrlog},
};

unsigned short ostrel_log_semaphore = 0;

static RwLock log_lock;

ostrel_log_type_t *ostrel_log_type GUARDED_BY(log_lock);
char ostrel_log_execname[1024]; // written once, with log_lock; an output without a close reads it without
int ostrel_msglog_fd GUARDED_BY(log_lock) = -1;
FILE *ostrel_msglog_fp GUARDED_BY(log_lock);

namespace {

ProcessMark log_process;

// The C library sends with a lock of its own held, which no forked child can initialize again. A child whose parent had a
// thread in there sends its messages by itself.
std::atomic<int> in_syslog;
std::atomic<bool> syslog_is_lost;

class SyslogUse {
public:
	SyslogUse() { in_syslog++; }
	~SyslogUse() { in_syslog--; }
	SyslogUse(const SyslogUse &) = delete;
	SyslogUse &operator=(const SyslogUse &) = delete;
};

// A thread that chooses an output comes before messages that arrive later, or might wait without end.
void renew()
{
	pthread_rwlockattr_t attributes;
	(void) pthread_rwlockattr_init(&attributes); // none of these three fails with what it is given
	(void) pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
	(void) pthread_rwlock_init(&log_lock.raw, &attributes);
	(void) pthread_rwlockattr_destroy(&attributes);
	if (in_syslog.exchange(0) > 0)
		syslog_is_lost = true;
}

// A call of the log. It isn't cancelled, since it would leave the lock held, and it keeps the caller's errno.
class LogCall {
public:
	LogCall() : errno_(errno) { log_process.enter(renew); }
	~LogCall() { errno = errno_; }
	LogCall(const LogCall &) = delete;
	LogCall &operator=(const LogCall &) = delete;

private:
	int errno_;
	CancellationWaits cancellation_;
};

// No output is chosen after a close: what was closed is never written to, and the same name opens it again.
void close_locked() REQUIRES(log_lock)
{
	ostrel_log_type_t *type = std::exchange(ostrel_log_type, nullptr);
	if (type != nullptr && type->nlt_close != nullptr)
		type->nlt_close();
}

// It is written once: messages on standard error read it without the lock.
void take_program_name() REQUIRES(log_lock)
{
	const char *path = getprogpath();
	if (ostrel_log_execname[0] != '\0')
		return;
	size_t length = path == nullptr ? 0 : strnlen(path, sizeof(ostrel_log_execname) - 1);
	if (length > 0)
		memcpy(ostrel_log_execname, path, length);
	ostrel_log_execname[length] = '\0';
}

// The output is chosen when it is open: a child that is forked in between has nothing that is half open.
void open_locked(const char *name) REQUIRES(log_lock)
{
	if (ostrel_log_type != nullptr && strcmp(ostrel_log_type->nlt_name, name) == 0)
		return;
	close_locked();
	for (ostrel_log_type_t &type : ostrel_log_types) {
		if (strcmp(type.nlt_name, name) != 0)
			continue;
		take_program_name();
		if (type.nlt_open != nullptr)
			type.nlt_open();
		ostrel_log_type = &type;
		return;
	}
}

// Writes one record of at most `limit` bytes. What is too long loses the front of the program's name first, since the
// end of a path tells more, and then the end of the text.
bool write_record(int priority, const char *text, size_t limit) REQUIRES_SHARED(log_lock)
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

// Without the time, which the receiver adds: the C library has a lock for that, too.
void send_to_syslog(int priority, const char *text)
{
	struct sockaddr_un address = {AF_UNIX, "/dev/log"};
	Fd log(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
	if (!log || connect(log.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) != 0)
		return;
	char head[sizeof(ostrel_log_execname) + 64];
	int length = snprintf(head, sizeof(head), "<%d>%s[%d]: ", (priority & LOG_PRIMASK) | LOG_DAEMON,
	    ostrel_log_execname, static_cast<int>(getpid()));
	struct iovec parts[] = {{head, static_cast<size_t>(length)}, {const_cast<char *>(text), strlen(text)}};
	struct msghdr message = {};
	message.msg_iov = parts;
	message.msg_iovlen = 2;
	(void) sendmsg(log.get(), &message, MSG_NOSIGNAL); // a failed message is lost
}

// Writes to the chosen output. False if there is none.
bool write_chosen(int priority, const char *text)
{
	ostrel_log_type_t *unguarded;
	{
		ReadLock lock(log_lock);
		unguarded = ostrel_log_type;
		if (unguarded == nullptr)
			return false;
		if (unguarded->nlt_close != nullptr) {
			unguarded->nlt_log(priority, text);
			return true;
		}
	}
	unguarded->nlt_log(priority, text);
	return true;
}

} // namespace

// ---- The three outputs. The first two are opened and closed with the log's lock held for writing, and written to with it
// held for reading. ----

void ostrel_msglog_open() REQUIRES(log_lock)
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

void ostrel_msglog_close() REQUIRES(log_lock)
{
	ostrel_msglog_fd = -1;
	FILE *stream = std::exchange(ostrel_msglog_fp, nullptr);
	if (stream != nullptr)
		(void) fclose(stream); // nobody to tell of a failure
	ostrel_syslog_close();
}

void ostrel_msglog(int priority, const char *text) REQUIRES_SHARED(log_lock)
{
	if (ostrel_msglog_fp != nullptr && !write_record(priority, text, MSGLOG_RECORD_MAX) && errno == EINVAL)
		(void) write_record(priority, text, MSGLOG_RECORD_MAX_OLD);
	ostrel_syslog(priority, text);
}

void ostrel_syslog_open()
{
	SyslogUse use;
	if (!syslog_is_lost)
		openlog(ostrel_log_execname, LOG_PID | LOG_NOWAIT, LOG_DAEMON);
}

void ostrel_syslog_close()
{
	SyslogUse use;
	if (!syslog_is_lost)
		closelog();
}

void ostrel_syslog(int priority, const char *text)
{
	if (syslog_is_lost)
		return send_to_syslog(priority, text);
	SyslogUse use;
	syslog(priority, "%s", text);
}

void ostrel_stderrlog(int priority, const char *text)
{
	(void) fprintf(stderr, LOG_LINE_FORMAT, ostrel_log_execname, priority, text);
}

// ---- The exported operations ----

void ostrel_log_open(const char *name)
{
	if (name == nullptr)
		return;
	LogCall call;
	WriteLock lock(log_lock);
	open_locked(name);
}

void ostrel_log_close(void)
{
	LogCall call;
	WriteLock lock(log_lock);
	close_locked();
}

static void log_message(int priority, const char *text)
{
	LogCall call;
	const char *name;
	if (write_chosen(priority, text) || (name = getenv("OSTREL_LOG")) == nullptr)
		return;
	{
		WriteLock lock(log_lock);
		if (ostrel_log_type == nullptr) // else another thread has chosen meanwhile
			open_locked(name);
	}
	(void) write_chosen(priority, text);
}

void ostrel_log_fmt(int priority, const char *text)
{
	log_message(priority, text);
	if (OSTREL_TRACED(log))
		STAP_PROBE2(ostrel, log, priority, text);
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
