// Connecting trusts nothing on the way: no link is followed out of the directory in which the attached file lies, and the
// file must be there under one name only. Otherwise somebody could copy or link a record into a directory of their own, and
// it would lead to their socket.
#include "hatch/connect.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "hatch/wire.h"

namespace hatch {
namespace {

// Callers read most errno values as something about an object of theirs. So a server that can't be reached is EBADF.
int connect_error(int error)
{
	switch (error) {
	case EINTR:
	case ENOMEM:
	case EMFILE:
	case ENFILE:
	case EAGAIN:
		return error;
	case ENOBUFS:
		return ENOMEM;
	default:
		return EBADF;
	}
}

// Opens the directory of the file that `fd` stands for; *name is the file's name in it.
int open_directory(int fd, char (&path)[PATH_MAX], const char **name, Fd *directory)
{
	char link[48];
	(void) snprintf(link, sizeof link, "/proc/thread-self/fd/%d", fd);
	ssize_t len = readlink(link, path, sizeof path - 1);
	if (len == -1)
		return errno;
	path[len] = '\0';
	char *slash = strrchr(path, '/');
	if (slash == nullptr || *path != '/')
		return EBADF;
	*name = slash + 1;
	*slash = '\0';
	directory->reset(open(slash == path ? "/" : path, O_PATH | O_DIRECTORY | O_CLOEXEC));
	return *directory ? 0 : errno;
}

bool lies_in(const Attachment &attachment, int directory, const char *name)
{
	struct stat st;
	if (fstatat(directory, name, &st, AT_SYMLINK_NOFOLLOW) == -1)
		return false;
	return st.st_dev == attachment.device && st.st_ino == attachment.inode && st.st_nlink == 1;
}

int open_socket_file(int directory, const Id &id, Fd *out)
{
	out->reset(openat(directory, socket_name(id).text, O_PATH | O_NOFOLLOW | O_CLOEXEC));
	if (!*out)
		return errno;
	struct stat st;
	if (fstat(out->get(), &st) == -1)
		return errno;
	return S_ISSOCK(st.st_mode) ? 0 : EBADF;
}

// To the kernel a connection's maker is the effective user, and a message's sender the real one; a server refuses messages from
// others than the maker, unless the maker is root. So a thread with two users connects as the real one, and only if it is
// sure to get the effective one back. The system calls change this thread alone.
class RealUser {
public:
	RealUser()
	{
		uid_t real, saved;
		if (getresuid(&real, &effective_, &saved) == -1 || real == effective_ || effective_ == 0 ||
		    saved != effective_)
			return;
		capabilities_known_ = syscall(SYS_capget, &head_, capabilities_) == 0;
		changed_ = syscall(SYS_setresuid, -1, real, -1) == 0;
	}
	~RealUser()
	{
		if (!changed_)
			return;
		if (syscall(SYS_setresuid, -1, effective_, -1) == -1)
			abort(); // it must not go on as somebody else
		if (capabilities_known_)
			(void) syscall(SYS_capset, &head_, capabilities_); // a thread may set what it had
	}
	RealUser(const RealUser &) = delete;
	RealUser &operator=(const RealUser &) = delete;

private:
	uid_t effective_ = 0;
	bool changed_ = false;
	bool capabilities_known_ = false;
	__user_cap_header_struct head_ = {_LINUX_CAPABILITY_VERSION_3, 0};
	__user_cap_data_struct capabilities_[_LINUX_CAPABILITY_U32S_3] = {};
};

int connect_file(int file, int seconds, Fd *out)
{
	Fd socket_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | (seconds == not_at_all ? SOCK_NONBLOCK : 0), 0));
	if (!socket_fd)
		return errno;
	refuse_descriptors(socket_fd.get());
	const timeval wait = {seconds, 0};
	if (seconds > 0 && setsockopt(socket_fd.get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait) == -1)
		return errno;
	struct sockaddr_un address = {};
	address.sun_family = AF_UNIX;
	(void) snprintf(address.sun_path, sizeof address.sun_path, "/proc/thread-self/fd/%d", file);
	const RealUser maker;
	if (connect(socket_fd.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof address) == -1)
		return errno;
	if (seconds == not_at_all && fcntl(socket_fd.get(), F_SETFL, 0) == -1)
		return errno;
	*out = std::move(socket_fd);
	return 0;
}

pid_t server_of(int socket_fd)
{
	struct ucred ids = {};
	socklen_t len = sizeof ids;
	if (getsockopt(socket_fd, SOL_SOCKET, SO_PEERCRED, &ids, &len) == -1 || ids.pid < 0)
		return 0;
	return ids.pid;
}

} // namespace

int connect_to_server(int fd, const Attachment &attachment, int seconds, Fd *out, pid_t *server)
{
	char path[PATH_MAX];
	const char *name = "";
	Fd directory, file;
	Id id;
	if (!read_record(fd, &id) || mark_of(id) != attachment.mark)
		return EBADF;
	if (int error = open_directory(fd, path, &name, &directory))
		return connect_error(error);
	if (!lies_in(attachment, directory.get(), name))
		return EBADF;
	if (int error = open_socket_file(directory.get(), id, &file))
		return connect_error(error);
	if (int error = connect_file(file.get(), seconds, out))
		return connect_error(error);
	*server = server_of(out->get());
	return 0;
}

} // namespace hatch
