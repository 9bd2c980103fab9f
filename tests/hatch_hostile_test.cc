// Peers that misbehave below the protocol, on either side, and what runs out.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <vector>

#include "hatch/mapping.h"
#include "hatch/pool.h"
#include "hatch/record.h"
#include "hatch/wire.h"
#include "hatch_peer.h"
#include "scratch.h"

using namespace hatch;

namespace {

std::string head_of(uint64_t size, uint32_t magic = wire_magic, uint32_t second = 0)
{
	RequestHead head = {magic, second, size};
	return std::string(reinterpret_cast<const char *>(&head), sizeof head);
}

std::string socket_path(const std::string &path)
{
	Id id = {};
	Fd fd = open_hatch(path);
	EXPECT_TRUE(read_record(fd.get(), &id));
	return path.substr(0, path.rfind('/') + 1) + socket_name(id).text;
}

sockaddr_un address_of(const std::string &path)
{
	sockaddr_un address = {};
	address.sun_family = AF_UNIX;
	path.copy(address.sun_path, sizeof address.sun_path - 1);
	return address;
}

// A client that speaks to the socket itself.
class RawClient {
public:
	explicit RawClient(const std::string &path) : socket_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))
	{
		sockaddr_un address = address_of(socket_path(path));
		EXPECT_EQ(connect(socket_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
		(void) prepare_sending(socket_.get());
		struct timeval wait = {10, 0};
		EXPECT_EQ(setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait), 0);
	}
	int fd() const { return socket_.get(); }
	bool send(const std::string &bytes) const
	{
		return ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
		       static_cast<ssize_t>(bytes.size());
	}
	// What arrives next; "<end>" when the server hung up, "<nothing>" if it neither answers nor hangs up.
	std::string receive() const
	{
		std::string bytes(piece_max + head_size, '\0');
		ssize_t got = recv(socket_.get(), bytes.data(), bytes.size(), 0);
		if (got == -1)
			return errno == ECONNRESET ? "<end>" : "<nothing>";
		bytes.resize(static_cast<size_t>(got));
		return got == 0 ? "<end>" : bytes;
	}

private:
	Fd socket_;
};

ptrdiff_t threads_of(pid_t pid)
{
	return std::ssize(entries_of("/proc/" + std::to_string(pid) + "/task"));
}

class HatchHostile : public testing::Test {
protected:
	bool serves(size_t size = 10)
	{
		std::string request(size, 'x');
		return call(fd_.get(), request).data == request;
	}

	Scratch scratch_;
	std::string path_ = attachable(scratch_.path("hatch"));
	Process server_ = serve(path_);
	Fd fd_ = open_hatch(path_);
};

TEST_F(HatchHostile, ARawRequestInOneMessageIsServed)
{
	RawClient client(path_);
	ASSERT_TRUE(client.send(head_of(5) + "hello"));
	std::string reply = client.receive();
	EXPECT_EQ(reply, head_of(5) + "hello");
}

TEST_F(HatchHostile, WhatIsNoRequestEndsTheConnectionAndNothingElse)
{
	const std::string messages[] = {
	    std::string(1, 'x'),
	    head_of(5).substr(0, 15),
	    head_of(5, 0) + "hello",
	    head_of(5, wire_magic + 1) + "hello",
	    head_of(5, wire_magic, 1) + "hello",
	    head_of(4) + "hello",
	    head_of(0) + "hello",
	    head_of(UINT64_MAX) + "hello",
	    head_of(UINT64_MAX - head_size) + "hello",
	    head_of(piece_max + 100) + std::string(piece_max + 100, 'x'),
	};
	for (const std::string &message : messages) {
		RawClient client(path_);
		ASSERT_TRUE(client.send(message));
		std::string reply = client.receive();
		if (reply != "<end>") { // sizes that can't be had are answered first
			EXPECT_EQ(reply, head_of(0, wire_magic, static_cast<uint32_t>(Refusal::no_memory)));
			EXPECT_EQ(client.receive(), "<end>");
		}
		EXPECT_TRUE(serves());
	}
	RawClient empty(path_);
	ASSERT_EQ(send(empty.fd(), "", 0, 0), 0);
	EXPECT_EQ(empty.receive(), "<end>");
}

