// Calls: what goes out, what comes back, what a handler may do, and what a call can fail with.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <thread>
#include <vector>

#include "hatch/server.h"
#include "hatch/wire.h"
#include "hatch_peer.h"

using hatch::head_size;
using hatch::memory_kept;
using hatch::piece_max;

namespace {

class HatchCall : public ServedHatchTest {};

// Sizes on both sides of every border: nothing, a buffer, a page, a message, many messages, what a thread keeps room for;
// and small ones where large ones were before.
const size_t sizes[] = {0, 1, 15, 16, 17, 39, 40, 4095, 4096, 4097, 65536, piece_max - 17, piece_max - 1, piece_max,
    piece_max + 1, 2 * piece_max, 3 * piece_max + 5, memory_kept - head_size, memory_kept - head_size + 1, 4096,
    size_t{sanitized ? 2 : 64} << 20, 4097};

TEST_F(HatchCall, RequestsAndRepliesOfEveryLengthComeThroughWhole)
{
	for (size_t size : sizes) {
		std::string request = test_bytes(size);
		if (size >= sizeof(Ask))
			memset(request.data(), 0, sizeof(Ask)); // Do::Echo
		Answer answer = call(fd_.get(), request);
		EXPECT_EQ(answer.error, 0) << size;
		EXPECT_TRUE(answer.data == request) << size;
		EXPECT_EQ(answer.mapped, size != 0);
		answer = call(fd_.get(), Ask{Do::Size, 0, size});
		EXPECT_EQ(answer.error, 0) << size;
		EXPECT_TRUE(answer.data == test_bytes(size)) << size;
	}
}

TEST_F(HatchCall, AReplyLiesInTheCallersBufferExactlyIfItFits)
{
	for (size_t size :
	    {size_t{1}, size_t{100}, size_t{5000}, piece_max - 16, piece_max, piece_max + 1, 3 * piece_max}) {
		std::string expected = test_bytes(size);
		for (size_t room : {size / 2, size - 1, size, size + 1, size + 2 * piece_max}) {
			Answer answer = call(fd_.get(), Ask{Do::Size, 0, size}, room);
			EXPECT_EQ(answer.mapped, room < size) << size << " in " << room;
			EXPECT_TRUE(answer.data == expected) << size << " in " << room;
		}
	}
}

TEST_F(HatchCall, AFreshMappingIsDescribedToThePage)
{
	for (size_t size : {5000, 0}) {
		Ask ask = {Do::Size, 0, size};
		hatch_arg_t arg = {reinterpret_cast<char *>(&ask), sizeof ask, nullptr, 0, nullptr, 1};
		ASSERT_EQ(hatch_call(fd_.get(), &arg), 0);
		EXPECT_EQ(arg.data_size, size);
		EXPECT_EQ(arg.rsize, size == 0 ? 1 : size);
		if (size == 0) {
			EXPECT_EQ(arg.rbuf, nullptr) << "without data there is none";
			break;
		}
		EXPECT_EQ(arg.data_ptr, arg.rbuf);
		arg.rbuf[8191] = 'x'; // the whole of its last page is the caller's
		ASSERT_EQ(munmap(arg.rbuf, arg.rsize), 0);
		unsigned char resident[2];
		EXPECT_EQ(mincore(arg.rbuf, 8192, resident), -1);
		EXPECT_EQ(errno, ENOMEM);
	}
}

TEST_F(HatchCall, BadArgumentsAreRefused)
{
	LocalHatch served(scratch_.path("own"));
	hatch_desc_t desc = {0, fd_.get()};
	hatch_arg_t with_desc = {nullptr, 0, &desc, 1, nullptr, 1}, without_data = {nullptr, 5, nullptr, 0, nullptr, 1};
	peercred_t *cred = nullptr;
	auto errno_of = [](int result) { return result == -1 ? errno : 0; };
	EXPECT_EQ(errno_of(hatch_setparam(served.fd(), HATCH_PARAM_DATA_MIN + 1, 4)), EINVAL);
	EXPECT_EQ(errno_of(hatch_setparam(fd_.get(), HATCH_PARAM_DATA_MIN, 4)), EBADF);
	EXPECT_EQ(errno_of(hatch_create(obey, nullptr, HATCH_REVOKED)), EINVAL);
	EXPECT_EQ(errno_of(hatch_create(nullptr, nullptr, HATCH_REFUSE_DESC)), EINVAL);
	EXPECT_EQ(errno_of(hatch_call(fd_.get(), &with_desc)), ENOTSUP);
	EXPECT_EQ(errno_of(hatch_call(fd_.get(), &without_data)), EFAULT);
	EXPECT_EQ(errno_of(hatch_call(fd_.get(), nullptr)), EFAULT);
	EXPECT_EQ(errno_of(hatch_info(fd_.get(), nullptr)), EFAULT);
	// Outside of a handler.
	EXPECT_EQ(errno_of(hatch_peercred(&cred)), EINVAL);
	EXPECT_EQ(errno_of(hatch_return("x", 1, nullptr, 0)), EINVAL);
	EXPECT_EQ(errno_of(hatch_reply_memory(10) == nullptr ? -1 : 0), EINVAL);
}

TEST_F(HatchCall, AReturnThatFailsComesBackAndTheNextOneReplies)
{
	EXPECT_EQ(call(fd_.get(), Ask{Do::NoReply, 0, 0}).error, ECONNABORTED)
	    << "not taken for a server that has gone";
	EXPECT_EQ(numbers_of(call(fd_.get(), Ask{Do::ReturnBadly, 0, 0})), (std::vector{EFAULT, ENOTSUP}));
	EXPECT_EQ(numbers_of(call(fd_.get(), Ask{Do::Fork, 0, 0})), std::vector{7}) << "a forked child is no handler";
	EXPECT_EQ(call(fd_.get(), std::string("next")).data, "next");
}

TEST_F(HatchCall, NoDescriptorButAHatchsCanBeCalled)
{
	int pipe_ends[2];
	ASSERT_EQ(pipe(pipe_ends), 0);
	Fd reader(pipe_ends[0]), writer(pipe_ends[1]);
	Fd plain = open_hatch(scratch_.write("plain", "some text"));
	Fd copy = open_hatch(scratch_.write("copy", "MERIDON-HATCH 1 0123456789abcdef0123456789abcdef\n"));
	Fd directory(open(scratch_.directory().c_str(), O_RDONLY | O_DIRECTORY));
	Fd path_only(open(path_.c_str(), O_PATH));
	Fd zero(open("/dev/zero", O_RDONLY));
	for (int fd : {-1, 99999, reader.get(), writer.get(), plain.get(), copy.get(), directory.get(), path_only.get(),
		 zero.get()}) {
		hatch_info_t info;
		EXPECT_EQ(call(fd, std::string("x")).error, EBADF) << fd;
		EXPECT_EQ(hatch_info(fd, &info), -1);
		EXPECT_EQ(errno, EBADF);
		hatch_forget(fd);
	}
	EXPECT_EQ(lseek(copy.get(), 0, SEEK_CUR), 0) << "a file that never was a hatch is marked as one";
}

TEST_F(HatchCall, HandlersThatBlockHoldNobodyUpUntilThereAreTooManyAndThenCallsWait)
{
	LocalHatch served(scratch_.path("own"));
	Fd fd = open_hatch(scratch_.path("own"));
	std::vector<std::jthread> threads;
	std::atomic<int> failed = 0;
	auto add = [&](int count) {
		for (int i = 0; i < count; i++)
			threads.emplace_back([&] { failed += call(fd.get(), Ask{Do::Block, 0, 0}).error != 0; });
	};
	add(HATCH_THREADS_MAX - 1);
	EXPECT_TRUE(eventually([&] { return blocked_calls() == HATCH_THREADS_MAX - 1; }));
	EXPECT_EQ(call(fd.get(), std::string("still here")).data, "still here");
	add(10);
	EXPECT_TRUE(eventually([&] { return blocked_calls() == HATCH_THREADS_MAX; }));
	std::this_thread::sleep_for(std::chrono::milliseconds(20));
	EXPECT_EQ(blocked_calls(), HATCH_THREADS_MAX);
	release_blocked();
	threads.clear();
	EXPECT_EQ(failed, 0);
	EXPECT_EQ(call(fd.get(), std::string("after")).data, "after");
}

// Stops a process `stopped_ms` long, again and again; 0: so short that it is hardly noticed.
Process stop_often(pid_t pid, unsigned int pause_ms, unsigned int stopped_ms)
{
	return Process([=] {
		do {
			usleep(pause_ms * 1000);
			(void) kill(pid, SIGSTOP);
			usleep(stopped_ms * 1000);
		} while (kill(pid, SIGCONT) == 0);
		return 0;
	});
}

enum { By_stops = -1 };
class Interrupted : public HatchCall, public testing::WithParamInterface<int> {};

// Waits for a connection, for room to send, for the reply and for the rest of it, with a bound and without.
TEST_P(Interrupted, CallGoesOnWhateverTheHandlerSays)
{
	Process client([&] {
		struct sigaction action = {};
		action.sa_handler = [](int) {};
		action.sa_flags = GetParam();
		const itimerval often = {{0, 3000}, {0, 3000}};
		if (GetParam() != By_stops &&
		    (sigaction(SIGALRM, &action, nullptr) != 0 || setitimer(ITIMER_REAL, &often, nullptr) != 0))
			return 1;
		const std::string much = test_bytes(3'000'000);
		for (int seconds : {0, 100}) {
			if (call(fd_.get(), Ask{Do::Sleep, 100, 0}, 0, Bounds{seconds, 0}).error != 0)
				return 2;
			for (int i = 0; i < 20; i++) {
				if (call(fd_.get(), much, 0, Bounds{seconds, 0}).data != much)
					return 3;
			}
			hatch_forget(fd_.get());
		}
		return 0;
	});
	Process stopper = GetParam() == By_stops ? stop_often(client.pid(), 3, 0) : Process([] { return 0; });
	EXPECT_EQ(client.wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(Hatch, Interrupted, testing::Values(0, SA_RESTART, int{By_stops}));

TEST_F(HatchCall, AReplyThatCameWhileTheCallerWasStoppedIsTakenThoughTheTimeIsOver)
{
	Process client([&] { return call(fd_.get(), Ask{Do::Sleep, 300, 0}, 0, Bounds{1, 0}).error; });
	Process stopper = stop_often(client.pid(), 100, 3000);
	EXPECT_EQ(client.wait(), 0);
}

TEST_F(HatchCall, CyclesAndFailuresLeaveNothingBehind)
{
	Fd plain = open_hatch(scratch_.write("plain", "x"));
	auto repeat = [&](int times) {
		for (int i = 0; i < times; i++) {
			Fd fd = open_hatch(path_);
			ASSERT_EQ(call(fd.get(), std::string(100, 'x'), 200).error, 0);
			hatch_forget(fd.get());
			for (int k = 0; k < 10; k++) {
				ASSERT_EQ(call(plain.get(), std::string("x")).error, EBADF);
				ASSERT_EQ(call(fd_.get(), Ask{Do::NoReply, 0, 0}).error, ECONNABORTED);
			}
		}
		hatch_forget(fd_.get());
	};
	repeat(1);
	const int own = open_descriptors();
	const long own_kib = anonymous_kib(), server_kib = anonymous_kib(server_.pid());
	repeat(1000);
	EXPECT_EQ(open_descriptors(), own);
	// What the process had open was its three streams, its set, its place and its threads: no connection stays.
	EXPECT_TRUE(eventually([&] { return descriptors_of(server_.pid()) <= own + 12; }));
	if (!sanitized) {
		EXPECT_LT(anonymous_kib() - own_kib, 2048);
		EXPECT_LT(anonymous_kib(server_.pid()) - server_kib, 2048);
	}
}

using HatchCallBounded = HatchCall;

TEST_F(HatchCallBounded, GivesUpAServerThatStaysSilentAndTheNextOneIsServed)
{
	auto call = [&](uint32_t ms, int seconds) {
		return ::call(fd_.get(), Ask{Do::Sleep, ms, 0}, 0, Bounds{seconds, 0}).error;
	};
	EXPECT_EQ(call(0, 1), 0);
	EXPECT_EQ(call(1500, 1), ETIMEDOUT);
	EXPECT_EQ(call(0, 1), 0);
	EXPECT_EQ(call(1200, 0), 0); // the bound of an earlier call is gone
	EXPECT_EQ(call(0, -1), EFAULT);
}

TEST_F(HatchCallBounded, TakesNoReplyThatIsTooLongAndGoesOn)
{
	for (size_t size : {size_t{40}, size_t{5000}, size_t{3} << 20}) {
		for (size_t most : {size, size - 1, size_t{0}}) {
			const Answer answer = call(fd_.get(), Ask{Do::Size, 0, size}, 64, Bounds{0, most});
			EXPECT_EQ(answer.error, most == size - 1 ? EMSGSIZE : 0) << size << " of " << most;
			EXPECT_EQ(answer.data.size(), most == size - 1 ? 0 : size) << size << " of " << most;
		}
	}
}

} // namespace
