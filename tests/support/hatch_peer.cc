// The servers and clients of hatch tests.
#include "hatch_peer.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "base/clock.h"
#include "threads_after_fork.h"

namespace {

std::atomic<int> blocked;
std::atomic<bool> released;

template <typename T>
void reply_with(const T &value)
{
	hatch_return(reinterpret_cast<const char *>(&value), sizeof value, nullptr, 0);
}

Caller caller()
{
	peercred_t *cred = nullptr;
	must(hatch_peercred(&cred) == 0, "hatch_peercred");
	Caller found = {peercred_getruid(cred), peercred_getrgid(cred), peercred_getpid(cred)};
	peercred_free(cred);
	return found;
}

// The errno values of a handler's calls in a child that it forked, as the child's exit status would have them.
int in_forked_child()
{
	return in_child([] {
		peercred_t *cred = nullptr;
		bool none = hatch_peercred(&cred) == -1 && errno == EINVAL;
		none = hatch_return("x", 1, nullptr, 0) == -1 && errno == EINVAL && none;
		none = hatch_reply_memory(1) == nullptr && errno == EINVAL && none;
		return none ? 7 : 8;
	});
}

void reply_sized(size_t size)
{
	constexpr size_t on_stack = 4096;
	char small[on_stack];
	char *bytes = size <= on_stack ? small : static_cast<char *>(hatch_reply_memory(size));
	must(bytes != nullptr, "hatch_reply_memory");
	memcpy(bytes, test_bytes(size).data(), size);
	hatch_return(bytes, size, nullptr, 0);
}

int unpack_error(const char *bytes, size_t size)
{
	AttrList list;
	return attrlist_unpack(bytes, size, list.out(), 0);
}

void return_badly()
{
	int seen[2] = {};
	hatch_desc_t desc = {};
	if (hatch_return(nullptr, 1, nullptr, 0) == -1)
		seen[0] = errno;
	if (hatch_return("x", 1, &desc, 1) == -1)
		seen[1] = errno;
	reply_with(seen);
}

} // namespace

void must(bool good, const char *what)
{
	if (good)
		return;
	perror(what);
	abort();
}

void obey(void *, char *arg, size_t size, hatch_desc_t *descs, unsigned int ndescs)
{
	must(reinterpret_cast<uintptr_t>(arg) % alignof(max_align_t) == 0, "an aligned request");
	must(descs == nullptr && ndescs == 0, "no descriptors");
	Ask ask = {Do::Echo, 0, 0};
	if (size >= sizeof ask)
		memcpy(&ask, arg, sizeof ask);
	switch (ask.what) {
	case Do::Size:
		return reply_sized(ask.size);
	case Do::Sleep:
		std::this_thread::sleep_for(std::chrono::milliseconds(ask.number));
		hatch_return(nullptr, 0, nullptr, 0);
		return;
	case Do::NoReply:
		return;
	case Do::Who:
		return reply_with(caller());
	case Do::ReturnBadly:
		return return_badly();
	case Do::Unpack:
		return reply_with(unpack_error(arg + sizeof ask, size - sizeof ask));
	case Do::Charge:
		return reply_with(hatch_charge(ask.size) == 0 ? 0 : errno);
	case Do::Reserve:
		return reply_with(hatch_reply_memory(ask.size) != nullptr ? 0 : errno);
	case Do::Fork:
		return reply_with(in_forked_child());
	case Do::Revoke:
		return reply_with(hatch_revoke(static_cast<int>(ask.number)));
	case Do::Block:
		blocked++;
		released.wait(false);
		blocked--;
		hatch_return(nullptr, 0, nullptr, 0);
		return;
	default:
		hatch_return(arg, size, nullptr, 0);
	}
}

int blocked_calls()
{
	return blocked;
}

void release_blocked()
{
	released = true;
	released.notify_all();
}

std::string test_bytes(size_t size)
{
	std::string bytes(size, '\0');
	uint32_t state = 1;
	for (char &byte : bytes) {
		state = state * 1664525 + 1013904223;
		byte = static_cast<char>(state >> 24);
	}
	return bytes;
}

std::string attachable(const std::string &path, mode_t mode)
{
	Fd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, mode));
	must(static_cast<bool>(file) && fchmod(file.get(), mode) == 0, path.c_str());
	return path;
}

LocalHatch::LocalHatch(const std::string &path, hatch_handler_t *handler, void *cookie)
    : fd_(hatch_create(handler, cookie, HATCH_REFUSE_DESC))
{
	must(fd_ != -1, "hatch_create");
	must(fattach(fd_, (access(path.c_str(), F_OK) == 0 ? path : attachable(path)).c_str()) == 0, "fattach");
}