TEST_F(HatchHostile, APieceThatIsTooLongForItsRequestEndsTheConnection)
{
	RawClient client(path_);
	ASSERT_TRUE(client.send(head_of(100) + "hello"));
	ASSERT_TRUE(client.send(std::string(96, 'x')));
	EXPECT_EQ(client.receive(), "<end>");
	EXPECT_TRUE(serves());
}

TEST_F(HatchHostile, SilentAndHalfwayClientsHoldNobodyUp)
{
	std::vector<RawClient> silent, halfway;
	for (int i = 0; i < 300; i++) {
		silent.emplace_back(path_);
		halfway.emplace_back(path_);
		ASSERT_TRUE(halfway.back().send(head_of(1000) + std::string(500, 'x')));
	}
	EXPECT_TRUE(serves());
	EXPECT_TRUE(serves(3 * piece_max));
	ASSERT_TRUE(halfway[7].send(std::string(500, 'y')));
	EXPECT_EQ(halfway[7].receive(), head_of(1000) + std::string(500, 'x') + std::string(500, 'y'));
	EXPECT_LT(threads_of(server_.pid()), 12) << "they hold threads";
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
		std::string reply = client.receive();
		while (reply.size() < head_size + size) {
			std::string more = client.receive();
			ASSERT_TRUE(more != "<end>" && more != "<nothing>") << more;
			reply += more;
		}
		EXPECT_TRUE(reply == head_of(size) + request) << size;
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

TEST_F(HatchHostile, DribblingClientsHoldNobodyUp)
{
	std::vector<RawClient> dribbling;
	for (int i = 0; i < 20; i++) {
		dribbling.emplace_back(path_);
		ASSERT_TRUE(dribbling.back().send(head_of(1000) + std::string(500, 'x')));
	}
	for (int i = 0; i < 50; i++) {
		for (RawClient &client : dribbling)
			ASSERT_TRUE(client.send("y"));
		EXPECT_TRUE(serves(3 * piece_max));
	}
	EXPECT_LT(threads_of(server_.pid()), 12) << "they hold threads";
	for (RawClient &client : dribbling) {
		ASSERT_TRUE(client.send(std::string(450, 'z')));
		EXPECT_EQ(client.receive(),
		    head_of(1000) + std::string(500, 'x') + std::string(50, 'y') + std::string(450, 'z'));
	}
}

TEST_F(HatchHostile, ClientsThatAskOnAndOnHaveThreadsOfTheirOwnUpToABound)
{
	std::vector<RawClient> busy;
	busy.reserve(150);
	for (int i = 0; i < 150; i++)
		busy.emplace_back(path_);
	for (int round = 0; round < 20; round++) {
		for (RawClient &client : busy) {
			ASSERT_TRUE(client.send(head_of(1) + "x"));
			ASSERT_EQ(client.receive(), head_of(1) + "x");
		}
	}
	EXPECT_TRUE(serves());
	EXPECT_LT(threads_of(server_.pid()), HATCH_THREADS_MAX / 4 + 32);
}

TEST_F(HatchHostile, ClientsThatNeverReadTheirReplyHoldNobodyUp)
{
	std::vector<RawClient> deaf;
	Ask ask = {Do::Size, 0, size_t{4} << 20};
	std::string request = head_of(sizeof ask) + std::string(reinterpret_cast<const char *>(&ask), sizeof ask);
	for (int i = 0; i < 30; i++) {
		deaf.emplace_back(path_);
		ASSERT_TRUE(deaf.back().send(request));
	}
	EXPECT_TRUE(serves());
	// What was put aside still arrives whole, once somebody reads it.
	std::string reply = deaf[3].receive();
	while (reply.size() < head_size + ask.size) {
		std::string more = deaf[3].receive();
		ASSERT_TRUE(more != "<end>" && more != "<nothing>");
		reply += more;
	}
	EXPECT_TRUE(reply.substr(head_size) == test_bytes(ask.size));
	ASSERT_TRUE(deaf[3].send(head_of(2) + "ok"));
	EXPECT_EQ(deaf[3].receive(), head_of(2) + "ok");
	deaf.clear();
	EXPECT_TRUE(eventually([&] { return descriptors_of(server_.pid()) < 25; })) << "their connections stay";
}

TEST_F(HatchHostile, AClientThatAsksOnAndOnWithoutReadingIsDropped)
{
	RawClient client(path_);
	std::string request = head_of(100'000) + std::string(100'000, 'x');
	(void) fcntl(client.fd(), F_SETFL, O_NONBLOCK);
	EXPECT_TRUE(eventually([&] {
		while (client.send(request))
			;
		return errno == EPIPE || errno == ECONNRESET;
	}));
	EXPECT_TRUE(serves());
}

TEST_F(HatchHostile, ClientsThatVanishInMidCallLeaveNothing)
{
	ASSERT_TRUE(serves());
	int before = descriptors_of(server_.pid());
	Ask ask = {Do::Sleep, 20, 0};
	std::string sleep = head_of(sizeof ask) + std::string(reinterpret_cast<const char *>(&ask), sizeof ask);
	for (int i = 0; i < 50; i++) {
		RawClient half(path_);
		ASSERT_TRUE(half.send(head_of(1000) + "half"));
		RawClient gone(path_);
		ASSERT_TRUE(gone.send(sleep));
	}
	EXPECT_TRUE(eventually([&] { return descriptors_of(server_.pid()) <= before; }));
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
			EXPECT_EQ(client.receive(), head_of(0, wire_magic, static_cast<uint32_t>(Refusal::descriptors)))
			    << count;
		} else {
			EXPECT_EQ(errno, EPERM);
		}
		ASSERT_TRUE(client.send(head_of(2) + "ok"));
		EXPECT_EQ(client.receive(), head_of(2) + "ok");
	}
	EXPECT_TRUE(eventually([&] { return descriptors_of(server_.pid()) <= before; })) << "they were kept";
}

