// Reads: what one request finds by itself, a batch of reads, and what an operator asks for.
//
// The model's lock is held for the look-up alone. A FoundGroup shares the version, which never changes, so that a reply is
// measured and written without the lock, however large the group is.
//
// What a reply takes is asked for before it is written (make_room()), and counts as the caller's: one that may not have so
// much gets RPY_ERROR_NO_MEMORY, and nobody else notices.
#include <cerrno>
#include <unistd.h>

#include <meridon/hatch.h>

#include "requests_handlers.h"
#include "rpy/requests.h"

namespace repository {

using namespace rpy;

bool may_use(size_t bytes)
{
	return hatch_charge(bytes) == 0 || errno != ENOMEM;
}

bool make_room(Writer *out, size_t more)
{
	const size_t whole = out->size() + more;
	if (whole <= out->room())
		return true;
	char *memory = static_cast<char *>(hatch_reply_memory(whole));
	if (memory == nullptr)
		return errno == EINVAL && out->make_room(more); // no hatch called: the writer's own memory does
	out->move_to(memory, whole);
	return true;
}

rpy_error_t get_status(Daemon *daemon, Reader *in, Writer *out)
{
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	out->u64(static_cast<uint64_t>(getpid()));
	out->u32(store_format);
	out->u32(daemon->store->writable() ? 1 : 0);
	out->text(daemon->file);
	{
		ReadLock hold(daemon->model.lock);
		out->u64(daemon->model.groups());
	}
	StoreFile *file = daemon->store->file();
	out->u64(file == nullptr ? 0 : file->bytes());
	return RPY_ERROR_NONE;
}

rpy_error_t decode(Daemon *daemon, Reader *in, Writer *out)
{
	const std::string_view service_name = in->text(), instance_name = in->text();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	ReadLock hold(daemon->model.lock);
	const Node *service = daemon->model.child(nullptr, NodeKind::service, service_name);
	if (service == nullptr)
		return RPY_ERROR_NOT_FOUND;
	const Node *instance = nullptr;
	if (!instance_name.empty()) {
		instance = daemon->model.child(service, NodeKind::instance, instance_name);
		if (instance == nullptr)
			return RPY_ERROR_NOT_FOUND;
	}
	out->u64(service->id);
	out->u64(instance == nullptr ? 0 : instance->id);
	return RPY_ERROR_NONE;
}

namespace {

rpy_error_t find_named(Daemon *daemon, Reader *in, FoundGroup *found)
{
	const auto kind = static_cast<NodeKind>(in->u32());
	const uint64_t id = in->u64();
	const std::string_view name = in->text();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	ReadLock hold(daemon->model.lock);
	const Node *parent = daemon->model.find(kind, id);
	if (parent == nullptr)
		return RPY_ERROR_DELETED;
	const Node *group = daemon->model.child(parent, parent->group_kind(), name);
	if (group == nullptr)
		return RPY_ERROR_NOT_FOUND;
	*found = FoundGroup(group);
	return RPY_ERROR_NONE;
}

rpy_error_t find_by_id(Daemon *daemon, Reader *in, FoundGroup *found)
{
	const uint64_t id = in->u64();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	ReadLock hold(daemon->model.lock);
	const Node *group = daemon->model.find(NodeKind::group, id);
	if (group == nullptr)
		return RPY_ERROR_DELETED;
	*found = FoundGroup(group);
	return RPY_ERROR_NONE;
}

// Looks for the group of a get_group or of a read_group.
rpy_error_t find_group(Op op, Daemon *daemon, Reader *in, FoundGroup *found)
{
	return op == Op::get_group ? find_named(daemon, in, found) : find_by_id(daemon, in, found);
}

rpy_error_t give_group(Op op, Daemon *daemon, Reader *in, Writer *out)
{
	FoundGroup found;
	if (rpy_error_t error = find_group(op, daemon, in, &found); error != RPY_ERROR_NONE)
		return error;
	const rpy::Group group = wire_group(found);
	if (!make_room(out, size_of(group)))
		return RPY_ERROR_NO_MEMORY;
	put_group(out, group);
	return RPY_ERROR_NONE;
}

} // namespace

rpy_error_t get_group(Daemon *daemon, Reader *in, Writer *out)
{
	return give_group(Op::get_group, daemon, in, out);
}

rpy_error_t read_group(Daemon *daemon, Reader *in, Writer *out)
{
	return give_group(Op::read_group, daemon, in, out);
}

// find_group() tells these two apart, and no other.
static_assert([] {
	for (const rpy::Request &request : rpy::requests)
		if (request.is(Request::batchable) != (request.op == Op::get_group || request.op == Op::read_group))
			return false;
	return true;
}());

// Several reads of one client, each with a reply of its own: one that fails says nothing about the others. Those that the page
// has no room for get no reply; the client sends them again in calls of their own.
rpy_error_t read_batch(Daemon *daemon, Reader *in, Writer *out)
{
	struct One {
		rpy_error_t error;
		FoundGroup found;
	};
	constexpr size_t head = 3 * sizeof(uint32_t); // a reply's length, and what it begins with
	std::vector<One> all;
	size_t bytes = 0;
	bool full = false;
	while (in->ok() && in->left() > 0 && !full) {
		Reader request(in->text());
		const bool is_ours = request.u32() == magic;
		const auto op = static_cast<Op>(request.u32());
		if (!request.ok() || !is_ours || op >= Op::count_ || !request_of(op).is(Request::batchable))
			return RPY_ERROR_INVALID_ARGUMENT;
		One &one = all.emplace_back();
		one.error = find_group(op, daemon, &request, &one.found);
		bytes += head + (one.error == RPY_ERROR_NONE ? size_of(wire_group(one.found)) : 0);
		full = bytes > page_bytes || all.size() == page_most;
	}
	if (!in->ok())
		return RPY_ERROR_INVALID_ARGUMENT;
	if (!make_room(out, bytes))
		return RPY_ERROR_NO_MEMORY;
	for (const One &one : all) {
		const size_t length_at = out->reserve(), begin = out->size();
		out->u32(magic);
		out->u32(static_cast<uint32_t>(one.error));
		if (one.error == RPY_ERROR_NONE)
			put_group(out, wire_group(one.found));
		out->patch(length_at, static_cast<uint32_t>(out->size() - begin));
	}
	return RPY_ERROR_NONE;
}

rpy_error_t get_snapshot(Daemon *daemon, Reader *in, Writer *out)
{
	const uint64_t id = in->u64();
	const std::string_view name = in->text();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	ReadLock hold(daemon->model.lock);
	const Node *instance = daemon->model.find(NodeKind::instance, id);
	if (instance == nullptr)
		return RPY_ERROR_DELETED;
	const Node *snapshot = daemon->model.child(instance, NodeKind::snapshot, name);
	if (snapshot == nullptr)
		return RPY_ERROR_NOT_FOUND;
	out->u64(snapshot->id);
	return RPY_ERROR_NONE;
}

// Both need a store in a file. With another one the answer is that of a daemon that doesn't know the request.
rpy_error_t verify(Daemon *daemon, Reader *in, Writer *out)
{
	std::string findings;
	StoreFile *file = daemon->store->file();
	if (!in->done() || file == nullptr)
		return RPY_ERROR_INVALID_ARGUMENT;
	if (!file->verify(&findings))
		return RPY_ERROR_BACKEND_ACCESS;
	out->text(findings);
	return RPY_ERROR_NONE;
}

rpy_error_t backup(Daemon *daemon, Reader *in, Writer *out)
{
	std::string bytes;
	StoreFile *file = daemon->store->file();
	if (!in->done() || file == nullptr)
		return RPY_ERROR_INVALID_ARGUMENT;
	if (!may_use(2 * file->bytes())) // the store's copy, and ours
		return RPY_ERROR_NO_MEMORY;
	if (!file->copy(&bytes))
		return RPY_ERROR_BACKEND_ACCESS;
	if (!make_room(out, bytes.size()))
		return RPY_ERROR_NO_MEMORY;
	out->bytes(bytes);
	return RPY_ERROR_NONE;
}

} // namespace repository
