// The client: one message out, one message in, on a connection that is kept for the next call.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/time.h>
#include <unistd.h>

#include <meridon/hatch.h>

#include "hatch/call.h"
#include "hatch/connections.h"
#include "hatch/server.h"
#include "hatch/wire.h"

namespace hatch {
namespace {

thread_local bool open_fate = false;
thread_local FollowUp *follow_up = nullptr;

// What a call came to: its errno value, and whether the connection can serve another one.
struct Outcome {
	int error;
	bool reusable;
};

constexpr Outcome broken(int error)
{
	return {error, false};
}

// A connection that fails has lost its server; only what the caller can do something about keeps its own name.
int connection_error(int error)
{
	switch (error) {
	case ENOMEM:
		return error;
	case ENOBUFS:
		return ENOMEM;
	case ETIMEDOUT:
	case EAGAIN: // of a socket that may wait for so long and no longer
		return ETIMEDOUT;
	default:
		return EBADF;
	}
}

// When a call is to be over, whatever the other end does: one that sends a byte now and then isn't waited for, either. A
// process that was stopped beyond it has one second more, once: the server may have been stopped with it.
class CallEnd {
public:
	explicit CallEnd(int seconds) : end_(seconds > 0 ? Deadline::in(seconds * second_ns) : Deadline::never()) {}

