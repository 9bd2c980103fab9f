#include "holder.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
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
#include <vector>

#include <meridon/hatch.h>

namespace repository {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto patience = 8s; // below the time that a start may take
constexpr auto pause_time = 5ms;

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

// Whether a process has a file open, as far as this one may look.
bool has_open(pid_t pid, const struct stat &file)
{
	const std::string directory = "/proc/" + std::to_string(pid) + "/fd";
	std::error_code ended;
	for (std::filesystem::directory_iterator fd(directory, ended), end; !ended && fd != end; fd.increment(ended)) {
		struct stat seen;
		if (stat(fd->path().c_str(), &seen) == 0 && seen.st_dev == file.st_dev && seen.st_ino == file.st_ino)
			return true;
	}
	return false;
}

// The process that holds a lock on a file, 0 if it can't be seen. The list of locks names the device of the file system,
// which on some isn't the one that the file shows; inodes alone are the same on many.
pid_t holder_of(int file)
{
	struct stat there;
	if (fstat(file, &there) == -1)
		return 0;
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
		if (makedev(device[0], device[1]) == there.st_dev || has_open(pid, there))
			return pid;
	}
	return 0;
}

std::string proc_text(pid_t pid, const char *name)
{
	std::ifstream file("/proc/" + std::to_string(pid) + "/" + name, std::ios::binary);
	return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The argument behind `option` on a process's command line, as the daemon takes it.
std::string argument_of(pid_t pid, const std::string &option)
{
	std::string text = proc_text(pid, "cmdline");
	std::vector<std::string> words;
	for (size_t begin = 0; begin < text.size();) {
		size_t end = text.find('\0', begin);
		words.push_back(text.substr(begin, end == text.npos ? end : end - begin));
		begin = end == text.npos ? text.size() : end + 1;
	}
	for (size_t i = 0; i < words.size(); i++) {
		if (words[i] == option && i + 1 < words.size())
			return words[i + 1];
		if (words[i].compare(0, option.size(), option) == 0)
			return words[i].substr(option.size());
	}
	return {};
}

// Whether a process is a daemon of this kind, and not one that merely has a file of ours open and locked.
bool is_daemon(pid_t pid)
{
	char own[PATH_MAX], other[PATH_MAX];
	ssize_t own_size = readlink("/proc/self/exe", own, sizeof(own));
	ssize_t other_size = readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), other, sizeof(other));
	auto base = [](const char *path, ssize_t size) {
		std::string text(path, size > 0 ? static_cast<size_t>(size) : 0);
		if (size_t gone = text.rfind(" (deleted)"); gone != text.npos)
			text.resize(gone);
		return text.substr(text.find_last_of('/') + 1);
	};
	return own_size > 0 && base(own, own_size) == base(other, other_size);
}

// Whether a hatch is one of the library's, for a daemon that stands in where an enclave's own isn't up.
bool is_private(const std::string &hatch)
{
	return hatch.find(".libostrel.") != hatch.npos;
}

std::string gives_no_way(const std::string &path, pid_t holder, const std::string &hatch)
{
	std::string text = path;
	text.append(": the daemon ").append(std::to_string(holder)).append(" serves it at ").append(hatch);
	return text.append(", and gives way to no private one");
}

// Whether a process serves the hatch.
bool serves(pid_t pid, const std::string &hatch)
{
	Fd client(open(hatch.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
	hatch_info_t info;
	bool there = client && hatch_info(client.get(), &info) == 0 && (info.di_attributes & HATCH_REVOKED) == 0 &&
		     info.di_target == pid;
	if (client)
		hatch_forget(client.get());
	return there;
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

} // namespace

Failure hold_file(const std::string &path, const std::string &hatch, Fd *held, Hold *hold)
{
	*hold = Hold::ours;
	pid_t asked = 0, seen = 0;
	for (auto end = Clock::now() + patience; Clock::now() < end; std::this_thread::sleep_for(pause_time)) {
		if (Failure failure = open_file(path, held))
			return failure;
		if (flock(held->get(), LOCK_EX | LOCK_NB) == 0) {
			struct stat ours, there; // the file may have been replaced in between
			if (fstat(held->get(), &ours) == 0 && stat(path.c_str(), &there) == 0 &&
			    ours.st_dev == there.st_dev && ours.st_ino == there.st_ino)
				return {};
			continue;
		}
		if (errno != EWOULDBLOCK && errno != EINTR)
			return errno_failure(path, "can't be locked");
		pid_t holder = holder_of(held->get());
		if (holder == 0 || holder == asked)
			continue;
		seen = holder;
		const bool is_one = is_daemon(holder);
		if (proc_text(holder, "cmdline").empty()) // it is ending: its memory has gone, its locks go next
			continue;
		if (!is_one)
			return {EBUSY,
			    path + ": process " + std::to_string(holder) + ", which is no repository daemon, holds it"};
		const std::string held_for = argument_of(holder, "-d");
		if (is_private(hatch) && !is_private(held_for))
			return {EBUSY, gives_no_way(path, holder, held_for)};
		if (serves(holder, hatch)) {
			*hold = Hold::served_already;
			return {};
		}
		if (may_be_for(held_for, hatch)) // it has just begun, or is ending
			continue;
		if (Failure failure = ask_to_end(holder, held->get(), path))
			return failure;
		asked = holder;
	}
	return {EBUSY, path + ": another process" + (seen == 0 ? std::string() : " (" + std::to_string(seen) + ")") +
			   " holds it and doesn't let go"};
}

} // namespace repository
