// The calls that FailNth can make fail, defined over those of libc, and handed on to the next definition: libc's, or
// a sanitizer's. Every name is given to the assembler alone, so that no declaration of a system header is in the way.
#include "syscall_fault.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>

static thread_local FailNth *armed;

FailNth::FailNth(Call call, int nth, Action action, int value)
    : call_(call), nth_(nth), action_(action), value_(value), outer_(armed)
{
	void *page = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
	if (page == MAP_FAILED) {
		perror("mmap");
		abort();
	}
	shared_ = static_cast<Shared *>(page); // zeroed by the kernel
	armed = this;
}

FailNth::~FailNth()
{
	armed = outer_;
	munmap(shared_, sizeof(Shared));
}

// Whether this call fails, with errno set. A read or write may also be cut short, at *len.
static bool failed(FailNth::Call call, size_t *len = nullptr)
{
	FailNth *hit = nullptr;
	for (FailNth *fault = armed; fault != nullptr; fault = fault->outer_) {
		if (fault->call_ != call || ++fault->shared_->calls != fault->nth_)
			continue;
		fault->shared_->fired = true;
		hit = fault;
	}
	if (hit == nullptr)
		return false;
	if (hit->action_ == FailNth::Kill)
		(void) kill(getpid(), SIGKILL);
	if (hit->action_ == FailNth::Short && len != nullptr && *len > static_cast<size_t>(hit->value_))
		*len = static_cast<size_t>(hit->value_);
	if (hit->action_ == FailNth::Fail)
		errno = hit->value_;
	return hit->action_ == FailNth::Fail;
}

template <typename Function>
static Function next_definition(std::atomic<Function> *found, const char *name)
{
	if (*found == nullptr)
		*found = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
	return *found;
}
#define NEXT(name) next_definition(&next_##name, #name)

// DEFINE(result, name, (parameters)): a function of ours that the linker knows under that name. The next definition is
// looked up before main(): a forked child mustn't.
#define DEFINE(result, name, parameters)                                                                               \
	static std::atomic<result(*) parameters> next_##name;                                                          \
	__attribute__((constructor)) static void find_##name()                                                         \
	{                                                                                                              \
		(void) NEXT(name);                                                                                     \
	}                                                                                                              \
	extern "C" __attribute__((visibility("default"))) result fault_##name parameters __asm__(#name);               \
	result fault_##name parameters

#define WRAP(result, name, call, parameters, arguments)                                                                \
	DEFINE(result, name, parameters)                                                                               \
	{                                                                                                              \
		return failed(FailNth::call) ? -1 : NEXT(name) arguments;                                              \
	}
// One that moves `len` bytes.
#define WRAP_TRANSFER(name, call, parameters, arguments)                                                               \
	DEFINE(ssize_t, name, parameters)                                                                              \
	{                                                                                                              \
		return failed(FailNth::call, &len) ? -1 : NEXT(name) arguments;                                        \
	}

// A mode is handed on also where the caller gave none: nobody looks at it then. The names with underscores are what
// _FORTIFY_SOURCE makes of a call.
WRAP(int, open, Open, (const char *path, int flags, mode_t mode), (path, flags, mode))
WRAP(int, open64, Open, (const char *path, int flags, mode_t mode), (path, flags, mode))
WRAP(int, openat, Open, (int dir, const char *path, int flags, mode_t mode), (dir, path, flags, mode))
WRAP(int, openat64, Open, (int dir, const char *path, int flags, mode_t mode), (dir, path, flags, mode))
WRAP(int, __open_2, Open, (const char *path, int flags), (path, flags))
WRAP(int, __open64_2, Open, (const char *path, int flags), (path, flags))
WRAP(int, __openat_2, Open, (int dir, const char *path, int flags), (dir, path, flags))
WRAP(int, __openat64_2, Open, (int dir, const char *path, int flags), (dir, path, flags))

