// The new file of an update, from its opening to the rename.
#include "libostrel_newfile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "base/directory.h"

static constexpr size_t buffer_size = 131072;
static constexpr size_t small_buffer_size = 8192;

// The directory of a path, open for a sync. A directory that may be written but not read can't be opened: then it is
// `stand_in`, a file of the same file system, of which all is synced.
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
	bool needs_stand_in() const { return !fd_; }
	void stand_in(Fd file)
	{
		fd_ = std::move(file);
		whole_ = true;
	}
	int sync() const
	{
		if (!whole_)
			return meridon_sync_dir(fd_.get());
		return syncfs(fd_.get()) == 0 ? 0 : errno;
	}

private:
	Fd fd_;
	bool whole_ = false;
};

// What the open says of things that aren't regular files: a link, a socket, a device that isn't there.
static int refusal(int error)
{
	return error == ELOOP || error == ENXIO || error == ENODEV ? EINVAL : error;
}

ostrel_error_t NewFile::open(ostrel_db_t db, const char *path, size_t expected)
{
	static constexpr char suffix[] = ".new";
	size_t length = strlen(path);
	if (length + sizeof(suffix) > sizeof(temporary_))
		return SETERROR(OSTREL_INVALID_ARG);
	memcpy(temporary_, path, length);
	memcpy(temporary_ + length, suffix, sizeof(suffix));
	path_ = path;
	enclave_ = getenclaveid() == 0 ? ostrel_db_get_enclaveid(db) : 0;
	used_ = 0;
	room_ = expected < buffer_size - small_buffer_size ? expected + small_buffer_size : buffer_size;
	buffer_.reset(static_cast<char *>(malloc(room_)));
	if (!buffer_)
		return SETERROR(OSTREL_NO_MEMORY);
	return open_temporary();
}

// Takes those of the numbers 0, 1 and 2 that the process has closed: a new file that got one of them would get the
// messages, too, that somebody writes to his standard error meanwhile.
class StandardNumbers {
public:
	StandardNumbers()
	{
		for (int fd = 0; fd < 3; fd++)
			if (fcntl(fd, F_GETFD) == -1)
				held_[fd].reset(::open("/", O_PATH | O_CLOEXEC)); // can't be written to
	}

private:
	Fd held_[3];
};

// Without O_TRUNC: what is there is looked at first, and emptied only if it is ours.
ostrel_error_t NewFile::open_temporary()
{
	static constexpr int flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
	StandardNumbers taken;
	int error = 0;
	if (enclave_ == 0) {
		fd_.reset(::open(temporary_, flags, 0644));
		error = errno;
	} else {
		fd_.reset(ostrel_zopen(temporary_, flags, 0644, enclave_, &error));
	}
	if (!fd_)
		return SETERRNO(refusal(error));
	struct stat found;
	if (fstat(fd_.get(), &found) != 0)
		return SETERRNO(errno);
	if (!S_ISREG(found.st_mode) || found.st_nlink != 1)
		return SETERROR(OSTREL_INVALID_ARG);
	if (found.st_size != 0 && ftruncate(fd_.get(), 0) != 0)
		return SETERRNO(errno);
	if (enclave_ == 0 && fchmod(fd_.get(), 0644) != 0)
		return SETERRNO(errno);
	return OSTREL_SUCCESS;
}

int NewFile::write_all(const char *text, size_t length)
{
	while (length > 0) {
		ssize_t written = write(fd_.get(), text, length);
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

ostrel_error_t NewFile::append(const char *text, size_t length)
{
	while (length > 0) {
		if (used_ == room_) {
			if (int error = flush())
				return SETERRNO(error);
		}
		size_t part = length < room_ - used_ ? length : room_ - used_;
		memcpy(buffer_.get() + used_, text, part);
		used_ += part;
		text += part;
		length -= part;
	}
	return OSTREL_SUCCESS;
}

ostrel_error_t NewFile::copy(int from, off_t begin, off_t end)
{
	while (begin < end) {
		if (used_ == room_) {
			if (int error = flush())
				return SETERRNO(error);
		}
		size_t left = static_cast<size_t>(end - begin);
		size_t part = left < room_ - used_ ? left : room_ - used_;
		ssize_t got = pread(from, buffer_.get() + used_, part, begin);
		if (got < 0 && errno == EINTR)
			continue;
		if (got <= 0)
			return SETERRNO(got < 0 ? errno : EIO);
		used_ += static_cast<size_t>(got);
		begin += got;
	}
	return OSTREL_SUCCESS;
}

int NewFile::put_in_place()
{
	if (enclave_ != 0) {
		if (close(fd_.release()) != 0)
			return errno;
		return ostrel_zrename(temporary_, path_, enclave_);
	}
	// Opened before the rename, so that what can fail fails while the old file stands.
	DirectorySync directory;
	if (int error = directory.open(temporary_))
		return error;
	if (directory.needs_stand_in()) {
		Fd same(fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0));
		if (!same)
			return errno;
		directory.stand_in(std::move(same));
	}
	if (close(fd_.release()) != 0)
		return errno;
	if (rename(temporary_, path_) != 0)
		return errno;
	return directory.sync();
}

ostrel_error_t NewFile::commit()
{
	if (int error = flush())
		return SETERRNO(error);
	if (fsync(fd_.get()) != 0)
		return SETERRNO(errno);
	int error = put_in_place();
	return error == 0 ? OSTREL_SUCCESS : SETERRNO(error);
}

int ostrel_unlink_durably(const char *path)
{
	DirectorySync directory;
	if (int error = directory.open(path))
		return error;
	if (unlink(path) != 0)
		return errno;
	return directory.needs_stand_in() ? 0 : directory.sync();
}
