// Divisions: what is there, the place, the temporary file.
#include "file_place.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <fmt/format.h>

namespace {

std::string parent_of(const std::string &path)
{
	size_t slash = path.rfind('/');
	if (slash == std::string::npos)
		return ".";
	return slash == 0 ? "/" : path.substr(0, slash);
}

// ---- What is there ----

constexpr struct {
	mode_t kind;
	const char *word;
} file_kinds[] = {{S_IFDIR, "a directory"}, {S_IFIFO, "a FIFO"}, {S_IFSOCK, "a socket"}, {S_IFCHR, "a device"},
    {S_IFBLK, "a device"}};

// The word for what isn't a regular file; NULL for one that is.
const char *special_kind(const struct stat &status)
{
	for (const auto &row : file_kinds)
		if ((status.st_mode & S_IFMT) == row.kind)
			return row.word;
	return nullptr;
}

Failure reason(Exit code, std::string message, const std::string &hint)
{
	return Failure(code, std::move(message)).next(hint);
}

// Where a link leads; nothing if it's no link.
std::optional<std::string> link_target(const std::string &path)
{
	char target[4096];
	ssize_t length = readlink(path.c_str(), target, sizeof(target));
	if (length < 0)
		return std::nullopt;
	return std::string(target, static_cast<size_t>(length));
}

bool holds_no_files(const std::string &directory)
{
	struct statfs fs;
	return statfs(directory.c_str(), &fs) == 0 && (fs.f_type == PROC_SUPER_MAGIC || fs.f_type == SYSFS_MAGIC);
}

// Whether an attribute of a file, as statx() has it, is set.
bool has_attribute(const std::string &path, uint64_t attribute)
{
	struct statx facts;
	return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE, &facts) == 0 &&
	       (facts.stx_attributes & attribute) != 0;
}

Failure why_missing(const std::string &path)
{
	struct stat status;
	if (std::optional<std::string> target = link_target(path))
		return reason(Exit::not_found, fmt::format("is a link to {}, which doesn't exist", *target),
		    "repair or remove the link");
	if (stat(parent_of(path).c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
		return reason(
		    Exit::not_found, fmt::format("there is no directory {}", parent_of(path)), "make the directory");
	if (holds_no_files(parent_of(path)))
		return reason(
		    Exit::not_found, "there is no such file", "give another path: no database can be made there");
	return reason(Exit::not_found, "there is no such file",
	    "ostrel put or ostrel import makes a database where there is none");
}

// Whether there is no room for what an update of the file would make: the whole of it once more.
bool disk_is_full(const std::string &path)
{
	constexpr uint64_t margin = 64 << 10;
	struct statvfs fs;
	struct stat status;
	if (statvfs(parent_of(path).c_str(), &fs) != 0)
		return false;
	const uint64_t needed = margin + (stat(path.c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0);
	return fs.f_bavail * fs.f_frsize < needed || (fs.f_files > 0 && fs.f_favail == 0);
}

} // namespace

std::optional<Failure> why_path_fails(const std::string &path, ostrel_error_t result)
{
	struct stat status;
	int found = stat(path.c_str(), &status);
	if (result == OSTREL_NO_MEMORY && disk_is_full(path))
		return reason(Exit::memory, "there is no space left on the file system", "make room, and try again");
	if (found != 0 && (errno == ENOENT || errno == ENOTDIR))
		return result == OSTREL_NOT_FOUND ? std::optional(why_missing(path)) : std::nullopt;
	if (found != 0)
		return reason(exit_of(result), std::strerror(errno), "give another path");
	if (S_ISDIR(status.st_mode))
		return reason(Exit::invalid, "is a directory, not a database file", "give the path of a file");
	if (result == OSTREL_EPERM)
		return reason(Exit::permission, "permission denied",
		    fmt::format(
			"look at the rights with ls -ld {} {}; updates also need the right to write to the directory",
			path, parent_of(path)));
	return std::nullopt;
}

// ---- The place ----

std::optional<Failure> why_place_fails(const std::string &path)
{
	const std::string directory = parent_of(path);
	struct statvfs fs;
	if (has_attribute(path, STATX_ATTR_MOUNT_ROOT))
		return reason(Exit::invalid, "is mounted there by itself, and an update would have to replace it",
		    "update the file that is mounted, where it lies, or mount the directory around it instead");
	if (holds_no_files(directory))
		return reason(Exit::invalid, fmt::format("{} is the kernel's, and takes no files", directory),
		    "give a path in a file system on a disk or in memory");
	if (statvfs(directory.c_str(), &fs) == 0 && (fs.f_flag & ST_RDONLY) != 0)
		return reason(Exit::failure, "the file system is read-only",
		    fmt::format("mount it writable, if that is meant: findmnt -T {}", directory));
	for (const std::string &marked : {path, directory})
		if (has_attribute(marked, STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND))
			return reason(Exit::permission, fmt::format("{} is marked as not to be changed", marked),
			    fmt::format("lsattr -d {0} shows the mark; chattr -ia {0} takes it away", marked));
	return std::nullopt;
}

std::optional<Failure> why_not_regular(const std::string &path)
{
	struct stat status;
	if (const char *kind = stat(path.c_str(), &status) == 0 ? special_kind(status) : nullptr)
		return reason(Exit::invalid, fmt::format("is {}, which can't be updated", kind),
		    "give the path of a regular file, or of one that doesn't exist yet");
	if (std::optional<std::string> target = link_target(path))
		return reason(Exit::invalid,
		    fmt::format("is a link to {}: an update would replace the link, not that file", *target),
		    "give the path of the file itself");
	return std::nullopt;
}

// ---- The temporary file ----

bool library_keeps_owner(const std::string &path)
{
	const std::string temporary = temporary_of(path);
	if (temporary.size() > OSTREL_DB_NAME_MAX)
		return false;
	const auto is_own = [](const struct stat &file) {
		return file.st_uid == geteuid() && file.st_gid == getegid();
	};
	struct stat status;
	if (lstat(temporary.c_str(), &status) == 0) // its owner and mode may count, or it is in the way
		return false;
	if (stat(path.c_str(), &status) != 0)
		return errno == ENOENT;
	if (!is_own(status) || (status.st_mode & 07777) != 0644)
		return false;
	return stat(parent_of(path).c_str(), &status) == 0 &&
	       ((status.st_mode & S_ISGID) == 0 || status.st_gid == getegid());
}

std::optional<Failure> why_temporary_fails(const std::string &path, bool is_own_path, int error)
{
	const std::string temporary = temporary_of(path);
	struct stat status;
	const bool found = is_own_path && lstat(temporary.c_str(), &status) == 0;
	if (temporary.size() > OSTREL_DB_NAME_MAX)
		return Failure(Exit::invalid, "the path is too long for the name of a temporary file beside it");
	if (error == ETIMEDOUT)
		return reason(Exit::deferred, fmt::format("another update holds {}", temporary),
		    "run the command again; lslocks -u shows who holds it");
	if (found && (!S_ISREG(status.st_mode) || status.st_nlink != 1))
		return reason(Exit::invalid, fmt::format("{} is in the way: it isn't a plain file", temporary),
		    "move it away: updates are made under this name");
	if (found && error == EACCES && status.st_uid != geteuid())
		return reason(Exit::permission,
		    fmt::format(
			"{} belongs to user {}, who would keep a hold of the database", temporary, status.st_uid),
		    "remove it, if no update runs, and look at who may write to the directory");
	return std::nullopt;
}
