// Calls that wait: parked, answered, given up, killed and revoked; their clients' side, and what they may take.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <poll.h>
#include <random>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

#include "alloc_fault.h"
#include "base/clock.h"
#include "child.h"
#include "hatch/pool.h"
#include "hatch/server.h"
#include "hatch_socket.h"
#include "scratch.h"

using namespace hatch;

namespace {

// What a server of these tests offers. Waiting: a position, answered with a later one. Commands: a byte, answered with a number.
constexpr uint32_t waits = 1, commands = 2;
enum Command : char { commit = 'c', tickets = 't' };

// A store of one number, with clients that wait for it to become another one.
class Board {
public:
	explicit Board(const std::string &path) : hatch_(path), fd_(hatch_.fd())
	{
		EXPECT_EQ(hatch_channel(fd(), waits, wait, this, HATCH_NEVER_WAITS), 0);
		EXPECT_EQ(hatch_channel(fd(), commands, command, this, 0), 0);
	}
	int fd() const { return fd_; }
	void revoke() { hatch_.revoke(); }
	uint64_t change()
	{
		std::vector<uint64_t> told;
		uint64_t now;
		{
			std::lock_guard<std::mutex> hold(lock_);
			now = ++position_;
			told.swap(waiting_);
		}
		for (uint64_t ticket : told) {
			const int result = hatch_answer(fd(), ticket, reinterpret_cast<char *>(&now), sizeof now);
			EXPECT_TRUE(result == 0 || errno == ENOENT || errno == EBADF) << errno;
		}
		return now;
	}
	size_t standing() const { return standing_tickets(fd()); }

private:
	static void wait(void *cookie, char *arg, size_t, hatch_desc_t *, unsigned int)
	{
		auto *board = static_cast<Board *>(cookie);
		uint64_t seen, now;
		memcpy(&seen, arg, sizeof seen);
		if (!board->queue(seen, &now)) {
			if (now == seen)
				return; // no ticket
			(void) hatch_return(reinterpret_cast<char *>(&now), sizeof now, nullptr, 0);
		}
		(void) hatch_park();
	}
	bool queue(uint64_t seen, uint64_t *now)
	{
		uint64_t ticket = 0;
		const bool has = hatch_ticket(&ticket) == 0;
		std::lock_guard<std::mutex> hold(lock_);
		*now = position_;
		if (!has || position_ != seen)
			return false;
		waiting_.push_back(ticket);
		return true;
	}
	static void command(void *cookie, char *arg, size_t, hatch_desc_t *, unsigned int)
	{
		auto *board = static_cast<Board *>(cookie);
		uint64_t number = *arg == commit ? board->change() : board->standing();
		(void) hatch_return(reinterpret_cast<char *>(&number), sizeof number, nullptr, 0);
	}

	std::mutex lock_;
	uint64_t position_ = 0;
	std::vector<uint64_t> waiting_;
	LocalHatch hatch_; // revoked before what its handlers use is gone
	const int fd_;     // of the hatch, beside a revoke too
};

// A client's begun call.
class Waiter {
public:
	Waiter(int fd, uint32_t channel, std::string request) : request_(std::move(request))
	{
		const hatch_arg_t arg = {request_.data(), request_.size(), nullptr, 0, nullptr, 0};
		begun_ = hatch_begin(fd, channel, &arg, &pending_) == 0 ? 0 : errno;
	}
	Waiter(int fd, uint64_t seen) : Waiter(fd, waits, text_of(seen)) {}
	Waiter(Waiter &&other) noexcept : pending_(std::exchange(other.pending_, nullptr)), begun_(other.begun_) {}
	Waiter(const Waiter &) = delete;
	Waiter &operator=(const Waiter &) = delete;
	~Waiter() { hatch_cancel(pending_); }

