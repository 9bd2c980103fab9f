// Raw clients and servers of hatch tests.
#include "hatch_socket.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "hatch/record.h"

using namespace hatch;

std::string head_of(uint64_t size, uint32_t magic, uint32_t second)
{
	RequestHead head = {magic, second, size};
	return std::string(reinterpret_cast<const char *>(&head), sizeof head);
}

std::string request_of(const std::string &payload)
{
	return head_of(payload.size()) + payload;
}

std::string request_of(const Ask &ask)
{
	return request_of(std::string(reinterpret_cast<const char *>(&ask), sizeof ask));
}

std::string refusal_of(Refusal refusal)
{
	return head_of(0, wire_magic, static_cast<uint32_t>(refusal));
}

std::string socket_path(const std::string &path)
{
	Id id = {};
	EXPECT_TRUE(read_record(open_hatch(path).get(), &id));
	return path.substr(0, path.rfind('/') + 1) + socket_name(id).text;
}

sockaddr_un address_of(const std::string &socket)
{
	sockaddr_un address = {};
	address.sun_family = AF_UNIX;
	socket.copy(address.sun_path, sizeof address.sun_path - 1);
	return address;
}

Fd connect_to(const sockaddr_un &address, int flags)
{
	Fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0));
	if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
		fd.reset();
	return fd;
}

Fd listen_at(const std::string &socket)
{
	Fd listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
	const sockaddr_un address = address_of(socket);
	EXPECT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
	EXPECT_EQ(listen(listener.get(), 10), 0);
	return listener;
}

RawClient::RawClient(const std::string &path) : socket_(connect_to(address_of(socket_path(path))))
{
	EXPECT_TRUE(socket_);
	(void) prepare_sending(socket_.get());
	struct timeval wait = {10, 0};
	EXPECT_EQ(setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait), 0);
}

bool RawClient::send(const std::string &bytes) const
{
	return ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string RawClient::receive() const
{
	std::string bytes(piece_max + head_size, '\0');
	ssize_t got = recv(socket_.get(), bytes.data(), bytes.size(), 0);
	if (got == -1 && errno == ECONNRESET) // the server left something unread, and may have said why
		got = recv(socket_.get(), bytes.data(), bytes.size(), 0);
	if (got == -1)
		return "<nothing>";
	bytes.resize(static_cast<size_t>(got));
	return got == 0 ? "<end>" : bytes;
}

std::string RawClient::receive_all(size_t size) const
{
	std::string reply, piece;
	while (reply.size() < head_size + size && piece != "<end>" && piece != "<nothing>")
		reply += piece = receive();
	return reply;
}

bool RawClient::is_served() const
{
	return send(request_of("x")) && receive() == request_of("x");
}

FakeServer::FakeServer(const std::string &path) : hatch_(path), socket_path_(socket_path(path))
{
	EXPECT_EQ(unlink(socket_path_.c_str()), 0);
	listener_ = listen_at(socket_path_);
}

Fd FakeServer::accept() const
{
	Fd client(::accept(listener_.get(), nullptr, nullptr));
	char byte;
	EXPECT_EQ(recv(client.get(), &byte, 1, 0), 1);
	return client;
}

std::jthread FakeServer::answer(std::vector<std::string> messages, unsigned int delay_ms) const
{
	return std::jthread([this, delay_ms, messages = std::move(messages)] {
		const RawClient client(accept());
		usleep(delay_ms * 1000);
		for (const std::string &message : messages)
			(void) client.send(message);
	});
}

std::jthread FakeServer::dribble(uint64_t size) const
{
	return std::jthread([this, size] {
		const RawClient client(accept());
		std::string piece = head_of(size) + "x";
		for (uint64_t sent = 0; sent < size && client.send(piece); sent++, piece = "x")
			usleep(100'000);
	});
}

Fd FakeServer::accept_nobody() const
{
	EXPECT_EQ(listen(listener_.get(), 0), 0);
	return connect_to(address_of(socket_path_));
}
