// The new file of an update, from its opening to the rename.
//
// What is on the disk at each point, if the machine stops there:
//   before the sync of the file   the old database; the temporary file holds anything
//   before the rename             the old database; the temporary file is whole
//   after it                      the old database or the new one: the directory may not have been written
//   after the sync of the directory   the new one
// The update is reported as done at the last point alone. If only the last step fails, the caller hears of a failure though the new
// file stands: then nobody can tell what a restart will find.
//
// A temporary file that a failed or killed update leaves is no database and in nobody's way: it is the lock of this database, and
// the next update empties it. It is removed only if nothing was written to it and it was made for this update.
#include "libostrel_files_newfile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "base/directory.h"
#include "libostrel_zio.h"

static constexpr size_t buffer_size = 131072;
static constexpr size_t small_buffer_size = 8192;

// The directory of a path, open for a sync. A directory that this user may write but not read can't be opened: then the whole
// file system is synced, through a file in it.
class DirectorySync {
public:
	int open(const char *path)
	{
		char directory[1024];
		const char *slash = strrchr(path, '/');
		size_t length = slash == nullptr ? 0 : static_cast<size_t>(slash - path);
		if (length >= sizeof(directory))
			return ENAMETOOLONG;
		memcpy(directory, path, length);
		directory[length] = '\0';
		const char *name = slash == nullptr ? "." : length == 0 ? "/" : directory;
		fd_.reset(::open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
		return fd_ || errno == EACCES ? 0 : errno;
	}
	int sync(int file_in_it) const
	{
		if (fd_)
			return meridon_sync_dir(fd_.get());
		return file_in_it < 0 || syncfs(file_in_it) == 0 ? 0 : errno;
	}

private:
	Fd fd_;
};

// Occupies those of the descriptors 0, 1 and 2 that the process has closed. A new file with such a number would also receive
// what other code writes to its standard error.
class StandardNumbers {
public:
	StandardNumbers()
	{
		for (int fd = 0; fd < 3; fd++)
			if (fcntl(fd, F_GETFD) == -1)
				held_[fd].reset(::open("/", O_PATH | O_CLOEXEC)); // not writable
	}

private:
	Fd held_[3];
};

int NewFile::lock(enclaveid_t enclave, const char *path)
{
	static constexpr char suffix[] = ".new";
	path_ = path;
	enclave_ = getenclaveid() == 0 ? enclave : 0;
	size_t length = strlen(path);
	if (length + sizeof(suffix) > sizeof(temporary_))
		return EINVAL;
	memcpy(temporary_, path, length);
	memcpy(temporary_ + length, suffix, sizeof(suffix));
	StandardNumbers taken;
	return enclave_ == 0 ? lock_.take(temporary_) : ostrel_zlock(temporary_, path, enclave_, &lock_, &database_);
}

NewFile::~NewFile()
{
	if (!begun_ && lock_.is_unused())
		discard();
}

void NewFile::discard() const
{
	if (lock_.fd() >= 0)
		(void) (enclave_ == 0 ? unlink(temporary_) : ostrel_zunlink(temporary_, enclave_));
}

int NewFile::find_database(struct stat *status, bool *exists) const
{
	*exists = enclave_ == 0 || database_;
	if (!*exists || (enclave_ == 0 ? stat(path_, status) : fstat(database_.get(), status)) == 0)
		return 0;
	*exists = false;
	return errno == ENOENT ? 0 : errno;
}

int NewFile::set_owner_and_mode(const struct stat *like) const
{
	static constexpr mode_t permissions = 07777;
	if (like == nullptr) {
		const bool keeps = enclave_ != 0 && !lock_.is_unused();
		return keeps || fchmod(lock_.fd(), 0644) == 0 ? 0 : errno;
	}
	// The owner first: a change of it takes bits from the mode.
	struct stat now;
	if (fstat(lock_.fd(), &now) != 0)
		return errno;
	if ((now.st_uid != like->st_uid || now.st_gid != like->st_gid) &&
	    fchown(lock_.fd(), like->st_uid, like->st_gid) != 0)
		return errno;
	return fchmod(lock_.fd(), like->st_mode & permissions) == 0 ? 0 : errno;
}

int NewFile::begin(size_t expected, const struct stat *like)
{
	// A short file leaves in one write.
	room_ = expected < buffer_size - small_buffer_size ? expected + small_buffer_size : buffer_size;
	buffer_.reset(static_cast<char *>(malloc(room_)));
	if (!buffer_)
		return ENOMEM;
	if (lock_.found().st_size != 0 && ftruncate(lock_.fd(), 0) != 0)
		return errno;
	if (int error = set_owner_and_mode(like))
		return error;
	begun_ = true;
	return 0;
}

int NewFile::write_all(const char *text, size_t length)
{
	while (length > 0) {
		ssize_t written = write(lock_.fd(), text, length);
		if (written < 0 && errno == EINTR)
			continue;
		if (written < 0)
			return errno;
		if (written == 0)
			return EIO;
		text += written;
		length -= static_cast<size_t>(written);
	}
	return 0;
}

int NewFile::flush()
{
	int error = write_all(buffer_.get(), used_);
	used_ = 0;
	return error;
}

int NewFile::append(const char *text, size_t length)
{
	while (length > 0) {
		if (used_ == room_) {
			if (int error = flush())
				return error;
		}
		size_t part = length < room_ - used_ ? length : room_ - used_;
		memcpy(buffer_.get() + used_, text, part);
		used_ += part;
		text += part;
		length -= part;
	}
	return 0;
}

// The old file is only ever replaced, so it is as long as when it was measured; another program may have cut it all the same.
int NewFile::copy(int from, off_t begin, off_t end)
{
	while (begin < end) {
		if (used_ == room_) {
			if (int error = flush())
				return error;
		}
		size_t left = static_cast<size_t>(end - begin);
		size_t part = left < room_ - used_ ? left : room_ - used_;
		ssize_t got = pread(from, buffer_.get() + used_, part, begin);
		if (got < 0 && errno == EINTR)
			continue;
		if (got <= 0)
			return got < 0 ? errno : EIO;
		used_ += static_cast<size_t>(got);
		begin += got;
	}
	return 0;
}

int NewFile::put_in_place()
{
	if (enclave_ != 0)
		return ostrel_zrename(temporary_, path_, enclave_);
	// Opened before the rename, so that what can fail fails while the old file stands.
	DirectorySync directory;
	if (int error = directory.open(temporary_))
		return error;
	if (rename(temporary_, path_) != 0)
		return errno;
	return directory.sync(lock_.fd());
}

// The rename happens under the lock: the next update finds the new file. The close can't fail any more: all is on the disk.
int NewFile::commit()
{
	if (int error = flush())
		return error;
	if (fsync(lock_.fd()) != 0)
		return errno;
	int error = put_in_place();
	lock_.release();
	return error;
}

int NewFile::remove_database()
{
	if (enclave_ != 0)
		return ostrel_zunlink(path_, enclave_);
	DirectorySync directory;
	if (int error = directory.open(path_))
		return error;
	if (unlink(path_) != 0)
		return errno;
	return directory.sync(lock_.fd());
}
