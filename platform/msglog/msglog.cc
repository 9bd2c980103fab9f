// The message device. The kernel's own log stands in where the system has no such device.
#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include <meridon/msglog.h>

#include "base/files.h"

static constexpr int open_flags = O_WRONLY | O_CLOEXEC | O_NOCTTY;

int msglog_open(void)
{
	char path[PATH_MAX];
	if (int error = meridon_path("dev/msglog", path)) {
		errno = error;
		return -1;
	}
	int fd = open(path, open_flags);
	if (fd < 0 && errno == ENOENT && strcmp(path, "/dev/msglog") == 0)
		fd = open("/dev/kmsg", open_flags);
	return fd;
}
