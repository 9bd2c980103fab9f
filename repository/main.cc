// cairn.configd, the repository daemon: options, the start, and the end.
//
// The first process waits until the one that serves reports that its hatch answers, and ends with the status of that report: 0,
// or an errno value. Its starter may hold locks meanwhile, so it never waits longer than ten seconds.
//
// Threads: the main thread starts the daemon and waits for a signal that ends it. Requests run on the hatch's threads, which
// share the Daemon (daemon.h).
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <exception>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include <meridon/hatch.h>

#include "access.h"
#include "base/clock.h"
#include "base/guards.h"
#include "hatch/drain.h"
#include "hatch/record.h"
#include "holder.h"
#include "log.h"
#include "requests.h"
#include "signals.h"

namespace repository {
namespace {

constexpr int start_ms = 9500;
constexpr int attach_tries = 200;
constexpr int64_t attach_pause_ns = 5 * millisecond_ns;
// The next daemon waits 7 s for the file: the whole end has to be shorter, and draining shorter still.
constexpr int drain_seconds = 4;
constexpr unsigned int end_seconds = 6;

constexpr const char *help_text =
    "Usage: cairn.configd -d HATCH -r FILE [-f]\n"
    "Serves the service repository in FILE over a hatch.\n"
    "\n"
    "  -d HATCH     the path that clients open; made (0644) if it isn't there\n"
    "  -r FILE      the repository; an empty one is made (0600) if it isn't there\n"
    "  -f           stay in the foreground, with messages on stderr\n"
    "  --help       this text\n"
    "  --version    the version\n"
    "\n"
    "Without -f it ends with 0 once the hatch answers, and the serving process runs on. If it can't serve, it says\n"
    "why and ends with an errno value: 13 no permission, 12 memory, 22 usage, 5 anything else.\n"
    "Started again with the same HATCH and FILE it waits for the daemon that serves them, and ends with 0. Started\n"
    "with another HATCH it takes FILE over. SIGTERM and SIGINT end it, after the updates that run.\n"
    "\n"
    "Example: cairn.configd -d /system/transient/repository_hatch -r /etc/cairn/repository.db\n";

struct Options {
	const char *hatch = nullptr;
	const char *file = nullptr;
	bool foreground = false;
};

int usage(const char *message, const char *word)
{
	(void) fprintf(
	    stderr, "cairn.configd: %s%s%s\nTry 'cairn.configd --help'.\n", message, word[0] == '\0' ? "" : " ", word);
	return EINVAL;
}

// 0, an errno value to end with, or -1: done already.
int read_options(int argc, char **argv, Options *options)
{
	for (int i = 1; i < argc; i++) {
		std::string_view word(argv[i]);
		if (word == "--help" || word == "-h") {
			(void) fputs(help_text, stdout);
			return -1;
		}
		if (word == "--version") {
			(void) printf("cairn.configd %s\n", CONFIGD_VERSION);
			return -1;
		}
		if (word == "-f") {
			options->foreground = true;
			continue;
		}
		const char **value = word == "-d" ? &options->hatch : word == "-r" ? &options->file : nullptr;
		if (value == nullptr)
			return usage("unknown option", argv[i]);
		if (++i == argc || argv[i][0] == '\0')
			return usage("a path is missing after", argv[i - 1]);
		*value = argv[i];
	}
	if (options->hatch == nullptr || options->file == nullptr)
		return usage("both -d HATCH and -r FILE are needed", "");
	return 0;
}

// The daemon changes its working directory: paths are made absolute first. 0, or an errno value.
int make_absolute(const char *path, std::string *whole)
{
	char here[PATH_MAX];
	whole->assign(path);
	if (path[0] == '/')
		return 0;
	if (getcwd(here, sizeof(here)) == nullptr) // which was removed, or can't be reached
		return errno;
	// It begins with another character where the directory lies outside of the process's root.
	if (here[0] != '/')
		return ENOENT;
	whole->assign(here).append("/").append(path);
	return 0;
}

int exit_status(int error)
{
	switch (error) {
	case EACCES:
	case EPERM:
		return EACCES;
	case ENOMEM:
	case EINVAL:
		return error;
	default:
		return EIO;
	}
}

// Opens a stream that yields nothing and swallows what is written. A root directory may have no /dev/null.
Fd open_nowhere()
{
	Fd nowhere(open("/dev/null", O_RDWR | O_CLOEXEC));
	int ends[2];
	if (!nowhere && socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0) {
		nowhere.reset(ends[0]);
		(void) close(ends[1]);
	}
	return nowhere;
}

// Puts what the process inherits in order, since anything may start it.
void clean_process()
{
	struct sigaction standard = {};
	standard.sa_handler = SIG_DFL;
	for (int number = 1; number < NSIG; number++)
		(void) sigaction(number, &standard, nullptr); // two can't be changed, and need not be
	struct sigaction ignored = {};
	ignored.sa_handler = SIG_IGN;
	for (int number : {SIGPIPE, SIGXFSZ}) // a write that is refused says so
		(void) sigaction(number, &ignored, nullptr);
	sigset_t none;
	(void) sigemptyset(&none);
	(void) sigprocmask(SIG_SETMASK, &none, nullptr);
	(void) umask(022);
	(void) close_range(3, UINT_MAX, 0);
	Fd nowhere = open_nowhere();
	for (int fd = 0; fd < 3; fd++) // a closed stream mustn't become the repository
		if (fcntl(fd, F_GETFD) == -1)
			(void) dup2(nowhere.get(), fd);
	if (nowhere.get() < 3)
		(void) fcntl(nowhere.release(), F_SETFD, 0); // it has become one of them
}

void handle(void *cookie, char *arg, size_t size, hatch_desc_t *, unsigned int)
{
	serve_call(static_cast<Daemon *>(cookie), {arg, size}, caller_may_read, caller_may_modify);
}

// Repeats an attempt while another server is attached there: one that was just killed may hold its lock for a moment.
template <typename Try>
int while_busy(Try attempt)
{
	int error = EBUSY;
	for (int tries = 0; tries < attach_tries && error == EBUSY; tries++) {
		if (tries > 0)
			sleep_ns(attach_pause_ns);
		error = attempt();
	}
	return error;
}

Failure attach_failure(const std::string &path, int error)
{
	const char *what =
	    error == EBUSY ? "a living server, or a file of something else, is there" : "can't be attached";
	return {error, path + ": " + what + ": " + strerror(error)};
}

Failure open_hatch_file(const std::string &path, Fd *file)
{
	file->reset(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW, 0644));
	if (*file)
		return {};
	int error = errno;
	return {error, path + ": can't be made: " + strerror(error)};
}

// Whether a hatch can be attached there, as far as that can be seen without doing it. An errno value.
int can_attach(const std::string &path)
{
	Fd file;
	if (Failure failure = open_hatch_file(path, &file))
		return failure.error;
	struct stat there;
	hatch::Id id;
	if (fstat(file.get(), &there) == -1)
		return errno;
	if (!S_ISREG(there.st_mode))
		return EINVAL;
	if (hatch::read_record(file.get(), &id) ? hatch::record_is_locked(file.get()) : there.st_size != 0)
		return EBUSY;
	const std::string directory = path.substr(0, path.find_last_of('/') + 1);
	return faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) == -1 ? errno : 0;
}

