// Batches: conditions and steps are written as they travel when they are put in, and sent in one call.
#include "rpy/object.h"

using namespace rpy;

namespace {

// Where a step works: what groups hang below, a group, or what an earlier step adds.
struct Place {
	Parent kind;
	uint64_t id;
};
constexpr Parent of_step{};

// Whether a thing can be named in a batch.
bool can_name(const rpy_batch_t *batch, const Top &top)
{
	if (batch == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT), false;
	if (batch->handle != top.handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH), false;
	return !top.is_frozen() || (fail(RPY_ERROR_CONSTRAINT_VIOLATED), false);
}

bool can_name(const rpy_batch_t *batch, int step)
{
	if (batch == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT), false;
	const bool adds = step >= 0 && static_cast<uint32_t>(step) < batch->step_count &&
			  (batch->adds[step / 64] >> (step % 64) & 1) != 0;
	return adds || (fail(RPY_ERROR_NOT_FOUND), false);
}

// Counts what was written to the end of `part`. Takes it back if there are too many, or if there is no memory; no memory ends
// the batch.
int count_in(Writer *part, size_t begin, uint32_t *count)
{
	if (!part->ok())
		return fail(RPY_ERROR_NO_MEMORY);
	if (*count == batch_most) {
		part->cut(begin);
		return fail(RPY_ERROR_NO_RESOURCES);
	}
	return static_cast<int>((*count)++);
}

int expect_absent(rpy_batch_t *batch, const Top &top, const char *text)
{
	const std::string_view name = name_of(text);
	if (!can_name(batch, top))
		return -1;
	if (name.empty())
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	Writer *out = &batch->conditions;
	const size_t begin = out->size();
	out->u32(static_cast<uint32_t>(Expect::absent));
	put_parent(out, top.kind, top.id);
	out->text(name);
	return count_in(out, begin, &batch->condition_count) == -1 ? -1 : 0;
}

int add_pg(rpy_batch_t *batch, const Place &place, const char *text, const char *type_text, uint32_t flags)
{
	const std::string_view name = name_of(text), type = name_of(type_text);
	if (name.empty() || type.empty() || (flags & ~RPY_PG_FLAG_TEMPORARY) != 0)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	Writer *out = &batch->steps;
	const size_t begin = out->size();
	out->u32(static_cast<uint32_t>(Step::add));
	put_parent(out, place.kind, place.id);
	out->text(name);
	out->text(type);
	out->u32(flags);
	const int step = count_in(out, begin, &batch->step_count);
	if (step >= 0)
		batch->adds[step / 64] |= uint64_t{1} << (step % 64);
	return step;
}

int add_pg_below(rpy_batch_t *batch, const Top &top, const char *name, const char *type, uint32_t flags)
{
	return can_name(batch, top) ? add_pg(batch, {top.kind, top.id}, name, type, flags) : -1;
}

int put_commit(rpy_batch_t *batch, const Place &place, const rpy_transaction_t *transaction)
{
	Writer *out = &batch->steps;
	const size_t begin = out->size();
	out->u32(static_cast<uint32_t>(Step::commit));
	put_parent(out, place.kind, place.id);
	out->u64(transaction->group.version);
	if (rpy_error_t error = put_entries(out, transaction); error != RPY_ERROR_NONE) {
		out->cut(begin);
		return fail(error);
	}
	return count_in(out, begin, &batch->step_count);
}

// Whether a transaction can be committed by a batch, to a group that is there or to one that is new.
bool can_commit(const rpy_batch_t *batch, const rpy_transaction_t *transaction, bool to_new)
{
	if (batch == nullptr || transaction == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT), false;
	if (batch->handle != transaction->handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH), false;
	if (!transaction->block)
		return fail(RPY_ERROR_NOT_SET), false;
	return (transaction->group.id == 0) == to_new || (fail(RPY_ERROR_INVALID_ARGUMENT), false);
}

} // namespace

rpy_batch_t *rpy_batch_create(rpy_handle_t *handle)
{
	return make_object<rpy_batch_t>(handle);
}

void rpy_batch_destroy(rpy_batch_t *batch)
{
	delete batch;
}

