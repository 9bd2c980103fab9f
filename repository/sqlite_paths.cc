#include "sqlite_paths.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "base/directory.h"
#include "base/guards.h"

namespace repository {
namespace {

constexpr const char *journal_end = "-journal"; // SQLite's name for it

std::string directory_of(const std::string &path)
{
	const size_t slash = path.find_last_of('/');
	return slash == path.npos ? "." : path.substr(0, slash + 1);
}

} // namespace

StorePath::StorePath(const std::string &path, int file)
    : path_(path), journal_(path + journal_end), directory_(directory_of(path)), file_(file)
{}

bool StorePath::leads_to_file() const
{
	struct stat ours, there;
	return fstat(file_, &ours) == 0 && lstat(path_.c_str(), &there) == 0 && ours.st_dev == there.st_dev &&
	       ours.st_ino == there.st_ino && there.st_size > 0;
}

StorePath::Journal StorePath::journal_state() const
{
	struct stat there;
	if (lstat(journal_.c_str(), &there) == -1)
		return Journal::none;
	return S_ISREG(there.st_mode) && there.st_nlink == 1 ? Journal::regular : Journal::other;
}

bool StorePath::takes_writes() const
{
	return access(path_.c_str(), W_OK) == 0 && (access(journal_.c_str(), W_OK) == 0 || errno == ENOENT);
}

bool StorePath::takes_new_files() const
{
	return access(directory_.c_str(), W_OK) == 0;
}

int StorePath::sync_directory() const
{
	Fd directory(meridon_open_parent(path_.c_str()));
	return directory ? meridon_sync_dir(directory.get()) : errno;
}

uint64_t StorePath::bytes() const
{
	struct stat there;
	return fstat(file_, &there) == 0 ? static_cast<uint64_t>(there.st_size) : 0;
}

PrivateCopy::PrivateCopy(const StorePath &store)
{
	const char *const places[] = {"/dev/shm", getenv("TMPDIR"), "/run", "/tmp"}; // in memory, if it can be
	for (const char *place : places) {
		std::string made = std::string(place == nullptr ? "/tmp" : place) + "/cairn.configd-XXXXXX";
		if (mkdtemp(made.data()) == nullptr)
			continue;
		directory_ = made;
		if (fill(store))
			return;
		remove();
	}
}

bool PrivateCopy::fill(const StorePath &store) const
{
	const std::string journal = file() + journal_end;
	std::error_code bad;
	return std::filesystem::copy_file(store.path(), file(), bad) &&
	       std::filesystem::copy_file(store.journal(), journal, bad) && chmod(file().c_str(), 0600) == 0 &&
	       chmod(journal.c_str(), 0600) == 0;
}

void PrivateCopy::remove()
{
	std::error_code ignored;
	if (!directory_.empty())
		std::filesystem::remove_all(directory_, ignored);
	directory_.clear();
}

} // namespace repository
