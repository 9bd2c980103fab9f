// Which daemon a handle is bound to. In the global enclave that is the system's. Another enclave's own daemon is reached
// through its hatch below the enclave's root; if that isn't up, a private daemon is started inside the enclave.
//
// An enclave isn't trusted. Its paths are opened so that no link leads out of its root, a process is signalled only if it
// lives in the enclave and still serves the hatch, and the program that is started there gets nothing of this process's: it
// is whatever the enclave has put at that path.
//
// Divisions: paths and binding; starting a private daemon; which of the two; giving a private daemon up.
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

#include <meridon/enclave.h>
#include <meridon/hatch.h>

#include "base/clock.h"
#include "libostrel_cairn.h"
#include "libostrel_zio.h"

namespace {

// ---- Paths and binding ----

constexpr char own_hatch[] = "/system/transient/repository_hatch";
constexpr char daemon_program[] = "/lib/cairn/bin/cairn.configd";
constexpr char repository_file[] = "/etc/cairn/repository.db";
constexpr mode_t hatch_mode = 0644;
constexpr uint64_t daemon_capabilities = 1U << CAP_CHOWN | 1U << CAP_DAC_OVERRIDE | 1U << CAP_FOWNER; // as its unit has
constexpr int start_seconds = 15; // a daemon gives a start up after 10 s
constexpr int end_seconds = 6;    // a daemon that ends waits up to 4 s for the operations of others

// A path with its enclave: once the registry no longer knows the enclave, the text alone looks like a path of the host's.
struct HatchPath {
	enclaveid_t enclave = ENCLAVE_ID_GLOBAL;
	char text[1024];
};

ostrel_error_t ostrel_get_cairn_configd_hatchpath(enclaveid_t enclave, bool is_private, HatchPath *path)
{
	char root[sizeof(path->text)];
	path->enclave = enclave;
	if (enclave_getattr(enclave, ENCLAVE_ATTR_ROOT, root, sizeof(root)) < 0)
		return SETERRNO(errno);
	int length = is_private ? snprintf(path->text, sizeof(path->text), "%s%s.libostrel.%ld", root, own_hatch,
				      static_cast<long>(enclave))
				: snprintf(path->text, sizeof(path->text), "%s%s", root, own_hatch);
	// A path that is cut short names something else.
	return length > 0 && static_cast<size_t>(length) < sizeof(path->text) ? OSTREL_SUCCESS
									      : SETERROR(OSTREL_INVALID_ARG);
}

using Value = Handle<rpy_value_t, rpy_value_destroy>;

ostrel_error_t ostrel_bind_cairn_configd_hatch(ostrel_rpy_resources_t *res, const HatchPath &path)
{
	Value value(rpy_value_create(res->nsr_handle)), enclave(rpy_value_create(res->nsr_handle));
	if (enclave)
		rpy_value_set_count(enclave.get(), static_cast<uint64_t>(path.enclave));
	if (!value || !enclave || rpy_value_set_astring(value.get(), path.text) != 0 ||
	    rpy_handle_decorate(res->nsr_handle, "enclave", enclave.get()) != 0 ||
	    rpy_handle_decorate(res->nsr_handle, "hatch_path", value.get()) != 0 ||
	    rpy_handle_bind(res->nsr_handle) != 0)
		return SETERROR(ostrel_rpy_failure());
	return OSTREL_SUCCESS;
}

// Tests that a hatch is there. *pid is its server; 0 if that can't be seen.
ostrel_error_t ostrel_check_cairn_configd_hatch(const HatchPath &path, pid_t *pid)
{
	if (pid != nullptr)
		*pid = 0;
	Fd hatch(_enclave_open_in(path.enclave, path.text));
	struct stat kind;
	hatch_info_t info;
	if (!hatch || fstat(hatch.get(), &kind) == -1 || !S_ISREG(kind.st_mode) || kind.st_nlink != 1 ||
	    hatch_info(hatch.get(), &info) == -1)
		return SETERROR(OSTREL_FAILURE);
	if (pid != nullptr)
		*pid = info.di_target;
	return OSTREL_SUCCESS;
}

// ---- Starting a private daemon ----

// The forked children make nothing but system calls.

// Makes the file that the daemon attaches its hatch to, or takes the one that an earlier daemon left. Anything else at that
// path isn't touched.
int make_hatch_file(const char *path)
{
	Fd file(open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, hatch_mode));
	if (!file && errno != EEXIST)
		return errno;
	if (!file)
		file.reset(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
	struct stat kind;
	if (!file || fstat(file.get(), &kind) == -1)
		return errno == ELOOP ? EINVAL : errno;
	if (!S_ISREG(kind.st_mode) || kind.st_nlink != 1)
		return EINVAL;
	return fchmod(file.get(), hatch_mode) == 0 ? 0 : errno;
}

// What a start needs of the host. It is opened before the fork, since the enclave may have none of it.
struct HostView {
	Fd null;
	Fd terminal;       // of this process's session, if it has one
	int lifeline = -1; // the daemon's end
	uint64_t capabilities = 0;

