// Calls that a client begins, and finishes when the reply has come: the same steps as a call's, each taken when it can be.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <unistd.h>

#include <meridon/hatch.h>

#include "base/fail.h"
#include "base/process_mark.h"
#include "hatch/call_steps.h"

// One thread at a time has it. In a forked child its connection is closed.
struct hatch_pending {
	// `idle`: it is finished, and the connection serves another call; `broken`: nothing but hatch_cancel() is left.
	enum class State { waits, gathers, idle, broken };

	hatch::Connection *connection;
	uint32_t channel;
	State state = State::waits;
	ProcessMark process = {};
	hatch::Mapping reply = {}; // of which not all has come
	size_t have = 0;
	Deadline end = Deadline::never(); // of gathering
};

namespace hatch {
namespace {

using State = hatch_pending::State;

int bad_request(const hatch_arg_t *arg)
{
	if (arg == nullptr || (arg->data_ptr == nullptr && arg->data_size != 0))
		return EFAULT;
	return arg->desc_num != 0 ? ENOTSUP : 0;
}

int begin(int fd, uint32_t channel, const hatch_arg_t &arg, hatch_pending_t **out)
{
	RecordState state;
	if (!read_state(fd, &state))
		return EBADF;
	std::unique_ptr<hatch_pending> pending(new (std::nothrow) hatch_pending{nullptr, channel});
	if (pending == nullptr)
		return ENOMEM;
	CallEnd end(HATCH_PENDING_SECONDS);
	size_t sent;
	if (int error = begin_call(fd, state.attachment, {channel, arg}, end, &pending->connection, &sent))
		return error;
	if (int error = send_rest(pending->connection, arg, end, sent)) {
		drop_connection(pending->connection);
		return error;
	}
	if (!state.marked)
		set_mark(fd, state.attachment.mark);
	pending->process.claim();
	*out = pending.release();
	return 0;
}

int again(hatch_pending *pending, const hatch_arg_t &arg)
{
	if (!pending->process.is_own() || pending->state == State::broken)
		return EBADF;
	if (pending->state != State::idle)
		return EBUSY;
	pending->state = State::broken;
	if (pending->connection->user != getuid())
		return EBADF;
	CallEnd end(HATCH_PENDING_SECONDS);
	size_t sent;
	if (int error = send_first(pending->connection, {pending->channel, arg}, end, &sent))
		return connection_error(error);
	if (int error = send_rest(pending->connection, arg, end, sent))
		return error;
	pending->state = State::waits;
	return 0;
}

// Hands out a reply in memory of our own, which the caller gets unless its buffer has the room.
void hand_out(hatch_pending *pending, hatch_arg_t *arg)
{
	const size_t size = pending->have;
	if (arg->rbuf != nullptr && size <= arg->rsize) {
		memcpy(arg->rbuf, pending->reply.data(), size);
		pending->reply.reset();
	} else {
		arg->rbuf = pending->reply.release();
		arg->rsize = size;
	}
	arg->data_ptr = arg->rbuf;
	arg->data_size = size;
	pending->state = State::idle;
}

// Receives what has arrived of a reply that has begun. EAGAIN: that isn't all.
int gather_more(hatch_pending *pending)
{
	Mapping &reply = pending->reply;
	while (pending->have < reply.size()) {
		const size_t left = reply.size() - pending->have;
		char *place = reply.data() + pending->have;
		fill_pages(place, std::min(left, piece_max));
		iovec part = {place, left};
		Message message;
		CallEnd now = CallEnd::now();
		int error = receive(pending->connection, now, &part, 1, &message);
		if (error == ETIMEDOUT && !pending->end.has_passed())
			return EAGAIN;
		if (error == 0 && !message.whole)
			error = EPROTO;
		if (error != 0)
			return error;
		pending->have += static_cast<size_t>(message.size);
	}
	return 0;
}

// Takes the first message of a reply, if it has come.
int take_first(hatch_pending *pending, hatch_arg_t *arg)
{
	FirstMessage first;
	CallEnd now = CallEnd::now();
	if (int error = receive_first(pending->connection, *arg, now, &first))
		return error == ETIMEDOUT ? EAGAIN : error;
	if (first.head.refusal != 0) {
		const int error = refusal_errno(first.head.refusal);
		const bool goes_on = error == ECONNABORTED || error == ENOBUFS;
		pending->state = goes_on && first.head.size == 0 ? State::idle : State::broken;
		return error;
	}
	const size_t size = first.head.size;
	if (first.in_buffer == size) { // nothing at all, or all of it in the caller's buffer
		arg->data_ptr = arg->rbuf;
		arg->data_size = size;
		pending->state = State::idle;
		return 0;
	}
	if (!begin_gathering(pending->connection, *arg, first, &pending->reply))
		return ENOMEM;
	pending->have = first.size;
	pending->end = Deadline::in(HATCH_PENDING_SECONDS * second_ns);
	pending->state = State::gathers;
	return 0;
}

int finish(hatch_pending *pending, hatch_arg_t *arg)
{
	if (!pending->process.is_own() || pending->state == State::broken)
		return EBADF;
	if (pending->state == State::idle)
		return EINVAL;
	int error = pending->state == State::waits ? take_first(pending, arg) : 0;
	if (error == 0 && pending->state == State::gathers)
		error = gather_more(pending);
	if (error == 0 && pending->state == State::gathers)
		hand_out(pending, arg);
	if (error != 0 && error != EAGAIN && pending->state != State::idle) {
		pending->state = State::broken;
		pending->reply.reset();
	}
	return error;
}

void cancel(hatch_pending *pending)
{
	if (pending->process.is_own() && pending->state == State::idle)
		keep_connection(pending->connection);
	else
		drop_connection(pending->connection);
	delete pending;
}

} // namespace
} // namespace hatch

int hatch_begin(int fd, uint32_t channel, const hatch_arg_t *arg, hatch_pending_t **pending)
{
	CancellationWaits cancellation;
	if (int error = pending == nullptr ? EFAULT : hatch::bad_request(arg))
		return fail_with(error);
	return fail_with(hatch::begin(fd, channel, *arg, pending));
}

int hatch_pending_fd(const hatch_pending_t *pending)
{
	return pending->process.is_own() ? pending->connection->socket.get() : -1;
}

int hatch_finish(hatch_pending_t *pending, hatch_arg_t *arg)
{
	CancellationWaits cancellation;
	return fail_with(arg == nullptr ? EFAULT : hatch::finish(pending, arg));
}

int hatch_again(hatch_pending_t *pending, const hatch_arg_t *arg)
{
	CancellationWaits cancellation;
	int error = hatch::bad_request(arg);
	return fail_with(error != 0 ? error : hatch::again(pending, *arg));
}

void hatch_cancel(hatch_pending_t *pending)
{
	CancellationWaits cancellation;
	if (pending != nullptr)
		hatch::cancel(pending);
}
