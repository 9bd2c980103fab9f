// Names in a directory that others may change at any time: an answer may be old when it is used. So what has to hold for a
// commit is asked before it and again after it (sqlite_store.cc), by the descriptor that holds the lock.
#include "sqlite_paths.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <endian.h>
#include <fcntl.h>
#include <filesystem>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "base/directory.h"
#include "base/guards.h"
#include "store.h"

namespace repository {
namespace {

constexpr const char *journal_end = "-journal"; // SQLite's name for it
constexpr std::string_view journal_mark = "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7";

// A database begins with the mark, and has its application id, big-endian, at the offset.
constexpr std::string_view database_mark("SQLite format 3\0", 16);
constexpr size_t application_id_at = 68;

std::string first_bytes(int file, size_t size)
{
	std::string bytes(size, '\0');
	const ssize_t got = pread(file, bytes.data(), size, 0);
	bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
	return bytes;
}

std::string directory_of(const std::string &path)
{
	const size_t slash = path.find_last_of('/');
	return slash == path.npos ? "." : path.substr(0, slash + 1);
}

} // namespace

StorePath::StorePath(const std::string &path, int file)
    : path_(path), journal_(path + journal_end), directory_(directory_of(path)), file_(file)
{}

// An emptied file is the same file still, but SQLite would take it for a new database and write on.
bool StorePath::leads_to_file() const
{
	struct stat ours, there;
	return fstat(file_, &ours) == 0 && lstat(path_.c_str(), &there) == 0 && ours.st_dev == there.st_dev &&
	       ours.st_ino == there.st_ino && there.st_size > 0;
}

// A second name of the journal would be somebody's file that a commit writes over, put there by who may write to the directory.
StorePath::Journal StorePath::journal_state() const
{
	struct stat there;
	if (lstat(journal_.c_str(), &there) == -1)
		return Journal::none;
	return S_ISREG(there.st_mode) && there.st_nlink == 1 ? Journal::regular : Journal::other;
}

// What the journal begins with: as many bytes as the mark of one has, or fewer. Empty if it can't be read.
std::string StorePath::journal_start() const
{
	Fd journal(open(journal_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
	return journal ? first_bytes(journal.get(), journal_mark.size()) : std::string();
}

bool StorePath::has_live_journal() const
{
	return journal_state() == Journal::regular && journal_start() == journal_mark;
}

// SQLite marks a journal that is done with by a zero in front.
bool StorePath::has_foreign_journal() const
{
	const std::string start = journal_start();
	return !start.empty() && start[0] != '\0' && start != journal_mark;
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

// The mark and the application id lie in the first sector, and no commit changes them: only the very first one writes them,
// and the journal beside it says so.
SqliteFile look_at_sqlite_file(const std::string &path, int file)
{
	const StorePath store(path, file);
	struct stat there;
	if (fstat(file, &there) == -1)
		return SqliteFile::foreign;
	if (there.st_size == 0)
		return SqliteFile::empty;
	uint32_t id = 0;
	const std::string head = first_bytes(file, application_id_at + sizeof(id));
	if (head.starts_with(database_mark) && head.size() == application_id_at + sizeof(id)) {
		memcpy(&id, &head[application_id_at], sizeof(id));
		if (be32toh(id) == store_application_id)
			return SqliteFile::store;
	}
	return store.has_live_journal() ? SqliteFile::unsettled : SqliteFile::foreign;
}

// The first place that has room for the file and its journal. What a place that is too full got of them is removed.
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
