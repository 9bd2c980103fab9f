#include "files.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <base/guards.h>
#include <fmt/format.h>

#include "shared/failure.h"

namespace {

constexpr const char *path_hint = "the path, or a directory on it, isn't there, or can hold no files";

constexpr ErrorMeaning error_meanings[] = {
    {EACCES, Exit::permission,
	"look at the rights with ls -ld; what is written is made beside the file first, in its directory"},
    {EPERM, Exit::permission, "the directory, or the file, may be marked as not to be changed: see lsattr -d"},
    {EROFS, Exit::permission, "the file system is read-only: give a path in another one"},
    {EISDIR, Exit::invalid, "give the path of a file"},
    {EBUSY, Exit::failure, "the file is mounted there by itself, and can't be replaced: give another path"},
    {ENOENT, Exit::failure, path_hint},
    {ENOSPC, Exit::failure, "make room, or give a path in another file system"},
    {EDQUOT, Exit::failure, "the quota of its owner is used up"},
    {ENOMEM, Exit::memory, ""},
};

[[noreturn]] void fail_with(int error, const std::string &doing)
{
	throw failure_by_error(error_meanings, error, fmt::format("{}: {}", doing, std::strerror(error)));
}

std::string read_all(int fd, const std::string &name)
{
	std::string text;
	char buffer[64 << 10];
	ssize_t got = 0;
	bool is_text = true; // stops at a NUL: a device of zeros would have no end
	while (is_text && (got = read(fd, buffer, sizeof(buffer))) > 0) {
		text.append(buffer, static_cast<size_t>(got));
		is_text = std::memchr(buffer, 0, static_cast<size_t>(got)) == nullptr;
	}
	if (got == -1)
		fail_with(errno, name);
	return text;
}

void write_all(int fd, std::string_view bytes, const std::string &name)
{
	while (!bytes.empty()) {
		ssize_t written = write(fd, bytes.data(), bytes.size());
		if (written == -1)
			fail_with(errno, name + ": can't be written");
		bytes.remove_prefix(static_cast<size_t>(written));
	}
	if (fsync(fd) == -1)
		fail_with(errno, name + ": can't be synced");
}

// A file beside another one, until it takes that one's place.
struct NewFile {
	explicit NewFile(const std::string &path) : name(path + ".XXXXXX"), file(mkostemp(name.data(), O_CLOEXEC))
	{
		if (!file)
			fail_with(errno, path + ": can't be made");
	}
	NewFile(const NewFile &) = delete;
	NewFile &operator=(const NewFile &) = delete;
	~NewFile()
	{
		if (!name.empty())
			(void) unlink(name.c_str());
	}
	void replace(const std::string &path)
	{
		if (rename(name.c_str(), path.c_str()) == -1)
			fail_with(errno, path + ": can't be put in place");
		name.clear();
	}

	std::string name; // unique, so that a file left by a killed run doesn't matter
	Fd file;
};

void sync_directory_of(const std::string &path)
{
	size_t slash = path.rfind('/');
	std::string directory = slash == path.npos ? "." : path.substr(0, slash + 1);
	const Fd opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	if (!opened || fsync(opened.get()) == -1)
		fail_with(errno, path + ": is in place, but its directory can't be synced");
}

} // namespace

std::string read_file(const std::string &path)
{
	if (path.empty() || path == "-")
		return read_all(STDIN_FILENO, "the standard input");
	const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
	if (!file && (errno == ENOENT || errno == ENOTDIR))
		throw Failure(Exit::not_found, fmt::format("{}: {}", path, std::strerror(errno))).next(path_hint);
	if (!file)
		fail_with(errno, path);
	return read_all(file.get(), path);
}

void write_file(const std::string &path, std::string_view bytes)
{
	struct stat there;
	if (lstat(path.c_str(), &there) == 0 && !S_ISREG(there.st_mode) && !S_ISLNK(there.st_mode))
		throw Failure(
		    Exit::invalid, fmt::format("{}: isn't a regular file, and would be replaced by one", path))
		    .next("give the path of a file, or of one that doesn't exist yet");
	NewFile made(path);
	write_all(made.file.get(), bytes, path);
	made.replace(path);
	sync_directory_of(path);
}
