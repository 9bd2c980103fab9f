// The lock of a database file's updates. Divisions: waiting, the lock, the file that it lies on, taking it.
#include "libostrel_files_lock.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "base/clock.h"
#include "base/directory.h"
#include "base/guards.h"

// A new file is readable by its owner alone until it is locked: anyone who may read a file may also lock it, and so delay every
// update. The sticky bit, which has no meaning for a file, marks one that was never used.
static constexpr mode_t unused_mode = S_ISVTX | 0600;

// ---- Waiting ----

// For how long an update waits for the lock: 60 s, with a look each 50 us at first and each 4 ms later.
class Patience {
public:
	bool lasts() const { return !end_.has_passed(); }
	bool wait()
	{
		if (!lasts())
			return false;
		backoff_.pause();
		return true;
	}
	// For a file that can't be opened: whether its owner has changed anything within the last second.
	bool sees_change(const struct stat &file)
	{
		if (file.st_ino != seen_.st_ino || file.st_ctim.tv_sec != seen_.st_ctim.tv_sec ||
		    file.st_ctim.tv_nsec != seen_.st_ctim.tv_nsec) {
			seen_ = file;
			since_ = now_ns();
		}
		return now_ns() - since_ < second_ns;
	}

private:
	const Deadline end_ = Deadline::in(60 * second_ns);
	Backoff backoff_{50 * microsecond_ns, 4 * millisecond_ns};
	struct stat seen_ = {};
	int64_t since_ = 0;
};

// ---- The lock ----

int FileLock::give_away()
{
	return std::exchange(fd_, -1);
}

void FileLock::adopt(int fd)
{
	release();
	fd_ = fd;
	(void) fstat(fd, &found_); // can't fail: the file is open
}

static int set_lock(int fd, short type)
{
	struct flock lock = {};
	lock.l_type = type;
	lock.l_whence = SEEK_SET;
	return fcntl(fd, F_OFD_SETLK, &lock) == 0 ? 0 : errno;
}

// EAGAIN: another update has it. A file system without locks gives success.
int FileLock::try_to_lock() const
{
	int error = set_lock(fd_, F_WRLCK);
	return error == EAGAIN || error == EACCES || error == EINTR ? EAGAIN : 0;
}

void FileLock::release()
{
	if (fd_ < 0)
		return;
	(void) set_lock(fd_, F_UNLCK);
	(void) close(fd_); // what was written is synced already
	fd_ = -1;
}

// ---- The file that it lies on ----

// Usually the file isn't there. If it is, its kind is checked before it is opened: the open alone may act on a device.
int FileLock::open_or_make(const char *path)
{
	static constexpr int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
	found_ = {};
	fd_ = open(path, flags | O_CREAT | O_EXCL, unused_mode);
	if (fd_ >= 0 || errno != EEXIST)
		return fd_ >= 0 ? 0 : errno;
	if (lstat(path, &found_) != 0)
		return errno == ENOENT ? ESTALE : errno;
	if (!S_ISREG(found_.st_mode))
		return S_ISDIR(found_.st_mode) ? EISDIR : EINVAL;
	fd_ = open(path, flags);
	if (fd_ >= 0)
		return 0;
	return errno == ENOENT ? ESTALE : errno == ELOOP || errno == ENXIO || errno == ENODEV ? EINVAL : errno;
}

// Finds the file's status. ESTALE: the path leads to another file by now, or to none.
int FileLock::find_file(const char *path)
{
	struct stat there;
	if (fstat(fd_, &found_) != 0)
		return errno;
	if (lstat(path, &there) != 0)
		return errno == ENOENT ? ESTALE : errno;
	return ostrel_same_file(there, found_) ? 0 : ESTALE;
}

// Another user's file keeps its owner, who can then write to the database. So it is used only in a directory where nobody but
// root, this user or `system` could put it.
int FileLock::check(const char *path, uid_t system) const
{
	if (!S_ISREG(found_.st_mode) || found_.st_nlink != 1)
		return EINVAL;
	const uid_t self = geteuid();
	if (found_.st_uid == self || (found_.st_uid == system && system != 0))
		return 0;
	Fd directory(meridon_open_parent(path, O_PATH));
	struct stat status;
	if (!directory || fstat(directory.get(), &status) != 0)
		return errno;
	const bool trusted = status.st_uid == 0 || status.st_uid == self || status.st_uid == system;
	return trusted && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 ? 0 : EACCES;
}

// ---- Taking it ----

int FileLock::take(const char *path, uid_t system)
{
	for (Patience patience;;) {
		release();
		int error = open_or_make(path);
		const bool forbidden = fd_ < 0 && error == EACCES;
		while (error == 0) {
			const bool held = try_to_lock() == EAGAIN;
			error = find_file(path);
			if (error != 0 || !held)
				break;
			if (!patience.wait())
				return ETIMEDOUT;
		}
		if (error == 0)
			return check(path, system);
		if (forbidden && S_ISREG(found_.st_mode) && patience.sees_change(found_) && patience.wait())
			continue;
		if (error != ESTALE)
			return error;
		if (!patience.lasts())
			return ETIMEDOUT;
	}
}