WRAP_TRANSFER(read, Read, (int fd, void *buf, size_t len), (fd, buf, len))
WRAP_TRANSFER(__read_chk, Read, (int fd, void *buf, size_t len, size_t room), (fd, buf, len, room))
WRAP_TRANSFER(pread, Read, (int fd, void *buf, size_t len, off_t at), (fd, buf, len, at))
WRAP_TRANSFER(pread64, Read, (int fd, void *buf, size_t len, off_t at), (fd, buf, len, at))
WRAP_TRANSFER(__pread_chk, Read, (int fd, void *buf, size_t len, off_t at, size_t room), (fd, buf, len, at, room))
WRAP_TRANSFER(write, Write, (int fd, const void *buf, size_t len), (fd, buf, len))
WRAP_TRANSFER(pwrite, Write, (int fd, const void *buf, size_t len, off_t at), (fd, buf, len, at))
WRAP_TRANSFER(pwrite64, Write, (int fd, const void *buf, size_t len, off_t at), (fd, buf, len, at))
DEFINE(ssize_t, writev, (int fd, const iovec *parts, int count))
{
	// Cut short: the beginning of the first part.
	size_t len = SIZE_MAX;
	if (failed(FailNth::Write, &len))
		return -1;
	if (len != SIZE_MAX && count > 0)
		return NEXT(write)(fd, parts[0].iov_base, parts[0].iov_len < len ? parts[0].iov_len : len);
	return NEXT(writev)(fd, parts, count);
}

WRAP(int, fsync, Fsync, (int fd), (fd))
WRAP(int, fdatasync, Fdatasync, (int fd), (fd))
DEFINE(int, close, (int fd))
{
	const bool fails = failed(FailNth::Close);
	const int error = errno;
	const int result = NEXT(close)(fd);
	if (fails)
		errno = error;
	return fails ? -1 : result;
}

WRAP(int, fchmod, Fchmod, (int fd, mode_t mode), (fd, mode))
WRAP(int, fchown, Fchown, (int fd, uid_t uid, gid_t gid), (fd, uid, gid))
WRAP(int, ftruncate, Ftruncate, (int fd, off_t len), (fd, len))
WRAP(int, ftruncate64, Ftruncate, (int fd, off_t len), (fd, len))
WRAP(int, stat, Stat, (const char *path, struct stat *st), (path, st))
WRAP(int, lstat, Stat, (const char *path, struct stat *st), (path, st))
WRAP(int, fstat, Stat, (int fd, struct stat *st), (fd, st))
WRAP(int, fstatat, Stat, (int dir, const char *path, struct stat *st, int flags), (dir, path, st, flags))
WRAP(int, rename, Rename, (const char *from, const char *to), (from, to))
WRAP(int, renameat, Rename, (int from_dir, const char *from, int to_dir, const char *to), (from_dir, from, to_dir, to))
WRAP(int, unlink, Unlink, (const char *path), (path))
WRAP(int, unlinkat, Unlink, (int dir, const char *path, int flags), (dir, path, flags))
WRAP(int, fork, Fork, (), ())
WRAP(int, waitid, Waitid, (int type, unsigned id, void *info, int options), (type, id, info, options))
WRAP(int, socketpair, Socketpair, (int domain, int type, int protocol, int *fds), (domain, type, protocol, fds))
WRAP(ssize_t, sendmsg, Sendmsg, (int fd, const void *message, int flags), (fd, message, flags))
WRAP(ssize_t, recvmsg, Recvmsg, (int fd, void *message, int flags), (fd, message, flags))
WRAP(int, chroot, Chroot, (const char *path), (path))
WRAP(int, setns, Setns, (int fd, int type), (fd, type))
WRAP(int, memfd_create, Memfd, (const char *name, unsigned flags), (name, flags))

// Calls without a function in libc that the library makes by number. Six arguments are handed on, however many there are.
DEFINE(long, syscall, (long number, long a, long b, long c, long d, long e, long f))
{
	static const struct {
		long number;
		FailNth::Call call;
	} calls[] = {{SYS_clone, FailNth::Fork}, {SYS_clone3, FailNth::Fork}, {SYS_openat2, FailNth::Open},
	    {SYS_renameat2, FailNth::Rename}};
	for (const auto &row : calls)
		if (row.number == number && failed(row.call))
			return -1;
	return NEXT(syscall)(number, a, b, c, d, e, f);
}