// A socket with unsent data whose close waits for it: whoever closes it last waits, for an hour here.
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

TEST_F(HatchHostile, ADescriptorWhoseCloseWaitsHoldsNobodyUp)
{
	Fd other_end;
	RawClient client(path_);
	{
		Fd trap = lingering_socket(&other_end);
		bool sent = send_with_descriptors(client.fd(), head_of(5) + "hello", {trap.get()});
		ASSERT_TRUE(sent || client.send(head_of(5) + "hello"));
		if (!sent)
			other_end.reset(); // the trap is still ours to close
	}
	EXPECT_NE(client.receive(), "<nothing>") << "a thread waits for it";
	EXPECT_TRUE(serves());
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
		Process receiver([&] {
			(void) alarm(10);
			int before = descriptors_of(getpid());
			char byte = 0;
			iovec part = {&byte, 1};
			Message message = receive_message(here.get(), &part, 1, 0);
			return message.size == 1 && message.descriptors && descriptors_of(getpid()) == before ? 0 : 1;
		});
		here.reset();
		EXPECT_EQ(receiver.wait(), 0) << count;
	}
}

TEST_F(HatchHostile, ARequestOfTwoSendersIsNobodys)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "changing the user id needs root";
	RawClient client(path_);
	ASSERT_TRUE(client.send(head_of(10) + "hello"));
	Process other([&] {
		become(1001, 1001);
		return client.send("world") ? 0 : 1;
	});
	EXPECT_EQ(other.wait(), 0);
	EXPECT_EQ(client.receive(), "<end>");
}

