// A client's call: a request goes out and a reply comes in, each in one message or in several pieces, over a connection that is
// kept for the next call. A request is sent again, over another connection, only while nothing of it was sent.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/time.h>
#include <unistd.h>

#include <meridon/hatch.h>

#include "base/clock.h"
#include "base/fail.h"
#include "hatch/call.h"
#include "hatch/call_steps.h"
#include "hatch/connections.h"
#include "hatch/hatches.h"
#include "hatch/wire.h"

namespace hatch {
namespace {

thread_local bool open_fate = false;
thread_local FollowUp *follow_up = nullptr;

// What a call came to: its errno value, whether the connection can serve another one, and whether the server said anything.
struct Outcome {
	int error;
	bool reusable;
	bool heard;
};

constexpr Outcome broken(int error)
{
	return {error, false, true};
}

constexpr Outcome unheard(int error)
{
	return {error, false, false};
}

} // namespace

int connection_error(int error)
{
	switch (error) {
	case ENOMEM:
		return error;
	case ENOBUFS:
		return ENOMEM;
	case ETIMEDOUT:
	case EAGAIN: // of a socket with a timeout
		return ETIMEDOUT;
	default:
		return EBADF;
	}
}

namespace {

// Sets the timeout of each message. A connection keeps it, so that calls with one bound set it once.
void set_timeout(Connection *connection, int seconds)
{
	if (connection->seconds == seconds)
		return;
	timeval wait = {seconds, 0};
	(void) setsockopt(connection->socket.get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
	(void) setsockopt(connection->socket.get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
	connection->seconds = seconds;
}

// Bounds the next message by what is left of the time. False if nothing is.
bool limit_step(Connection *connection, CallEnd &end)
{
	int seconds;
	if (!end.left(&seconds))
		return false;
	set_timeout(connection, seconds);
	return true;
}

// A socket with a timeout gives up its wait at each signal and each stop of the process, also with SA_RESTART. So sending and
// receiving begin again, with what is left of the time.
int send(Connection *connection, CallEnd &end, const iovec *parts, size_t count)
{
	while (limit_step(connection, end)) {
		int error = send_message(connection->socket.get(), parts, count, 0);
		if (error != EINTR)
			return error;
	}
	return ETIMEDOUT;
}

} // namespace

// Once the time is over, it takes what has arrived.
int receive(Connection *connection, CallEnd &end, iovec *parts, size_t count, Message *message)
{
	bool was_reset = false;
	for (;;) {
		int flags = limit_step(connection, end) ? 0 : MSG_DONTWAIT;
		*message = receive_message(connection->socket.get(), parts, count, flags);
		if (message->size > 0)
			return 0;
		if (message->size == 0)
			return EBADF;
		// A server that refuses a request half-way hangs up with some of it unread. The kernel reports that before the refusal.
		const bool again = errno == EINTR || (errno == ECONNRESET && !was_reset);
		if (!again)
			return connection_error(errno);
		was_reset |= errno == ECONNRESET;
	}
}

int send_first(Connection *connection, const Request &request, CallEnd &end, size_t *sent)
{
	const hatch_arg_t &arg = request.arg;
	RequestHead head = {wire_magic, request.channel, arg.data_size};
	size_t size = std::min(arg.data_size, connection->piece);
	iovec parts[] = {{&head, sizeof head}, {arg.data_ptr, size}};
	*sent = size;
	return send(connection, end, parts, size == 0 ? 1 : 2);
}

namespace {

// The server has hung up in the middle of a request: the reason, if it sent one, or `error`.
int refusal_or(const Connection &connection, int error)
{
	ReplyHead head = {};
	iovec part = {&head, sizeof head};
	for (int attempt = 0; attempt < 2; attempt++) { // the first may return the connection's own error
		Message message = receive_message(connection.socket.get(), &part, 1, MSG_DONTWAIT);
		if (message.size == static_cast<ssize_t>(head_size) && head.magic == wire_magic && head.refusal != 0)
			return refusal_errno(head.refusal);
	}
	return error;
}

} // namespace

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

namespace {

// Receives the `size` bytes that follow the first message. Memory of our own gets its pages here, as far as the next piece can
// reach.
enum class Memory { own, callers };

int receive_rest(Connection *connection, CallEnd &end, char *data, size_t size, Memory memory)
{
	while (size > 0) {
		if (!limit_step(connection, end))
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

} // namespace

int receive_first(Connection *connection, const hatch_arg_t &arg, CallEnd &end, FirstMessage *first)
{
	size_t room = arg.rbuf == nullptr ? 0 : arg.rsize;
	if (room < piece_max && !connection->spill && !connection->spill.map(piece_max, Fill::on_use))
		return ENOMEM;
	iovec parts[] = {{&first->head, sizeof first->head}, {arg.rbuf, room}, {connection->spill.data(), piece_max}};
	if (room == 0)
		parts[1] = parts[2];
	size_t count = room == 0 || room >= piece_max ? 2 : 3;
	Message message;
	if (int error = receive(connection, end, parts, count, &message))
		return error;
	if (!message.whole || message.size < static_cast<ssize_t>(head_size) || first->head.magic != wire_magic)
		return EPROTO;
	first->size = static_cast<size_t>(message.size) - head_size;
	first->in_buffer = std::min(first->size, room);
	return first->size <= first->head.size ? 0 : EPROTO;
}

// A size is only a claim, as long as the bytes haven't come.
bool begin_gathering(Connection *connection, const hatch_arg_t &arg, const FirstMessage &first, Mapping *reply)
{
	size_t size = first.head.size;
	if (!reply->map(size, first.size == size ? Fill::now : Fill::on_use))
		return false;
	if (first.size < size)
		fill_pages(reply->data(), first.size);
	if (first.in_buffer > 0)
		memcpy(reply->data(), arg.rbuf, first.in_buffer);
	size_t others = first.size - first.in_buffer;
	if (others > 0)
		memcpy(reply->data() + first.in_buffer, connection->spill.data(), others);
	return true;
}

namespace {

// Gathers a reply that the caller has no room for.
int gather(Connection *connection, const hatch_arg_t &arg, CallEnd &end, const FirstMessage &first, Mapping *reply)
{
	if (!begin_gathering(connection, arg, first, reply))
		return ENOMEM;
	return receive_rest(connection, end, reply->data() + first.size, first.head.size - first.size, Memory::own);
}

Outcome receive_reply(Connection *connection, CallEnd &end, size_t reply_max, hatch_arg_t *arg)
{
	FirstMessage first;
	if (int error = receive_first(connection, *arg, end, &first))
		return unheard(error);
	if (first.head.refusal != 0) {
		open_fate = first.head.refusal == static_cast<uint32_t>(Refusal::no_reply); // the handler ran
		return {refusal_errno(first.head.refusal), first.head.size == 0, true};
	}
	size_t size = first.head.size;
	if (reply_max != 0 && size > reply_max)
		return broken(EMSGSIZE);
	if (size == 0 || (arg->rbuf != nullptr && size <= arg->rsize)) {
		if (int error =
			receive_rest(connection, end, arg->rbuf + first.size, size - first.size, Memory::callers))
			return broken(error);
		arg->data_ptr = arg->rbuf;
	} else {
		Mapping reply;
		if (int error = gather(connection, *arg, end, first, &reply))
			return broken(error);
		arg->data_ptr = arg->rbuf = reply.release();
		arg->rsize = size;
	}
	arg->data_size = size;
	return {0, true, true};
}

// How often a server with too many connections may drop a new one before anything was sent over it.
constexpr int attempts_max = 20;

} // namespace

// Kept connections that the server has closed meanwhile don't count as attempts: nothing of the call was sent over them.
int begin_call(
    int fd, const Attachment &attachment, const Request &request, CallEnd &end, Connection **out, size_t *sent)
{
	const uid_t user = getuid();
	int error = EBADF;
	for (int attempt = 0; attempt < attempts_max;) {
		*out = take_connection(attachment, user);
		if (*out == nullptr) {
			attempt++;
			int unconnected = EINTR, seconds;
			while (unconnected == EINTR && end.left(&seconds))
				unconnected = make_connection(fd, attachment, user, seconds, out);
			if (unconnected != 0)
				return unconnected == EAGAIN || unconnected == EINTR ? ETIMEDOUT : unconnected;
		}
		error = send_first(*out, request, end, sent);
		if (error == 0)
			return 0;
		drop_connection(*out);
		if (error != EPIPE && error != ECONNRESET)
			break;
	}
	return connection_error(error);
}

namespace {

// Whether a server that hung up on a request lives and serves, as nothing but an answer can tell: one that is about to end holds
// its record still. A request of a size that nobody may have is refused, and reaches no handler, by any server.
bool still_serves(int fd, const Attachment &attachment, CallEnd &end)
{
	int seconds;
	Connection *connection;
	if (!record_is_locked(fd) || !end.left(&seconds) ||
	    make_connection(fd, attachment, getuid(), seconds, &connection) != 0)
		return false;
	RequestHead head = {wire_magic, 0, UINT64_MAX};
	ReplyHead answer = {};
	iovec sent = {&head, sizeof head}, received = {&answer, sizeof answer};
	Message message;
	const bool answered =
	    send(connection, end, &sent, 1) == 0 && receive(connection, end, &received, 1, &message) == 0 &&
	    message.size == static_cast<ssize_t>(head_size) && answer.magic == wire_magic && answer.refusal != 0;
	drop_connection(connection);
	return answered;
}

int call(int fd, uint32_t channel, hatch_arg_t *arg, int seconds, size_t reply_max)
{
	RecordState state;
	if (!read_state(fd, &state))
		return EBADF;
	CallEnd end(seconds);
	Connection *connection;
	size_t sent;
	if (int error = begin_call(fd, state.attachment, {channel, *arg}, end, &connection, &sent))
		return error;
	Outcome outcome = unheard(send_rest(connection, *arg, end, sent));
	if (outcome.error == 0) {
		open_fate = true;
		outcome = receive_reply(connection, end, reply_max, arg);
	}
	if (!outcome.reusable) {
		if (open_fate && follow_up != nullptr)
			follow_up->send(connection->socket.get());
		drop_connection(connection);
		const bool unknown = channel != 0 && outcome.error == EBADF && !outcome.heard;
		if (!unknown || !still_serves(fd, state.attachment, end))
			return outcome.error;
		open_fate = false;
		return ENOSYS;
	}
	keep_connection(connection);
	if (!state.marked)
		set_mark(fd, state.attachment.mark);
	return outcome.error;
}

// Finds the server of an attachment, and connects to it if that was never done. EBADF: it has ended.
int find_server(int fd, const Attachment &attachment, pid_t *server)
{
	*server = 0;
	if (!record_is_locked(fd))
		return EBADF;
	if (known_server(attachment, server))
		return 0;
	Connection *connection;
	int error = make_connection(fd, attachment, getuid(), not_at_all, &connection);
	if (error != 0) // the server lives, even if it can't be reached now
		return error == EBADF ? error : 0;
	keep_connection(connection);
	(void) known_server(attachment, server);
	return 0;
}

int info_of(int fd, hatch_info_t *info)
{
	*info = {0, HATCH_REFUSE_DESC};
	RecordState state;
	int error = read_state(fd, &state) ? find_server(fd, state.attachment, &info->di_target) : EBADF;
	if (error == 0 && !state.marked)
		set_mark(fd, state.attachment.mark);
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

static int call_checked(int fd, uint32_t channel, hatch_arg_t *arg, int seconds, size_t reply_max)
{
	CancellationWaits cancellation; // a call that is cancelled half-way would leak its connection
	hatch::open_fate = false;
	if (arg == nullptr || (arg->data_ptr == nullptr && arg->data_size != 0) || seconds < 0)
		return fail_with(EFAULT);
	if (arg->desc_num != 0)
		return fail_with(ENOTSUP);
	return fail_with(hatch::call(fd, channel, arg, seconds, reply_max));
}

int hatch_call_bounded(int fd, hatch_arg_t *arg, int seconds, size_t reply_max)
{
	return call_checked(fd, 0, arg, seconds, reply_max);
}

int hatch_call_channel(int fd, uint32_t channel, int seconds, hatch_arg_t *arg)
{
	return call_checked(fd, channel, arg, seconds, 0);
}

int hatch_info(int fd, hatch_info_t *info)
{
	CancellationWaits cancellation;
	if (info == nullptr)
		return fail_with(EFAULT);
	hatch_info_t found;
	int error = hatch::info_of(fd, &found);
	if (error == 0)
		*info = found;
	return fail_with(error);
}

void hatch_forget(int fd)
{
	CancellationWaits cancellation;
	hatch::RecordState state;
	if (hatch::read_state(fd, &state))
		hatch::forget_connections(state.attachment);
}