void LocalHatch::revoke()
{
	if (fd_ != -1)
		must(hatch_revoke(fd_) == 0, "hatch_revoke");
	fd_ = -1;
}

Process::Process(const std::function<int()> &run) : pid_(fork())
{
	must(pid_ != -1, "fork");
	if (pid_ != 0)
		return;
	(void) prctl(PR_SET_PDEATHSIG, SIGKILL);
	_exit(run());
}

Process &Process::operator=(Process &&other) noexcept
{
	kill();
	pid_ = std::exchange(other.pid_, -1);
	return *this;
}

int Process::wait()
{
	int status = 0;
	must(waitpid(pid_, &status, 0) == pid_, "waitpid");
	pid_ = -1;
	return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

void Process::kill()
{
	if (pid_ == -1)
		return;
	(void) ::kill(pid_, SIGKILL);
	(void) wait();
}

Signal::Signal() : event_(eventfd(0, EFD_CLOEXEC))
{
	must(static_cast<bool>(event_), "eventfd");
}

void Signal::raise() const
{
	must(eventfd_write(event_.get(), 1) == 0, "eventfd_write");
}

void Signal::wait() const
{
	struct pollfd raised = {event_.get(), POLLIN, 0};
	must(poll_until(&raised, 1, Deadline::in(60 * second_ns)) == 1, "nobody raised the signal");
}

Process serve(const std::string &path, unsigned long descriptors)
{
	return keep_in_process([&] {
		if (descriptors != 0)
			(void) allow_descriptors(descriptors);
		return LocalHatch(path);
	});
}

unsigned long allow_descriptors(unsigned long most)
{
	struct rlimit limit;
	must(getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
	limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, most);
	must(setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
	return limit.rlim_cur;
}

Answer call(int hatch, const std::string &request, size_t room, const std::optional<Bounds> &bounds)
{
	std::string buffer(room, '\0');
	std::string sent = request;
	hatch_arg_t arg = {
	    sent.data(), sent.size(), nullptr, 0, room == 0 ? nullptr : buffer.data(), room == 0 ? 1 : room};
	if ((bounds ? hatch_call_bounded(hatch, &arg, bounds->seconds, bounds->reply_max) : hatch_call(hatch, &arg)) ==
	    -1)
		return {errno, {}, false};
	if (arg.data_size == 0)
		return {0, {}, false};
	Answer answer = {0, std::string(arg.data_ptr, arg.data_size), arg.data_ptr != buffer.data()};
	if (answer.mapped)
		must(arg.rbuf == arg.data_ptr && munmap(arg.rbuf, arg.rsize) == 0, "munmap");
	return answer;
}

Answer call(int hatch, Ask ask, size_t room, const std::optional<Bounds> &bounds)
{
	return call(hatch, std::string(reinterpret_cast<const char *>(&ask), sizeof ask), room, bounds);
}

std::vector<int> numbers_of(const Answer &answer)
{
	std::vector<int> numbers(answer.data.size() / sizeof(int));
	(void) answer.data.copy(reinterpret_cast<char *>(numbers.data()), numbers.size() * sizeof(int));
	return numbers;
}

Caller caller_at(int hatch)
{
	Caller caller = {};
	(void) call(hatch, Ask{Do::Who, 0, 0}, sizeof caller)
	    .data.copy(reinterpret_cast<char *>(&caller), sizeof caller);
	return caller;
}

Fd open_hatch(const std::string &path)
{
	Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
	must(static_cast<bool>(fd), path.c_str());
	return fd;
}

int descriptors_of(pid_t pid)
{
	return static_cast<int>(entries_of("/proc/" + std::to_string(pid) + "/fd").size());
}

long anonymous_kib(pid_t pid)
{
	const std::string status = file_text("/proc/" + (pid == 0 ? "self" : std::to_string(pid)) + "/status");
	const size_t at = status.find("RssAnon:");
	must(at != std::string::npos, "RssAnon");
	return atol(status.c_str() + at + strlen("RssAnon:"));
}

bool eventually(const std::function<bool()> &done)
{
	for (const Deadline end = Deadline::in(20 * second_ns); !end.has_passed(); sleep_ns(2 * millisecond_ns))
		if (done())
			return true;
	return false;
}

void become(uid_t real, uid_t effective)
{
	must(syscall(SYS_setresgid, real, effective, effective) == 0, "setresgid");
	must(syscall(SYS_setresuid, real, effective, effective) == 0, "setresuid");
}

void thread_as(uid_t user, const std::function<void()> &what)
{
	std::thread([&] {
		become(user, user);
		what();
	}).join();
}