	static std::string text_of(uint64_t number) { return {reinterpret_cast<char *>(&number), sizeof number}; }
	int begun() const { return begun_; }
	int fd() const { return hatch_pending_fd(pending_); }
	bool polls(int ms) const
	{
		struct pollfd look = {fd(), POLLIN, 0};
		return poll(&look, 1, ms) == 1;
	}
	int again(uint64_t seen)
	{
		std::string text = text_of(seen);
		const hatch_arg_t arg = {text.data(), text.size(), nullptr, 0, nullptr, 0};
		return hatch_again(pending_, &arg) == 0 ? 0 : errno;
	}
	// Without a wait.
	Answer finish(size_t room = 64)
	{
		std::string buffer(room, '\0');
		hatch_arg_t arg = {nullptr, 0, nullptr, 0, room == 0 ? nullptr : buffer.data(), room};
		if (hatch_finish(pending_, &arg) == -1)
			return {errno, {}, false};
		if (arg.data_size == 0)
			return {0, {}, false};
		Answer answer = {0, std::string(arg.data_ptr, arg.data_size), arg.rbuf != buffer.data()};
		if (answer.mapped)
			(void) munmap(arg.rbuf, arg.rsize);
		return answer;
	}
	Answer finish_soon(size_t room = 64)
	{
		Answer answer = finish(room);
		while (answer.error == EAGAIN && polls(20'000))
			answer = finish(room);
		return answer;
	}
	// The position that it is told; 0 and an expectation that fails for anything else.
	uint64_t told()
	{
		const Answer answer = finish_soon();
		EXPECT_EQ(answer.error, 0);
		return number_in(answer.data);
	}
	static uint64_t number_in(const std::string &text)
	{
		uint64_t number = 0;
		memcpy(&number, text.data(), std::min(text.size(), sizeof number));
		return number;
	}

private:
	std::string request_;
	hatch_pending_t *pending_ = nullptr;
	int begun_;
};

uint64_t ask(int fd, Command what)
{
	char byte = what;
	uint64_t number = UINT64_MAX;
	hatch_arg_t arg = {&byte, 1, nullptr, 0, reinterpret_cast<char *>(&number), sizeof number};
	return hatch_call_channel(fd, commands, 20, &arg) == 0 ? number : UINT64_MAX;
}

int call_on(int fd, uint32_t channel)
{
	char byte = 'x';
	hatch_arg_t arg = {&byte, 1, nullptr, 0, nullptr, 0};
	return hatch_call_channel(fd, channel, 20, &arg) == 0 ? 0 : errno;
}

class HatchParked : public testing::Test {
protected:
	void SetUp() override { ASSERT_EQ(chmod(scratch_.directory().c_str(), 0755), 0); }
	// A board in a process of its own, which may have so many descriptors.
	Process serve_board(unsigned long descriptors = 16'384)
	{
		return keep_in_process([&] {
			(void) allow_descriptors(descriptors);
			return Board(path_);
		});
	}

	Scratch scratch_;
	std::string path_ = attachable(scratch_.path("hatch"));
};

// ---- Answers ----

// A handler that answers its own call before it parks it, with as many bytes as the request says, or ends without a park.
void answer_early(void *cookie, char *arg, size_t, hatch_desc_t *, unsigned int)
{
	const int fd = *static_cast<int *>(cookie);
	uint64_t size, ticket = 0, same = 0;
	memcpy(&size, arg, sizeof size);
	int result = hatch_park() == -1 && errno == EINVAL ? 0 : 1; // it has no ticket yet
	result += hatch_ticket(&ticket) == 0 && hatch_ticket(&same) == 0 && ticket == same ? 0 : 1;
	if (size == UINT64_MAX)
		(void) hatch_return(reinterpret_cast<char *>(&ticket), sizeof ticket, nullptr, 0);
	{
		const std::string text = test_bytes(size);
		result += hatch_answer(fd, ticket, text.data(), text.size());
	}
	result += hatch_answer(fd, ticket, "x", 1) == -1 && errno == ENOENT ? 0 : 1;
	result += hatch_ticket_check(fd, ticket) == -1 && errno == ENOENT ? 0 : 1;
	if (result == 0)
		(void) hatch_park();
}

TEST_F(HatchParked, AnAnswerBeforeTheParkIsKept)
{
	int fd = -1;
	LocalHatch served(path_, obey);
	fd = served.fd();
	ASSERT_EQ(hatch_channel(fd, 9, answer_early, &fd, 0), 0);
	Fd client = open_hatch(path_);
	for (uint64_t size : {uint64_t{0}, uint64_t{5}, uint64_t{100'000}, uint64_t{3'000'000}}) {
		Waiter waiter(client.get(), 9, Waiter::text_of(size));
		for (size_t room : {size_t{0}, size_t{100'000}}) {
			const Answer answer = waiter.finish_soon(room);
			ASSERT_EQ(answer.error, 0) << size;
			EXPECT_EQ(answer.data, test_bytes(size));
			EXPECT_EQ(answer.mapped, size > room);
			EXPECT_EQ(waiter.finish().error, EINVAL) << "it is finished";
			ASSERT_EQ(waiter.again(size), 0);
		}
	}
	// A ticket ends with its call, however that does.
	Waiter unparked(client.get(), 9, Waiter::text_of(UINT64_MAX));
	const uint64_t ticket = Waiter::number_in(unparked.finish_soon().data);
	EXPECT_TRUE(eventually([&] { return standing_tickets(fd) == 0 && pool_held() == 0; }));
	EXPECT_EQ(hatch_answer(fd, ticket, "x", 1), -1);
	EXPECT_EQ(errno, ENOENT);
}

TEST_F(HatchParked, ChannelsAndTheirErrors)
{
	Process old = serve(path_);
	{
		Fd client = open_hatch(path_);
		EXPECT_EQ(call_on(client.get(), waits), ENOSYS);
		EXPECT_EQ(call(client.get(), std::string("x")).data, "x") << "and it goes on";
		// A begun call doesn't ask what became of its server.
		Waiter waiter(client.get(), 0);
		EXPECT_EQ(waiter.finish_soon().error, EBADF);
		EXPECT_EQ(waiter.again(0), EBADF);
		std::string large(1 << 20, 'x');
		hatch_arg_t arg = {large.data(), large.size(), nullptr, 0, nullptr, 0};
		EXPECT_EQ(hatch_call_channel(client.get(), waits, 0, &arg), -1);
		EXPECT_EQ(errno, ENOSYS) << "in the middle of its request";
		old.kill();
		EXPECT_EQ(call_on(client.get(), waits), EBADF);
	}
	// A server that is about to end hangs up, and holds its record still.
	const std::string other = scratch_.path("other");
	FakeServer dying(other);
	Fd client = open_hatch(other);
	std::jthread server([&] {
		(void) dying.accept();
		(void) dying.accept();
	});
	EXPECT_EQ(call_on(client.get(), waits), EBADF);
	server.join();

	LocalHatch hatch(scratch_.path("third"));
	EXPECT_EQ(hatch_channel(hatch.fd(), 0, obey, nullptr, 0), -1);
	EXPECT_EQ(errno, EEXIST);
	EXPECT_EQ(hatch_channel(hatch.fd(), 1, obey, nullptr, 2), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_EQ(hatch_setparam(hatch.fd(), HATCH_PARAM_DATA_MIN, 40), 0);
	EXPECT_EQ(hatch_channel(hatch.fd(), UINT32_MAX, obey, nullptr, 0), 0);
	Fd third = open_hatch(scratch_.path("third"));
	EXPECT_EQ(call_on(third.get(), UINT32_MAX), 0) << "the least size is channel 0's";
	EXPECT_EQ(call_on(third.get(), 0), ENOBUFS);
}

// No client's pace is the answering thread's. What a client does meanwhile has its order.
TEST_F(HatchParked, AnswersWaitForNoClient)
{
	LocalHatch served(path_);
	struct Told {
		std::mutex lock;
		std::vector<uint64_t> waiting;
	} told;
	ASSERT_EQ(hatch_channel(
		      served.fd(), waits,
		      [](void *cookie, char *, size_t, hatch_desc_t *, unsigned int) {
			      auto *list = static_cast<Told *>(cookie);
			      uint64_t ticket;
			      if (hatch_ticket(&ticket) == 0) {
				      std::lock_guard<std::mutex> hold(list->lock);
				      list->waiting.push_back(ticket);
			      }
			      (void) hatch_park();
		      },
		      &told, HATCH_NEVER_WAITS),
	    0);
	const std::string large = test_bytes(5U << 20);
	auto next = [&] {
		uint64_t ticket = 0;
		EXPECT_TRUE(eventually([&] {
			std::lock_guard<std::mutex> hold(told.lock);
			if (!told.waiting.empty()) {
				ticket = told.waiting.back();
				told.waiting.pop_back();
			}
			return ticket != 0;
		}));
		return ticket;
	};
	RawClient slow(path_);
	ASSERT_TRUE(slow.send(head_of(1, wire_magic, waits) + "x"));
	const uint64_t first = next();
	// While it is parked, nothing more is read from it.
	ASSERT_TRUE(slow.send(head_of(1, wire_magic, waits) + "y"));
	EXPECT_EQ(hatch_answer(served.fd(), first, large.data(), large.size()), 0);
	EXPECT_EQ(standing_tickets(served.fd()), 0U);
	EXPECT_EQ(slow.receive_all(large.size()), head_of(large.size()) + large);
	const uint64_t second = next();
	EXPECT_EQ(hatch_answer(served.fd(), second, "z", 1), 0);
	EXPECT_EQ(slow.receive(), head_of(1) + "z");
	// One that hangs up with a request unread is served, as on any connection.
	{
		RawClient hasty(path_);
		ASSERT_TRUE(hasty.send(head_of(1, wire_magic, waits) + "x"));
		(void) next();
		ASSERT_TRUE(hasty.send(head_of(1, wire_magic, waits) + "y"));
	}
	const uint64_t last = next();
	EXPECT_TRUE(eventually([&] { return hatch_ticket_check(served.fd(), last) == -1; }));
	EXPECT_TRUE(eventually([&] { return standing_tickets(served.fd()) == 0 && pool_held() == 0; }));
}

// ---- Ends ----

TEST_F(HatchParked, ARevokeEndsWhatIsParkedBesideAnswers)
{
	for (int round = 0; round < 20; round++) {
		Board board(path_);
		Fd client = open_hatch(path_);
		std::vector<Waiter> waiters;
		for (int i = 0; i < 16; i++)
			waiters.emplace_back(client.get(), uint64_t{0});
		ASSERT_TRUE(eventually([&] { return board.standing() == 16; }));
		std::jthread teller([&] { (void) board.change(); });
		if (round % 2 == 0)
			teller.join();
		board.revoke();
		for (Waiter &waiter : waiters) {
			const Answer answer = waiter.finish_soon();
			const bool was_told = answer.error == 0 && Waiter::number_in(answer.data) == 1;
			EXPECT_TRUE(was_told || (round % 2 == 1 && answer.error == EBADF)) << answer.error;
		}
	}
	EXPECT_EQ(pool_held(), 0U);
}

TEST_F(HatchParked, AForkedChildHasNoneOfIt)
{
	Board board(path_);
	Fd client = open_hatch(path_);
	Waiter waiter(client.get(), 0);
	ASSERT_TRUE(eventually([&] { return board.standing() == 1; }));
	EXPECT_EQ(in_child([&] {
		int wrong = waiter.fd() == -1 ? 0 : 1;
		wrong += waiter.finish().error == EBADF && waiter.again(0) == EBADF ? 0 : 2;
		wrong += hatch_answer(board.fd(), uint64_t{1} << 24, "x", 1) == -1 && errno == EBADF ? 0 : 4;
		{
			const Waiter cancelled(std::move(waiter));
		}
		return wrong;
	}),
	    0);
	EXPECT_EQ(waiter.finish().error, EAGAIN);
	const uint64_t changed = board.change();
	EXPECT_EQ(waiter.told(), changed);
}

// A connection that is needed for another costs its waiter nothing but another question.
TEST_F(HatchParked, WhoIsLetGoAsksAgain)
{
	Process server = serve_board(80);
	Fd client = open_hatch(path_);
	const uint64_t now = ask(client.get(), commit);
	std::vector<Waiter> waiters;
	for (int i = 0; i < 60; i++) {
		waiters.emplace_back(client.get(), now);
		ASSERT_EQ(waiters.back().begun(), 0);
	}
	ASSERT_TRUE(eventually([&] { return waiters[0].polls(0); })) << "nobody was let go";
	const uint64_t later = ask(client.get(), commit);
	int told = 0, let_go = 0;
	for (Waiter &waiter : waiters) {
		const Answer answer = waiter.finish_soon();
		told += answer.error == 0 && Waiter::number_in(answer.data) == later ? 1 : 0;
		let_go += answer.error == ECANCELED ? 1 : 0;
		EXPECT_EQ(waiter.again(later), answer.error == 0 ? 0 : EBADF);
	}
	EXPECT_EQ(told + let_go, 60);
	EXPECT_GT(told, 20);
}

// ---- Many ----

int threads_of(pid_t pid)
{
	std::ifstream status("/proc/" + std::to_string(pid) + "/status");
	for (std::string line; std::getline(status, line);)
		if (line.starts_with("Threads:"))
			return atoi(line.c_str() + strlen("Threads:"));
	return 0;
}

TEST_F(HatchParked, ManyWaitersTakeNoThreadsAndLittleMemory)
{
	constexpr size_t many = sanitized ? 400 : 2'000;
	// A sanitizer has a thread of its own, and so slow ones that more are made ready.
	constexpr int threads_max = sanitized ? 16 : 8;
	Process server = serve_board();
	Fd client = open_hatch(path_);
	uint64_t now = ask(client.get(), commit);
	const long before = anonymous_kib(server.pid());
	Process waiting([&] {
		if (allow_descriptors(16'384) < many + 100)
			return 2;
		std::vector<Waiter> waiters;
		for (size_t i = 0; i < many; i++)
			waiters.emplace_back(client.get(), now);
		// All that are told ask again at once.
		for (int round = 1;; round++) {
			for (Waiter &waiter : waiters) {
				const Answer answer = waiter.finish_soon();
				const uint64_t position = Waiter::number_in(answer.data);
				if (answer.error != 0 || position < now + static_cast<uint64_t>(round) ||
				    waiter.again(position) != 0)
					return 1;
			}
		}
	});
	for (int round = 0; round < 3; round++) {
		ASSERT_TRUE(eventually([&] { return ask(client.get(), tickets) == many; }));
		EXPECT_LE(threads_of(server.pid()), threads_max);
		EXPECT_TRUE(sanitized || anonymous_kib(server.pid()) - before <= 4'096);
		(void) ask(client.get(), commit);
		EXPECT_LE(threads_of(server.pid()), threads_max);
	}
	EXPECT_TRUE(eventually([&] { return ask(client.get(), tickets) == many; }));
	waiting.kill();
	EXPECT_TRUE(eventually([&] { return ask(client.get(), tickets) == 0; }));
	EXPECT_LE(threads_of(server.pid()), threads_max);
}

// Waits, gives up, asks again, until it is told the last position. Gives 0, or what was wrong.
int wait_about(const std::string &path, unsigned int seed, uint64_t last)
{
	Fd client = open_hatch(path);
	std::minstd_rand random(seed);
	for (uint64_t seen = 0; seen < last;) {
		Waiter waiter(client.get(), seen);
		if (waiter.begun() != 0)
			return 1;
		for (int i = 0; i < 10 && seen < last && (random() % 4 != 0 || waiter.polls(1)); i++) {
			const Answer answer = waiter.finish_soon();
			const uint64_t position = Waiter::number_in(answer.data);
			if (answer.error != 0 || position <= seen || position > last)
				return 2;
			seen = position;
			if (waiter.again(seen) != 0)
				return 3;
		}
	}
	return 0;
}

TEST_F(HatchParked, NobodyIsLeftUntoldInAStorm)
{
	constexpr unsigned int clients = 8;
	constexpr uint64_t last = sanitized ? 1'000 : 5'000;
	Process server = serve_board();
	std::vector<Process> staying, killed;
	for (unsigned int i = 0; i < clients; i++) {
		staying.emplace_back([this, i] { return wait_about(path_, i, last); });
		killed.emplace_back([this, i] { return wait_about(path_, clients + i, UINT64_MAX); });
	}
	Fd client = open_hatch(path_);
	for (uint64_t i = 1; i <= last; i++) {
		ASSERT_EQ(ask(client.get(), commit), i);
		if (i % 20 == 0)
			killed[i / 20 % clients] =
			    Process([&] { return wait_about(path_, static_cast<unsigned int>(i), UINT64_MAX); });
	}
	for (Process &process : staying)
		EXPECT_EQ(process.wait(), 0);
	killed.clear();
	EXPECT_TRUE(eventually([&] { return ask(client.get(), tickets) == 0; })) << ask(client.get(), tickets);
	EXPECT_LE(descriptors_of(server.pid()), 60);
}

// ---- What clients may take ----

TEST_F(HatchParked, AStrangersTicketsAndHalfRequestsCostNobodyElse)
{
	SKIP_UNLESS_ROOT();
	set_pool_size(pool_min / 128); // 256 KiB: 112 KiB for a stranger alone
	{
		Board board(path_);
		Fd client = open_hatch(path_);
		std::vector<Waiter> of_stranger;
		std::vector<RawClient> halves;
		size_t refused = 0;
		thread_as(1001, [&] {
			for (int i = 0; i < 200; i++)
				of_stranger.emplace_back(client.get(), uint64_t{0});
			for (Waiter &waiter : of_stranger)
				refused += waiter.polls(20) && waiter.finish().error == ECONNABORTED ? 1 : 0;
			for (int i = 0; i < 50; i++)
				EXPECT_TRUE(halves.emplace_back(path_).send(head_of(50'000, wire_magic, waits) + "x"));
		});
		EXPECT_EQ(board.standing() + refused, 200U);
		EXPECT_NEAR(static_cast<double>(refused), 88, 1);
		for (uid_t other : {uid_t{0}, uid_t{1002}}) {
			thread_as(other, [&] {
				Waiter waiter(client.get(), 0);
				EXPECT_FALSE(waiter.polls(50)) << waiter.finish().error << " for " << other;
			});
		}
		// An answer that doesn't fit in a share ends the connection, and holds nobody up.
		EXPECT_EQ(board.change(), 1U);
		size_t told = 0;
		for (Waiter &waiter : of_stranger)
			told += waiter.finish().error == 0 ? 1 : 0;
		EXPECT_EQ(told + refused, 200U);
	}
	set_pool_size(0);
	EXPECT_EQ(pool_held(), 0U);
}

TEST_F(HatchParked, MemoryThatRunsOutLeavesNothing)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	Process server = serve_board();
	Fd client = open_hatch(path_);
	EXPECT_EQ(ask(client.get(), tickets), 0U); // closes what earlier tests' servers left
	hatch_forget(client.get());
	const int rounds = sweep_allocations(
	    [&] {
		    hatch_forget(client.get());
		    return open_descriptors();
	    },
	    [&](int) {
		    hatch_pending_t *pending = nullptr;
		    uint64_t seen = UINT64_MAX;
		    const hatch_arg_t arg = {reinterpret_cast<char *>(&seen), sizeof seen, nullptr, 0, nullptr, 0};
		    const int error = hatch_begin(client.get(), waits, &arg, &pending) == 0 ? 0 : errno;
		    hatch_cancel(pending);
		    return error;
	    },
	    [&](int before, int error, bool failed) {
		    EXPECT_EQ(error, failed ? ENOMEM : 0);
		    EXPECT_EQ(open_descriptors(), before);
	    });
	EXPECT_GT(rounds, 2);
}

// ---- Sources ----

struct Bell {
	Fd fd{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
	int hatch = -1;
	std::atomic<int> runs = 0;
	std::atomic<int> at_once = 0;
	std::atomic<bool> slow = false;
	bool removes = false;

	static void ready(void *cookie)
	{
		auto *bell = static_cast<Bell *>(cookie);
		EXPECT_EQ(bell->at_once++, 0);
		eventfd_t value;
		(void) eventfd_read(bell->fd.get(), &value);
		if (bell->slow)
			sleep_ns(50 * millisecond_ns);
		EXPECT_TRUE(!bell->removes || hatch_source(bell->hatch, bell->fd.get(), nullptr, nullptr) == 0);
		bell->at_once--;
		bell->runs++;
	}
};

TEST_F(HatchParked, ASourceRunsOnTheHatchsThreads)
{
	LocalHatch served(path_);
	Bell bell, once;
	bell.hatch = once.hatch = served.fd();
	auto add = [&](Bell &which) {
		return hatch_source(served.fd(), which.fd.get(), Bell::ready, &which) == 0 ? 0 : errno;
	};
	auto remove = [&](Bell &which) {
		return hatch_source(served.fd(), which.fd.get(), nullptr, nullptr) == 0 ? 0 : errno;
	};
	ASSERT_EQ(add(bell), 0);
	EXPECT_EQ(add(bell), EEXIST);
	for (int i = 1; i <= 50; i++) {
		ASSERT_EQ(eventfd_write(bell.fd.get(), 1), 0);
		ASSERT_TRUE(eventually([&] { return bell.runs == i; }));
	}
	// When a removal returns, it doesn't run.
	bell.slow = true;
	ASSERT_EQ(eventfd_write(bell.fd.get(), 1), 0);
	ASSERT_TRUE(eventually([&] { return bell.at_once == 1; }));
	EXPECT_EQ(remove(bell), 0);
	EXPECT_EQ(bell.runs, 51);
	EXPECT_EQ(remove(bell), ENOENT);
	ASSERT_EQ(eventfd_write(bell.fd.get(), 1), 0);
	once.removes = true;
	ASSERT_EQ(add(once), 0);
	ASSERT_EQ(eventfd_write(once.fd.get(), 1), 0);
	EXPECT_TRUE(eventually([&] { return once.runs == 1; }));
	EXPECT_EQ(remove(once), ENOENT);
	EXPECT_EQ(bell.runs, 51);
	// A revoke waits for it too.
	ASSERT_EQ(add(bell), 0);
	ASSERT_TRUE(eventually([&] { return bell.at_once == 1; }));
	served.revoke();
	EXPECT_EQ(bell.runs, 52);
	EXPECT_EQ(add(bell), EBADF);
}

} // namespace
