// What /proc says of another process.
//
// All of it may be old when it is read: a process ends, and its id comes to mean another one. Nothing here is more than a
// hint; who acts on it holds the process by a descriptor first, and looks again (ask_to_end() in holder.cc). Without /proc every
// answer is the careful one: no holder, no daemon, not of ours.
#include "process.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace repository {
namespace {

constexpr size_t name_max = 15; // bytes of a program's name that the kernel keeps

// The device of the file system that a file lies in, as the list of locks names it. On some file systems it isn't the one
// that the file shows.
dev_t file_system_of(int file)
{
	std::ifstream info("/proc/self/fdinfo/" + std::to_string(file));
	int mount = -1;
	for (std::string line; std::getline(info, line);)
		if (sscanf(line.c_str(), "mnt_id: %d", &mount) == 1)
			break;
	std::ifstream mounts("/proc/self/mountinfo");
	for (std::string line; std::getline(mounts, line);) {
		int id = 0;
		unsigned int device[2] = {};
		if (sscanf(line.c_str(), "%d %*d %u:%u", &id, &device[0], &device[1]) == 3 && id == mount)
			return makedev(device[0], device[1]);
	}
	return 0;
}

bool is_same_file(const struct stat &one, const struct stat &other)
{
	return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool says_locked(const std::filesystem::path &fdinfo)
{
	std::ifstream info(fdinfo);
	for (std::string line; std::getline(info, line);)
		if (line.starts_with("lock:") && line.find("FLOCK") != line.npos)
			return true;
	return false;
}

std::string proc_text(pid_t pid, const char *name)
{
	std::ifstream file("/proc/" + std::to_string(pid) + "/" + name, std::ios::binary);
	return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The program that a process runs, without its directory.
std::string program_of(const std::string &process)
{
	char path[PATH_MAX];
	ssize_t size = readlink(("/proc/" + process + "/exe").c_str(), path, sizeof(path));
	std::string text(path, size > 0 ? static_cast<size_t>(size) : 0);
	// An upgrade takes the program's file away from under a daemon that runs on.
	if (size_t gone = text.rfind(" (deleted)"); gone != text.npos)
		text.resize(gone);
	return text.substr(text.find_last_of('/') + 1);
}

} // namespace

pid_t lock_holder(int file)
{
	struct stat there;
	if (fstat(file, &there) == -1)
		return 0;
	const dev_t file_system = file_system_of(file);
	std::ifstream locks("/proc/locks");
	for (std::string line; std::getline(locks, line);) {
		int pid = 0;
		unsigned int device[2] = {};
		unsigned long inode = 0;
		const int found =
		    sscanf(line.c_str(), "%*d: FLOCK %*s %*s %d %x:%x:%lu", &pid, &device[0], &device[1], &inode);
		if (found != 4 || inode != there.st_ino || pid <= 0)
			continue;
		const dev_t locked = makedev(device[0], device[1]); // inodes alone are the same on many file systems
		if (locked == there.st_dev || locked == file_system)
			return pid;
	}
	return 0;
}

// The list of locks names the process that took a lock, which may have ended since: a lock of flock() belongs to the open file,
// and lives on in each process that inherited that. This looks at every descriptor of every process, and is for the case that the
// list leads nowhere.
pid_t lock_holder_by_descriptor(int file)
{
	namespace fs = std::filesystem;
	struct stat ours, other;
	if (fstat(file, &ours) == -1)
		return 0;
	std::error_code bad, gone; // processes end during the look
	for (fs::directory_iterator processes("/proc", bad), end; !bad && processes != end; processes.increment(bad)) {
		const fs::path &process = processes->path();
		const pid_t pid = atoi(process.filename().c_str());
		if (pid <= 0 || pid == getpid())
			continue;
		for (fs::directory_iterator files(process / "fd", gone); !gone && files != end; files.increment(gone))
			if (stat(files->path().c_str(), &other) == 0 && is_same_file(ours, other) &&
			    says_locked(process / "fdinfo" / files->path().filename()))
				return pid;
	}
	return 0;
}

std::vector<std::string> command_line(pid_t pid)
{
	std::string text = proc_text(pid, "cmdline");
	std::vector<std::string> words;
	for (size_t begin = 0; begin < text.size();) {
		size_t end = text.find('\0', begin);
		words.push_back(text.substr(begin, end == text.npos ? end : end - begin));
		begin = end == text.npos ? text.size() : end + 1;
	}
	return words;
}

// The kernel hides the program of a process with more of root's powers from one with fewer, as the service manager starts
// it. It doesn't hide the process's name, which is believed of those who could open the file anyway.
bool is_daemon(pid_t pid)
{
	const std::string own = program_of("self");
	errno = 0;
	const std::string other = program_of(std::to_string(pid));
	if (!other.empty() || (errno != EACCES && errno != EPERM))
		return !own.empty() && own == other;
	return is_of_ours(pid) && proc_text(pid, "comm") == own.substr(0, name_max) + "\n";
}

// By all four ids: a set-user-id program is still its starter's by one of them.
bool is_of_ours(pid_t pid)
{
	unsigned int users[4] = {};
	const std::string status = proc_text(pid, "status");
	const size_t at = status.find("\nUid:");
	if (at == status.npos ||
	    sscanf(status.c_str() + at, " Uid: %u %u %u %u", &users[0], &users[1], &users[2], &users[3]) != 4)
		return false;
	return std::all_of(
	    std::begin(users), std::end(users), [](uid_t user) { return user == 0 || user == geteuid(); });
}

// By the clock that goes on while the machine sleeps, from which the kernel counts. What can't be told counts as old.
bool is_younger(pid_t pid, int seconds)
{
	const std::string text = proc_text(pid, "stat");
	const size_t after_name = text.rfind(')');
	unsigned long long begin = 0; // in ticks since the boot
	timespec now;
	if (after_name == text.npos || clock_gettime(CLOCK_BOOTTIME, &now) == -1 ||
	    sscanf(text.c_str() + after_name,
		") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %llu", &begin) != 1)
		return false;
	return now.tv_sec < static_cast<time_t>(begin / static_cast<unsigned long>(sysconf(_SC_CLK_TCK))) + seconds;
}

std::string process_name(pid_t pid)
{
	if (pid <= 0)
		return "a process that can't be seen";
	std::string name = proc_text(pid, "comm"); // which it chooses
	name.resize(name.find_last_not_of('\n') + 1);
	std::replace_if(
	    name.begin(), name.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
	return "process " + std::to_string(pid) + " (" + name + ")";
}

} // namespace repository
