// The table of handlers, and the way of one request through it.
//
// A reply is a head, the magic and an error, and what the handler wrote, which is there only if the error is none. The head is
// written first and its error patched: a handler that fails half-way, or runs out of memory, leaves no half reply.
//
// The right comes before everything else that depends on the repository: a caller without it learns nothing of what is there.
// It is asked for again with each request, since rights change while a connection lasts.
#include "requests.h"

#include <cstring>
#include <new>

#include <meridon/hatch.h>

#include "requests_handlers.h"
#include "rpy/requests.h"

namespace repository {
namespace {

using namespace rpy;

struct Handled {
	Op op;
	Handler *handler;
};

constexpr Handled handlers[] = {
    {Op::status, get_status},
    {Op::decode, decode},
    {Op::list_services, list_services},
    {Op::list_instances, list_instances},
    {Op::list_snapshots, list_snapshots},
    {Op::add_service, add_service},
    {Op::add_instance, add_instance},
    {Op::delete_entity, delete_entity},
    {Op::get_group, get_group},
    {Op::read_group, read_group},
    {Op::list_groups, list_groups},
    {Op::add_group, add_group},
    {Op::delete_group, delete_group},
    {Op::commit, commit},
    {Op::get_snapshot, get_snapshot},
    {Op::take_snapshot, take_snapshot},
    {Op::delete_snapshot, delete_snapshot},
    {Op::revert_snapshot, revert_snapshot},
    {Op::verify, verify},
    {Op::backup, backup},
    {Op::read_batch, read_batch},
    {Op::withdraw_group, withdraw_group},
    {Op::batch, batch},
};
static_assert(has_a_row_for_each_request(handlers));

// Writes the head of a reply and, unless it fails, what `fill` writes.
template <typename Fill>
void put_reply(Writer *reply, Fill fill)
{
	reply->u32(magic);
	const size_t error_at = reply->reserve();
	const size_t begin = reply->size();
	rpy_error_t error = RPY_ERROR_NO_MEMORY;
	try {
		error = fill();
	} catch (const std::bad_alloc &) { // what was written goes, too
	}
	if (error != RPY_ERROR_NONE && reply->ok())
		reply->cut(begin);
	reply->patch(error_at, static_cast<uint32_t>(error));
}

// Finds the handler of a request, if its caller may send it.
rpy_error_t dispatch(Daemon *daemon, std::string_view request, bool (*read)(), bool (*modify)(), Writer *reply)
{
	Reader in(request);
	const bool is_ours = in.u32() == magic;
	const uint32_t op = in.u32();
	if (!in.ok() || !is_ours || op >= static_cast<uint32_t>(Op::count_))
		return RPY_ERROR_INVALID_ARGUMENT;
	if (!(request_of(static_cast<Op>(op)).is(Request::privileged) ? modify() : read()))
		return RPY_ERROR_PERMISSION_DENIED;
	return handlers[op].handler(daemon, &in, reply);
}

} // namespace

void answer(Daemon *daemon, std::string_view request, bool (*read)(), bool (*modify)(), Writer *reply)
{
	put_reply(reply, [&] { return dispatch(daemon, request, read, modify, reply); });
}

// hatch_return() ends the call by a jump, so that the writer has to be destroyed before it.
void serve_call(Daemon *daemon, std::string_view request, bool (*read)(), bool (*modify)())
{
	char small[32768];
	const char *data;
	size_t size;
	{
		Writer reply;
		reply.move_to(small, sizeof(small));
		answer(daemon, request, read, modify, &reply);
		size = reply.size();
		if (reply.ok() && reply.owns())
			if (void *room = hatch_reply_memory(size))
				reply.move_to(static_cast<char *>(room), size);
		data = reply.data();
		if (!reply.ok() || reply.owns()) {
			const uint32_t bare[] = {magic, RPY_ERROR_NO_MEMORY};
			memcpy(small, bare, sizeof(bare));
			size = sizeof(bare);
			data = small;
		}
	}
	(void) hatch_return(data, size, nullptr, 0);
}

} // namespace repository
