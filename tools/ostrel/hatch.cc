#include "hatch.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include <fmt/format.h>
#include <meridon/hatch.h>

#include "base/guards.h"
#include "base/hatch_client.h"
#include "shared/rights.h"

namespace {

std::optional<pid_t> server_of(int fd)
{
	hatch_info_t info;
	if (!is_living_hatch(fd, &info))
		return std::nullopt;
	return info.di_target;
}

// Opens it as the library does, but doesn't wait at a FIFO.
Fd open_hatch(const std::string &path)
{
	return Fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
}

} // namespace

std::optional<pid_t> hatch_server(const std::string &path)
{
	Fd hatch = open_hatch(path);
	return hatch.get() < 0 ? std::nullopt : server_of(hatch.get());
}

std::optional<Failure> hatch_unreachable(const std::string &path)
{
	Fd hatch = open_hatch(path);
	int error = errno;
	if (hatch.get() < 0 && (error == ENOENT || error == ENOTDIR))
		return Failure(Exit::no_connection, "no server is there: the path doesn't exist")
		    .next(fmt::format("start the server: ostrel serve DB {}", path));
	if (hatch.get() < 0 && (error == EACCES || error == EPERM))
		return Failure(Exit::permission, "the path can't be opened: permission denied")
		    .next(fmt::format("a hatch is called by those who may read its path: ls -ld {}", path));
	if (hatch.get() < 0)
		return Failure(Exit::no_connection, fmt::format("the path can't be opened: {}", std::strerror(error)));
	if (server_of(hatch.get()))
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
