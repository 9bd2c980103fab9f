// The calls that FailNth can make fail, defined over those of libc, and handed on to the next definition: libc's, or
// a sanitizer's. Every name is given to the assembler alone, so that no declaration of a system header is in the way.
#include "syscall_fault.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

struct FailNth::Shared {
	std::atomic<int> calls;
	std::atomic<int> fired;
};

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

bool FailNth::fired() const
{
	return shared_->fired.load() != 0;
}

int FailNth::calls() const
{
	return shared_->calls.load();
}

// The fault that hits this call, or NULL.
static FailNth *hit(FailNth::Call call)
{
	FailNth *found = nullptr;
	for (FailNth *fault = armed; fault != nullptr; fault = fault->outer_) {
		if (fault->call_ != call || ++fault->shared_->calls != fault->nth_)
			continue;
		fault->shared_->fired = 1;
		found = fault;
	}
	if (found != nullptr && found->action_ == FailNth::Kill)
		(void) kill(getpid(), SIGKILL);
	return found;
}

static bool failed(FailNth::Call call)
{
	FailNth *fault = hit(call);
	if (fault == nullptr || fault->action_ != FailNth::Fail)
		return false;
	errno = fault->value_;
	return true;
}

// For reads and writes: whether the call fails, and else how many bytes it may move.
static bool failed_or_short(FailNth::Call call, size_t *len)
{
	FailNth *fault = hit(call);
	if (fault == nullptr || fault->action_ == FailNth::Kill)
		return false;
	if (fault->action_ == FailNth::Short) {
		if (*len > static_cast<size_t>(fault->value_))
			*len = static_cast<size_t>(fault->value_);
		return false;
	}
	errno = fault->value_;
	return true;
}

// The next definition of each name. Looked up before main(): a forked child mustn't.
enum Name {
	n_open,
	n_openat,
	n_read,
	n_pread,
	n_write,
	n_pwrite,
	n_writev,
	n_fsync,
	n_fdatasync,
	n_fchmod,
	n_fchown,
	n_ftruncate,
	n_stat,
	n_lstat,
	n_fstat,
	n_fstatat,
	n_rename,
	n_renameat,
	n_renameat2,
	n_unlink,
	n_unlinkat,
	n_fork,
	n_waitid,
	n_close,
	n_socketpair,
	n_sendmsg,
	n_recvmsg,
	n_chroot,
	n_setns,
	n_memfd_create,
	n_syscall,
	name_count
};
static const char *const names[name_count] = {"open", "openat", "read", "pread", "write", "pwrite", "writev", "fsync",
    "fdatasync", "fchmod", "fchown", "ftruncate", "stat", "lstat", "fstat", "fstatat", "rename", "renameat",
    "renameat2", "unlink", "unlinkat", "fork", "waitid", "close", "socketpair", "sendmsg", "recvmsg", "chroot", "setns",
    "memfd_create", "syscall"};
static std::atomic<void *> next_definition[name_count];

static void *next_of(Name name)
{
	void *found = next_definition[name].load(std::memory_order_relaxed);
	if (found == nullptr) {
		found = dlsym(RTLD_NEXT, names[name]);
		next_definition[name].store(found, std::memory_order_relaxed);
	}
	return found;
}

__attribute__((constructor)) static void find_next_definitions()
{
	for (int i = 0; i < name_count; i++)
		(void) next_of(static_cast<Name>(i));
}

#define NEXT(type, name) (reinterpret_cast<type>(next_of(n_##name)))

// DEFINE(result, our name, the symbol, parameters): a function of ours that the linker knows under the symbol.
#define DEFINE(result, ours, symbol, ...)                                                                              \
	extern "C" __attribute__((visibility("default"))) result ours(__VA_ARGS__) __asm__(symbol);                    \
	result ours(__VA_ARGS__)

