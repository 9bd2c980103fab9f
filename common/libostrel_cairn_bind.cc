// Which daemon a handle is bound to. In the global enclave that is the system's. Another enclave's own daemon is reached
// through its hatch below the enclave's root; where it isn't up, a private daemon is started inside the enclave.
//
// The enclave's paths are its own ground: they are opened so that nothing leads out of its root, and a process is asked to
// end only if it lives there and still serves the hatch.
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

constexpr char hatch_place[] = "/system/transient/repository_hatch";
constexpr char daemon_program[] = "/lib/cairn/bin/cairn.configd";
constexpr char repository_file[] = "/etc/cairn/repository.db";
constexpr mode_t hatch_mode = 0644;
constexpr uint64_t daemon_capabilities = 1U << CAP_CHOWN | 1U << CAP_DAC_OVERRIDE | 1U << CAP_FOWNER; // as its unit has
constexpr int start_seconds = 15; // a start takes 10 s at most
constexpr int end_seconds = 6;    // an end waits for the operations of others, 4 s at most

// The enclave goes along: by the text alone the path couldn't be told from one of the host's when the registry no longer
// knows the enclave.
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
	int length = is_private ? snprintf(path->text, sizeof(path->text), "%s%s.libostrel.%ld", root, hatch_place,
				      static_cast<long>(enclave))
				: snprintf(path->text, sizeof(path->text), "%s%s", root, hatch_place);
	// Cut, it would be the path of something else.
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

// Tests that a hatch is there. The process id is 0 if it can't be told.
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

// ---- The private daemon, in children that make system calls alone ----

// The file that the daemon attaches its hatch to, left by an earlier one perhaps. Whatever else lies there isn't touched.
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

// What a start needs of the host, found out before the fork: the enclave may have none of it.
struct HostView {
	Fd nowhere;
	Fd terminal;       // of this process's session; none if it has none
	int lifeline = -1; // the daemon's end
	uint64_t capabilities = 0;

	// What the program will have: no more than a repository needs, nor than the enclave's own processes have.
	ostrel_error_t look(enclaveid_t enclave)
	{
		nowhere.reset(open("/dev/null", O_RDWR | O_CLOEXEC));
		terminal.reset(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
		if (!nowhere)
			return SETERROR(OSTREL_FAILURE);
		if (_enclave_capabilities(enclave, &capabilities) == -1)
			return SETERRNO(errno);
		capabilities &= daemon_capabilities;
		return OSTREL_SUCCESS;
	}
};

// The program gets nothing of this process's but its end of the lifeline, as its input: not its environment, nor its streams
// or other descriptors, which may not all be close-on-exec, nor the terminal of its session, whose input it could write, nor
// its capabilities.
[[noreturn]] void become_daemon(const char *path, const HostView &host)
{
	static constexpr char search_path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
	const char *const environment[] = {search_path, nullptr};
	(void) prctl(PR_SET_PDEATHSIG, SIGKILL);
	if (host.terminal)
		(void) ioctl(host.terminal.get(), TIOCNOTTY);
	// The caller may have had no streams, so that these are where they are to be.
	const int input = fcntl(host.lifeline, F_DUPFD, 3), nowhere = fcntl(host.nowhere.get(), F_DUPFD, 3);
	for (int fd = 0; fd < 3; fd++)
		(void) dup2(fd == 0 ? input : nowhere, fd);
	(void) close_range(3, UINT_MAX, 0);
	if (_enclave_confine(host.capabilities) == -1)
		_exit(EPERM);
	(void) execle(daemon_program, daemon_program, "-d", path, "-r", repository_file, static_cast<char *>(nullptr),
	    environment);
	_exit(0); // the missing hatch tells
}

// The child that entered the enclave. Its status is its whole report. The daemon's first process has ended when the fork
// comes back, so there is nobody to end after a failure.
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

// Holds the process that serves a hatch, if it lives in the enclave. Looked at again when it is held: its id is its own then.
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
	// Else somebody else's hatch lies there.
	return *pid == server && _enclave_has_process(path.enclave, server) ? OSTREL_SUCCESS : SETERROR(OSTREL_FAILURE);
}

ostrel_error_t start_private_configd(enclaveid_t enclave, int lifeline)
{
	char inside[64]; // composed here: the child can't
	(void) snprintf(inside, sizeof(inside), "%s.libostrel.%ld", hatch_place, static_cast<long>(enclave));
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

// Starts a private daemon, and finds out which process it is. After a failure the daemon ends with the lifeline.
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

// Those who want to start one at the same time come one after the other, so that all but the first find it. Without the
// right to that, the start itself will say what is missing.
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
	res->nsr_root = ostrel_look_at_root(enclave); // one that changes meanwhile shows at the next operation
	ostrel_error_t result = ostrel_bind_cairn_configd_hatch(res, path);
	// Memory or descriptors that this process lacks say nothing about a daemon, and a private one beside the enclave's own
	// would be in its way.
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
		return;                            // the parent has it, or another child
	(void) rpy_handle_unbind(res->nsr_handle); // what is connected is waited for
	if (syscall(SYS_pidfd_send_signal, daemon.process.get(), SIGTERM, nullptr, 0) == -1)
		return; // it has ended meanwhile
	// Whoever comes next shall not be bound to a daemon that is about to go.
	struct pollfd ended = {daemon.process.get(), POLLIN, 0};
	(void) poll_until(&ended, 1, now_ns() + end_seconds * second_ns);
}

EnclaveRoot ostrel_look_at_root(enclaveid_t enclave)
{
	struct stat root;
	char path[sizeof(HatchPath::text)];
	if (enclave == ENCLAVE_ID_GLOBAL || enclave_getattr(enclave, ENCLAVE_ATTR_ROOT, path, sizeof(path)) < 0)
		return {EnclaveRoot::unknown, 0, 0}; // without a record the id is nobody else's
	if (stat(path, &root) == -1)
		return {EnclaveRoot::missing, 0, 0};
	return {EnclaveRoot::there, root.st_dev, root.st_ino};
}
