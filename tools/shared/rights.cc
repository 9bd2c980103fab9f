#include "rights.h"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>

#include <fmt/format.h>

namespace {

constexpr off_t size_max = 1 << 20;

std::string fault_of(const struct stat &status, uid_t server)
{
	if (!S_ISREG(status.st_mode))
		return S_ISLNK(status.st_mode) ? "it is a link" : "it isn't a regular file";
	if (status.st_uid != 0 && status.st_uid != server)
		return fmt::format("it belongs to user {}; chown it to root", status.st_uid);
	if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
		return fmt::format("others may write it (mode {:04o}); chmod go-w", status.st_mode & 07777);
	return status.st_size > size_max ? "it is larger than 1 MiB" : "";
}

} // namespace

std::string rights_fault(uid_t server)
{
	const char *root = secure_getenv("MERIDON_ROOT");
	const std::string path = std::string(root == nullptr ? "" : root) + "/etc/meridon/rights";
	struct stat status;
	if (lstat(path.c_str(), &status) != 0)
		return errno == ENOENT ? fmt::format(": there is no {}, so root alone holds any", path) : "";
	const std::string fault = fault_of(status, server);
	return fault.empty() ? "" : fmt::format(": {} doesn't count, so root alone holds any: {}", path, fault);
}
