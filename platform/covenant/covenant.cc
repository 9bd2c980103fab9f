// Process covenants: templates, which are active, and the fork that honours them.
//
// A template is a small memory file that holds a record. What a thread has active is a copy of that record, so that
// nothing here touches the descriptor afterwards, which its owner may have closed.
#include <meridon/covenant.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/clock.h"
#include "base/guards.h"

// A sanitizer that keeps its own locks has to hear of a fork that doesn't go through fork().
#if defined(__SANITIZE_THREAD__)
#define SANITIZER_HEARS_OF_FORK 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SANITIZER_HEARS_OF_FORK 1
#endif
#endif

#ifdef SANITIZER_HEARS_OF_FORK
extern "C" void __sanitizer_syscall_pre_impl_fork(void);
extern "C" void __sanitizer_syscall_post_impl_fork(long result);
#else
static void __sanitizer_syscall_pre_impl_fork() {}
static void __sanitizer_syscall_post_impl_fork(long) {}
#endif

namespace {

constexpr uint64_t template_magic = 0x636f76656e616e74; // "covenant"

struct Template {
	uint64_t magic = template_magic;
	uint32_t critical = 0;
	uint32_t informative = 0;
	uint32_t fatal = 0;
	uint32_t params = 0;
};

// What a child of a plain fork() tells its parent. It lies in memory that both share.
struct Report {
	std::atomic<covenant_id_t> id;
};

struct ThreadState {
	int active = -1;        // the template's descriptor, as a name only
	bool own_group = false; // what the active template makes of a child
	bool awaits_report = false;
	covenant_id_t latest = -1;
	Report *report = nullptr;