	// The program's capabilities are those that a repository needs, as far as the enclave's own processes have them.
	ostrel_error_t look(enclaveid_t enclave)
	{
		null.reset(open("/dev/null", O_RDWR | O_CLOEXEC));
		terminal.reset(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
		if (!null)
			return SETERROR(OSTREL_FAILURE);
		if (_enclave_capabilities(enclave, &capabilities) == -1)
			return SETERRNO(errno);
		capabilities &= daemon_capabilities;
		return OSTREL_SUCCESS;
	}
};

// The program gets one thing of this process's: its end of the lifeline, as its standard input. It gets neither the
// environment, nor streams and other descriptors (not all may be close-on-exec), nor the session's terminal, whose input it
// could write, nor the capabilities.
[[noreturn]] void become_daemon(const char *path, const HostView &host)
{
	static constexpr char search_path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
	const char *const environment[] = {search_path, nullptr};
	(void) prctl(PR_SET_PDEATHSIG, SIGKILL);
	if (host.terminal)
		(void) ioctl(host.terminal.get(), TIOCNOTTY);
	// A caller without streams may have these two at 0 to 2.
	const int input = fcntl(host.lifeline, F_DUPFD, 3), null = fcntl(host.null.get(), F_DUPFD, 3);
	for (int fd = 0; fd < 3; fd++)
		(void) dup2(fd == 0 ? input : null, fd);
	(void) close_range(3, UINT_MAX, 0);
	if (_enclave_confine(host.capabilities) == -1)
		_exit(EPERM);
	(void) execle(daemon_program, daemon_program, "-d", path, "-r", repository_file, static_cast<char *>(nullptr),
	    environment);
	_exit(0); // the starter finds no hatch
}

// The child that entered the enclave. Its exit status is its whole report. The inner fork returns after the daemon's first
// process has ended, so a failure leaves no process to be ended.
[[noreturn]] void start_inside(enclaveid_t enclave, const char *path, const HostView &host)
{
	ostrel_zlimit(start_seconds); // the program may never end: the kernel ends it with this child
	pid_t daemon = 0;
	int error = make_hatch_file(path);
	if (error == 0)
		error = ostrel_zfork(enclave, B_FALSE, &daemon);
	if (error == 0 && daemon == 0)
		become_daemon(path, host);
	_exit(ostrel_error2errno(ostrel_errno2error(error)));
}

ostrel_error_t make_lifeline(PrivateDaemon *daemon)
{
	int ends[2];
	if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1)
		return SETERRNO(errno);
	daemon->lifeline.reset(ends[0]);
	daemon->end.reset(ends[1]);
	daemon->is_inherited = false;
	return OSTREL_SUCCESS;
}

// Holds the process that serves a hatch, if it lives in the enclave. The server is looked up again after it is held: before
// that, another process may have taken its id.
ostrel_error_t hold_server(const HatchPath &path, pid_t *pid, Fd *process)
{
	pid_t server;
	if (ostrel_error_t result = ostrel_check_cairn_configd_hatch(path, &server))
		return result;
	process->reset(static_cast<int>(syscall(SYS_pidfd_open, server, 0)));
	if (!*process)
		return SETERRNO(errno);
	if (ostrel_error_t result = ostrel_check_cairn_configd_hatch(path, pid))
		return result;
	// Otherwise the hatch is another process's.
	return *pid == server && _enclave_has_process(path.enclave, server) ? OSTREL_SUCCESS : SETERROR(OSTREL_FAILURE);
}

ostrel_error_t start_private_configd(enclaveid_t enclave, int lifeline)
{
	char inside[64]; // composed here: the child can't
	(void) snprintf(inside, sizeof(inside), "%s.libostrel.%ld", own_hatch, static_cast<long>(enclave));
	HostView host;
	host.lifeline = lifeline;
	if (ostrel_error_t result = host.look(enclave))
		return result;
	pid_t child;
	int error = ostrel_zfork(enclave, B_TRUE, &child);
	if (error == 0 && child == 0)
		start_inside(enclave, inside, host);
	return error == 0 ? OSTREL_SUCCESS : SETERRNO(error);
}

// Starts a private daemon and finds its process. After a failure the daemon ends with the lifeline.
ostrel_error_t start_and_bind(enclaveid_t enclave, ostrel_rpy_resources_t *res, const HatchPath &path)
{
	PrivateDaemon daemon = {};
	if (ostrel_error_t result = make_lifeline(&daemon))
		return result;
	if (ostrel_error_t result = start_private_configd(enclave, daemon.end.get()))
		return result;
	if (ostrel_error_t result = hold_server(path, &res->nsr_private_configd_pid, &daemon.process)) {
		res->nsr_private_configd_pid = 0;
		return result;
	}
	res->nsr_private_daemon = std::move(daemon);
	return ostrel_bind_cairn_configd_hatch(res, path);
}

// ---- Which of the two ----

// Callers that start one at the same time take turns, so that all but the first find it. Without the right to take a turn,
// the start itself reports what is missing.
ostrel_error_t bind_private(enclaveid_t enclave, ostrel_rpy_resources_t *res)
{
	HatchPath path;
	if (ostrel_error_t result = ostrel_get_cairn_configd_hatchpath(enclave, true, &path))
		return result;
	res->nsr_private_configd = B_TRUE;
	if (ostrel_bind_cairn_configd_hatch(res, path) == OSTREL_SUCCESS)
		return OSTREL_SUCCESS;
	Fd turn(_enclave_hold(enclave, start_seconds));
	if (turn && ostrel_bind_cairn_configd_hatch(res, path) == OSTREL_SUCCESS)
		return OSTREL_SUCCESS;
	return start_and_bind(enclave, res, path);
}

} // namespace