Failure can_serve(const std::string &path)
{
	Fd file;
	if (Failure failure = open_hatch_file(path, &file))
		return failure;
	const int error = while_busy([&path] { return can_attach(path); });
	return error == 0 ? Failure{} : attach_failure(path, error);
}

Failure attach(Daemon *daemon, const std::string &path, int *hatch)
{
	Fd file;
	if (Failure failure = open_hatch_file(path, &file))
		return failure;
	file.reset();
	*hatch = hatch_create(handle, daemon, HATCH_REFUSE_DESC);
	if (*hatch == -1 || hatch_setparam(*hatch, HATCH_PARAM_DATA_MIN, 2 * sizeof(uint32_t)) == -1) {
		int error = errno;
		return {error, path + ": no hatch can be made: " + strerror(error)};
	}
	const int error = while_busy([&] { return fattach(*hatch, path.c_str()) == 0 ? 0 : errno; });
	if (error == 0)
		return {};
	(void) hatch_revoke(*hatch);
	return attach_failure(path, error);
}

// Reports to the first process what became of the start: an errno value.
void report(int fd, int error)
{
	unsigned char status = static_cast<unsigned char>(error);
	(void) prctl(PR_SET_PDEATHSIG, 0);
	(void) !write(fd, &status, 1);
	(void) close(fd);
}

// What the process serves: the locked file, the daemon on it, and the hatch.
struct Service {
	const std::string hatch_path, file;
	Fd held;
	Hold hold = Hold::ours;
	std::unique_ptr<Daemon> daemon;
	int hatch = -1;
};

Failure bring_up(Service *service)
{
	if (Failure failure =
		hold_file({service->file, service->hatch_path, can_serve}, &service->held, &service->hold))
		return failure;
	if (service->hold == Hold::served_already)
		return {};
	service->daemon =
	    std::make_unique<Daemon>(service->file, make_sqlite_store(service->file, service->held.get()));
	if (Failure failure = service->daemon->load())
		return failure;
	const sigset_t ends = end_signals(); // from now on there is something to put in order at the end
	(void) sigprocmask(SIG_BLOCK, &ends, nullptr);
	return attach(service->daemon.get(), service->hatch_path, &service->hatch);
}

// Memory or a thread that is missing at the start is a failure like others.
Failure try_to_bring_up(Service *service)
{
	try {
		return bring_up(service);
	} catch (const std::bad_alloc &) {
		return {ENOMEM, "out of memory"}; // short enough to need none
	} catch (const std::exception &bad) {
		return {EIO, bad.what()};
	}
}