static bool makes_file(int flags)
{
	return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

using OpenAt = int (*)(int, const char *, int, ...);

static int open_at(int dir, const char *path, int flags, mode_t mode)
{
	return failed(FailNth::Open) ? -1 : NEXT(OpenAt, openat)(dir, path, flags, mode);
}

#define DEFINE_OPEN(ours, symbol)                                                                                      \
	DEFINE(int, ours, symbol, const char *path, int flags, ...)                                                    \
	{                                                                                                              \
		va_list more;                                                                                          \
		va_start(more, flags);                                                                                 \
		mode_t mode = makes_file(flags) ? va_arg(more, mode_t) : 0;                                            \
		va_end(more);                                                                                          \
		return open_at(AT_FDCWD, path, flags, mode);                                                           \
	}
#define DEFINE_OPENAT(ours, symbol)                                                                                    \
	DEFINE(int, ours, symbol, int dir, const char *path, int flags, ...)                                           \
	{                                                                                                              \
		va_list more;                                                                                          \
		va_start(more, flags);                                                                                 \
		mode_t mode = makes_file(flags) ? va_arg(more, mode_t) : 0;                                            \
		va_end(more);                                                                                          \
		return open_at(dir, path, flags, mode);                                                                \
	}
DEFINE_OPEN(fault_open, "open")
DEFINE_OPEN(fault_open64, "open64")
DEFINE_OPENAT(fault_openat, "openat")
DEFINE_OPENAT(fault_openat64, "openat64")
// What _FORTIFY_SOURCE makes of a call whose flags it doesn't know.
DEFINE(int, fault_open_2, "__open_2", const char *path, int flags)
{
	return open_at(AT_FDCWD, path, flags, 0);
}
DEFINE(int, fault_open64_2, "__open64_2", const char *path, int flags)
{
	return open_at(AT_FDCWD, path, flags, 0);
}
DEFINE(int, fault_openat_2, "__openat_2", int dir, const char *path, int flags)
{
	return open_at(dir, path, flags, 0);
}
DEFINE(int, fault_openat64_2, "__openat64_2", int dir, const char *path, int flags)
{
	return open_at(dir, path, flags, 0);
}

using ReadCall = ssize_t (*)(int, void *, size_t);
using PreadCall = ssize_t (*)(int, void *, size_t, off_t);
using WriteCall = ssize_t (*)(int, const void *, size_t);
using PwriteCall = ssize_t (*)(int, const void *, size_t, off_t);
using WritevCall = ssize_t (*)(int, const iovec *, int);

DEFINE(ssize_t, fault_read, "read", int fd, void *buf, size_t len)
{
	return failed_or_short(FailNth::Read, &len) ? -1 : NEXT(ReadCall, read)(fd, buf, len);
}
DEFINE(ssize_t, fault_read_chk, "__read_chk", int fd, void *buf, size_t len, size_t room)
{
	if (len > room)
		abort();
	return fault_read(fd, buf, len);
}
DEFINE(ssize_t, fault_pread, "pread", int fd, void *buf, size_t len, off_t at)
{
	return failed_or_short(FailNth::Read, &len) ? -1 : NEXT(PreadCall, pread)(fd, buf, len, at);
}
DEFINE(ssize_t, fault_pread64, "pread64", int fd, void *buf, size_t len, off_t at)
{
	return fault_pread(fd, buf, len, at);
}
DEFINE(ssize_t, fault_pread_chk, "__pread_chk", int fd, void *buf, size_t len, off_t at, size_t room)
{
	if (len > room)
		abort();
	return fault_pread(fd, buf, len, at);
}
DEFINE(ssize_t, fault_write, "write", int fd, const void *buf, size_t len)
{
	return failed_or_short(FailNth::Write, &len) ? -1 : NEXT(WriteCall, write)(fd, buf, len);
}
DEFINE(ssize_t, fault_pwrite, "pwrite", int fd, const void *buf, size_t len, off_t at)
{
	return failed_or_short(FailNth::Write, &len) ? -1 : NEXT(PwriteCall, pwrite)(fd, buf, len, at);
}
DEFINE(ssize_t, fault_pwrite64, "pwrite64", int fd, const void *buf, size_t len, off_t at)
{
	return fault_pwrite(fd, buf, len, at);
}
DEFINE(ssize_t, fault_writev, "writev", int fd, const iovec *parts, int count)
{
	size_t len = SIZE_MAX;
	if (failed_or_short(FailNth::Write, &len))
		return -1;
	// Cut short: the beginning of the first part.
	if (len != SIZE_MAX && count > 0)
		return NEXT(WriteCall, write)(fd, parts[0].iov_base, parts[0].iov_len < len ? parts[0].iov_len : len);
	return NEXT(WritevCall, writev)(fd, parts, count);
}

#define DEFINE_FD_CALL(name, call)                                                                                     \
	DEFINE(int, fault_##name, #name, int fd)                                                                       \
	{                                                                                                              \
		return failed(FailNth::call) ? -1 : NEXT(int (*)(int), name)(fd);                                      \
	}
DEFINE_FD_CALL(fsync, Fsync)
DEFINE_FD_CALL(fdatasync, Fdatasync)

DEFINE(int, fault_close, "close", int fd)
{
	bool fails = failed(FailNth::Close);
	int error = errno;
	int result = NEXT(int (*)(int), close)(fd);
	if (fails)
		errno = error;
	return fails ? -1 : result;
}

DEFINE(int, fault_fchmod, "fchmod", int fd, mode_t mode)
{
	return failed(FailNth::Fchmod) ? -1 : NEXT(int (*)(int, mode_t), fchmod)(fd, mode);
}
DEFINE(int, fault_fchown, "fchown", int fd, uid_t uid, gid_t gid)
{
	return failed(FailNth::Fchown) ? -1 : NEXT(int (*)(int, uid_t, gid_t), fchown)(fd, uid, gid);
}
DEFINE(int, fault_ftruncate, "ftruncate", int fd, off_t len)
{
	return failed(FailNth::Ftruncate) ? -1 : NEXT(int (*)(int, off_t), ftruncate)(fd, len);
}
DEFINE(int, fault_ftruncate64, "ftruncate64", int fd, off_t len)
{
	return fault_ftruncate(fd, len);
}

DEFINE(int, fault_stat, "stat", const char *path, struct stat *st)
{
	return failed(FailNth::Stat) ? -1 : NEXT(int (*)(const char *, struct stat *), stat)(path, st);
}
DEFINE(int, fault_lstat, "lstat", const char *path, struct stat *st)
{
	return failed(FailNth::Stat) ? -1 : NEXT(int (*)(const char *, struct stat *), lstat)(path, st);
}
DEFINE(int, fault_fstat, "fstat", int fd, struct stat *st)
{
	return failed(FailNth::Stat) ? -1 : NEXT(int (*)(int, struct stat *), fstat)(fd, st);
}
DEFINE(int, fault_fstatat, "fstatat", int dir, const char *path, struct stat *st, int flags)
{
	using Fstatat = int (*)(int, const char *, struct stat *, int);
	return failed(FailNth::Stat) ? -1 : NEXT(Fstatat, fstatat)(dir, path, st, flags);
}

DEFINE(int, fault_rename, "rename", const char *from, const char *to)
{
	return failed(FailNth::Rename) ? -1 : NEXT(int (*)(const char *, const char *), rename)(from, to);
}
DEFINE(int, fault_renameat, "renameat", int olddir, const char *from, int newdir, const char *to)
{
	using Renameat = int (*)(int, const char *, int, const char *);
	return failed(FailNth::Rename) ? -1 : NEXT(Renameat, renameat)(olddir, from, newdir, to);
}
DEFINE(int, fault_renameat2, "renameat2", int olddir, const char *from, int newdir, const char *to, unsigned flags)
{
	using Renameat2 = int (*)(int, const char *, int, const char *, unsigned);
	return failed(FailNth::Rename) ? -1 : NEXT(Renameat2, renameat2)(olddir, from, newdir, to, flags);
}
DEFINE(int, fault_unlink, "unlink", const char *path)
{
	return failed(FailNth::Unlink) ? -1 : NEXT(int (*)(const char *), unlink)(path);
}
DEFINE(int, fault_unlinkat, "unlinkat", int dir, const char *path, int flags)
{
	return failed(FailNth::Unlink) ? -1 : NEXT(int (*)(int, const char *, int), unlinkat)(dir, path, flags);
}

DEFINE(pid_t, fault_fork, "fork", void)
{
	return failed(FailNth::Fork) ? -1 : NEXT(pid_t(*)(), fork)();
}
DEFINE(int, fault_waitid, "waitid", int type, unsigned id, void *info, int options)
{
	return failed(FailNth::Waitid) ? -1
				       : NEXT(int (*)(int, unsigned, void *, int), waitid)(type, id, info, options);
}

DEFINE(int, fault_socketpair, "socketpair", int domain, int type, int protocol, int *fds)
{
	using Socketpair = int (*)(int, int, int, int *);
	return failed(FailNth::Socketpair) ? -1 : NEXT(Socketpair, socketpair)(domain, type, protocol, fds);
}
DEFINE(ssize_t, fault_sendmsg, "sendmsg", int fd, const void *message, int flags)
{
	return failed(FailNth::Sendmsg) ? -1 : NEXT(ssize_t(*)(int, const void *, int), sendmsg)(fd, message, flags);
}
DEFINE(ssize_t, fault_recvmsg, "recvmsg", int fd, void *message, int flags)
{
	return failed(FailNth::Recvmsg) ? -1 : NEXT(ssize_t(*)(int, void *, int), recvmsg)(fd, message, flags);
}
DEFINE(int, fault_chroot, "chroot", const char *path)
{
	return failed(FailNth::Chroot) ? -1 : NEXT(int (*)(const char *), chroot)(path);
}
DEFINE(int, fault_setns, "setns", int fd, int type)
{
	return failed(FailNth::Setns) ? -1 : NEXT(int (*)(int, int), setns)(fd, type);
}
DEFINE(int, fault_memfd_create, "memfd_create", const char *name, unsigned flags)
{
	return failed(FailNth::Memfd) ? -1 : NEXT(int (*)(const char *, unsigned), memfd_create)(name, flags);
}

// Calls without a function in libc that the library makes by number.
static bool failed_number(long number)
{
	static const struct {
		long number;
		FailNth::Call call;
	} calls[] = {
	    {SYS_clone, FailNth::Fork},
	    {SYS_clone3, FailNth::Fork},
	    {SYS_openat2, FailNth::Open},
	    {SYS_renameat2, FailNth::Rename},
	};
	for (const auto &row : calls)
		if (row.number == number)
			return failed(row.call);
	return false;
}

// How many arguments there are isn't known: six are taken, some of which may be words of the caller's frame.
DEFINE(__attribute__((no_sanitize("address"))) long, fault_syscall, "syscall", long number, ...)
{
	long args[6];
	va_list more;
	va_start(more, number);
	for (long &arg : args)
		arg = va_arg(more, long);
	va_end(more);
	if (failed_number(number))
		return -1;
	return NEXT(long (*)(long, ...), syscall)(number, args[0], args[1], args[2], args[3], args[4], args[5]);
}
