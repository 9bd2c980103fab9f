#include "access.h"

#include <climits>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <meridon/hatch.h>
#include <meridon/peercred.h>

#include "base/files.h"
#include "base/guards.h"
#include "base/thread_safety.h"
#include "base/users.h"

namespace repository {
namespace {

// Who the caller is comes from the kernel, by its connection; nothing of the request counts. Root and the daemon's own user
// hold every right, since both could open the file. A user that this namespace doesn't know holds none: many users of others
// share its number.
constexpr size_t rights_max = 1U << 20;

using Credential = Handle<peercred_t, peercred_free>;

bool caller_holds(const char *right)
{
	Credential caller;
	if (hatch_peercred(caller.out()) != 0)
		return false;
	uid_t user = peercred_getruid(caller.get());
	if (user == overflow_user || user == static_cast<uid_t>(-1))
		return false;
	if (user == 0 || user == geteuid())
		return true;
	UserEntry entry;
	return entry.find(getpwuid_r, user) == 0 && entry &&
	       chkrightattr_peercred(right, entry->pw_name, caller.get()) == 1;
}

// Whether any line of the rights file names the right to read, comments aside. A file that can't be read grants nothing, so it
// restricts reading as well.
bool file_names_reading(const char *path)
{
	Fd file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
	if (!file)
		return true;
	std::string text(rights_max, '\0');
	ssize_t size = meridon_read_all(file.get(), text.data(), text.size());
	if (size < 0)
		return true;
	text.resize(static_cast<size_t>(size));
	for (size_t begin = 0; begin < text.size();) {
		size_t end = text.find('\n', begin);
		std::string line = text.substr(begin, end == text.npos ? end : end - begin);
		line.resize(line.find('#') == line.npos ? line.size() : line.find('#'));
		if (line.find("cairn.read") != line.npos)
			return true;
		begin = end == text.npos ? text.size() : end + 1;
	}
	return false;
}

// Whether the rights file restricts reading, remembered until the file changes.
class Reading {
public:
	Reading() { lock_.init(); }

	bool is_restricted()
	{
		char path[PATH_MAX];
		if (meridon_path("etc/meridon/rights", path) != 0)
			return true;
		struct stat now;
		if (stat(path, &now) == -1)
			return errno != ENOENT && errno != ENOTDIR;
		MutexLock hold(lock_);
		if (!known_ || now.st_ino != file_.st_ino || now.st_size != file_.st_size ||
		    now.st_dev != file_.st_dev || now.st_mtim.tv_sec != file_.st_mtim.tv_sec ||
		    now.st_mtim.tv_nsec != file_.st_mtim.tv_nsec || now.st_ctim.tv_sec != file_.st_ctim.tv_sec ||
		    now.st_ctim.tv_nsec != file_.st_ctim.tv_nsec) {
			restricted_ = file_names_reading(path);
			file_ = now;
			known_ = true;
		}
		return restricted_;
	}

private:
	Mutex lock_;
	bool known_ GUARDED_BY(lock_) = false;
	bool restricted_ GUARDED_BY(lock_) = false;
	struct stat file_ GUARDED_BY(lock_) = {}; // as it stood when it was read
};

} // namespace

bool caller_may_read()
{
	static Reading reading;
	return !reading.is_restricted() || caller_holds("cairn.read");
}

bool caller_may_modify()
{
	return caller_holds("cairn.modify");
}

} // namespace repository