// The starter of a private daemon may leave it a socket as its input, whose other end its clients hold. Once the last of them
// has gone, however it ended, the daemon gets a SIGTERM. False if there is no such socket.
bool hold_lifeline(const std::string &hatch)
{
	struct stat input;
	if (!is_private(hatch) || fstat(0, &input) == -1 || !S_ISSOCK(input.st_mode))
		return false;
	const int flags = fcntl(0, F_GETFL);
	if (fcntl(0, F_SETSIG, SIGTERM) == -1 || fcntl(0, F_SETOWN, getpid()) == -1 ||
	    fcntl(0, F_SETFL, flags | O_ASYNC) == -1)
		return false;
	pollfd gone = {0, POLLRDHUP, 0};
	if (poll(&gone, 1, 0) > 0) // they went before the signal was asked for
		(void) kill(getpid(), SIGTERM);
	return true;
}

// Cuts short an end that takes too long, because the disk hangs or many updates wait. Those haven't been acknowledged, so
// nothing is lost that was promised.
void end_in_time()
{
	(void) alarm(end_seconds + 1);
	try {
		std::thread([] {
			(void) sleep(end_seconds);
			log_message(LOG_ERR, "ending takes too long: what runs is cut short");
			_exit(EIO);
		}).detach();
	} catch (const std::exception &) { // no thread: the alarm does it, without a message
	}
}

// Runs the serving process. Returns its exit status.
int serve(const Options &options, int ready)
{
	// It lives until the process ends: its threads are the hatch's, which hatch_revoke() waits for.
	static Service service = {options.hatch, options.file, {}, Hold::ours, {}, -1};
	Failure failure = try_to_bring_up(&service);
	if (!failure && service.hold == Hold::served_already) {
		report(ready, 0);
		return 0;
	}
	if (failure) {
		log_message(LOG_ERR, "%s", failure.text.c_str());
		service.daemon.reset(); // before the report: its receiver may use the file at once
		service.held.reset();
		report(ready, exit_status(failure.error));
		return exit_status(failure.error);
	}
	if (!options.foreground) {
		log_to_syslog();
		Fd nowhere = open_nowhere();
		for (int fd = hold_lifeline(service.hatch_path) ? 1 : 0; fd < 3 && nowhere; fd++)
			(void) dup2(nowhere.get(), fd);
	}
	report(ready, 0);
	const sigset_t ends = end_signals();
	int number = 0;
	(void) sigwait(&ends, &number);
	end_in_time();
	if (is_private(service.hatch_path)) // its starter ends it, while other clients may be at work
		hatch::drain(service.hatch, drain_seconds);
	(void) hatch_revoke(service.hatch); // returns when no handler runs: updates are done
	service.daemon.reset();
	return 0;
}

// Waits for the report of the serving process. One that ends without a report has failed; one that takes too long is ended.
int wait_for_start(pid_t child, int ready)
{
	pollfd poller = {ready, POLLIN, 0};
	int found;
	do
		found = poll(&poller, 1, start_ms);
	while (found == -1 && errno == EINTR);
	unsigned char status = EIO;
	if (found == 1 && read(ready, &status, 1) == 1)
		return status;
	if (found == 0) {
		(void) fprintf(stderr, "cairn.configd: the start takes too long; given up\n");
		(void) kill(child, SIGKILL);
	}
	int ended = 0;
	(void) waitpid(child, &ended, 0);
	if (found == 1)
		(void) fprintf(stderr, "cairn.configd: the serving process ended at the start%s%s\n",
		    WIFSIGNALED(ended) ? ": " : "", WIFSIGNALED(ended) ? strsignal(WTERMSIG(ended)) : "");
	return EIO;
}

int start(const Options &options)
{
	int ends[2];
	if (pipe2(ends, O_CLOEXEC) == -1) {
		(void) fprintf(stderr, "cairn.configd: no pipe: %s\n", strerror(errno));
		return EIO;
	}
	const pid_t starter = getpid();
	pid_t child = fork();
	if (child == -1) {
		(void) fprintf(stderr, "cairn.configd: no process: %s\n", strerror(errno));
		return errno == ENOMEM ? ENOMEM : EIO;
	}
	if (child > 0) {
		(void) close(ends[1]);
		return wait_for_start(child, ends[0]);
	}
	(void) close(ends[0]);
	(void) setsid();
	(void) prctl(PR_SET_PDEATHSIG, SIGTERM); // the end of the first process ends the start
	if (getppid() != starter)
		return EIO;
	return serve(options, ends[1]);
}

} // namespace
} // namespace repository

int main(int argc, char **argv)
{
	using namespace repository;
	Options options;
	if (int status = read_options(argc, argv, &options))
		return status == -1 ? 0 : status;
	std::string hatch, file;
	for (auto [path, whole] : {std::pair(options.hatch, &hatch), std::pair(options.file, &file)})
		if (int error = make_absolute(path, whole)) {
			(void) fprintf(stderr, "cairn.configd: %s: the working directory can't be told: %s\n", path,
			    strerror(error));
			return exit_status(error);
		}
	options.hatch = hatch.c_str();
	options.file = file.c_str();
	clean_process();
	if (chdir("/") == -1)
		return EIO;
	if (!options.foreground)
		return start(options);
	int nobody = open("/dev/null", O_WRONLY | O_CLOEXEC);
	return serve(options, nobody);
}
