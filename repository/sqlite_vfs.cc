// SQLite locks bytes of the file, and any process that could once open the file for reading can take locks of a reader on
// them. Such a lock would keep every update waiting, and would pass for a living writer, whose journal isn't rolled back.
// Other daemons are kept away by this process's flock(), so only two kinds of SQLite's locks count:
//   - a writer's, which takes the right to write, and
//   - those of root and of the daemon's user, who may look at the file with a tool of SQLite's.
// The daemon takes its own locks as SQLite does, as far as they can be had, so that such a tool waits for it.
#include "sqlite_vfs.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "process.h"

namespace repository {
namespace {

constexpr const char *name = "cairn";

// The bytes that SQLite locks.
constexpr off_t pending_byte = 0x40000000, reserved_byte = pending_byte + 1, shared_bytes = pending_byte + 2,
		shared_size = 510;

std::atomic<int> held{-1};

// ---- Opening ----

// Opens a regular file or a directory, and nothing that waits for another process or acts when it is opened.
int open_plain(const char *path, int flags, int mode)
{
	if (strcmp(path, "/dev/urandom") == 0) // SQLite's source of random numbers
		return open(path, flags, mode);
	const int file = open(path, flags | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, mode);
	struct stat kind;
	if (file == -1 || (fstat(file, &kind) == 0 && (S_ISREG(kind.st_mode) || S_ISDIR(kind.st_mode))))
		return file;
	(void) close(file);
	errno = EINVAL;
	return -1;
}

// ---- Locks ----

struct Lock {
	short type;
	pid_t holder; // -1 for a lock that belongs to no process, 0 if it can't be seen
};

// The first lock of another process that a writer's would meet on these bytes.
Lock lock_on(int file, off_t begin, off_t size)
{
	struct flock lock = {};
	lock.l_type = F_WRLCK;
	lock.l_whence = SEEK_SET;
	lock.l_start = begin;
	lock.l_len = size;
	if (fcntl(file, F_GETLK, &lock) == -1)
		return {F_UNLCK, 0};
	return {lock.l_type, lock.l_pid};
}

// The lock that keeps this process from its own, if it counts. Beside a writer's lock there is no other.
bool heeded_lock(int file, Lock *found)
{
	constexpr std::pair<off_t, off_t> places[] = {
	    {pending_byte, 1}, {reserved_byte, 1}, {shared_bytes, shared_size}};
	for (auto [begin, size] : places) {
		*found = lock_on(file, begin, size);
		if (found->type == F_WRLCK ||
		    (found->type == F_RDLCK && found->holder > 0 && is_of_ours(found->holder)))
			return true;
	}
	return false;
}

const sqlite3_io_methods *system_methods; // SQLite's own, of a database

int lock(sqlite3_file *file, int level)
{
	const int code = system_methods->xLock(file, level);
	Lock found;
	return code == SQLITE_BUSY && !heeded_lock(held, &found) ? SQLITE_OK : code;
}

int look_for_writer(sqlite3_file *, int *found)
{
	*found = lock_on(held, reserved_byte, 1).type == F_WRLCK ? 1 : 0;
	return SQLITE_OK;
}

int open_file(sqlite3_vfs *own, const char *path, sqlite3_file *file, int flags, int *given)
{
	static sqlite3_io_methods methods;
	auto *system = static_cast<sqlite3_vfs *>(own->pAppData);
	const int code = system->xOpen(system, path, file, flags, given);
	if (code != SQLITE_OK || (flags & SQLITE_OPEN_MAIN_DB) == 0)
		return code;
	static std::once_flag once;
	std::call_once(once, [file] {
		system_methods = file->pMethods;
		methods = *system_methods;
		methods.xLock = lock;
		methods.xCheckReservedLock = look_for_writer;
	});
	file->pMethods = &methods;
	return code;
}

int register_files()
{
	sqlite3_vfs *system = sqlite3_vfs_find("unix");
	static sqlite3_vfs own;
	own = *system;
	own.zName = name;
	own.pNext = nullptr;
	own.pAppData = system;
	own.xOpen = open_file;
	(void) system->xSetSystemCall(system, "open", reinterpret_cast<sqlite3_syscall_ptr>(open_plain));
	return sqlite3_vfs_register(&own, 0);
}

} // namespace

const char *sqlite_vfs(int file)
{
	static const int registered = register_files();
	held = file;
	return registered == SQLITE_OK ? name : nullptr;
}

std::string sqlite_lock_holder(int file)
{
	Lock found;
	return heeded_lock(file, &found) ? process_name(found.holder) : std::string();
}

} // namespace repository
