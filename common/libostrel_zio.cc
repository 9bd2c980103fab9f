// File operations in another enclave.
//
// A child enters the enclave, does the one thing whose path only makes sense there, and reports by its exit status; an
// open file comes back as a descriptor. In the child there is no allocation, no stream and no lock: other threads may
// have held them at the fork.
#include "libostrel_zio.h"

#include <cassert>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <meridon/covenant.h>
#include <meridon/fdpass.h>

#include "base/directory.h"
#include "base/guards.h"

namespace {

constexpr unsigned int enter_seconds = 15;

// The template for the child's covenant: no events but a hardware error, which ends the child's group alone.
int set_up_template(int fd)
{
	static const struct {
		int (*set)(int fd, uint32_t value);
		uint32_t value;
	} steps[] = {
	    {cv_tmpl_set_critical, 0},
	    {cv_tmpl_set_informative, 0},
	    {cv_pr_tmpl_set_fatal, COVENANT_EV_HWERR},
	    {cv_pr_tmpl_set_param, COVENANT_PR_PGRPONLY},
	};
	for (const auto &step : steps)
		if (int error = step.set(fd, step.value))
			return error;
	return cv_tmpl_activate(fd);
}

// A signal's number is no error number, though it goes the same way. Those that callers would act on, as "no such
// file" for an interrupt, give way to one that they don't.
int error_of_signal(int signal)
{
	return ostrel_errno2error(signal) == OSTREL_FAILURE ? signal : EINTR;
}

// Waits for the child, which only the flag __WALL reaches. A caught signal doesn't end the wait: what the child did
// would stay unknown, and the child a zombie.
int wait_for_child(pid_t child, pid_t *pid)
{
	siginfo_t info = {};
	int result;
	do
		result = waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | __WALL);
	while (result == -1 && errno == EINTR);
	if (result == -1)
		return errno;
	*pid = child;
	return info.si_code == CLD_EXITED ? info.si_status : error_of_signal(info.si_status);
}

// The child's way into the enclave, whose root may lie on a file system of its own that doesn't answer.
int begin_child(enclaveid_t enclave, boolean_t enter)
{
	struct sigaction action = {};
	action.sa_handler = SIG_DFL;
	(void) sigaction(SIGCHLD, &action, nullptr);
	if (!enter)
		return 0;
	ostrel_zlimit(enter_seconds);
	if (enclave_enter(enclave) == -1)
		_exit(errno);
	(void) alarm(0);
	return 0;
}

} // namespace

void ostrel_zlimit(unsigned int seconds)
{
	struct sigaction action = {};
	action.sa_handler = SIG_DFL;
	(void) sigaction(SIGALRM, &action, nullptr);
	sigset_t alarms;
	(void) sigemptyset(&alarms);
	(void) sigaddset(&alarms, SIGALRM);
	(void) pthread_sigmask(SIG_UNBLOCK, &alarms, nullptr);
	(void) alarm(seconds);
}

int ostrel_zfork(enclaveid_t enclave, boolean_t enter, pid_t *pid)
{
	*pid = 0;
	if (enclave == ENCLAVE_ID_GLOBAL)
		return 0;
	(void) getenclaveid(); // looked up here, so that no child has to
	Fd tmpl(covenant_open(COVENANT_PROCESS_TEMPLATE, O_RDWR | O_CLOEXEC));
	if (!tmpl)
		return errno;
	if (int error = set_up_template(tmpl.get()))
		return error;

	pid_t child = covenant_fork();
	int fork_error = errno;
	covenant_id_t covenant = -1;
	if (child > 0 && covenant_latest(COVENANT_TYPE_PROCESS, &covenant) == -1)
		covenant = -1;
	(void) cv_tmpl_clear(tmpl.get());
	tmpl.reset();
	if (child == -1)
		return fork_error;
	if (child == 0)
		return begin_child(enclave, enter);
	int result = wait_for_child(child, pid);
	(void) covenant_abandon_id(covenant);
	return result;
}

void ostrel_zexit(enclaveid_t enclave, pid_t pid, int status)
{
	if (enclave != ENCLAVE_ID_GLOBAL && pid == 0)
		_exit(status);
}

int ostrel_zfop(const char *path, enclaveid_t enclave, zfcb_t *cb, zfoparg_t *oparg)
{
	pid_t pid;
	if (int error = ostrel_zfork(enclave, B_TRUE, &pid))
		return error;
	zfarg_t arg;
	arg.zfarg_inglobalenclave = pid != 0 || enclave == ENCLAVE_ID_GLOBAL ? B_TRUE : B_FALSE;
	arg.zfarg_finglobalenclave = enclave == ENCLAVE_ID_GLOBAL ? B_TRUE : B_FALSE;
	arg.zfarg_filename = path;
	arg.zfarg_oparg = oparg;
	int result = cb(&arg);
	if (!arg.zfarg_inglobalenclave)
		_exit(result);
	return result;
}

