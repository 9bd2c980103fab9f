// The path to the daemon: one call with bounds of time and size, and a check of the reply's head.
#include "rpy/call.h"

#include <algorithm>
#include <cerrno>

#include <meridon/hatch.h>

#include "base/hatch_client.h"
#include "base/memory_bound.h"
#include "hatch/call.h"
#include "rpy/handle.h"

namespace rpy {
namespace {

// What an errno of a failed call means to the caller.
rpy_error_t call_error(int error)
{
	switch (error) {
	case ENOMEM:
		return RPY_ERROR_NO_MEMORY;
	case EMFILE:
	case ENFILE:
	case EMSGSIZE:
		return RPY_ERROR_NO_RESOURCES;
	case EBADF:
	case ETIMEDOUT:
	case ECONNABORTED:
		return RPY_ERROR_CONNECTION_BROKEN;
	default:
		return RPY_ERROR_INTERNAL;
	}
}

} // namespace

// ---- Blocks ----

Block *make_block(size_t size)
{
	void *memory = ::malloc(sizeof(Block) + size);
	if (memory == nullptr)
		return nullptr;
	Block *block = new (memory) Block;
	block->size = size;
	return block;
}

void drop_block(Block *block)
{
	while (block != nullptr && block->holds.fetch_sub(1, std::memory_order_acq_rel) == 1) {
		Block *next = block->next_page;
		::free(block);
		block = next;
	}
}

// ---- Budgets ----

Budget::Budget(size_t bytes) : end_(Deadline::in(int64_t{RPY_CALL_SECONDS} * second_ns)), bytes_(bytes) {}

bool Budget::left(int *seconds, size_t *bytes) const
{
	*seconds = end_.left_seconds();
	*bytes = bytes_;
	return *seconds > 0 && bytes_ > 0;
}

size_t listing_max()
{
	return std::max(memory_bound() / 16, reply_max);
}

// ---- Calls ----

bool Call::ready(const rpy_handle_t *handle) const
{
	if (!handle->hatch)
		return fail(RPY_ERROR_NOT_BOUND), false;
	return out.ok() || (fail(RPY_ERROR_NO_MEMORY), false);
}

// A reply that fits `room` needs no mapping, which costs more than the copy: a group of some hundred properties does.
rpy_error_t Call::exchange(rpy_handle_t *handle, Budget *budget)
{
	int seconds;
	size_t bytes;
	is_open = false;
	if (!budget->left(&seconds, &bytes))
		return bytes > 0 ? RPY_ERROR_CONNECTION_BROKEN : RPY_ERROR_NO_RESOURCES;
	char room[16384];
	hatch_arg_t arg = {out.data(), out.size(), nullptr, 0, room, sizeof(room)};
	const int result = hatch_call_bounded(handle->hatch.get(), &arg, seconds, bytes);
	is_open = hatch::fate_is_open() && !request_of(op).is(Request::repeatable);
	if (result == -1)
		return call_error(errno);
	const FreshReply fresh(arg, room);
	budget->take(arg.data_size);
	return keep({arg.data_ptr, arg.data_size});
}

rpy_error_t Call::keep(std::string_view bytes)
{
	reply = BlockRef(make_block(bytes.size()));
	if (!reply)
		return RPY_ERROR_NO_MEMORY;
	if (!bytes.empty())
		memcpy(reply->data(), bytes.data(), bytes.size());
	in = Reader(reply->data(), bytes.size());
	return RPY_ERROR_NONE;
}

rpy_error_t Call::take_head()
{
	bool speaks = in.u32() == magic;
	uint32_t error = in.u32();
	if (!in.ok() || !speaks || error < RPY_ERROR_NONE || error > RPY_ERROR_INTERNAL)
		return RPY_ERROR_INTERNAL;
	is_open = false; // the daemon has said what became of it
	return static_cast<rpy_error_t>(error);
}

bool Call::take(rpy_error_t error)
{
	if (error == RPY_ERROR_NONE)
		error = take_head();
	return error == RPY_ERROR_NONE || ((is_open ? fail_open(error) : fail(error)), false);
}

bool Call::send(rpy_handle_t *handle)
{
	Budget budget;
	return send(handle, &budget);
}

bool Call::send(rpy_handle_t *handle, Budget *budget)
{
	return ready(handle) && take(exchange(handle, budget));
}

// The daemon serves the requests of one connection in order. So an undo that was sent over the connection of the failed call
// is carried out after it, however late that is. If the connection has gone, a call of its own may overtake the first request:
// then the failure stays open.
bool Call::send_before(rpy_handle_t *handle, Call *undo)
{
	hatch::FollowUp follow_up(undo->out.view());
	if (send(handle))
		return true;
	const rpy_error_t error = rpy_error();
	if (_rpy_is_open() == 0)
		return false;
	const bool is_undone = !follow_up.was_sent() && undo->send(handle);
	return (is_undone ? fail(error) : fail_open(error)), false;
}

rpy_error_t find_daemon(const rpy_handle_t *handle)
{
	if (!handle->hatch)
		return RPY_ERROR_NOT_BOUND;
	hatch_info_t info;
	if (hatch_info(handle->hatch.get(), &info) == -1)
		return call_error(errno);
	return (info.di_attributes & HATCH_REVOKED) != 0 ? RPY_ERROR_CONNECTION_BROKEN : RPY_ERROR_NONE;
}

bool Call::sound()
{
	return in.done() || (fail(RPY_ERROR_INTERNAL), false);
}

} // namespace rpy
