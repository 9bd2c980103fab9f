// The directory of the undo records. Divisions: opening; locks; records; what is kept beside them; the guard.
#include "pending.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>

#include "base/clock.h"
#include "base/directory.h"
#include "base/files.h"

// ---- Opening ----

namespace {

constexpr const char *rolling = ".rolling";
constexpr const char *new_record = "record.new"; // one at a time, under the lock; a left-over is written again
constexpr size_t id_length = 8;
constexpr int64_t lock_wait_ns = 60 * second_ns;
constexpr time_t rolled_back_kept = 86400;

ostrel_error_t result_of(int error)
{
	switch (error) {
	case 0:
		return OSTREL_SUCCESS;
	case ENOENT:
		return OSTREL_NOT_FOUND;
	case ELOOP: // a symbolic link where none may be, or of a directory
	case ENOTDIR:
	case EPERM:
	case EACCES:
		return OSTREL_EPERM;
	case ENOMEM:
	case ENOSPC:
	case EDQUOT:
		return OSTREL_NO_MEMORY;
	default:
		return OSTREL_FAILURE;
	}
}

// Root's is below /var/lib, another user's where its state is kept.
int base_path(char (&path)[PATH_MAX])
{
	if (geteuid() == 0)
		return meridon_path("var/lib/ostrel", path);
	const char *state = secure_getenv("XDG_STATE_HOME");
	const char *home = secure_getenv("HOME");
	const bool has_state = state != nullptr && state[0] == '/';
	if (!has_state && (home == nullptr || home[0] != '/'))
		return ENOENT;
	const int length =
	    snprintf(path, sizeof path, "%s%s/ostrel", has_state ? state : home, has_state ? "" : "/.local/state");
	return length < 0 || static_cast<size_t>(length) >= sizeof path ? ENAMETOOLONG : 0;
}

// As mkdir -p: each step that is missing, the last one included.
int make_path(char (&path)[PATH_MAX])
{
	const mode_t mode = geteuid() == 0 ? 0755 : 0700;
	for (char *slash = strchr(path + 1, '/');; slash = strchr(slash + 1, '/')) {
		if (slash != nullptr)
			*slash = '\0';
		const int error = mkdir(path, mode) == 0 || errno == EEXIST ? 0 : errno;
		if (slash == nullptr || error != 0)
			return error;
		*slash = '/';
	}
}

// Whether a directory is this user's, or root's, and lets nobody else do what `closed` names.
bool is_safe(int fd, mode_t closed, bool may_be_root)
{
	struct stat status;
	return fstat(fd, &status) == 0 && (status.st_mode & closed) == 0 &&
	       (status.st_uid == geteuid() || (may_be_root && status.st_uid == 0));
}

} // namespace

bool undo_is_id(const char *text)
{
	return text != nullptr && strlen(text) == id_length && strspn(text, "0123456789abcdef") == id_length;
}

