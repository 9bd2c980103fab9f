// Both ends of a hatch for tests: a handler that does what the request asks for, a server process, and calls.
#ifndef TESTS_HATCH_PEER_H
#define TESTS_HATCH_PEER_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include <meridon/hatch.h>

#include "base/guards.h"
#include "child.h"
#include "scratch.h"

// A broken fixture ends the program: what a test would say without it is worth nothing.
void must(bool good, const char *what);

// What a request begins with. What follows it is of no interest, but for Echo.
enum class Do : uint32_t {
	Echo,        // gives the request back
	Size,        // replies with `size` bytes of test_bytes(), out of the reply memory if they are many
	Sleep,       // replies with nothing after `number` ms
	NoReply,     // returns without a reply
	Who,         // replies with a Caller
	ReturnBadly, // tries hatch_return() with a NULL and with descriptors, then replies with both errno values
	Unpack,      // unpacks the list that follows, and replies with the error
	Charge,      // charges the caller with `size` bytes, and replies with the error
	Reserve,     // takes reply memory of `size` bytes, and replies with the error
	Fork,        // forks; replies with what the calls of a handler gave in the child
	Revoke,      // revokes the hatch `number` that it runs for, then replies
	Block,       // waits until release_blocked()
};

struct Ask {
	Do what;
	uint32_t number;
	uint64_t size;
};

struct Caller {
	uid_t uid;
	gid_t gid;
	pid_t pid;
};

void obey(void *cookie, char *arg, size_t size, hatch_desc_t *descs, unsigned int ndescs);

// The calls that wait in Block.
int blocked_calls();
void release_blocked();

// `size` bytes that differ from their neighbours at every distance that a piece or a page has.
std::string test_bytes(size_t size);

// An empty file, to attach to.
std::string attachable(const std::string &path, mode_t mode = 0644);

// A hatch of this process, attached; revoked at the end.
class LocalHatch {
public:
	explicit LocalHatch(const std::string &path, hatch_handler_t *handler = obey, void *cookie = nullptr);
	~LocalHatch() { revoke(); }
	LocalHatch(const LocalHatch &) = delete;
	LocalHatch &operator=(const LocalHatch &) = delete;
	int fd() const { return fd_; }
	void revoke();

private:
	int fd_;
};

// A process of its own, which ends with its parent at the latest. `run` gives its exit status.
class Process {
public:
	explicit Process(const std::function<int()> &run);
	~Process() { kill(); }
	Process(Process &&other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
	Process &operator=(Process &&other) noexcept;
	Process(const Process &) = delete;
	Process &operator=(const Process &) = delete;
	pid_t pid() const { return pid_; }
	// The exit status, or 1000 and the signal.
	int wait();
	void kill();

private:
	pid_t pid_;
};

// What one process waits for and another raises. Made before the fork.
class Signal {
public:
	Signal();
	void raise() const;
	void wait() const;

private:
	Fd event_;
};

// A process that makes something and has it until it is killed, from the moment that this returns on.
template <typename Make>
Process keep_in_process(Make make)
{
	Signal ready;
	Process keeper([&]() -> int {
		const auto &kept = make();
		(void) kept;
		ready.raise();
		for (;;)
			pause();
	});
	ready.wait();
	return keeper;
}

// A process that serves `obey` at a path, and may open so many descriptors. Without fdetach() before, and it doesn't wait
// for anybody at its end.
Process serve(const std::string &path, unsigned long descriptors = 0);
// Lets this process open as many, or as many as it may. Gives how many that is.
unsigned long allow_descriptors(unsigned long most);

// What a call came to: its errno value and the reply.
struct Answer {
	int error;
	std::string data;
	bool mapped; // it came in a fresh mapping
};

struct Bounds {
	int seconds;
	size_t reply_max;
};

// Calls with no buffer for the reply, or with one of `room` bytes; within bounds if there are some.
Answer call(int hatch, const std::string &request, size_t room = 0, const std::optional<Bounds> &bounds = {});
Answer call(int hatch, Ask ask, size_t room = 0, const std::optional<Bounds> &bounds = {});
// An answer that is an array of int.
std::vector<int> numbers_of(const Answer &answer);
// Who the server says is calling.
Caller caller_at(int hatch);

Fd open_hatch(const std::string &path);

// Sanitizers need memory and time of their own: there, memory isn't measured and large things are smaller.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif

// Counts for leaks: open descriptors, and anonymous memory in KiB, of a process.
int descriptors_of(pid_t pid);
long anonymous_kib(pid_t pid = 0);

// True once `done` is; asked again and again for 20 s at most.
bool eventually(const std::function<bool()> &done);

// Changes the real and effective ids of the calling thread alone, as the kernel does it.
void become(uid_t real, uid_t effective);
// Has a thread do something as another user.
void thread_as(uid_t user, const std::function<void()> &what);

// A hatch's place, in a directory that other users reach.
class HatchTest : public testing::Test {
protected:
	HatchTest() { must(chmod(scratch_.directory().c_str(), 0755) == 0, "chmod"); }

	Scratch scratch_;
	std::string path_ = attachable(scratch_.path("hatch"));
};

// One with a server and a descriptor.
class ServedHatchTest : public HatchTest {
protected:
	bool serves(size_t size = 10) const
	{
		const std::string request(size, 'x');
		return call(fd_.get(), request).data == request;
	}

	Process server_ = serve(path_);
	Fd fd_ = open_hatch(path_);
};

#endif
