// Descriptors over a socket pair: each travels with one byte, since a stream carries none without data.
#include <meridon/fdpass.h>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

#include "base/guards.h"

namespace {

// One byte of data and room for one descriptor.
struct Message {
	char byte = 0;
	iovec part{&byte, 1};
	alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
	msghdr head{};

	Message()
	{
		head.msg_iov = &part;
		head.msg_iovlen = 1;
		head.msg_control = control;
		head.msg_controllen = sizeof control;
	}
	Message(const Message &) = delete;
	Message &operator=(const Message &) = delete;
};

} // namespace

int fdpass_pair(int ends[2])
{
	return socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0 ? 0 : errno;
}

int fdpass_send(int end, int fd)
{
	Message message;
	cmsghdr *head = CMSG_FIRSTHDR(&message.head);
	head->cmsg_level = SOL_SOCKET;
	head->cmsg_type = SCM_RIGHTS;
	head->cmsg_len = CMSG_LEN(sizeof fd);
	memcpy(CMSG_DATA(head), &fd, sizeof fd);
	ssize_t sent;
	do
		sent = sendmsg(end, &message.head, MSG_NOSIGNAL | MSG_DONTWAIT);
	while (sent == -1 && errno == EINTR);
	return sent == -1 ? errno : 0;
}

int fdpass_receive(int end, int *fdp)
{
	Message message;
	ssize_t got;
	do
		got = recvmsg(end, &message.head, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
	while (got == -1 && errno == EINTR);
	if (got <= 0)
		return got == 0 ? EPIPE : errno;
	cmsghdr *head = CMSG_FIRSTHDR(&message.head);
	// A process without room for the descriptor gets the byte alone, and this flag.
	if (head == nullptr)
		return (message.head.msg_flags & MSG_CTRUNC) != 0 ? EMFILE : EBADMSG;
	if (head->cmsg_level != SOL_SOCKET || head->cmsg_type != SCM_RIGHTS || head->cmsg_len != CMSG_LEN(sizeof(int)))
		return EBADMSG;
	memcpy(fdp, CMSG_DATA(head), sizeof *fdp);
	return 0;
}
