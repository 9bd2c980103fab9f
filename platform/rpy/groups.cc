// Property groups: looking one up, adding, updating and deleting it.
//
// An addition takes its undo along (Call::send_before()): both requests are written before the first is sent, with the same
// change number. So the undo can follow over the connection on which the addition's fate was left open, after it in the daemon's
// order. The daemon takes a group back only if that change is all of it (Op::withdraw_group, wire.h).
#include "rpy/object.h"
#include "rpy/request_batch.h"

using namespace rpy;

namespace rpy {

bool fill_group(Call *call, rpy_propertygroup_t *pg)
{
	Group group;
	if (!take_group(&call->in, &group) || !call->sound())
		return fail(RPY_ERROR_INTERNAL), false;
	pg->group = group;
	pg->block = call->reply;
	return true;
}

bool set_top(Top *top, Parent kind, const rpy_entity *entity)
{
	if (entity == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT), false;
	*top = {entity->handle, kind, entity->id};
	return entity->id != 0 || (fail(RPY_ERROR_NOT_SET), false);
}

bool set_top(Top *top, const rpy_propertygroup_t *pg)
{
	if (pg == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT), false;
	*top = {pg->handle, pg->frozen ? Parent::frozen : Parent::group, pg->group.id};
	return pg->block || (fail(RPY_ERROR_NOT_SET), false);
}

bool is_set(const rpy_propertygroup_t *pg)
{
	Top ignored;
	return set_top(&ignored, pg);
}

} // namespace rpy

namespace {

int get_pg(const Top &top, const char *text, rpy_propertygroup_t *pg)
{
	std::string_view name = name_of(text);
	if (name.empty() || pg == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (pg->handle != top.handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	Call call(Op::get_group);
	put_parent(&call.out, top.kind, top.id);
	call.out.text(name);
	if (!send_in_batch(top.handle, &call) || !fill_group(&call, pg))
		return -1;
	pg->frozen = top.is_frozen();
	return 0;
}

// An addition whose reply is lost is withdrawn, so that a failure means that there is no group. Its change number keeps the
// withdrawal from taking a group that another client has made or written to since.
int add_pg(const Top &top, const char *text, const char *type_text, uint32_t flags, rpy_propertygroup_t *pg)
{
	std::string_view name = name_of(text), type = name_of(type_text);
	if (name.empty() || type.empty() || pg == nullptr || (flags & ~RPY_PG_FLAG_TEMPORARY) != 0)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (pg->handle != top.handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	Call call(Op::add_group), undo(Op::withdraw_group);
	put_parent(&call.out, top.kind, top.id);
	call.out.text(name);
	call.out.text(type);
	call.out.u32(flags);
	const uint64_t change = top.handle->change != 0 ? top.handle->change : _rpy_new_change();
	call.out.u64(change);
	put_parent(&undo.out, top.kind, top.id);
	undo.out.text(name);
	undo.out.u64(change);
	if (!call.send_before(top.handle, &undo) || !fill_group(&call, pg))
		return -1;
	pg->frozen = false;
	return 0;
}

} // namespace

rpy_propertygroup_t *rpy_pg_create(rpy_handle_t *handle)
{
	return make_object<rpy_propertygroup_t>(handle);
}

void rpy_pg_destroy(rpy_propertygroup_t *pg)
{
	delete pg;
}

int rpy_service_get_pg(const rpy_service_t *service, const char *name, rpy_propertygroup_t *pg)
{
	Top top;
	return set_top(&top, Parent::service, service) ? get_pg(top, name, pg) : -1;
}
int rpy_instance_get_pg(const rpy_instance_t *instance, const char *name, rpy_propertygroup_t *pg)
{
	Top top;
	return set_top(&top, Parent::instance, instance) ? get_pg(top, name, pg) : -1;
}
int rpy_snapshot_get_pg(const rpy_snapshot_t *snapshot, const char *name, rpy_propertygroup_t *pg)
{
	Top top;
	return set_top(&top, Parent::snapshot, snapshot) ? get_pg(top, name, pg) : -1;
}
int rpy_pg_get_pg(const rpy_propertygroup_t *parent, const char *name, rpy_propertygroup_t *pg)
{
	Top top;
	return set_top(&top, parent) ? get_pg(top, name, pg) : -1;
}

int rpy_service_add_pg(
    rpy_service_t *service, const char *name, const char *type, uint32_t flags, rpy_propertygroup_t *pg)
{
	Top top;
	return set_top(&top, Parent::service, service) ? add_pg(top, name, type, flags, pg) : -1;
}
int rpy_instance_add_pg(
    rpy_instance_t *instance, const char *name, const char *type, uint32_t flags, rpy_propertygroup_t *pg)
{
	Top top;
	return set_top(&top, Parent::instance, instance) ? add_pg(top, name, type, flags, pg) : -1;
}
int rpy_pg_add_pg(
    rpy_propertygroup_t *parent, const char *name, const char *type, uint32_t flags, rpy_propertygroup_t *pg)
{
	Top top;
	return set_top(&top, parent) ? add_pg(top, name, type, flags, pg) : -1;
}

ssize_t rpy_pg_get_name(const rpy_propertygroup_t *pg, char *buffer, size_t size)
{
	return is_set(pg) ? give_text(pg->group.name, buffer, size) : -1;
}
ssize_t rpy_pg_get_type(const rpy_propertygroup_t *pg, char *buffer, size_t size)
{
	return is_set(pg) ? give_text(pg->group.type, buffer, size) : -1;
}
ssize_t _rpy_pg_get_bytes(const rpy_propertygroup_t *pg)
{
	return is_set(pg) ? static_cast<ssize_t>(pg->group.properties.size()) : -1;
}
int rpy_pg_get_flags(const rpy_propertygroup_t *pg, uint32_t *flags)
{
	if (!is_set(pg))
		return -1;
	if (flags == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	*flags = pg->group.flags;
	return 0;
}

// By its id, not by its name: a group that was deleted and made again is another one (RPY_ERROR_DELETED).
int rpy_pg_update(rpy_propertygroup_t *pg)
{
	if (!is_set(pg))
		return -1;
	if (pg->frozen)
		return 0;
	Call call(Op::read_group);
	call.out.u64(pg->group.id);
	uint64_t before = pg->group.version;
	if (!send_in_batch(pg->handle, &call) || !fill_group(&call, pg))
		return -1;
	return pg->group.version == before ? 0 : 1;
}

int rpy_pg_delete(rpy_propertygroup_t *pg)
{
	if (!is_set(pg))
		return -1;
	if (pg->frozen)
		return fail(RPY_ERROR_CONSTRAINT_VIOLATED);
	Call call(Op::delete_group);
	call.out.u64(pg->group.id);
	return call.send(pg->handle) && call.sound() ? 0 : -1;
}

int _rpy_pg_withdraw(rpy_propertygroup_t *pg, uint64_t change)
{
	if (!is_set(pg))
		return -1;
	if (pg->frozen)
		return fail(RPY_ERROR_CONSTRAINT_VIOLATED);
	Call call(Op::withdraw_group);
	put_parent(&call.out, Parent::group, pg->group.id);
	call.out.text({});
	call.out.u64(change);
	return call.send(pg->handle) && call.sound() ? 0 : -1;
}