/* ---- Opening ---- */

namespace {

struct OpenRequest {
	const char *path;
	int flags;
	mode_t mode;
	bool own_enclave; // the file is in the caller's own enclave
};

OpenRequest open_request(const zfarg_t *arg)
{
	const zopen_arg_t &open = arg->zfarg_oparg->zfop_openarg;
	OpenRequest request = {
	    arg->zfarg_filename, open.zopen_oflag, open.zopen_mode, arg->zfarg_finglobalenclave != 0};
	if (open.zopen_modestr != nullptr && open.zopen_modestr[0] == 'r') {
		request.flags = O_RDONLY;
		request.mode = 0;
	} else if (open.zopen_modestr != nullptr) {
		request.flags = O_WRONLY | O_CREAT | O_TRUNC;
		request.mode = 0644;
	}
	return request;
}

// What may be opened: nothing that would wait for another process or act on its own, and nothing to write that has a
// second name elsewhere. A directory is left to the open, which has an error of its own for it.
int check_kind(const struct stat &st, int flags)
{
	if (S_ISDIR(st.st_mode))
		return 0;
	return S_ISREG(st.st_mode) && ((flags & O_CREAT) == 0 || st.st_nlink == 1) ? 0 : EINVAL;
}

// Opens a file that is there. It is looked at before, since the open alone may act on a device, and after, since it
// may have been changed for another. It isn't emptied before it is known to be the right one.
int open_existing(const OpenRequest &request, Fd *file)
{
	struct stat st;
	int no_follow = request.flags & (O_CREAT | O_NOFOLLOW) ? O_NOFOLLOW : 0;
	if (fstatat(AT_FDCWD, request.path, &st, no_follow != 0 ? AT_SYMLINK_NOFOLLOW : 0) == -1)
		return errno;
	if (int error = check_kind(st, request.flags))
		return error;
	int flags = request.flags & ~(O_CREAT | O_TRUNC);
	file->reset(open(request.path, flags | no_follow | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
	if (!*file)
		return errno == ELOOP ? EINVAL : errno;
	if (fstat(file->get(), &st) == -1)
		return errno;
	if (int error = check_kind(st, request.flags))
		return error;
	if ((request.flags & O_TRUNC) != 0 && ftruncate(file->get(), 0) == -1)
		return errno;
	// The flag travels with the descriptor to a caller that didn't ask for it.
	if ((request.flags & O_NONBLOCK) == 0 && fcntl(file->get(), F_SETFL, flags & O_APPEND) == -1)
		return errno;
	return 0;
}

// Makes a file, whose mode doesn't depend on the umask. EEXIST if there is one now, or a link.
int open_new(const OpenRequest &request, Fd *file)
{
	file->reset(open(request.path, request.flags | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, request.mode));
	if (!*file)
		return errno;
	if (fchmod(file->get(), request.mode) == -1)
		return errno;
	return fchown(file->get(), OSTREL_ZFILE_UID, OSTREL_ZFILE_GID) == 0 ? 0 : errno;
}

// Opens a file, or makes it. A file that comes or goes between the look and the open is looked at once more.
int open_or_make(const OpenRequest &request, Fd *file)
{
	for (int attempt = 0; attempt < 2; attempt++) {
		struct stat st;
		if (fstatat(AT_FDCWD, request.path, &st, AT_SYMLINK_NOFOLLOW) == 0) {
			if ((request.flags & O_EXCL) != 0)
				return EEXIST;
			int error = open_existing(request, file);
			if (error != ENOENT)
				return error;
		} else {
			if (errno != ENOENT)
				return errno;
			int error = open_new(request, file);
			if (error != EEXIST || (request.flags & O_EXCL) != 0)
				return error;
		}
	}
	return EBUSY;
}

int open_file(const OpenRequest &request, Fd *file)
{
	if ((request.flags & O_CREAT) != 0)
		return open_or_make(request, file);
	if (!request.own_enclave)
		return open_existing(request, file);
	file->reset(open(request.path, request.flags | O_CLOEXEC, request.mode));
	return *file ? 0 : errno;
}

} // namespace

int ostrel_zopen_cb(zfarg_t *arg)
{
	zopen_arg_t &result = arg->zfarg_oparg->zfop_openarg;
	Fd file;
	if (arg->zfarg_inglobalenclave == arg->zfarg_finglobalenclave) {
		if (int error = open_file(open_request(arg), &file))
			return error;
	}
	if (!arg->zfarg_inglobalenclave) {
		assert(!arg->zfarg_finglobalenclave && file);
		return fdpass_send(result.zopen_pipe[1], file.get());
	}
	if (!arg->zfarg_finglobalenclave) {
		int received;
		if (int error = fdpass_receive(result.zopen_pipe[0], &received))
			return error;
		file.reset(received);
	}
	result.zopen_fd = file.release();
	return 0;
}

int ostrel_zopen_impl(const char *path, enclaveid_t enclave, zfcb_t *cb, zfoparg_t *oparg)
{
	if (enclave == ENCLAVE_ID_GLOBAL)
		return ostrel_zfop(path, enclave, cb, oparg);
	int ends[2];
	if (int error = fdpass_pair(ends))
		return error;
	Fd receiver(ends[0]), sender(ends[1]);
	oparg->zfop_openarg.zopen_pipe = ends;
	int result = ostrel_zfop(path, enclave, cb, oparg);
	oparg->zfop_openarg.zopen_pipe = nullptr;
	return result;
}

int ostrel_zopen(const char *path, int oflag, mode_t mode, enclaveid_t enclave, int *err)
{
	zfoparg_t oparg;
	oparg.zfop_openarg = {nullptr, oflag, mode, nullptr, -1};
	*err = ostrel_zopen_impl(path, enclave, ostrel_zopen_cb, &oparg);
	return oparg.zfop_openarg.zopen_fd;
}

FILE *ostrel_zfopen(const char *path, const char *mode, enclaveid_t enclave, int *err)
{
	zfoparg_t oparg;
	oparg.zfop_openarg = {mode, 0, 0, nullptr, -1};
	*err = ostrel_zopen_impl(path, enclave, ostrel_zopen_cb, &oparg);
	if (*err != 0)
		return nullptr;
	Fd file(oparg.zfop_openarg.zopen_fd);
	FILE *stream = fdopen(file.get(), mode);
	if (stream == nullptr)
		*err = errno;
	else
		(void) file.release(); // the stream closes it
	return stream;
}

/* ---- Locking ---- */

// In the child, which ends with what this gives. Two descriptors are sent: the temporary file, and the database; where there
// is none, the temporary file once more.
static int lock_inside(zfarg_t *arg)
{
	if (arg->zfarg_inglobalenclave)
		return 0;
	const zlock_arg_t &request = arg->zfarg_oparg->zfop_lockarg;
	FileLock lock;
	if (int error = lock.take(arg->zfarg_filename, OSTREL_ZFILE_UID))
		return error;
	if (lock.is_unused() && fchown(lock.fd(), OSTREL_ZFILE_UID, OSTREL_ZFILE_GID) == -1)
		return errno;
	Fd database;
	int error = open_existing({request.zlock_database, O_RDONLY, 0, false}, &database);
	if (error != 0 && error != ENOENT)
		return error;
	Fd temporary(lock.give_away());
	if (int failed = fdpass_send(request.zlock_end, temporary.get()))
		return failed;
	return fdpass_send(request.zlock_end, database ? database.get() : temporary.get());
}

int ostrel_zlock(const char *temporary, const char *database_path, enclaveid_t enclave, FileLock *lock, Fd *database)
{
	int ends[2];
	if (int error = fdpass_pair(ends))
		return error;
	Fd receiver(ends[0]), sender(ends[1]);
	zfoparg_t oparg;
	oparg.zfop_lockarg = {database_path, ends[1]};
	if (int error = ostrel_zfop(temporary, enclave, lock_inside, &oparg))
		return error;
	int received;
	if (int error = fdpass_receive(ends[0], &received))
		return error;
	lock->adopt(received);
	if (int error = fdpass_receive(ends[0], &received))
		return error;
	database->reset(received);
	struct stat status;
	if (fstat(database->get(), &status) == -1)
		return errno;
	if (ostrel_same_file(status, lock->found()))
		database->reset();
	return 0;
}

/* ---- Renaming and unlinking ---- */

// The process that changes a directory makes the change durable. The directory is opened first, so that one that can't be is a
// failure with nothing changed.
int ostrel_zrename_cb(zfarg_t *arg)
{
	if (arg->zfarg_inglobalenclave != arg->zfarg_finglobalenclave)
		return 0;
	const char *newname = arg->zfarg_oparg->zfop_renamearg.zrename_newname;
	Fd dir(meridon_open_parent(newname));
	if (!dir || rename(arg->zfarg_filename, newname) == -1)
		return errno;
	return meridon_sync_dir(dir.get());
}

int ostrel_zunlink_cb(zfarg_t *arg)
{
	if (arg->zfarg_inglobalenclave != arg->zfarg_finglobalenclave)
		return 0;
	Fd dir(meridon_open_parent(arg->zfarg_filename));
	if (!dir || unlink(arg->zfarg_filename) == -1)
		return errno;
	return meridon_sync_dir(dir.get());
}

int ostrel_zrename(const char *from, const char *to, enclaveid_t enclave)
{
	zfoparg_t oparg;
	oparg.zfop_renamearg = {to};
	return ostrel_zfop(from, enclave, ostrel_zrename_cb, &oparg);
}

int ostrel_zunlink(const char *path, enclaveid_t enclave)
{
	return ostrel_zfop(path, enclave, ostrel_zunlink_cb, nullptr);
}