	// Seconds that a step may wait, rounded up, or `without_end`. False if the time is over.
	bool left(int *seconds)
	{
		*seconds = without_end;
		if (end_.is_never())
			return true;
		*seconds = end_.left_seconds();
		if (*seconds == 0 && !late_) {
			late_ = true;
			end_ = Deadline::in(second_ns);
			*seconds = 1;
		}
		return *seconds > 0;
	}

private:
	Deadline end_;
	bool late_ = false;
};

// Says how long each message may take. A connection keeps that, so that calls of one kind say it once.
void set_patience(Connection *connection, int seconds)
{
	if (connection->seconds == seconds)
		return;
	timeval wait = {seconds, 0};
	(void) setsockopt(connection->socket.get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
	(void) setsockopt(connection->socket.get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
	connection->seconds = seconds;
}

// Lets the next message take what is left of the time. False if nothing is.
bool have_patience(Connection *connection, CallEnd &end)
{
	int seconds;
	if (!end.left(&seconds))
		return false;
	set_patience(connection, seconds);
	return true;
}

// Sockets that may wait for so long and no longer give up at each signal and each stop, whatever the handler says. So sending
// and receiving begin again, with what is left of the time.
int send(Connection *connection, CallEnd &end, const iovec *parts, size_t count)
{
	while (have_patience(connection, end)) {
		int error = send_message(connection->socket.get(), parts, count, 0);
		if (error != EINTR)
			return error;
	}
	return ETIMEDOUT;
}

// Once the time is over it takes what lies there.
int receive(Connection *connection, CallEnd &end, iovec *parts, size_t count, Message *message)
{
	bool was_reset = false;
	for (;;) {
		int flags = have_patience(connection, end) ? 0 : MSG_DONTWAIT;
		*message = receive_message(connection->socket.get(), parts, count, flags);
		if (message->size > 0)
			return 0;
		if (message->size == 0)
			return EBADF;
		// A server that refuses a request in the middle closes with some of it unread: that is told before the refusal.
		const bool again = errno == EINTR || (errno == ECONNRESET && !was_reset);
		if (!again)
			return connection_error(errno);
		was_reset |= errno == ECONNRESET;
	}
}

int send_first(Connection *connection, const hatch_arg_t &arg, CallEnd &end, size_t *sent)
{
	RequestHead head = {wire_magic, 0, arg.data_size};
	size_t size = std::min(arg.data_size, connection->piece);
	iovec parts[] = {{&head, sizeof head}, {arg.data_ptr, size}};
	*sent = size;
	return send(connection, end, parts, size == 0 ? 1 : 2);
}

// Why the server hung up in the middle of a request, if it said so before.
int refusal_or(const Connection &connection, int error)
{
	ReplyHead head = {};
	iovec part = {&head, sizeof head};
	for (int look = 0; look < 2; look++) { // the first may find the connection's own error
		Message message = receive_message(connection.socket.get(), &part, 1, MSG_DONTWAIT);
		if (message.size == static_cast<ssize_t>(head_size) && head.magic == wire_magic && head.refusal != 0)
			return refusal_errno(head.refusal);
	}
	return error;
}

int send_rest(Connection *connection, const hatch_arg_t &arg, CallEnd &end, size_t sent)
{
	while (sent < arg.data_size) {
		size_t size = std::min(arg.data_size - sent, connection->piece);
		iovec part = {arg.data_ptr + sent, size};
		int error = send(connection, end, &part, 1);
		if (error == EPIPE || error == ECONNRESET)
			return refusal_or(*connection, EBADF);
		if (error != 0)
			return connection_error(error);
		sent += size;
	}
	return 0;
}

// Receives `size` bytes that follow the first message. Memory of our own is filled with pages as far as the next piece
// can reach; the caller's has them, or will get them.
enum class Memory { own, callers };

int receive_rest(Connection *connection, CallEnd &end, char *data, size_t size, Memory memory)
{
	while (size > 0) {
		if (!have_patience(connection, end))
			return ETIMEDOUT;
		if (memory == Memory::own)
			fill_pages(data, std::min(size, piece_max));
		iovec part = {data, size};
		Message message;
		if (int error = receive(connection, end, &part, 1, &message))
			return error;
		if (!message.whole)
			return EPROTO;
		data += message.size;
		size -= static_cast<size_t>(message.size);
	}
	return 0;
}

// The first message of a reply: its head, and where its payload lies.
struct Landed {
	ReplyHead head;
	size_t size;      // payload bytes in this message
	size_t in_buffer; // how many of them lie in the caller's buffer; the others lie in the connection's landing
};

int receive_first(Connection *connection, const hatch_arg_t &arg, CallEnd &end, Landed *landed)
{
	size_t room = arg.rbuf == nullptr ? 0 : arg.rsize;
	if (room < piece_max && !connection->landing && !connection->landing.map(piece_max, Fill::on_use))
		return ENOMEM;
	iovec parts[] = {
	    {&landed->head, sizeof landed->head}, {arg.rbuf, room}, {connection->landing.data(), piece_max}};
	if (room == 0)
		parts[1] = parts[2];
	size_t count = room == 0 || room >= piece_max ? 2 : 3;
	Message message;
	if (int error = receive(connection, end, parts, count, &message))
		return error;
	if (!message.whole || message.size < static_cast<ssize_t>(head_size) || landed->head.magic != wire_magic)
		return EPROTO;
	landed->size = static_cast<size_t>(message.size) - head_size;
	landed->in_buffer = std::min(landed->size, room);
	return landed->size <= landed->head.size ? 0 : EPROTO;
}

// Makes the fresh mapping of a reply that the caller has no room for.
int gather(Connection *connection, const hatch_arg_t &arg, CallEnd &end, const Landed &landed, Mapping *reply)
{
	size_t size = landed.head.size;
	// What has not arrived yet is only a claim.
	if (!reply->map(size, landed.size == size ? Fill::now : Fill::on_use))
		return ENOMEM;
	if (landed.size < size)
		fill_pages(reply->data(), landed.size);
	if (landed.in_buffer > 0)
		memcpy(reply->data(), arg.rbuf, landed.in_buffer);
	size_t others = landed.size - landed.in_buffer;
	if (others > 0)
		memcpy(reply->data() + landed.in_buffer, connection->landing.data(), others);
	return receive_rest(connection, end, reply->data() + landed.size, size - landed.size, Memory::own);
}

Outcome receive_reply(Connection *connection, CallEnd &end, size_t reply_max, hatch_arg_t *arg)
{
	Landed landed;
	if (int error = receive_first(connection, *arg, end, &landed))
		return broken(error);
	if (landed.head.refusal != 0) {
		open_fate = landed.head.refusal == static_cast<uint32_t>(Refusal::no_reply); // the handler ran
		return {refusal_errno(landed.head.refusal), landed.head.size == 0};
	}
	size_t size = landed.head.size;
	if (reply_max != 0 && size > reply_max)
		return broken(EMSGSIZE);
	if (size == 0 || (arg->rbuf != nullptr && size <= arg->rsize)) {
		if (int error =
			receive_rest(connection, end, arg->rbuf + landed.size, size - landed.size, Memory::callers))
			return broken(error);
		arg->data_ptr = arg->rbuf;
	} else {
		Mapping reply;
		if (int error = gather(connection, *arg, end, landed, &reply))
			return broken(error);
		arg->data_ptr = arg->rbuf = reply.release();
		arg->rsize = size;
	}
	arg->data_size = size;
	return {0, true};
}

// How often a new connection may be dropped by a server that has too many, before anything was sent over it.
constexpr int attempts_max = 20;

// Sends the first message over a connection that was kept, or a new one. One that the server hung up before doesn't
// count: nothing of the call was sent over it.
int begin_call(
    int fd, const Attachment &attachment, const hatch_arg_t &arg, CallEnd &end, Connection **out, size_t *sent)
{
	const uid_t user = getuid();
	int error = EBADF;
	for (int attempt = 0; attempt < attempts_max;) {
		*out = take_connection(attachment, user);
		if (*out == nullptr) {
			attempt++;
			int no_road = EINTR, seconds;
			while (no_road == EINTR && end.left(&seconds))
				no_road = make_connection(fd, attachment, user, seconds, out);
			if (no_road != 0)
				return no_road == EAGAIN || no_road == EINTR ? ETIMEDOUT : no_road;
		}
		error = send_first(*out, arg, end, sent);
		if (error == 0)
			return 0;
		drop_connection(*out);
		if (error != EPIPE && error != ECONNRESET)
			break;
	}
	return connection_error(error);
}

int call(int fd, hatch_arg_t *arg, int seconds, size_t reply_max)
{
	Look look;
	if (!look_at(fd, &look))
		return EBADF;
	CallEnd end(seconds);
	Connection *connection;
	size_t sent;
	if (int error = begin_call(fd, look.attachment, *arg, end, &connection, &sent))
		return error;
	Outcome outcome = broken(send_rest(connection, *arg, end, sent));
	if (outcome.error == 0) {
		open_fate = true;
		outcome = receive_reply(connection, end, reply_max, arg);
	}
	if (!outcome.reusable) {
		if (open_fate && follow_up != nullptr)
			follow_up->send(connection->socket.get());
		drop_connection(connection);
		return outcome.error;
	}
	keep_connection(connection);
	if (!look.marked)
		set_mark(fd, look.attachment.mark);
	return outcome.error;
}

// Tells whether the server of an attachment is there, connecting to it if that was never done.
int find_server(int fd, const Attachment &attachment, pid_t *server)
{
	*server = 0;
	if (!record_is_locked(fd))
		return EBADF;
	if (known_server(attachment, server))
		return 0;
	Connection *connection;
	int error = make_connection(fd, attachment, getuid(), not_at_all, &connection);
	if (error != 0) // a server that can't be asked now is there all the same
		return error == EBADF ? error : 0;
	keep_connection(connection);
	(void) known_server(attachment, server);
	return 0;
}

int info_of(int fd, hatch_info_t *info)
{
	*info = {0, HATCH_REFUSE_DESC};
	Look look;
	int error = look_at(fd, &look) ? find_server(fd, look.attachment, &info->di_target) : EBADF;
	if (error == 0 && !look.marked)
		set_mark(fd, look.attachment.mark);
	if (error != EBADF)
		return error;
	if (is_own_hatch(fd)) {
		info->di_target = getpid();
		return 0;
	}
	if (!has_mark(fd) && !was_replaced(fd))
		return EBADF;
	info->di_attributes |= HATCH_REVOKED;
	return 0;
}

int fail_with(int error)
{
	if (error == 0)
		return 0;
	errno = error;
	return -1;
}

} // namespace

bool fate_is_open()
{
	return open_fate;
}

FollowUp::FollowUp(std::string_view request) : request_(request)
{
	follow_up = this;
}

FollowUp::~FollowUp()
{
	follow_up = nullptr;
}

void FollowUp::send(int socket)
{
	RequestHead head = {wire_magic, 0, request_.size()};
	const iovec parts[] = {
	    {&head, sizeof head}, {const_cast<char *>(request_.data()), request_.size()}}; // only read
	sent_ = send_message(socket, parts, 2, MSG_DONTWAIT) == 0;
}

} // namespace hatch

int hatch_call(int fd, hatch_arg_t *arg)
{
	return hatch_call_bounded(fd, arg, 0, 0);
}

int hatch_call_bounded(int fd, hatch_arg_t *arg, int seconds, size_t reply_max)
{
	CancellationWaits cancellation; // else a call half-way would leave its connection to nobody
	hatch::open_fate = false;
	if (arg == nullptr || (arg->data_ptr == nullptr && arg->data_size != 0) || seconds < 0)
		return hatch::fail_with(EFAULT);
	if (arg->desc_num != 0)
		return hatch::fail_with(ENOTSUP);
	return hatch::fail_with(hatch::call(fd, arg, seconds, reply_max));
}

int hatch_info(int fd, hatch_info_t *info)
{
	CancellationWaits cancellation;
	if (info == nullptr)
		return hatch::fail_with(EFAULT);
	hatch_info_t found;
	int error = hatch::info_of(fd, &found);
	if (error == 0)
		*info = found;
	return hatch::fail_with(error);
}

void hatch_forget(int fd)
{
	CancellationWaits cancellation;
	hatch::Look look;
	if (hatch::look_at(fd, &look))
		hatch::forget_connections(look.attachment);
}