ostrel_error_t ostrel_bind_cairn_configd(enclaveid_t enclave, ostrel_rpy_resources_t *res)
{
	if (enclave == ENCLAVE_ID_GLOBAL)
		return rpy_handle_bind(res->nsr_handle) == 0 ? OSTREL_SUCCESS : SETERROR(ostrel_rpy_failure());
	HatchPath path;
	if (ostrel_error_t result = ostrel_get_cairn_configd_hatchpath(enclave, false, &path))
		return result;
	res->nsr_root = ostrel_look_at_root(enclave); // before the bind: the next operation sees a change
	ostrel_error_t result = ostrel_bind_cairn_configd_hatch(res, path);
	// Only a missing daemon is replaced: this process may lack memory or descriptors, and a private daemon would take the file
	// from the enclave's own.
	if (result == OSTREL_SUCCESS || rpy_error() != RPY_ERROR_NO_SERVER)
		return result;
	return bind_private(enclave, res);
}

bool ostrel_native_configd_inenclave_ready(const ostrel_rpy_resources_t *res)
{
	HatchPath path;
	return res->nsr_private_configd && res->nsr_enclaveid != ENCLAVE_ID_GLOBAL &&
	       ostrel_get_cairn_configd_hatchpath(res->nsr_enclaveid, false, &path) == OSTREL_SUCCESS &&
	       ostrel_check_cairn_configd_hatch(path, nullptr) == OSTREL_SUCCESS;
}

EnclaveRoot ostrel_look_at_root(enclaveid_t enclave)
{
	struct stat root;
	char path[sizeof(HatchPath::text)];
	if (enclave == ENCLAVE_ID_GLOBAL || enclave_getattr(enclave, ENCLAVE_ATTR_ROOT, path, sizeof(path)) < 0)
		return {EnclaveRoot::unknown, 0, 0}; // without a record no other enclave has the id
	if (stat(path, &root) == -1)
		return {EnclaveRoot::missing, 0, 0};
	return {EnclaveRoot::there, root.st_dev, root.st_ino};
}

// ---- Giving a private daemon up ----

void ostrel_inherit_private_configd(ostrel_rpy_resources_t *res, ostrel_rpy_resources_t *before)
{
	HatchPath path;
	pid_t server;
	if (before->nsr_private_configd_pid == 0 || !res->nsr_private_configd || res->nsr_private_configd_pid != 0 ||
	    ostrel_get_cairn_configd_hatchpath(res->nsr_enclaveid, true, &path) != OSTREL_SUCCESS ||
	    ostrel_check_cairn_configd_hatch(path, &server) != OSTREL_SUCCESS ||
	    server != before->nsr_private_configd_pid)
		return;
	res->nsr_private_configd_pid = std::exchange(before->nsr_private_configd_pid, 0);
	res->nsr_private_daemon = std::move(before->nsr_private_daemon);
}

void ostrel_end_private_configd(ostrel_rpy_resources_t *res)
{
	PrivateDaemon daemon = std::move(res->nsr_private_daemon);
	if (!daemon.process)
		return;
	res->nsr_private_configd_pid = 0;
	daemon.lifeline.reset();
	struct pollfd others = {daemon.end.get(), 0, 0};
	if (daemon.is_inherited && poll(&others, 1, 0) == 0)
		return;                            // the parent or another child still has it
	(void) rpy_handle_unbind(res->nsr_handle); // the daemon waits for those who are connected
	if (syscall(SYS_pidfd_send_signal, daemon.process.get(), SIGTERM, nullptr, 0) == -1)
		return; // it has ended meanwhile
	// Waits for the end, so that the next operation isn't bound to a daemon that is about to go.
	struct pollfd ended = {daemon.process.get(), POLLIN, 0};
	(void) poll_until(&ended, 1, Deadline::in(end_seconds * second_ns));
}
