// Taking a file over from the daemon that holds it.
//
//   the holder ...                                                  the start ...
//   is ending, or can't be seen yet                                 waits
//   is no daemon                                                    fails
//   is an enclave's own daemon, and the start is a private one's    fails
//   serves the start's hatch and answers                            leaves it the file, and is done
//   serves the start's hatch and is silent                          waits for its answer
//   is for that hatch, but young or in the foreground               waits: it may be about to serve
//   is for another hatch, or has lost its own                       asks it to end, once, and waits
//
// All waiting together ends after 7 s, with the last holder's name in the message. Each look decides by what it sees, since the
// holder may have changed; only who was asked is remembered.
//
// Divisions: the file; the hatch of its holder; what to do about the holder; taking the file.
#include "holder.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include <meridon/hatch.h>

#include "base/clock.h"
#include "base/hatch_client.h"
#include "hatch/record.h"
#include "process.h"
#include "rpy/wire.h"

namespace repository {
namespace {

constexpr int64_t patience_ns = 7 * second_ns; // with what one look may take, below the time that a start may take
constexpr int answer_seconds = 1;
constexpr int start_seconds = 10;
constexpr int64_t pause_ns = 5 * millisecond_ns;
constexpr int unseen_looks = 40; // a fifth of a second: a holder that is just ending has gone by then

Failure errno_failure(const std::string &path, const char *what)
{
	int error = errno;
	return {error, path + ": " + what + ": " + strerror(error)};
}

// ---- The file ----

// Opens the file, or makes an empty one. A path may be mistyped: nothing about a file of something else is changed, and it
// isn't even locked.
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
	const SqliteFile content = look_at_sqlite_file(path, file->get());
	if (content == SqliteFile::foreign)
		return {EIO, path + ": not a repository"};
	// A process that can open it can lock it, and hold a start up. Where the mode can't be changed it stays.
	if ((kind.st_mode & 077) != 0 && content != SqliteFile::unsettled)
		(void) fchmod(file->get(), kind.st_mode & 07700);
	return {};
}

// Whether the path still leads to the file that was locked.
bool is_at(const std::string &path, int file)
{
	struct stat ours, there;
	return fstat(file, &ours) == 0 && stat(path.c_str(), &there) == 0 && ours.st_dev == there.st_dev &&
	       ours.st_ino == there.st_ino;
}

// ---- The hatch of its holder ----

// Takes from a daemon's status which file it has. A reply that refuses to say so is an answer, too.
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

enum class HatchState {
	unserved,
	answers, // for the process that holds the file
	silent,  // that process serves it, or one that can't be seen, and doesn't answer
	foreign, // another process serves it
};

HatchState hatch_state(const std::string &hatch, pid_t holder)
{
	Fd client(open(hatch.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
	hatch_info_t info;
	if (!client || !is_living_hatch(client.get(), &info))
		return HatchState::unserved;
	std::string file;
	HatchState state = info.di_target == 0 ? HatchState::silent : HatchState::foreign;
	if (info.di_target == holder)
		state = answers(client.get(), &file) ? HatchState::answers : HatchState::silent;
	hatch_forget(client.get());
	return state;
}

// Whether the hatch is served for the file by a process that can't be seen. Its word counts. Where there is no /proc the
// process can't be asked either, and it is enough that it lives.
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

// ---- What to do about the holder ----

// The argument after `option` on a daemon's command line.
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

// Whether a daemon was given a hatch, or may have been: where a relative path led can't be seen any more.
bool may_be_for(const std::string &given, const std::string &hatch)
{
	auto name = [](const std::string &path) { return path.substr(path.find_last_of('/') + 1); };
	return given == hatch || (!given.starts_with('/') && name(given) == name(hatch));
}

// Asks the process to end, by a descriptor of it, so that another one that got its id isn't hit.
Failure ask_to_end(pid_t pid, int file, const std::string &path)
{
	Fd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
	if (!process || lock_holder(file) != pid || !is_daemon(pid))
		return {};
	if (syscall(SYS_pidfd_send_signal, process.get(), SIGTERM, nullptr, 0) == -1 && errno != ESRCH) {
		int error = errno;
		return {error, path + ": the daemon " + std::to_string(pid) +
				   " holds it and can't be asked to hand it over: " + strerror(error)};
	}
	return {};
}

// What a start does after it has looked at the holder.
enum class Decision {
	wait,
	leave, // the holder serves the start's own hatch
	take,  // the holder was asked to end
};

Failure decide(pid_t holder, int file, const Start &start, Decision *decision)
{
	*decision = Decision::wait;
	const bool is_one = is_daemon(holder);
	const std::vector<std::string> words = command_line(holder);
	if (words.empty()) // it is ending
		return {};
	if (!is_one)
		return {EBUSY, start.file + ": " + process_name(holder) + ", which is no repository daemon, holds it"};
	const std::string held_for = argument_of(words, "-d");
	if (is_private(start.hatch) && !is_private(held_for))
		return {EBUSY, start.file + ": the daemon " + std::to_string(holder) + " serves it at " + held_for +
				   ", and gives way to no private one"};
	const HatchState state = hatch_state(start.hatch, holder);
	if (state == HatchState::answers)
		*decision = Decision::leave;
	if (state == HatchState::answers || state == HatchState::silent)
		return {};
	// A daemon for this hatch that doesn't serve it may just have begun, or may take its time in the foreground, where
	// nobody gives a start up. An older one won't serve this hatch any more: somebody has removed its file.
	const bool in_foreground = std::find(words.begin(), words.end(), "-f") != words.end();
	if (may_be_for(held_for, start.hatch) && (in_foreground || is_younger(holder, start_seconds)))
		return {};
	if (Failure failure = start.can_serve(start.hatch))
		return failure;
	*decision = Decision::take;
	return ask_to_end(holder, file, start.file);
}

// A start's wait for a file that another process has locked.
class Wait {
public:
	explicit Wait(const Start &start) : start_(start) {}

	// Looks at the holder. A daemon that was asked to end is left alone.
	Failure look(int file, Decision *decision)
	{
		*decision = Decision::wait;
		const pid_t holder = find_holder(file);
		if (holder == 0 && is_served_unseen(start_.hatch, start_.file))
			*decision = Decision::leave;
		if (holder == 0 || holder == asked_)
			return {};
		seen_ = holder;
		Failure failure = decide(holder, file, start_, decision);
		if (*decision == Decision::take)
			asked_ = holder;
		return failure;
	}

	Failure give_up() const
	{
		const std::string holder =
		    seen_ == 0 ? "another process, which can't be seen (is there no /proc?)," : process_name(seen_);
		return {EBUSY, start_.file + ": " + holder + " holds it and doesn't let go"};
	}

private:
	pid_t find_holder(int file)
	{
		const pid_t holder = lock_holder(file);
		if (holder != 0 && !command_line(holder).empty())
			return holder;
		return ++unseen_ % unseen_looks == 0 ? lock_holder_by_descriptor(file) : holder;
	}

	const Start &start_;
	pid_t asked_ = 0; // the last daemon that was asked to end
	pid_t seen_ = 0;  // the last holder
	int unseen_ = 0;  // looks that showed no living holder
};

} // namespace

// ---- Taking the file ----

bool is_private(const std::string &hatch)
{
	return hatch.find(".libostrel.") != hatch.npos;
}

Failure hold_file(const Start &start, Fd *held, Hold *hold)
{
	*hold = Hold::ours;
	Wait wait(start);
	for (const Deadline end = Deadline::in(patience_ns); !end.has_passed(); sleep_ns(pause_ns)) {
		if (Failure failure = open_file(start.file, held))
			return failure;
		if (flock(held->get(), LOCK_EX | LOCK_NB) == 0) {
			if (is_at(start.file, held->get())) // it may have been replaced in between
				return {};
			continue;
		}
		if (errno != EWOULDBLOCK && errno != EINTR)
			return errno_failure(start.file, "can't be locked");
		Decision decision;
		if (Failure failure = wait.look(held->get(), &decision))
			return failure;
		if (decision == Decision::leave) {
			*hold = Hold::served_already;
			return {};
		}
	}
	return wait.give_up();
}

} // namespace repository
