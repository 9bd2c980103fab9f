// Below the protocol: clients and servers of tests that speak to a hatch's socket themselves.
#ifndef TESTS_HATCH_SOCKET_H
#define TESTS_HATCH_SOCKET_H

#include <string>
#include <sys/un.h>
#include <thread>
#include <vector>

#include "hatch/wire.h"
#include "hatch_peer.h"

// A head with another magic, or with something at offset 4, is one that no peer of ours sends.
std::string head_of(uint64_t size, uint32_t magic = hatch::wire_magic, uint32_t second = 0);
std::string request_of(const std::string &payload);
std::string request_of(const Ask &ask);
std::string refusal_of(hatch::Refusal refusal);

// The socket beside an attached file.
std::string socket_path(const std::string &path);
sockaddr_un address_of(const std::string &socket);
// Empty if it can't connect.
Fd connect_to(const sockaddr_un &address, int flags = 0);
// A socket of its own at this name.
Fd listen_at(const std::string &socket);

class RawClient {
public:
	explicit RawClient(const std::string &path);
	explicit RawClient(Fd connected) : socket_(std::move(connected)) {}
	int fd() const { return socket_.get(); }
	bool send(const std::string &bytes) const;
	// The next message; "<end>" when the server hung up, "<nothing>" if it neither answers nor hangs up within 10 s.
	std::string receive() const;
	// A whole reply with `size` bytes of payload, or what came instead.
	std::string receive_all(size_t size) const;
	// Makes a call of one byte.
	bool is_served() const;

private:
	Fd socket_;
};

// A server that says what it likes: it holds a real attachment, but its socket is another one.
class FakeServer {
public:
	explicit FakeServer(const std::string &path);
	Fd accept() const;
	// Answers one call, once the first byte of it is there, with these messages, and hangs up.
	std::jthread answer(std::vector<std::string> messages, unsigned int delay_ms = 0) const;
	// Answers one call with a reply of `size` bytes, of which it sends one each 100 ms until the client has had enough.
	std::jthread dribble(uint64_t size) const;
	// Accepts nobody: from here on, clients wait until they are connected.
	Fd accept_nobody() const;

private:
	LocalHatch hatch_;
	std::string socket_path_;
	Fd listener_;
};

#endif
