// Messages between the two ends of a call: docs/formats/hatch-wire.md.
//
// A request and a reply are each a head and `size` bytes of payload: the head and the first bytes in one message of a
// SOCK_SEQPACKET socket, the rest in further messages without a head. No message has more than piece_max of payload.
#ifndef MERIDON_HATCH_WIRE_H
#define MERIDON_HATCH_WIRE_H

#include <cstddef>
#include <cstdint>
#include <sys/socket.h>
#include <sys/uio.h>

namespace hatch {

inline constexpr uint32_t wire_magic = 0x3148544d; // "MTH1" in memory
inline constexpr size_t piece_max = 256 * 1024;

struct RequestHead {
	uint32_t magic;
	uint32_t channel;
	uint64_t size;
};

struct ReplyHead {
	uint32_t magic;
	uint32_t refusal; // a Refusal; if it isn't `none`, size is 0
	uint64_t size;
};

inline constexpr size_t head_size = 16;
static_assert(sizeof(RequestHead) == head_size && sizeof(ReplyHead) == head_size);

// Why a call got no reply from the handler.
enum class Refusal : uint32_t { none, too_short, descriptors, no_reply, no_memory, other_user, let_go };

// The errno value that a client sees for it. EPROTO for numbers that no server of ours sends.
int refusal_errno(uint32_t refusal);

// Widens a socket's send buffer as far as the kernel lets it, and gives the payload that a message can then have.
size_t prepare_sending(int fd);

// Has the kernel refuse messages with descriptors to a socket, and to what a listener accepts later: closing a file that a
// stranger made can take as long as the stranger likes. Kernels before 6.16 can't; there receive_message() does what it can.
void refuse_descriptors(int fd);

// A message that was received, and what came with it.
struct Message {
	ssize_t size;        // bytes of it that fitted; 0 at the end of the connection, -1 with errno
	bool whole;          // nothing was cut off
	bool descriptors;    // it carried descriptors, which are closed
	bool signed_;        // the kernel named its sender
	struct ucred sender; // who, if so
};

// Receives one message. Descriptors that come along are closed, sockets among them without a wait for their unsent data.
Message receive_message(int fd, iovec *parts, size_t count, int flags);

// Sends one message. Errors: 0, or an errno value.
int send_message(int fd, const iovec *parts, size_t count, int flags);

} // namespace hatch

#endif
