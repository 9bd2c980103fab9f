// Peers that misbehave below the protocol, on either side, and what runs out.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "hatch/mapping.h"
#include "hatch/pool.h"
#include "hatch/record.h"
#include "hatch/wire.h"
#include "hatch_socket.h"
#include "scratch.h"

using namespace hatch;

namespace {

class HatchHostile : public ServedHatchTest {};

TEST_F(HatchHostile, WhatIsNoRequestEndsTheConnectionAndNothingElse)
{
	const std::vector<std::string> requests[] = {
	    {""},
	    {std::string(1, 'x')},
	    {head_of(5).substr(0, 15)},
	    {head_of(5, 0) + "hello"},
	    {head_of(5, wire_magic + 1) + "hello"},
	    {head_of(5, wire_magic, 1) + "hello"},
	    {head_of(4) + "hello"},
	    {head_of(0) + "hello"},
	    {head_of(UINT64_MAX) + "hello"},
	    {head_of(UINT64_MAX - head_size) + "hello"},
	    {head_of(piece_max + 100) + std::string(piece_max + 100, 'x')},
	    {head_of(100) + "hello", std::string(96, 'x')},
	};
	for (const auto &messages : requests) {
		SCOPED_TRACE("request " + std::to_string(&messages - requests));
		RawClient client(path_);
		for (const std::string &message : messages)
			ASSERT_TRUE(client.send(message));
		std::string reply = client.receive();
		if (reply != "<end>") { // sizes that can't be had are answered first
			EXPECT_EQ(reply, refusal_of(Refusal::no_memory));
			EXPECT_EQ(client.receive(), "<end>");
		}
		EXPECT_TRUE(serves());
	}
}

// Each waits longer than a thread waits for one client alone: with what its thread keeps for requests, and beyond that.
TEST_F(HatchHostile, ARequestInSlowPiecesComesThroughWhole)
{
	for (size_t size : {size_t{600'000}, size_t{3} << 20}) {
		RawClient client(path_);
		std::string request = test_bytes(size);
		memset(request.data(), 0, sizeof(Ask)); // Do::Echo
		size_t have = 100'000;
		ASSERT_TRUE(client.send(head_of(size) + request.substr(0, have)));
		for (size_t piece = 200'000; have < size; have += piece) {
			if (have < 800'000)
				std::this_thread::sleep_for(std::chrono::milliseconds(40));
			ASSERT_TRUE(serves(2 * piece_max)); // in the same thread's memory
			ASSERT_TRUE(client.send(request.substr(have, piece)));
		}
		EXPECT_TRUE(client.receive_all(size) == request_of(request)) << size;
	}
}

// Sends pieces of a request of `size` bytes, as long as the server takes them. Returns how many bytes it took.
size_t send_endlessly(const RawClient &client, size_t size)
{
	const std::string piece(piece_max, 'x');
	if (!client.send(head_of(size) + "x"))
		return 0;
	size_t sent = 1;
	while (sent + piece.size() < size && client.send(piece))
		sent += piece.size();
	return sent;
}

TEST_F(HatchHostile, ClientsThatNeverReadTheirReplyHoldNobodyUp)
{
	std::vector<RawClient> deaf;
	Ask ask = {Do::Size, 0, size_t{4} << 20};
	for (int i = 0; i < 30; i++) {
		deaf.emplace_back(path_);
		ASSERT_TRUE(deaf.back().send(request_of(ask)));
	}
	EXPECT_TRUE(serves());
	// What was put aside still arrives whole, once somebody reads it.
	EXPECT_TRUE(deaf[3].receive_all(ask.size) == request_of(test_bytes(ask.size)));
	EXPECT_TRUE(deaf[3].is_served());
	deaf.clear();
	EXPECT_TRUE(eventually([&] { return descriptors_of(server_.pid()) < 25; })) << "their connections stay";
}

TEST_F(HatchHostile, AClientThatAsksOnAndOnWithoutReadingIsDropped)
{
	RawClient client(path_);
	std::string request = request_of(std::string(100'000, 'x'));
	(void) fcntl(client.fd(), F_SETFL, O_NONBLOCK);
	EXPECT_TRUE(eventually([&] {
		while (client.send(request))
			;
		return errno == EPIPE || errno == ECONNRESET;
	}));
	EXPECT_TRUE(serves());
}

bool send_with_descriptors(int socket_fd, std::string bytes, const std::vector<int> &fds)
{
	iovec part = {bytes.data(), bytes.size()};
	std::vector<char> control(CMSG_SPACE(fds.size() * sizeof(int)));
	msghdr header = {};
	header.msg_iov = &part;
	header.msg_iovlen = 1;
	header.msg_control = control.data();
	header.msg_controllen = control.size();
	cmsghdr *rights = CMSG_FIRSTHDR(&header);
	rights->cmsg_level = SOL_SOCKET;
	rights->cmsg_type = SCM_RIGHTS;
	rights->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
	memcpy(CMSG_DATA(rights), fds.data(), fds.size() * sizeof(int));
	return sendmsg(socket_fd, &header, MSG_NOSIGNAL) != -1;
}

// Kernels from 6.16 on refuse them for the server; before, it closes them.
TEST_F(HatchHostile, ACallWithDescriptorsIsRefused)
{
	ASSERT_TRUE(serves());
	int before = descriptors_of(server_.pid());
	for (size_t count : {size_t{1}, size_t{8}, size_t{100}, size_t{253}}) {
		RawClient client(path_);
		std::vector<int> fds(count, fd_.get());
		if (send_with_descriptors(client.fd(), head_of(5) + "hello", fds)) {
			EXPECT_EQ(client.receive(), refusal_of(Refusal::descriptors)) << count;
		} else {
			EXPECT_EQ(errno, EPERM);
		}
		EXPECT_TRUE(client.is_served());
	}
	EXPECT_TRUE(eventually([&] { return descriptors_of(server_.pid()) <= before; })) << "they were kept";
}

// A socket with unsent data, whose last close waits for that, for an hour here.
Fd lingering_socket(Fd *other_end)
{
	Fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
	Fd socket_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
	sockaddr_in address = {};
	address.sin_family = AF_INET;
	address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	socklen_t len = sizeof address;
	EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&address), len), 0);
	EXPECT_EQ(listen(listener.get(), 1), 0);
	EXPECT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr *>(&address), &len), 0);
	(void) connect(socket_fd.get(), reinterpret_cast<sockaddr *>(&address), len);
	other_end->reset(accept(listener.get(), nullptr, nullptr));
	std::string bytes(1U << 20, 'x');
	while (send(socket_fd.get(), bytes.data(), bytes.size(), 0) > 0)
		;
	struct linger hour = {1, 3600};
	EXPECT_EQ(setsockopt(socket_fd.get(), SOL_SOCKET, SO_LINGER, &hour, sizeof hour), 0);
	return socket_fd;
}

// What is received with descriptors in spite of all: they are closed, however many, and none of them waits.
TEST(HatchWire, DescriptorsThatComeAlongAreClosedAtOnce)
{
	for (size_t count : {size_t{1}, size_t{8}, size_t{100}, size_t{253}}) {
		int ends[2];
		ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
		Fd here(ends[0]), there(ends[1]), other_end;
		{
			Fd trap = lingering_socket(&other_end);
			std::vector<int> fds(count, there.get());
			fds.back() = trap.get();
			ASSERT_TRUE(send_with_descriptors(there.get(), "x", fds));
		}
		EXPECT_EQ(in_child([&] {
			(void) alarm(10);
			int before = descriptors_of(getpid());
			char byte = 0;
			iovec part = {&byte, 1};
			Message message = receive_message(here.get(), &part, 1, 0);
			return message.size == 1 && message.descriptors && descriptors_of(getpid()) == before ? 0 : 1;
		}),
		    0)
		    << count;
	}
}

TEST_F(HatchHostile, ARequestOfTwoSendersIsNobodys)
{
	SKIP_UNLESS_ROOT();
	RawClient client(path_);
	ASSERT_TRUE(client.send(head_of(10) + "hello"));
	EXPECT_EQ(as_user(1001, [&] { return client.send("world") ? 0 : 1; }), 0);
	EXPECT_EQ(client.receive(), "<end>");
}

class HatchFakeServer : public HatchTest {
protected:
	FakeServer fake_{path_};
	Fd fd_ = open_hatch(path_);
};

TEST_F(HatchFakeServer, AClientBelievesNoLengthAndNoRefusalThatIsNone)
{
	struct Case {
		const char *what;
		std::vector<std::string> messages;
		int error;
	};
	const uint64_t big = 3 * piece_max;
	const Case cases[] = {
	    {"nothing", {}, EBADF},
	    {"a byte", {"x"}, EPROTO},
	    {"another magic", {head_of(2, 1) + "ok"}, EPROTO},
	    {"more than it says", {head_of(1) + "ok"}, EPROTO},
	    {"less than it says", {head_of(big) + "ok"}, EBADF},
	    {"less than it says, twice", {head_of(big) + "ok", "and"}, EBADF},
	    {"a piece too long", {head_of(10) + "ok", std::string(9, 'x')}, EPROTO},
	    {"all there is", {head_of(UINT64_MAX) + "ok"}, ENOMEM},
	    {"nearly all", {head_of(UINT64_MAX - 4096) + "ok"}, ENOMEM},
	    {"an unknown refusal", {head_of(0, wire_magic, 77)}, EPROTO},
	    {"a refusal with data", {head_of(2, wire_magic, 1) + "ok"}, ENOBUFS},
	    {"a refusal", {head_of(0, wire_magic, 1)}, ENOBUFS},
	};
	for (const Case &one : cases) {
		for (size_t room : {size_t{0}, size_t{1}, size_t{100}, 2 * piece_max}) {
			const std::jthread server = fake_.answer(one.messages);
			EXPECT_EQ(call(fd_.get(), std::string("x"), room).error, one.error)
			    << one.what << " into " << room;
			hatch_forget(fd_.get());
		}
	}
	const std::jthread server = fake_.answer({head_of(4) + "go", "od"});
	EXPECT_EQ(call(fd_.get(), std::string("x")).data, "good");
}

// What a server of ours does when a user may not have more of its memory: before the rest of the request comes, while it
// comes, and when all of it waits unread.
TEST_F(HatchFakeServer, ARefusalInTheMiddleOfARequestIsToldAsOne)
{
	for (size_t size : {2 * piece_max, 40 * piece_max}) {
		for (unsigned int delay_ms : {0, 50}) {
			const std::jthread server = fake_.answer({refusal_of(Refusal::no_memory)}, delay_ms);
			EXPECT_EQ(call(fd_.get(), std::string(size, 'x')).error, ENOMEM) << size << ", " << delay_ms;
			hatch_forget(fd_.get());
		}
	}
}

// Callers hold locks meanwhile.
TEST_F(HatchFakeServer, ACallThatHasItsTimeEndsWhateverTheServerDoes)
{
	auto call_within = [&](int seconds) { return call(fd_.get(), std::string("x"), 0, Bounds{seconds, 0}).error; };
	for (uint64_t size : {uint64_t{600}, uint64_t{1} << 30}) {
		const std::jthread server = fake_.dribble(size);
		EXPECT_EQ(call_within(2), ETIMEDOUT) << "a byte now and then of " << size;
	}
	Fd waiting = fake_.accept_nobody();
	hatch_info_t info = {};
	EXPECT_EQ(hatch_info(fd_.get(), &info), 0) << "it looks like a server";
	EXPECT_EQ(call_within(1), ETIMEDOUT) << "nobody accepts";
}

// A client follows nothing out of the directory in which the attached file lies.
TEST_F(HatchHostile, CopiedAndLinkedRecordsLeadNowhere)
{
	Scratch own;
	const std::string real = socket_path(path_);
	Fd trap = listen_at(own.path(real.substr(real.rfind('/') + 1)));
	// A copy beside a socket of the right name: connected to, for it is what its owner says it is...
	ASSERT_EQ(link(path_.c_str(), own.path("linked").c_str()), 0);
	Fd linked = open_hatch(own.path("linked"));
	EXPECT_EQ(call(linked.get(), std::string("x")).error, EBADF) << "a hard link leads to another's socket";
	ASSERT_EQ(unlink(own.path("linked").c_str()), 0);
	EXPECT_EQ(call(linked.get(), std::string("x")).error, EBADF) << "its name has gone";
	// ...and never taken for the original, whose connection is another one.
	EXPECT_TRUE(serves());
}

TEST_F(HatchHostile, ASocketThatIsALinkIsNotFollowed)
{
	std::string elsewhere = scratch_.path("elsewhere");
	LocalHatch other(elsewhere);
	std::string name = socket_path(path_);
	ASSERT_EQ(unlink(name.c_str()), 0);
	ASSERT_EQ(symlink(socket_path(elsewhere).c_str(), name.c_str()), 0);
	EXPECT_EQ(call(fd_.get(), std::string("x")).error, EBADF);
	ASSERT_EQ(unlink(name.c_str()), 0);
	attachable(name);
	EXPECT_EQ(call(fd_.get(), std::string("x")).error, EBADF);
	ASSERT_EQ(unlink(name.c_str()), 0);
	EXPECT_EQ(call(fd_.get(), std::string("x")).error, EBADF);
}

TEST_F(HatchHostile, AReadersLockDoesNotMakeADeadServerAlive)
{
	ASSERT_TRUE(serves());
	Fd attacker = open_hatch(path_);
	struct flock lock = {};
	lock.l_type = F_RDLCK;
	(void) fcntl(attacker.get(), F_OFD_SETLK, &lock);
	server_.kill();
	(void) fcntl(attacker.get(), F_OFD_SETLK, &lock);
	hatch_info_t info = {};
	ASSERT_EQ(hatch_info(fd_.get(), &info), 0);
	EXPECT_EQ(info.di_attributes & HATCH_REVOKED, HATCH_REVOKED);
}

// ---- What runs out ----

class HatchLimits : public HatchTest {};

// Everybody who can reach a hatch can send to it, with or without a right.
TEST_F(HatchLimits, ARequestWithoutAnEndIsRefusedBeforeItTakesTheMachinesMemory)
{
	constexpr size_t mib = size_t{1} << 20;
	set_pool_size(64 * mib);
	Process server = serve(path_);
	set_pool_size(0);
	Fd fd = open_hatch(path_);
	{
		RawClient first(path_), second(path_), third(path_);
		const std::string refusal = refusal_of(Refusal::no_memory);
		EXPECT_GT(send_endlessly(first, 48 * mib), 47 * mib) << "the server could bear it";
		EXPECT_GT(send_endlessly(second, 48 * mib), 47 * mib);
		EXPECT_EQ(first.receive(), refusal) << "both are held";
		EXPECT_LT(send_endlessly(third, 65 * mib), 2 * mib) << "no user could ever have so much";
		EXPECT_EQ(third.receive(), refusal);
		const std::string request(3 * piece_max, 'x');
		EXPECT_EQ(call(fd.get(), request).data, request);
	}
	EXPECT_TRUE(sanitized || eventually([&] { return anonymous_kib(server.pid()) < 16 * 1024; })) << "it stays";
}

// The time that a process computes in 300 ms, in ms.
long computes(pid_t pid)
{
	auto now = [pid] {
		clockid_t clock;
		timespec used = {};
		must(clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &used) == 0, "clock");
		return used.tv_sec * 1000 + used.tv_nsec / 1'000'000;
	};
	const long before = now();
	usleep(300'000);
	return now() - before;
}

TEST_F(HatchLimits, WithoutAnyDescriptorLeftNothingSpinsAndServingGoesOnLater)
{
	Signal ready, go;
	Process server([&] {
		LocalHatch served(path_);
		(void) allow_descriptors(100);
		std::vector<Fd> all;
		do
			all.emplace_back(dup(0));
		while (all.back());
		ready.raise();
		go.wait();
		all.clear();
		for (;;)
			pause();
		return 0;
	});
	ready.wait();
	RawClient waiting(path_);
	ASSERT_TRUE(waiting.send(request_of("x")));
	usleep(50'000);
	EXPECT_LE(computes(server.pid()), 50) << "it spins";
	go.raise();
	EXPECT_EQ(waiting.receive(), request_of("x"));
}

TEST_F(HatchLimits, AnIdleServerNeedsNoProcessorAndLittleMemoryAlsoWithAThousandClients)
{
	if (allow_descriptors(4096) < 1200)
		GTEST_SKIP() << "too few descriptors allowed";
	Process server = serve(path_);
	const long alone = anonymous_kib(server.pid());
	std::vector<RawClient> clients;
	for (int i = 0; i < 1024; i++) {
		clients.emplace_back(path_);
		ASSERT_TRUE(clients.back().is_served());
	}
	EXPECT_LE(computes(server.pid()), 5);
	if (!sanitized) {
		EXPECT_LE(alone, 4 * 1024);
		EXPECT_LE(anonymous_kib(server.pid()) - alone, 16 * 1024);
	}
	// Those that ask on and on have threads of their own, up to a bound.
	for (int call = 0; call < 20 * 150; call++)
		ASSERT_TRUE(clients[call % 150].is_served());
	EXPECT_LT(entries_of("/proc/" + std::to_string(server.pid()) + "/task").size(), HATCH_THREADS_MAX / 4 + 32U);
}

} // namespace