	~ThreadState()
	{
		if (report != nullptr)
			(void) munmap(report, sizeof *report);
	}
};

thread_local ThreadState state;

// Some hosts refuse a memory file that could hold a program; older kernels don't know how to promise that it can't.
int make_memory_file(const char *name)
{
	constexpr unsigned no_exec_seal = 0x8; // MFD_NOEXEC_SEAL
	int fd = memfd_create(name, MFD_CLOEXEC | no_exec_seal);
	return fd == -1 && errno == EINVAL ? memfd_create(name, MFD_CLOEXEC) : fd;
}

int read_template(int fd, Template *tmpl)
{
	ssize_t got = pread(fd, tmpl, sizeof *tmpl, 0);
	if (got == -1)
		return errno == ESPIPE || errno == EISDIR ? EINVAL : errno; // a pipe, a directory: no template
	return got == static_cast<ssize_t>(sizeof *tmpl) && tmpl->magic == template_magic ? 0 : EINVAL;
}

int set_field(int fd, uint32_t Template::*field, uint32_t value, uint32_t supported)
{
	Template tmpl;
	if (int error = read_template(fd, &tmpl))
		return error;
	if ((value & ~supported) != 0)
		return EINVAL;
	tmpl.*field = value;
	ssize_t put = pwrite(fd, &tmpl, sizeof tmpl, 0);
	if (put == -1)
		return errno;
	return put == static_cast<ssize_t>(sizeof tmpl) ? 0 : EIO;
}

// A plain fork() doesn't tell its handlers the child's id, so the child says it in shared memory.
void before_fork()
{
	state.awaits_report = false;
	if (state.active < 0 || !state.own_group)
		return;
	if (state.report == nullptr) {
		void *page = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
		if (page == MAP_FAILED)
			return; // the covenant is made all the same; its id isn't known
		state.report = static_cast<Report *>(page);
	}
	state.report->id.store(0);
}

void after_fork_in_parent()
{
	state.latest = -1;
	state.awaits_report = state.active >= 0 && state.own_group && state.report != nullptr;
}

// The child's own forks report elsewhere: the page stays its parent's.
void after_fork_in_child()
{
	Report *report = state.report;
	state.report = nullptr;
	state.latest = -1;
	if (state.active < 0 || !state.own_group)
		return;
	(void) setpgid(0, 0);
	if (report != nullptr)
		report->id.store(getpid());
}

pthread_once_t handlers_once = PTHREAD_ONCE_INIT;
int handlers_error;

void install_handlers()
{
	handlers_error = pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

// Clone without an exit signal. All other arguments are 0, so their order, which differs by machine, doesn't matter.
pid_t fork_without_signal()
{
	__sanitizer_syscall_pre_impl_fork();
	long result = syscall(SYS_clone, 0L, 0L, 0L, 0L, 0L);
	int error = errno;
	__sanitizer_syscall_post_impl_fork(result);
	errno = error;
	return static_cast<pid_t>(result);
}

} // namespace

int covenant_open(const char *path, int oflag)
{
	CancellationWaits cancellation;
	if (path == nullptr || strcmp(path, COVENANT_PROCESS_TEMPLATE) != 0 || (oflag & ~O_CLOEXEC) != O_RDWR) {
		errno = EINVAL;
		return -1;
	}
	Fd file(make_memory_file("covenant template"));
	if (!file)
		return -1;
	Template tmpl;
	ssize_t put = pwrite(file.get(), &tmpl, sizeof tmpl, 0);
	if (put == static_cast<ssize_t>(sizeof tmpl))
		return file.release();
	if (put != -1)
		errno = ENOMEM;
	return -1;
}

int cv_tmpl_set_critical(int fd, uint32_t events)
{
	return set_field(fd, &Template::critical, events, 0);
}

int cv_tmpl_set_informative(int fd, uint32_t events)
{
	return set_field(fd, &Template::informative, events, 0);
}

int cv_pr_tmpl_set_fatal(int fd, uint32_t events)
{
	return set_field(fd, &Template::fatal, events, COVENANT_EV_HWERR);
}

int cv_pr_tmpl_set_param(int fd, uint32_t params)
{
	return set_field(fd, &Template::params, params, COVENANT_PR_PGRPONLY);
}

int cv_tmpl_activate(int fd)
{
	Template tmpl;
	if (int error = read_template(fd, &tmpl))
		return error;
	(void) pthread_once(&handlers_once, install_handlers);
	if (handlers_error != 0)
		return handlers_error;
	state.active = fd;
	state.own_group = (tmpl.params & COVENANT_PR_PGRPONLY) != 0;
	return 0;
}

int cv_tmpl_clear(int fd)
{
	if (state.active < 0 || state.active != fd)
		return EINVAL;
	state.active = -1;
	return 0;
}

// Waits until the child of a plain fork() has joined its group.
static covenant_id_t await_report()
{
	constexpr int64_t pause_ns = 50 * microsecond_ns;
	for (const Deadline end = Deadline::in(2 * second_ns); !end.has_passed();) {
		covenant_id_t id = state.report->id.load();
		if (id != 0)
			return id;
		sleep_ns(pause_ns);
	}
	return -1;
}

int covenant_latest(int type, covenant_id_t *idp)
{
	if (type != COVENANT_TYPE_PROCESS || idp == nullptr) {
		errno = EINVAL;
		return -1;
	}
	if (state.awaits_report) {
		state.latest = await_report();
		state.awaits_report = false;
	}
	if (state.latest == -1) {
		errno = ESRCH;
		return -1;
	}
	*idp = state.latest;
	return 0;
}

int covenant_abandon_id(covenant_id_t id)
{
	covenant_id_t latest;
	if (covenant_latest(COVENANT_TYPE_PROCESS, &latest) == -1 || latest != id) {
		errno = ESRCH;
		return -1;
	}
	state.latest = -1;
	return 0;
}

pid_t covenant_fork(void)
{
	// A signal to the old group, in the moment before the child leaves it, mustn't run the parent's handlers there.
	sigset_t all, mask;
	(void) sigfillset(&all);
	(void) pthread_sigmask(SIG_SETMASK, &all, &mask);
	state.latest = -1;
	state.awaits_report = false;
	bool own_group = state.active >= 0 && state.own_group;
	pid_t pid = fork_without_signal();
	int error = errno;
	// Both sides do it, so that the group exists when either goes on.
	if (pid >= 0 && own_group)
		(void) setpgid(pid, pid);
	if (pid > 0 && own_group)
		state.latest = pid;
	if (pid == 0)
		state.report = nullptr;
	(void) pthread_sigmask(SIG_SETMASK, &mask, nullptr);
	errno = error;
	return pid;
}