ostrelx_error_t PendingDirectory::open(bool make)
{
	char path[PATH_MAX];
	int error = base_path(path);
	if (error == 0 && make)
		error = make_path(path);
	if (error != 0)
		return result_of(error);
	base_.reset(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	if (!base_)
		return result_of(errno);
	if (!is_safe(base_.get(), S_IWGRP | S_IWOTH, true))
		return OSTREL_EPERM;
	if (make && mkdirat(base_.get(), "pending", 0700) == 0)
		error = meridon_sync_dir(base_.get());
	if (error != 0)
		return result_of(error);
	records_.reset(openat(base_.get(), "pending", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
	if (!records_)
		return result_of(errno);
	return is_safe(records_.get(), S_IRWXG | S_IRWXO, false) ? OSTREL_SUCCESS : OSTREL_EPERM;
}

// ---- Locks ----

namespace {

// Errors: OSTREL_NEEDS_RETRY  held by another until then
ostrelx_error_t lock_file(int fd, int64_t wait_ns)
{
	const Deadline end = wait_ns == 0 ? Deadline::over() : Deadline::in(wait_ns);
	for (Backoff backoff(millisecond_ns, 50 * millisecond_ns);; backoff.pause()) {
		if (flock(fd, LOCK_EX | LOCK_NB) == 0)
			return OSTREL_SUCCESS;
		if (errno != EWOULDBLOCK && errno != EINTR)
			return OSTREL_FAILURE;
		if (end.has_passed())
			return OSTREL_NEEDS_RETRY;
	}
}

} // namespace

void RecordFile::release()
{
	if (fd_)
		(void) flock(fd_.get(), LOCK_UN); // a close alone doesn't, while a forked child has it open
	fd_.reset();
}

ostrelx_error_t PendingDirectory::lock()
{
	const ostrelx_error_t result = lock_file(records_.get(), lock_wait_ns);
	is_locked_ = result == OSTREL_SUCCESS;
	if (result == OSTREL_NEEDS_RETRY)
		return OSTREL_FAILURE;
	return result;
}

void PendingDirectory::unlock()
{
	if (is_locked_)
		(void) flock(records_.get(), LOCK_UN);
	is_locked_ = false;
}

// ---- Records ----

int PendingDirectory::sync() const
{
	return meridon_sync_dir(records_.get());
}

bool PendingDirectory::leads_to(const char *name, int fd) const
{
	struct stat there;
	struct stat open;
	return fstatat(records_.get(), name, &there, AT_SYMLINK_NOFOLLOW) == 0 && fstat(fd, &open) == 0 &&
	       there.st_dev == open.st_dev && there.st_ino == open.st_ino;
}

ostrelx_error_t PendingDirectory::list(GrowingArray<RecordName> *names) const
{
	names->clear();
	const int fd = openat(records_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	const Handle<DIR, [](DIR *open) { (void) closedir(open); }> directory(fd >= 0 ? fdopendir(fd) : nullptr);
	if (!directory) {
		const int error = errno;
		if (fd >= 0)
			(void) close(fd);
		return result_of(error);
	}
	errno = 0;
	while (const dirent *entry = readdir(directory.get())) {
		if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0)
			continue;
		RecordName name = {};
		(void) snprintf(name.text, sizeof name.text, "%s", entry->d_name);
		if (!names->append(name))
			return OSTREL_NO_MEMORY;
		errno = 0;
	}
	return result_of(errno);
}

ostrelx_error_t PendingDirectory::open_record(const char *name, int64_t wait_ns, RecordFile *file) const
{
	const int fd = openat(records_.get(), name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
	if (fd == -1)
		return result_of(errno);
	RecordFile opened(fd);
	struct stat status;
	if (fstat(fd, &status) != 0)
		return OSTREL_FAILURE;
	if (status.st_nlink == 0)
		return OSTREL_NOT_FOUND;
	if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || status.st_uid != geteuid() ||
	    (status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
		return OSTREL_EPERM;
	if (wait_ns >= 0) {
		if (ostrelx_error_t bad = lock_file(fd, wait_ns))
			return bad;
		if (!leads_to(name, fd)) // it went before the lock came
			return OSTREL_NOT_FOUND;
	}
	*file = std::move(opened);
	return OSTREL_SUCCESS;
}

ostrelx_error_t PendingDirectory::add(const UndoRecord &record, ApplyId &id, RecordFile *file)
{
	uint32_t number;
	struct stat status;
	RecordName other;
	do {
		if (getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number))
			return OSTREL_FAILURE;
		(void) snprintf(id, sizeof id, "%08x", number);
		(void) snprintf(other.text, sizeof other.text, "%s%s", id, rolling);
	} while (fstatat(records_.get(), id, &status, AT_SYMLINK_NOFOLLOW) == 0 ||
		 fstatat(records_.get(), other.text, &status, AT_SYMLINK_NOFOLLOW) == 0);

	(void) unlinkat(base_.get(), new_record, 0); // of one that died
	const int fd = openat(base_.get(), new_record, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
	if (fd == -1)
		return result_of(errno);
	RecordFile made(fd);
	ostrelx_error_t result = lock_file(fd, 0);
	if (result == OSTREL_SUCCESS)
		result = record.write(fd);
	if (result == OSTREL_SUCCESS && renameat(base_.get(), new_record, records_.get(), id) != 0)
		result = result_of(errno);
	if (result != OSTREL_SUCCESS) {
		(void) unlinkat(base_.get(), new_record, 0);
		return result;
	}
	if (int error = sync()) {
		(void) unlinkat(records_.get(), id, 0);
		return result_of(error);
	}
	*file = std::move(made);
	return OSTREL_SUCCESS;
}

ostrelx_error_t PendingDirectory::remove(const char *name) const
{
	if (unlinkat(records_.get(), name, 0) != 0)
		return result_of(errno);
	return sync() == 0 ? OSTREL_SUCCESS : OSTREL_FAILURE;
}

ostrelx_error_t PendingDirectory::begin_rolling(const char *id) const
{
	RecordName other;
	(void) snprintf(other.text, sizeof other.text, "%s%s", id, rolling);
	if (renameat(records_.get(), id, records_.get(), other.text) != 0)
		return result_of(errno);
	(void) sync(); // without it a crash may bring ID back, which the next boot rolls back as well
	return OSTREL_SUCCESS;
}

void PendingDirectory::end_rolling(const char *id) const
{
	RecordName other;
	(void) snprintf(other.text, sizeof other.text, "%s%s", id, rolling);
	(void) renameat(records_.get(), other.text, records_.get(), id); // if it fails the guard goes on with it
}

void PendingDirectory::set_aside(const char *name) const
{
	char aside[NAME_MAX + 1];
	(void) snprintf(aside, sizeof aside, "unusable-%.200s", name);
	(void) renameat(records_.get(), name, base_.get(), aside);
}

// ---- What is kept beside them ----

// Best effort: it only makes a message better.
void PendingDirectory::note_rolled_back(const char *id) const
{
	(void) mkdirat(base_.get(), "rolled-back", 0700);
	const int fd = openat(base_.get(), "rolled-back", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
	const Handle<DIR, [](DIR *open) { (void) closedir(open); }> directory(fd >= 0 ? fdopendir(fd) : nullptr);
	if (!directory) {
		if (fd >= 0)
			(void) close(fd);
		return;
	}
	const time_t now = time(nullptr);
	while (const dirent *entry = readdir(directory.get())) {
		struct stat status;
		if (undo_is_id(entry->d_name) && fstatat(fd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
		    status.st_mtime + rolled_back_kept < now)
			(void) unlinkat(fd, entry->d_name, 0);
	}
	const Fd note(openat(fd, id, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
}

ostrelx_error_t PendingDirectory::rolled_back_at(const char *id, int64_t *when) const
{
	char path[sizeof(ApplyId) + 16];
	struct stat status;
	(void) snprintf(path, sizeof path, "rolled-back/%s", id);
	if (fstatat(base_.get(), path, &status, AT_SYMLINK_NOFOLLOW) != 0)
		return result_of(errno);
	*when = status.st_mtime;
	return OSTREL_SUCCESS;
}

// ---- The guard ----

namespace {

int open_guard(int base)
{
	return openat(base, "guard", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
}

struct flock whole_guard(short type)
{
	struct flock lock = {};
	lock.l_type = type;
	lock.l_whence = SEEK_SET;
	return lock;
}

} // namespace

// A look takes no lock, and so keeps no guard from beginning.
bool PendingDirectory::has_guard() const
{
	const Fd file(open_guard(base_.get()));
	struct flock lock = whole_guard(F_WRLCK);
	return file && fcntl(file.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

ostrelx_error_t PendingDirectory::become_guard()
{
	Fd file(open_guard(base_.get()));
	if (!file)
		return result_of(errno);
	struct flock lock = whole_guard(F_WRLCK);
	if (fcntl(file.get(), F_OFD_SETLK, &lock) != 0)
		return errno == EAGAIN || errno == EACCES ? OSTREL_EXISTS : OSTREL_FAILURE;
	guard_ = std::move(file);
	return OSTREL_SUCCESS;
}

void PendingDirectory::end_guard()
{
	struct flock lock = whole_guard(F_UNLCK);
	if (guard_)
		(void) fcntl(guard_.get(), F_OFD_SETLK, &lock);
	guard_.reset();
}
