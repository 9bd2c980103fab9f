// The state of a hatch, as the platform tells it.
#include "hatch.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <meridon/hatch.h>

#include "base/hatch_client.h"
#include "shared/rights.h"

namespace {

class Descriptor {
public:
	explicit Descriptor(int fd) : fd_(fd) {}
	~Descriptor()
	{
		if (fd_ >= 0)
			(void) close(fd_); // nothing was written through it
	}
	Descriptor(const Descriptor &) = delete;
	Descriptor &operator=(const Descriptor &) = delete;
	int get() const { return fd_; }

private:
	int fd_;
};

std::optional<pid_t> server_behind(int fd)
{
	hatch_info_t info;
	if (!is_living_hatch(fd, &info))
		return std::nullopt;
	return info.di_target;
}

// As the library opens a hatch, but for a FIFO, at which the tool would wait.
Descriptor open_hatch(const std::string &path)
{
	return Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
}

} // namespace

std::optional<pid_t> hatch_server(const std::string &path)
{
	Descriptor hatch = open_hatch(path);
	return hatch.get() < 0 ? std::nullopt : server_behind(hatch.get());
}

std::optional<Failure> hatch_unreachable(const std::string &path)
{
	Descriptor hatch = open_hatch(path);
	int error = errno;
	if (hatch.get() < 0 && (error == ENOENT || error == ENOTDIR))
		return Failure(Exit::no_connection, "no server is there: the path doesn't exist")
		    .next(fmt::format("start the server: ostrel serve DB {}", path));
	if (hatch.get() < 0 && (error == EACCES || error == EPERM))
		return Failure(Exit::permission, "the path can't be opened: permission denied")
		    .next(fmt::format("a hatch is called by those who may read its path: ls -ld {}", path));
	if (hatch.get() < 0)
		return Failure(Exit::no_connection, fmt::format("the path can't be opened: {}", std::strerror(error)));
	if (server_behind(hatch.get()))
		return std::nullopt;
	struct stat status;
	if (fstat(hatch.get(), &status) == 0 && (!S_ISREG(status.st_mode) || status.st_size > 256))
		return Failure(Exit::no_connection, "this isn't a hatch")
		    .next(fmt::format("a database file is written file:{}", path));
	return Failure(Exit::no_connection, "no server answers: it has ended, or hasn't begun")
	    .next(fmt::format("start the server: ostrel serve DB {}", path));
}

std::string rights_fault_at(const std::string &path)
{
	const std::optional<pid_t> server = hatch_server(path);
	struct stat process;
	const bool seen = server && *server != 0 && stat(fmt::format("/proc/{}", *server).c_str(), &process) == 0;
	return rights_fault(seen ? process.st_uid : 0);
}
