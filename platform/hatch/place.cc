// Attaching and detaching: files and names.
#include "hatch/place.h"

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

#include "hatch/wire.h"

namespace hatch {
namespace {

#if defined(__alpha__)
constexpr long sys_fchmodat2 = 562;
#else
constexpr long sys_fchmodat2 = 452; // of Linux 6.6; headers may be older
#endif

// Connections that wait to be accepted stand before the next one, whoever made them: few, so that a flood of them doesn't
// keep a newcomer waiting. Beyond them connecting waits.
constexpr int backlog = 16;

// A path, taken apart: the open directory and the name in it.
struct Spot {
	Fd directory;
	char path[PATH_MAX]; // the directory's, with a slash at its end; empty for the current one
	const char *name;
};

int find_spot(const char *path, Spot *spot)
{
	if (path == nullptr)
		return EFAULT;
	const char *slash = strrchr(path, '/');
	size_t len = slash == nullptr ? 0 : static_cast<size_t>(slash - path) + 1;
	if (len >= sizeof spot->path)
		return ENAMETOOLONG;
	memcpy(spot->path, path, len);
	spot->path[len] = '\0';
	spot->name = path + len;
	if (*spot->name == '\0')
		return *path == '\0' ? ENOENT : EISDIR;
	spot->directory.reset(open(len == 0 ? "." : spot->path, O_PATH | O_DIRECTORY | O_CLOEXEC));
	return spot->directory ? 0 : errno;
}

// What lies at a spot now: an empty file, or a record, whose server may live.
struct Present {
	Fd file;
	struct stat st = {};
	bool has_record = false;
	Id id = {};
};

int look_at_spot(const Spot &spot, int access, Present *present)
{
	int flags = access | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
	present->file.reset(openat(spot.directory.get(), spot.name, flags));
	if (!present->file || fstat(present->file.get(), &present->st) == -1)
		return errno;
	if (!S_ISREG(present->st.st_mode))
		return EINVAL;
	present->has_record = read_record(present->file.get(), &present->id);
	return 0;
}

// Makes the file that will hold the record: locked before anybody can see it, with the owner and mode of the old one.
int make_record(const Spot &spot, const Present &present, Place *place)
{
	SideName draft = draft_name(place->id);
	int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
	place->record.reset(openat(spot.directory.get(), draft.text, flags, 0600));
	if (!place->record)
		return errno;
	int fd = place->record.get();
	if (int error = write_record(fd, place->id))
		return error;
	if (!lock_record(fd))
		return EBUSY;
	struct stat st;
	if (fstat(fd, &st) == -1)
		return errno;
	bool same_owner = st.st_uid == present.st.st_uid && st.st_gid == present.st.st_gid;
	if (!same_owner && fchown(fd, present.st.st_uid, present.st.st_gid) == -1)
		return errno;
	return fchmod(fd, present.st.st_mode & 07777) == -1 ? errno : 0;
}

// Changes the mode of what a descriptor of any kind stands for.
int change_mode(int fd, mode_t mode)
{
	char path[64];
	(void) snprintf(path, sizeof path, "/proc/thread-self/fd/%d", fd);
	if (chmod(path, mode) == 0)
		return 0;
	if (errno != ENOENT) // without /proc there is a younger call, which filters of system calls may not know
		return errno;
	return syscall(sys_fchmodat2, fd, "", mode, AT_EMPTY_PATH) == -1 ? errno : 0;
}

// Lets everybody connect: who may do what is the handler's to decide. The caller's file mode mask counts at first. The
// directory may be another user's, who can have put something else under the name: through a link, or a second name, the
// mode of any file would be changed. So it is a socket of this process's user, without another name, or nothing is done.
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

// Binds by the path where that can't mean another place and is short enough, so that /proc isn't needed; through the
// directory otherwise.
int bind_socket(int fd, const Spot &spot, const SideName &name)
{
	struct sockaddr_un address = {};
	address.sun_family = AF_UNIX;
	int len = snprintf(address.sun_path, sizeof address.sun_path, "%s%s", spot.path, name.text);
	if (*spot.path != '/' || len >= static_cast<int>(sizeof address.sun_path))
		(void) snprintf(address.sun_path, sizeof address.sun_path, "/proc/thread-self/fd/%d/%s",
		    spot.directory.get(), name.text);
	if (bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == -1)
		return errno;
	return open_to_all(spot.directory.get(), name.text);
}

int make_listener(const Spot &spot, Place *place)
{
	place->listener.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
	if (!place->listener)
		return errno;
	int fd = place->listener.get();
	int on = 1;
	// Connections inherit it: the kernel names the sender of each message.
	if (setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == -1)
		return errno;
	refuse_descriptors(fd);
	// The socket's file takes this mode over, but for what the mask takes away.
	if (fchmod(fd, 0666) == -1)
		return errno;
	if (int error = bind_socket(fd, spot, socket_name(place->id)))
		return error;
	return listen(fd, backlog) == -1 ? errno : 0;
}

int fill_place(const Spot &spot, const Present &present, Place *place)
{
	if (int error = make_listener(spot, place))
		return error;
	if (int error = make_record(spot, present, place))
		return error;
	int directory = spot.directory.get();
	return renameat(directory, draft_name(place->id).text, directory, spot.name) == -1 ? errno : 0;
}

void remove_beside(int directory, const SideName &name)
{
	(void) unlinkat(directory, name.text, 0); // it may not be there
}

} // namespace

int take_place(const char *path, Place *place)
{
	Spot spot;
	Present present;
	if (int error = find_spot(path, &spot))
		return error;
	if (int error = look_at_spot(spot, O_RDONLY, &present))
		return error;
	// Neither a living server's hatch nor a file with something else in it is put aside.
	if (present.has_record ? record_is_locked(present.file.get()) : present.st.st_size != 0)
		return EBUSY;
	Place taken;
	if (int error = new_id(&taken.id))
		return error;
	if (int error = fill_place(spot, present, &taken)) {
		remove_beside(spot.directory.get(), draft_name(taken.id));
		remove_beside(spot.directory.get(), socket_name(taken.id));
		return error;
	}
	if (present.has_record)
		remove_beside(spot.directory.get(), socket_name(present.id));
	taken.directory = std::move(spot.directory);
	*place = std::move(taken);
	return 0;
}

void leave_place(Place *place)
{
	if (!place->record)
		return;
	remove_beside(place->directory.get(), socket_name(place->id));
	// This file only: whatever has its name by now. A failure leaves a record whose lock is free, which is as dead.
	(void) !ftruncate(place->record.get(), 0);
	*place = Place{};
}

bool holds_place(const Place &place)
{
	struct stat st;
	return place.record && fstat(place.record.get(), &st) == 0 && st.st_size != 0 && st.st_nlink != 0;
}

} // namespace hatch

int fdetach(const char *path)
{
	CancellationWaits cancellation;
	hatch::Spot spot;
	hatch::Present present;
	int error = hatch::find_spot(path, &spot);
	if (error == 0)
		error = hatch::look_at_spot(spot, O_RDWR, &present);
	if (error == 0 && !present.has_record)
		error = EINVAL;
	if (error == 0 && ftruncate(present.file.get(), 0) == -1)
		error = errno;
	if (error == 0)
		hatch::remove_beside(spot.directory.get(), hatch::socket_name(present.id));
	errno = error;
	return error == 0 ? 0 : -1;
}
