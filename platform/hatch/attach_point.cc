// Attaching and detaching: files and names.
//
// The directory may belong to another user, who may replace any name in it at any time. So names are looked up relative to
// an open directory, no link is followed, and what a name leads to is checked on its descriptor before it is changed. A
// new record becomes visible by one rename, locked already: a reader sees the old file or a living hatch.
#include "hatch/attach_point.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <meridon/hatch.h>

#include "base/fail.h"
#include "hatch/wire.h"

namespace hatch {
namespace {

#if defined(__alpha__)
constexpr long sys_fchmodat2 = 562;
#else
constexpr long sys_fchmodat2 = 452; // of Linux 6.6, which headers may not know yet
#endif

// The accept backlog. Connections in it come before the next one: it is short, so that a flood doesn't keep
// a newcomer waiting. Beyond it, connecting waits.
constexpr int backlog = 16;

// A path to attach to, split into its open directory and the name in that.
struct Target {
	Fd directory;
	char path[PATH_MAX]; // the directory's, with a slash at its end; empty for the current one
	const char *name;
};

int open_target(const char *path, Target *target)
{
	if (path == nullptr)
		return EFAULT;
	const char *slash = strrchr(path, '/');
	size_t len = slash == nullptr ? 0 : static_cast<size_t>(slash - path) + 1;
	if (len >= sizeof target->path)
		return ENAMETOOLONG;
	memcpy(target->path, path, len);
	target->path[len] = '\0';
	target->name = path + len;
	if (*target->name == '\0')
		return *path == '\0' ? ENOENT : EISDIR;
	target->directory.reset(open(len == 0 ? "." : target->path, O_PATH | O_DIRECTORY | O_CLOEXEC));
	return target->directory ? 0 : errno;
}

// What the target's name stands for now: an empty file, or a record, whose server may live.
struct Occupant {
	Fd file;
	struct stat st = {};
	bool has_record = false;
	Id id = {};
};

int look_at_target(const Target &target, int access, Occupant *occupant)
{
	int flags = access | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
	occupant->file.reset(openat(target.directory.get(), target.name, flags));
	if (!occupant->file || fstat(occupant->file.get(), &occupant->st) == -1)
		return errno;
	if (!S_ISREG(occupant->st.st_mode))
		return EINVAL;
	occupant->has_record = read_record(occupant->file.get(), &occupant->id);
	return 0;
}

// Makes the file that will hold the record: locked before anybody can see it, with the owner and mode of the old one.
int make_record(const Target &target, const Occupant &occupant, AttachPoint *point)
{
	SideName draft = draft_name(point->id);
	int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
	point->record.reset(openat(target.directory.get(), draft.text, flags, 0600));
	if (!point->record)
		return errno;
	int fd = point->record.get();
	if (int error = write_record(fd, point->id))
		return error;
	if (!lock_record(fd))
		return EBUSY;
	struct stat st;
	if (fstat(fd, &st) == -1)
		return errno;
	bool same_owner = st.st_uid == occupant.st.st_uid && st.st_gid == occupant.st.st_gid;
	if (!same_owner && fchown(fd, occupant.st.st_uid, occupant.st.st_gid) == -1)
		return errno;
	return fchmod(fd, occupant.st.st_mode & 07777) == -1 ? errno : 0;
}

// Changes the mode of the file that a descriptor of any kind stands for.
int change_mode(int fd, mode_t mode)
{
	char path[64];
	(void) snprintf(path, sizeof path, "/proc/thread-self/fd/%d", fd);
	if (chmod(path, mode) == 0)
		return 0;
	if (errno != ENOENT) // without /proc a younger call does it, which filters of system calls may not know
		return errno;
	return syscall(sys_fchmodat2, fd, "", mode, AT_EMPTY_PATH) == -1 ? errno : 0;
}

// Lets everybody connect: the handler decides who may do what. (The socket was made with the caller's file mode mask.) What
// has the name must be a socket of this process's user without another name: else the directory's owner could have the
// mode of any file changed.
int open_to_all(int directory, const char *name)
{
	constexpr mode_t for_all = 0666;
	Fd bound(openat(directory, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
	struct stat st;
	if (!bound || fstat(bound.get(), &st) == -1)
		return errno;
	if (!S_ISSOCK(st.st_mode) || st.st_nlink != 1 || st.st_uid != geteuid())
		return EBUSY;
	return (st.st_mode & 07777) == for_all ? 0 : change_mode(bound.get(), for_all);
}

// Binds by the path if that is absolute and short enough, so that /proc isn't needed; else through the open directory.
int bind_socket(int fd, const Target &target, const SideName &name)
{
	struct sockaddr_un address = {};
	address.sun_family = AF_UNIX;
	int len = snprintf(address.sun_path, sizeof address.sun_path, "%s%s", target.path, name.text);
	if (*target.path != '/' || len >= static_cast<int>(sizeof address.sun_path))
		(void) snprintf(address.sun_path, sizeof address.sun_path, "/proc/thread-self/fd/%d/%s",
		    target.directory.get(), name.text);
	if (bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == -1)
		return errno;
	return open_to_all(target.directory.get(), name.text);
}

int make_listener(const Target &target, AttachPoint *point)
{
	point->listener.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
	if (!point->listener)
		return errno;
	int fd = point->listener.get();
	int on = 1;
	// Connections inherit it: the kernel names the sender of each message.
	if (setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == -1)
		return errno;
	refuse_descriptors(fd);
	// The socket's file gets this mode, but for what the mask takes away.
	if (fchmod(fd, 0666) == -1)
		return errno;
	if (int error = bind_socket(fd, target, socket_name(point->id)))
		return error;
	return listen(fd, backlog) == -1 ? errno : 0;
}

int fill_in(const Target &target, const Occupant &occupant, AttachPoint *point)
{
	if (int error = make_listener(target, point))
		return error;
	if (int error = make_record(target, occupant, point))
		return error;
	int directory = target.directory.get();
	return renameat(directory, draft_name(point->id).text, directory, target.name) == -1 ? errno : 0;
}

void remove_beside(int directory, const SideName &name)
{
	(void) unlinkat(directory, name.text, 0); // it may not be there
}

} // namespace

int attach_to(const char *path, AttachPoint *point)
{
	Target target;
	Occupant occupant;
	if (int error = open_target(path, &target))
		return error;
	if (int error = look_at_target(target, O_RDONLY, &occupant))
		return error;
	// Neither a living server's hatch nor a file with other content is replaced.
	if (occupant.has_record ? record_is_locked(occupant.file.get()) : occupant.st.st_size != 0)
		return EBUSY;
	AttachPoint taken;
	if (int error = new_id(&taken.id))
		return error;
	if (int error = fill_in(target, occupant, &taken)) {
		remove_beside(target.directory.get(), draft_name(taken.id));
		remove_beside(target.directory.get(), socket_name(taken.id));
		return error;
	}
	if (occupant.has_record)
		remove_beside(target.directory.get(), socket_name(occupant.id));
	taken.directory = std::move(target.directory);
	*point = std::move(taken);
	return 0;
}

void detach(AttachPoint *point)
{
	if (!point->record)
		return;
	remove_beside(point->directory.get(), socket_name(point->id));
	// This file only, whatever has its name by now. After a failure the record stays, without a lock: as dead.
	(void) !ftruncate(point->record.get(), 0);
	*point = AttachPoint{};
}

bool is_attached(const AttachPoint &point)
{
	struct stat st;
	return point.record && fstat(point.record.get(), &st) == 0 && st.st_size != 0 && st.st_nlink != 0;
}

} // namespace hatch

int fdetach(const char *path)
{
	CancellationWaits cancellation;
	hatch::Target target;
	hatch::Occupant occupant;
	int error = hatch::open_target(path, &target);
	if (error == 0)
		error = hatch::look_at_target(target, O_RDWR, &occupant);
	if (error == 0 && !occupant.has_record)
		error = EINVAL;
	if (error == 0 && ftruncate(occupant.file.get(), 0) == -1)
		error = errno;
	if (error == 0)
		hatch::remove_beside(target.directory.get(), hatch::socket_name(occupant.id));
	return fail_with(error);
}