// A server that says what it likes: it holds a real attachment, but its socket is another one.
class FakeServer {
public:
	explicit FakeServer(const std::string &path) : hatch_(path), listener_(socket(AF_UNIX, SOCK_SEQPACKET, 0))
	{
		std::string name = socket_path(path);
		EXPECT_EQ(unlink(name.c_str()), 0);
		sockaddr_un address = address_of(name);
		EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
		EXPECT_EQ(listen(listener_.get(), 10), 0);
	}
	// Accepts nobody: from here on, whoever connects has to wait.
	Fd accept_nobody(const std::string &path)
	{
		EXPECT_EQ(listen(listener_.get(), 0), 0);
		Fd waiting(socket(AF_UNIX, SOCK_SEQPACKET, 0));
		sockaddr_un address = address_of(socket_path(path));
		EXPECT_EQ(connect(waiting.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
		return waiting;
	}
	// Answers one call with a reply of `size` bytes, of which it sends one each 100 ms until the client has had enough.
	std::thread dribble(uint64_t size)
	{
		return std::thread([this, size] {
			Fd client(accept(listener_.get(), nullptr, nullptr));
			std::string request(1000, '\0'), piece = head_of(size) + "x";
			(void) !recv(client.get(), request.data(), request.size(), 0);
			for (uint64_t sent = 0; sent < size; sent++, piece = "x", usleep(100'000)) {
				if (send(client.get(), piece.data(), piece.size(), MSG_NOSIGNAL) == -1)
					break;
			}
		});
	}
	// Answers one call with these messages, and hangs up.
	std::thread answer(std::vector<std::string> messages)
	{
		return std::thread([this, messages = std::move(messages)] {
			Fd client(accept(listener_.get(), nullptr, nullptr));
			std::string request(1000, '\0');
			(void) !recv(client.get(), request.data(), request.size(), 0);
			for (const std::string &message : messages)
				(void) !send(client.get(), message.data(), message.size(), MSG_NOSIGNAL);
		});
	}

private:
	LocalHatch hatch_;
	Fd listener_;
};

TEST(HatchFakeServer, AClientBelievesNoLengthAndNoRefusalThatIsNone)
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
	Scratch scratch;
	std::string path = attachable(scratch.path("hatch"));
	FakeServer fake(path);
	Fd fd = open_hatch(path);
	for (const Case &one : cases) {
		for (size_t room : {size_t{0}, size_t{1}, size_t{100}, 2 * piece_max}) {
			std::thread server = fake.answer(one.messages);
			EXPECT_EQ(call(fd.get(), std::string("x"), room).error, one.error)
			    << one.what << " into " << room;
			hatch_forget(fd.get());
			server.join();
		}
	}
	std::thread server = fake.answer({head_of(4) + "go", "od"});
	EXPECT_EQ(call(fd.get(), std::string("x")).data, "good");
	server.join();
}

// Callers hold locks meanwhile.
TEST(HatchFakeServer, ACallThatHasItsTimeEndsWhateverTheServerDoes)
{
	Scratch scratch;
	std::string path = attachable(scratch.path("hatch"));
	FakeServer fake(path);
	Fd fd = open_hatch(path);
	alarm(60);
	auto call_within = [&](int seconds) {
		char request[] = "x";
		hatch_arg_t arg = {request, 1, nullptr, 0, nullptr, 0};
		return hatch_call_bounded(fd.get(), &arg, seconds, 0) == 0 ? 0 : errno;
	};
	for (uint64_t size : {uint64_t{600}, uint64_t{1} << 30}) {
		std::thread server = fake.dribble(size);
		EXPECT_EQ(call_within(2), ETIMEDOUT) << "a byte now and then of " << size;
		server.join();
	}
	Fd waiting = fake.accept_nobody(path);
	hatch_info_t info = {};
	EXPECT_EQ(hatch_info(fd.get(), &info), 0) << "it looks like a server";
	EXPECT_EQ(call_within(1), ETIMEDOUT) << "nobody accepts";
	alarm(0);
}

// A client takes no road that leads out of the directory in which the attached file lies.
TEST_F(HatchHostile, CopiedAndLinkedRecordsLeadNowhere)
{
	Scratch own;
	Id id = {};
	ASSERT_TRUE(read_record(fd_.get(), &id));
	std::string trap = own.path(socket_name(id).text);
	Fd listener(socket(AF_UNIX, SOCK_SEQPACKET, 0));
	sockaddr_un address = address_of(trap);
	ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
	ASSERT_EQ(listen(listener.get(), 10), 0);
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

Process serve_with_limit(const std::string &path, rlim_t descriptors)
{
	struct rlimit before, limit;
	EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
	limit = {descriptors, before.rlim_max};
	EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
	Process server = serve(path);
	EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
	return server;
}

TEST(HatchLimits, WhenDescriptorsRunOutTheLongestIdleConnectionGoesAndRunningCallsGoOn)
{
	Scratch scratch;
	std::string path = attachable(scratch.path("hatch"));
	Process server = serve_with_limit(path, 64);
	Fd fd = open_hatch(path);
	Answer slow;
	std::thread running([&] { slow = call(fd.get(), Ask{Do::Sleep, 300, 0}); });
	std::vector<RawClient> clients;
	for (int i = 0; i < 200; i++) {
		clients.emplace_back(path);
		ASSERT_TRUE(clients.back().send(head_of(1) + "x"));
		ASSERT_EQ(clients.back().receive(), head_of(1) + "x") << i;
	}
	EXPECT_EQ(clients.front().receive(), "<end>");
	ASSERT_TRUE(clients.back().send(head_of(1) + "y"));
	EXPECT_EQ(clients.back().receive(), head_of(1) + "y");
	EXPECT_LT(descriptors_of(server.pid()), 64 - 10) << "handlers have none left";
	running.join();
	EXPECT_EQ(slow.error, 0);
	// A kept connection that was dropped meanwhile is made anew, unseen.
	EXPECT_EQ(call(fd.get(), std::string("x")).data, "x");
}

// Whoever can reach a hatch can send to it, with or without a right.
TEST(HatchLimits, ARequestWithoutAnEndIsRefusedBeforeItTakesTheMachinesMemory)
{
	constexpr size_t mib = size_t{1} << 20;
	Scratch scratch;
	std::string path = attachable(scratch.path("hatch"));
	set_pool_size(64 * mib);
	Process server = serve(path);
	set_pool_size(0);
	Fd fd = open_hatch(path);
	{
		RawClient first(path), second(path), third(path);
		const std::string refusal = head_of(0, wire_magic, static_cast<uint32_t>(Refusal::no_memory));
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

TEST(HatchLimits, ConnectionsThatAreInUseAgainAndAgainGoTooAndLoseNoCall)
{
	Scratch scratch;
	std::string path = attachable(scratch.path("hatch"));
	Process server = serve_with_limit(path, 64);
	std::vector<RawClient> clients;
	for (int i = 0; i < 200; i++) {
		clients.emplace_back(path);
		for (int n = 0; n < 4; n++) {
			ASSERT_TRUE(clients.back().send(head_of(1) + "x")) << i;
			ASSERT_EQ(clients.back().receive(), head_of(1) + "x") << i;
		}
	}
	EXPECT_TRUE(eventually([&] { return descriptors_of(server.pid()) < 64 - 10; })) << "handlers have none left";
}

long cpu_ticks(pid_t pid)
{
	std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
	std::string skipped;
	for (int i = 0; i < 13; i++)
		stat >> skipped;
	long user = 0, system = 0;
	stat >> user >> system;
	return user + system;
}

TEST(HatchLimits, WithoutAnyDescriptorLeftNothingSpinsAndServingGoesOnLater)
{
	Scratch scratch;
	std::string path = attachable(scratch.path("hatch"));
	int ready[2], go[2];
	ASSERT_EQ(pipe(ready), 0);
	ASSERT_EQ(pipe(go), 0);
	Process server([&] {
		LocalHatch served(path);
		std::vector<Fd> all;
		struct rlimit limit = {100, 100};
		(void) setrlimit(RLIMIT_NOFILE, &limit);
		do
			all.emplace_back(dup(0));
		while (all.back());
		(void) !write(ready[1], "x", 1);
		char byte;
		(void) !read(go[0], &byte, 1);
		all.clear();
		(void) !write(ready[1], "x", 1);
		for (;;)
			pause();
		return 0;
	});
	char byte;
	ASSERT_EQ(read(ready[0], &byte, 1), 1);
	RawClient waiting(path);
	ASSERT_TRUE(waiting.send(head_of(1) + "x"));
	std::this_thread::sleep_for(std::chrono::milliseconds(50));
	long before = cpu_ticks(server.pid());
	std::this_thread::sleep_for(std::chrono::milliseconds(500));
	EXPECT_LE(cpu_ticks(server.pid()) - before, 5) << "it spins";
	ASSERT_EQ(write(go[1], "x", 1), 1);
	EXPECT_EQ(waiting.receive(), head_of(1) + "x");
}

TEST(HatchLimits, AnIdleServerNeedsNoProcessorAndLittleMemoryAlsoWithAThousandClients)
{
	struct rlimit limit;
	ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
	limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
	ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
	if (limit.rlim_cur < 1200)
		GTEST_SKIP() << "too few descriptors allowed";
	Scratch scratch;
	std::string path = attachable(scratch.path("hatch"));
	Process server = serve(path);
	long alone = anonymous_kib(server.pid());
	std::vector<RawClient> clients;
	for (int i = 0; i < 1024; i++) {
		clients.emplace_back(path);
		ASSERT_TRUE(clients.back().send(head_of(1) + "x"));
		ASSERT_EQ(clients.back().receive(), head_of(1) + "x");
	}
	long before = cpu_ticks(server.pid());
	std::this_thread::sleep_for(std::chrono::milliseconds(300));
	EXPECT_EQ(cpu_ticks(server.pid()), before);
	if (sanitized)
		return;
	EXPECT_LE(alone, 4 * 1024);
	EXPECT_LE(anonymous_kib(server.pid()) - alone, 16 * 1024);
}

} // namespace