int rpy_batch_reset(rpy_batch_t *batch)
{
	if (batch == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	for (Writer *part : {&batch->conditions, &batch->steps})
		part->clear();
	batch->condition_count = batch->step_count = 0;
	memset(batch->adds, 0, sizeof(batch->adds));
	return 0;
}

int rpy_batch_expect_version(rpy_batch_t *batch, const rpy_propertygroup_t *pg)
{
	Top top;
	if (!set_top(&top, pg) || !can_name(batch, top))
		return -1;
	Writer *out = &batch->conditions;
	const size_t begin = out->size();
	out->u32(static_cast<uint32_t>(Expect::version));
	out->u64(pg->group.id);
	out->u64(pg->group.version);
	return count_in(out, begin, &batch->condition_count) == -1 ? -1 : 0;
}

int rpy_batch_expect_absent_in_service(rpy_batch_t *batch, const rpy_service_t *service, const char *name)
{
	Top top;
	return set_top(&top, Parent::service, service) ? expect_absent(batch, top, name) : -1;
}
int rpy_batch_expect_absent_in_instance(rpy_batch_t *batch, const rpy_instance_t *instance, const char *name)
{
	Top top;
	return set_top(&top, Parent::instance, instance) ? expect_absent(batch, top, name) : -1;
}
int rpy_batch_expect_absent_in_pg(rpy_batch_t *batch, const rpy_propertygroup_t *pg, const char *name)
{
	Top top;
	return set_top(&top, pg) ? expect_absent(batch, top, name) : -1;
}

int rpy_batch_service_add_pg(
    rpy_batch_t *batch, const rpy_service_t *service, const char *name, const char *type, uint32_t flags)
{
	Top top;
	return set_top(&top, Parent::service, service) ? add_pg_below(batch, top, name, type, flags) : -1;
}
int rpy_batch_instance_add_pg(
    rpy_batch_t *batch, const rpy_instance_t *instance, const char *name, const char *type, uint32_t flags)
{
	Top top;
	return set_top(&top, Parent::instance, instance) ? add_pg_below(batch, top, name, type, flags) : -1;
}
int rpy_batch_pg_add_pg(
    rpy_batch_t *batch, const rpy_propertygroup_t *pg, const char *name, const char *type, uint32_t flags)
{
	Top top;
	return set_top(&top, pg) ? add_pg_below(batch, top, name, type, flags) : -1;
}
int rpy_batch_new_add_pg(rpy_batch_t *batch, int step, const char *name, const char *type, uint32_t flags)
{
	return can_name(batch, step) ? add_pg(batch, {of_step, static_cast<uint64_t>(step)}, name, type, flags) : -1;
}

int rpy_batch_commit(rpy_batch_t *batch, const rpy_transaction_t *transaction)
{
	return can_commit(batch, transaction, false)
		   ? put_commit(batch, {Parent::group, transaction->group.id}, transaction)
		   : -1;
}
int rpy_batch_commit_new(rpy_batch_t *batch, int step, const rpy_transaction_t *transaction)
{
	return can_commit(batch, transaction, true) && can_name(batch, step)
		   ? put_commit(batch, {of_step, static_cast<uint64_t>(step)}, transaction)
		   : -1;
}

int rpy_batch_delete_pg(rpy_batch_t *batch, const rpy_propertygroup_t *pg, int all)
{
	Top top;
	if (!set_top(&top, pg) || !can_name(batch, top))
		return -1;
	Writer *out = &batch->steps;
	const size_t begin = out->size();
	out->u32(static_cast<uint32_t>(Step::remove));
	out->u64(top.id);
	out->u32(all != 0 ? 1 : 0);
	return count_in(out, begin, &batch->step_count);
}

// What a batch of this page is made of is sound, so a daemon that finds it invalid doesn't know what a batch is.
int rpy_batch_run(rpy_batch_t *batch, int *failed, uint64_t *revision)
{
	if (batch == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	Call call(Op::batch);
	call.out.u32(batch->condition_count);
	call.out.bytes(batch->conditions.view());
	call.out.u32(batch->step_count);
	call.out.bytes(batch->steps.view());
	call.out.u64(batch->handle->change);
	if (failed != nullptr)
		*failed = -1;
	if (!batch->conditions.ok() || !batch->steps.ok())
		return fail(RPY_ERROR_NO_MEMORY);
	if (!call.send(batch->handle))
		return rpy_error() == RPY_ERROR_INVALID_ARGUMENT ? fail(RPY_ERROR_VERSION_MISMATCH) : -1;
	const auto outcome = static_cast<Outcome>(call.in.u32());
	const uint32_t number = call.in.u32(), error = call.in.u32();
	const uint64_t its_revision = call.in.u64();
	const bool fails = outcome != Outcome::done;
	if (!call.sound() || outcome > Outcome::failed || error > RPY_ERROR_INTERNAL ||
	    (error > RPY_ERROR_NONE) != (outcome == Outcome::failed) ||
	    (fails && number >= batch->condition_count + batch->step_count))
		return fail(RPY_ERROR_INTERNAL);
	if (fails && failed != nullptr)
		*failed = static_cast<int>(number);
	if (outcome == Outcome::failed)
		return fail(static_cast<rpy_error_t>(error));
	if (revision != nullptr)
		*revision = its_revision;
	return outcome == Outcome::done ? 1 : 0;
}
