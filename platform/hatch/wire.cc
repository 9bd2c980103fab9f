// Messages with their ancillary data.
#include "hatch/wire.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace hatch {
namespace {

#ifndef SO_PASSRIGHTS // headers may not know it yet; the number that all architectures but a few have
#define SO_PASSRIGHTS 83
#endif

constexpr int refusal_errnos[] = {0, ENOBUFS, ENOTSUP, ECONNABORTED, ENOMEM, EBADF, ECANCELED};

// Room for a credential and as many descriptors as a message can have: the kernel would close what doesn't fit, and may wait.
constexpr size_t descriptors_max = 253;
constexpr size_t control_size = CMSG_SPACE(sizeof(struct ucred)) + CMSG_SPACE(descriptors_max * sizeof(int));

void close_descriptors(const cmsghdr *header)
{
	size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
	for (size_t i = 0; i < count; i++) {
		int fd;
		memcpy(&fd, CMSG_DATA(header) + i * sizeof fd, sizeof fd);
		constexpr struct linger at_once = {0, 0};
		(void) setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once); // most are no sockets
		(void) close(fd);
	}
}

void read_control(msghdr *header, Message *message)
{
	for (cmsghdr *c = CMSG_FIRSTHDR(header); c != nullptr; c = CMSG_NXTHDR(header, c)) {
		if (c->cmsg_level != SOL_SOCKET)
			continue;
		if (c->cmsg_type == SCM_RIGHTS) {
			close_descriptors(c);
			message->descriptors = true;
		} else if (c->cmsg_type == SCM_CREDENTIALS && c->cmsg_len == CMSG_LEN(sizeof(struct ucred))) {
			memcpy(&message->sender, CMSG_DATA(c), sizeof(struct ucred));
			message->signed_ = true;
		}
	}
}

} // namespace

int refusal_errno(uint32_t refusal)
{
	constexpr size_t count = sizeof refusal_errnos / sizeof *refusal_errnos;
	return refusal < count ? refusal_errnos[refusal] : EPROTO;
}

size_t prepare_sending(int fd)
{
	// The kernel doubles the number, and bounds it.
	int wish = static_cast<int>(piece_max);
	(void) setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &wish, sizeof wish);
	int got = 0;
	socklen_t len = sizeof got;
	if (getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &got, &len) == -1)
		got = 0;
	// What the kernel itself takes of the buffer for a message is less than half a page.
	size_t room = static_cast<size_t>(std::max(got, 4096)) - 2048;
	return std::min(room, piece_max);
}

void refuse_descriptors(int fd)
{
	constexpr int off = 0;
	(void) setsockopt(fd, SOL_SOCKET, SO_PASSRIGHTS, &off, sizeof off);
}

Message receive_message(int fd, iovec *parts, size_t count, int flags)
{
	alignas(cmsghdr) char control[control_size];
	msghdr header = {};
	header.msg_iov = parts;
	header.msg_iovlen = count;
	header.msg_control = control;
	header.msg_controllen = sizeof control;
	Message message = {};
	message.size = recvmsg(fd, &header, flags | MSG_CMSG_CLOEXEC);
	if (message.size <= 0)
		return message;
	message.whole = (header.msg_flags & MSG_TRUNC) == 0;
	// Descriptors beyond what the process may open are cut off, so there were some.
	message.descriptors = (header.msg_flags & MSG_CTRUNC) != 0;
	read_control(&header, &message);
	return message;
}

int send_message(int fd, const iovec *parts, size_t count, int flags)
{
	msghdr header = {};
	header.msg_iov = const_cast<iovec *>(parts); // only read
	header.msg_iovlen = count;
	return sendmsg(fd, &header, flags | MSG_NOSIGNAL) == -1 ? errno : 0;
}

} // namespace hatch
