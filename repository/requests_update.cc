// Requests that change something: each is taken apart into an update (changes.h), which is carried out.
//
// A request is checked whole, to its last byte, before its update is run. Updates refer to names in the request's bytes, which
// stay until the call ends. A handler may write its reply although the update failed: requests.cc cuts it off then.
#include "changes.h"
#include "requests_handlers.h"

namespace repository {

using namespace rpy;

namespace {

// Older clients end their requests before it.
uint64_t take_change(Reader *in)
{
	return in->left() == 0 ? 0 : in->u64();
}

constexpr size_t entry_least = 5 * sizeof(uint32_t) + 1; // bytes: four numbers and lengths, and a name of one

rpy_error_t take_entries(Reader *in, Entries *entries)
{
	const uint32_t count = in->u32();
	// The number comes from the client: without this bound it would choose how much memory is taken.
	if (!in->ok() || count > in->left() / entry_least)
		return RPY_ERROR_INVALID_ARGUMENT;
	if (!may_use(count * 2 * sizeof(Entry))) // and what finds them by name
		return RPY_ERROR_NO_MEMORY;
	entries->reserve(count);
	for (uint32_t i = 0; i < count; i++) {
		const uint32_t change = in->u32();
		const Entry entry = {static_cast<Change>(change), take_property(in)};
		if (!in->ok() || change > static_cast<uint32_t>(Change::remove) || !is_sound(entry.property))
			return RPY_ERROR_INVALID_ARGUMENT;
		entries->push_back(entry);
	}
	return RPY_ERROR_NONE;
}

rpy_error_t add_entity(Daemon *daemon, AddNode *update, Writer *out)
{
	const rpy_error_t error = daemon->updates.run(update);
	out->u64(update->added);
	return error;
}

} // namespace

rpy_error_t add_service(Daemon *daemon, Reader *in, Writer *out)
{
	const std::string_view name = in->text();
	if (!in->done() || !is_service_name(name))
		return RPY_ERROR_INVALID_ARGUMENT;
	AddNode update(Op::add_service, {NodeKind::service, name});
	return add_entity(daemon, &update, out);
}

rpy_error_t add_instance(Daemon *daemon, Reader *in, Writer *out)
{
	const uint64_t service = in->u64();
	const std::string_view name = in->text();
	if (!in->done() || !is_name(name) || service == 0)
		return RPY_ERROR_INVALID_ARGUMENT;
	AddNode update(Op::add_instance, {NodeKind::instance, name, service}, NodeKind::service);
	return add_entity(daemon, &update, out);
}

rpy_error_t add_group(Daemon *daemon, Reader *in, Writer *out)
{
	const auto parent_kind = static_cast<NodeKind>(in->u32());
	const uint64_t parent = in->u64();
	const std::string_view name = in->text(), type = in->text();
	const uint32_t flags = in->u32();
	const uint64_t change = take_change(in);
	if (!in->done() || !is_name(name) || !is_name(type) || parent == 0 || (flags & ~RPY_PG_FLAG_TEMPORARY) != 0)
		return RPY_ERROR_INVALID_ARGUMENT;
	if (parent_kind == NodeKind::snapshot || parent_kind == NodeKind::frozen)
		return RPY_ERROR_CONSTRAINT_VIOLATED;
	AddNode update(Op::add_group, {NodeKind::group, name, parent, type, flags, change}, parent_kind);
	const rpy_error_t error = daemon->updates.run(&update);
	const Version &empty = *daemon->model.no_properties();
	put_group(out, {update.added, empty.id, flags, name, type, empty.properties});
	return error;
}

rpy_error_t delete_entity(Daemon *daemon, Reader *in, Writer *)
{
	const uint64_t id = in->u64();
	const bool all = in->u32() != 0;
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	RemoveNode update(Op::delete_entity, id, NodeKind::service);
	update.other_kind = NodeKind::instance;
	update.all = all;
	return daemon->updates.run(&update);
}

rpy_error_t delete_group(Daemon *daemon, Reader *in, Writer *)
{
	const uint64_t id = in->u64();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	RemoveNode update(Op::delete_group, id, NodeKind::group);
	return daemon->updates.run(&update);
}

rpy_error_t withdraw_group(Daemon *daemon, Reader *in, Writer *)
{
	const auto kind = static_cast<NodeKind>(in->u32());
	const uint64_t id = in->u64();
	const std::string_view name = in->text();
	const uint64_t change = in->u64();
	if (!in->done() || id == 0 || change == 0)
		return RPY_ERROR_INVALID_ARGUMENT;
	WithdrawGroup update(kind, id, name, change);
	return daemon->updates.run(&update);
}

rpy_error_t commit(Daemon *daemon, Reader *in, Writer *out)
{
	const uint64_t group = in->u64(), base = in->u64();
	Commit update(group, base);
	if (!may_use(2 * in->left())) // the properties while they are put together
		return RPY_ERROR_NO_MEMORY;
	if (rpy_error_t error = take_entries(in, &update.entries); error != RPY_ERROR_NONE)
		return error;
	update.change = take_change(in);
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	const rpy_error_t error = daemon->updates.run(&update);
	out->u32(update.nothing ? 0 : 1);
	return error;
}

namespace {

// The count of conditions or of steps. More than a batch may have make the reader fail.
uint32_t take_count(Reader *in)
{
	const uint32_t count = in->u32();
	if (count > batch_most)
		(void) in->bytes(SIZE_MAX);
	return count;
}

rpy_error_t take_conditions(Reader *in, std::vector<Batch::Condition> *conditions)
{
	for (uint32_t left = take_count(in); left > 0 && in->ok(); left--) {
		Batch::Condition condition = {static_cast<Expect>(in->u32()), NodeKind::group, 0};
		switch (condition.what) {
		case Expect::version:
			condition.id = in->u64();
			condition.version = in->u64();
			break;
		case Expect::absent:
			condition.kind = static_cast<NodeKind>(in->u32());
			condition.id = in->u64();
			condition.name = in->text();
			break;
		default:
			return RPY_ERROR_INVALID_ARGUMENT;
		}
		conditions->push_back(condition);
	}
	return in->ok() ? RPY_ERROR_NONE : RPY_ERROR_INVALID_ARGUMENT;
}

// Whether a step that works on what another one added names one that comes before it and adds something.
bool is_placed(const std::vector<Batch::Step> &before, const Batch::Step &step)
{
	return step.kind != NodeKind{} || (step.id < before.size() && before[step.id].what == rpy::Step::add);
}

rpy_error_t take_step(Reader *in, Batch::Step *step)
{
	step->what = static_cast<rpy::Step>(in->u32());
	step->kind = step->what == rpy::Step::remove ? NodeKind::group : static_cast<NodeKind>(in->u32());
	step->id = in->u64();
	switch (step->what) {
	case rpy::Step::add:
		step->name = in->text();
		step->type = in->text();
		step->flags = in->u32();
		return is_name(step->name) && is_name(step->type) && (step->flags & ~RPY_PG_FLAG_TEMPORARY) == 0
			   ? RPY_ERROR_NONE
			   : RPY_ERROR_INVALID_ARGUMENT;
	case rpy::Step::commit:
		step->base = in->u64();
		return step->kind == NodeKind::group || step->kind == NodeKind{} ? take_entries(in, &step->entries)
										 : RPY_ERROR_INVALID_ARGUMENT;
	case rpy::Step::remove:
		step->all = in->u32() != 0;
		return RPY_ERROR_NONE;
	default:
		return RPY_ERROR_INVALID_ARGUMENT;
	}
}

rpy_error_t take_steps(Reader *in, std::vector<Batch::Step> *steps)
{
	for (uint32_t left = take_count(in); left > 0; left--) {
		Batch::Step step = {};
		const rpy_error_t error = take_step(in, &step);
		if (error == RPY_ERROR_NO_MEMORY)
			return error;
		if (error != RPY_ERROR_NONE || !in->ok() || !is_placed(*steps, step))
			return RPY_ERROR_INVALID_ARGUMENT;
		steps->push_back(std::move(step));
	}
	return RPY_ERROR_NONE;
}

} // namespace

// That a step can't be carried out is an answer: the error of the reply is one of the whole batch.
rpy_error_t batch(Daemon *daemon, Reader *in, Writer *out)
{
	Batch update;
	if (!may_use(2 * in->left() + batch_most * (sizeof(Batch::Condition) + sizeof(Batch::Step))))
		return RPY_ERROR_NO_MEMORY;
	rpy_error_t error = take_conditions(in, &update.conditions);
	if (error == RPY_ERROR_NONE)
		error = take_steps(in, &update.steps);
	if (error != RPY_ERROR_NONE)
		return error;
	update.change = in->u64();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	error = daemon->updates.run(&update);
	if (error != RPY_ERROR_NONE && update.failed == Batch::none)
		return error;
	out->u32(static_cast<uint32_t>(error != RPY_ERROR_NONE ? Outcome::failed
				       : update.nothing        ? Outcome::conflict
							       : Outcome::done));
	out->u32(update.failed);
	out->u32(static_cast<uint32_t>(error));
	out->u64(update.revision);
	return RPY_ERROR_NONE;
}

rpy_error_t take_snapshot(Daemon *daemon, Reader *in, Writer *out)
{
	const uint64_t instance = in->u64();
	const std::string_view name = in->text();
	const bool replace = in->u32() != 0;
	if (!in->done() || !is_name(name))
		return RPY_ERROR_INVALID_ARGUMENT;
	TakeSnapshot update(instance, name, replace);
	const rpy_error_t error = daemon->updates.run(&update);
	out->u64(update.taken);
	return error;
}

rpy_error_t delete_snapshot(Daemon *daemon, Reader *in, Writer *)
{
	const uint64_t id = in->u64();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	RemoveNode update(Op::delete_snapshot, id, NodeKind::snapshot);
	return daemon->updates.run(&update);
}

rpy_error_t revert_snapshot(Daemon *daemon, Reader *in, Writer *)
{
	const uint64_t id = in->u64();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	RevertSnapshot update(id);
	return daemon->updates.run(&update);
}

} // namespace repository
