#include "holder.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <meridon/hatch.h>

#include "hatch/record.h"
#include "rpy/wire.h"

namespace repository {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto patience = 7s; // with what one look may take, below the time that a start may take
constexpr int answer_seconds = 1;
constexpr int start_seconds = 10;
constexpr auto pause_time = 5ms;
constexpr int unseen_looks = 40; // a fifth of a second: a holder that is just ending has gone then

Failure errno_failure(const std::string &path, const char *what)
{
	int error = errno;
	return {error, path + ": " + what + ": " + strerror(error)};
}

Failure open_file(const std::string &path, Fd *file)
{
	file->reset(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
	if (!*file && errno == ENOENT)
		file->reset(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
	if (!*file)
		return errno_failure(path, "can't be opened");
	struct stat kind;
	if (fstat(file->get(), &kind) == -1)
		return errno_failure(path, "can't be looked at");
	if (!S_ISREG(kind.st_mode))
		return {EINVAL, path + ": not a regular file"};
	// Whoever can open it can lock it, and hold a start up. It stays as it is where it can't be changed.
	if ((kind.st_mode & 077) != 0)
		(void) fchmod(file->get(), kind.st_mode & 07700);
	return {};
}

// The device of the file system that a file lies in, as the list of locks names it. On some it isn't the one that the file
// shows. 0 if it can't be seen.
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

// The process that holds a lock on a file, 0 if it can't be seen. Inodes alone are the same on many file systems.
pid_t holder_of(int file)
{
	struct stat there;
	if (fstat(file, &there) == -1)
		return 0;
	const dev_t file_system = file_system_of(file);
	std::ifstream locks("/proc/locks");
	std::string line;
	while (std::getline(locks, line)) {
		int pid = 0;
		unsigned int device[2] = {};
		unsigned long inode = 0;
		const int found =
		    sscanf(line.c_str(), "%*d: FLOCK %*s %*s %d %x:%x:%lu", &pid, &device[0], &device[1], &inode);
		if (found != 4 || inode != there.st_ino || pid <= 0)
			continue;
		const dev_t locked = makedev(device[0], device[1]);
		if (locked == there.st_dev || locked == file_system)
			return pid;
	}
	return 0;
}

// A process that has a file open with a lock on it: the one that took the lock may have ended since. 0 if none can be seen.
pid_t holder_by_descriptor(int file)
{
	namespace fs = std::filesystem;
	struct stat ours, other;
	if (fstat(file, &ours) == -1)
		return 0;
	std::error_code bad, gone; // processes go while they are looked at
	for (fs::directory_iterator processes("/proc", bad), end; !bad && processes != end; processes.increment(bad)) {
		const pid_t pid = atoi(processes->path().filename().c_str());
		if (pid <= 0 || pid == getpid())
			continue;
		for (fs::directory_iterator files(processes->path() / "fd", gone); !gone && files != end;
		     files.increment(gone)) {
			if (stat(files->path().c_str(), &other) == -1 || other.st_ino != ours.st_ino ||
			    other.st_dev != ours.st_dev)
				continue;
			std::ifstream info(processes->path() / "fdinfo" / files->path().filename());
			for (std::string line; std::getline(info, line);)
				if (line.starts_with("lock:") && line.find("FLOCK") != line.npos)
					return pid;
		}
	}
	return 0;
}

std::string proc_text(pid_t pid, const char *name)
{
	std::ifstream file("/proc/" + std::to_string(pid) + "/" + name, std::ios::binary);
	return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
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

// The argument behind `option` on a process's command line, as the daemon takes it.
std::string argument_of(const std::vector<std::string> &words, const std::string &option)
{
	for (size_t i = 0; i < words.size(); i++) {
		if (words[i] == option && i + 1 < words.size())
			return words[i + 1];
		if (words[i].compare(0, option.size(), option) == 0)
			return words[i].substr(option.size());
	}
	return {};
}

// The program that a process runs, without its directory.
std::string program_of(const std::string &process)
{
	char path[PATH_MAX];
	ssize_t size = readlink(("/proc/" + process + "/exe").c_str(), path, sizeof(path));
	std::string text(path, size > 0 ? static_cast<size_t>(size) : 0);
	if (size_t gone = text.rfind(" (deleted)"); gone != text.npos)
		text.resize(gone);
	return text.substr(text.find_last_of('/') + 1);
}

// Whether a process is a daemon of this kind, and not one that merely has a file of ours open and locked. What a process
// with more of root's powers runs is hidden from one with less, as the service manager starts it; the name that it bears
// isn't, and is believed of those who could open the file anyway.
bool is_daemon(pid_t pid)
{
	const std::string own = program_of("self");
	errno = 0;
	const std::string other = program_of(std::to_string(pid));
	if (!other.empty() || (errno != EACCES && errno != EPERM))
		return !own.empty() && own == other;
	constexpr size_t name_max = 15; // of which the kernel keeps so much
	return is_of_ours(pid) && proc_text(pid, "comm") == own.substr(0, name_max) + "\n";
}

std::string gives_no_way(const std::string &path, pid_t holder, const std::string &hatch)
{
	std::string text = path;
	text.append(": the daemon ").append(std::to_string(holder)).append(" serves it at ").append(hatch);
	return text.append(", and gives way to no private one");
}

// What is at a hatch: no server; the daemon that holds the file, and answers or doesn't; a server of something else.
enum class Server { none, ours, silent, other };

// Takes from a daemon's status which file it has. One that refuses to say so answers, too.
bool file_of(std::string_view reply, std::string_view *file)
{
	rpy::Reader in(reply);
	if (in.u32() != rpy::magic)
		return false;
	if (in.u32() != RPY_ERROR_NONE)
		return in.ok();
	(void) in.bytes(sizeof(uint64_t) + 2 * sizeof(uint32_t));
	*file = in.text();
	return in.ok();
}

// Whether the server of a hatch answers, and which file it has.
bool answers(int hatch, std::string *file)
{
	uint32_t request[] = {rpy::magic, static_cast<uint32_t>(rpy::Op::status)};
	char reply[PATH_MAX + 256];
	hatch_arg_t arg = {reinterpret_cast<char *>(request), sizeof(request), nullptr, 0, reply, sizeof(reply)};
	std::string_view name;
	if (hatch_call_bounded(hatch, &arg, answer_seconds, sizeof(reply)) != 0 ||
	    !file_of({arg.data_ptr, arg.data_size}, &name))
		return false;
	file->assign(name);
	return true;
}

// What is at a hatch, with `holder` as the process that holds the file.
Server server_at(const std::string &hatch, pid_t holder)
{
	Fd client(open(hatch.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
	hatch_info_t info;
	if (!client || hatch_info(client.get(), &info) != 0 || (info.di_attributes & HATCH_REVOKED) != 0)
		return Server::none;
	std::string file;
	Server found = info.di_target == 0 ? Server::silent : Server::other;
	if (info.di_target == holder)
		found = answers(client.get(), &file) ? Server::ours : Server::silent;
	hatch_forget(client.get());
	return found;
}

// Whether the hatch is served for the file by a process that can't be seen. Its word counts. Where there is no /proc it
// can't be asked either; that it lives has to do.
bool is_served_unseen(const std::string &hatch, const std::string &path)
{
	Fd client(open(hatch.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
	hatch::Id id;
	if (!client || !hatch::read_record(client.get(), &id) || !hatch::record_is_locked(client.get()))
		return false;
	std::string file;
	const bool answered = answers(client.get(), &file);
	hatch_forget(client.get());
	return answered ? file == path : access("/proc/self", F_OK) == -1;
}

// Whether a process began a moment ago, and may not serve yet.
bool is_young(pid_t pid)
{
	std::string text = proc_text(pid, "stat");
	size_t behind_name = text.rfind(')');
	unsigned long long begin = 0; // in ticks since the boot
	timespec now;
	if (behind_name == text.npos || clock_gettime(CLOCK_BOOTTIME, &now) == -1 ||
	    sscanf(text.c_str() + behind_name,
		") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %llu", &begin) != 1)
		return false;
	return now.tv_sec <
	       static_cast<time_t>(begin / static_cast<unsigned long>(sysconf(_SC_CLK_TCK))) + start_seconds;
}

// Whether a daemon was given a hatch, or may have been: what a relative path led to can't be seen any more.
bool may_be_for(const std::string &given, const std::string &hatch)
{
	auto name = [](const std::string &path) { return path.substr(path.find_last_of('/') + 1); };
	return given == hatch || (!given.starts_with('/') && name(given) == name(hatch));
}

// Asks the process to end, by a descriptor of it, so that a reused id isn't hit.
Failure ask_to_end(pid_t pid, int file, const std::string &path)
{
	Fd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
	if (!process || holder_of(file) != pid || !is_daemon(pid))
		return {};
	if (syscall(SYS_pidfd_send_signal, process.get(), SIGTERM, nullptr, 0) == -1 && errno != ESRCH) {
		int error = errno;
		return {error, path + ": the daemon " + std::to_string(pid) +
				   " holds it and can't be asked to hand it over: " + strerror(error)};
	}
	return {};
}

// What one look at a holder comes to.
enum class Look { wait, served, ended };

// Looks at the process that holds the file, and asks it to end if it is a daemon of another hatch.
Failure look_at_holder(pid_t holder, int file, const Start &start, Look *look)
{
	*look = Look::wait;
	const bool is_one = is_daemon(holder);
	const std::vector<std::string> words = command_line(holder);
	if (words.empty()) // it is ending: its memory has gone, its locks go next
		return {};
	if (!is_one)
		return {EBUSY, start.file + ": " + process_name(holder) + ", which is no repository daemon, holds it"};
	const std::string held_for = argument_of(words, "-d");
	if (is_private(start.hatch) && !is_private(held_for))
		return {EBUSY, gives_no_way(start.file, holder, held_for)};
	const Server server = server_at(start.hatch, holder);
	if (server == Server::ours)
		*look = Look::served;
	if (server == Server::ours || server == Server::silent)
		return {};
	// It has just begun, or takes its time in the foreground, where nobody gives a start up. Any other that is older doesn't
	// serve this hatch, even if it once did: somebody has removed the file.
	const bool in_foreground = std::find(words.begin(), words.end(), "-f") != words.end();
	if (may_be_for(held_for, start.hatch) && (in_foreground || is_young(holder)))
		return {};
	if (Failure failure = start.can_serve(start.hatch))
		return failure;
	*look = Look::ended;
	return ask_to_end(holder, file, start.file);
}

// Whether the lock that was taken is one on the file that the path leads to.
bool is_at(const std::string &path, int file)
{
	struct stat ours, there;
	return fstat(file, &ours) == 0 && stat(path.c_str(), &there) == 0 && ours.st_dev == there.st_dev &&
	       ours.st_ino == there.st_ino;
}

std::string doesnt_let_go(const std::string &path, pid_t holder)
{
	const std::string who =
	    holder == 0 ? "another process, which can't be seen (is there no /proc?)," : process_name(holder);
	return path + ": " + who + " holds it and doesn't let go";
}

} // namespace

bool is_private(const std::string &hatch)
{
	return hatch.find(".libostrel.") != hatch.npos;
}

bool is_of_ours(pid_t pid)
{
	unsigned int users[4] = {};
	std::string status = proc_text(pid, "status");
	size_t at = status.find("\nUid:");
	if (at == status.npos ||
	    sscanf(status.c_str() + at, " Uid: %u %u %u %u", &users[0], &users[1], &users[2], &users[3]) != 4)
		return false;
	return std::all_of(
	    std::begin(users), std::end(users), [](uid_t user) { return user == 0 || user == geteuid(); });
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

Failure hold_file(const Start &start, Fd *held, Hold *hold)
{
	*hold = Hold::ours;
	pid_t asked = 0, seen = 0;
	int unseen = 0; // looks that showed no living holder
	for (auto end = Clock::now() + patience; Clock::now() < end; std::this_thread::sleep_for(pause_time)) {
		if (Failure failure = open_file(start.file, held))
			return failure;
		if (flock(held->get(), LOCK_EX | LOCK_NB) == 0) {
			if (is_at(start.file, held->get())) // it may have been replaced in between
				return {};
			continue;
		}
		if (errno != EWOULDBLOCK && errno != EINTR)
			return errno_failure(start.file, "can't be locked");
		pid_t holder = holder_of(held->get());
		if (holder == 0 || command_line(holder).empty())
			if (++unseen % unseen_looks == 0)
				holder = holder_by_descriptor(held->get());
		if (holder != 0 && holder == asked)
			continue;
		seen = holder == 0 ? seen : holder;
		Look look = Look::wait;
		if (holder != 0) {
			if (Failure failure = look_at_holder(holder, held->get(), start, &look))
				return failure;
		} else if (is_served_unseen(start.hatch, start.file)) {
			look = Look::served;
		}
		if (look == Look::served) {
			*hold = Hold::served_already;
			return {};
		}
		asked = look == Look::ended ? holder : asked;
	}
	return {EBUSY, doesnt_let_go(start.file, seen)};
}

} // namespace repository
