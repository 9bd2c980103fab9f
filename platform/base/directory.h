// The directory of a file, to be synced after a change in it. In a header, so that libostrel has it too. System calls
// alone: a forked child may use it.
#ifndef MERIDON_BASE_DIRECTORY_H
#define MERIDON_BASE_DIRECTORY_H

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

// Opens the directory that holds the last component of `path`, for reading or by O_PATH.
// Errors: the descriptor, or -1 with errno.
inline int meridon_open_parent(const char *path, int access = O_RDONLY)
{
	char dir[PATH_MAX];
	const char *slash = strrchr(path, '/');
	if (slash == nullptr)
		return open(".", access | O_DIRECTORY | O_CLOEXEC);
	// The slash stays, so that "/file" gives "/".
	size_t len = static_cast<size_t>(slash - path) + 1;
	if (len >= sizeof dir) {
		errno = ENAMETOOLONG;
		return -1;
	}
	memcpy(dir, path, len);
	dir[len] = '\0';
	return open(dir, access | O_DIRECTORY | O_CLOEXEC);
}

// Makes the entries of a directory durable. A file system that has nothing to sync there isn't an error.
// Errors: 0, or an errno value; never ENOENT or ENOTDIR, which would read as a missing file.
inline int meridon_sync_dir(int fd)
{
	while (fsync(fd) == -1) {
		if (errno == EINVAL || errno == ENOTSUP)
			return 0;
		if (errno != EINTR)
			return errno == ENOENT || errno == ENOTDIR ? EIO : errno;
	}
	return 0;
}

#endif
