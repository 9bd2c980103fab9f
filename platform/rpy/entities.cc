// Scopes, services, instances and snapshots: objects with an id and a name; locators; listings of them.
//
// Unlike that of a group (groups.cc), the addition of a service or an instance takes no undo along: if its reply is lost, it may be
// there after the failure.
#include "rpy/object.h"

using namespace rpy;

void rpy_entity::set(uint64_t its_id, std::string_view its_name)
{
	id = its_id;
	(void) give_text(its_name, name, sizeof(name));
}

namespace {

// False with rpy_error() if the object is none, or empty.
bool is_set(const rpy_entity *entity)
{
	if (entity == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT), false;
	return entity->id != 0 || (fail(RPY_ERROR_NOT_SET), false);
}

bool same_handle(const rpy_entity *one, const rpy_entity *other)
{
	return one->handle == other->handle || (fail(RPY_ERROR_HANDLE_MISMATCH), false);
}

ssize_t name_out(const rpy_entity *entity, char *buffer, size_t size)
{
	return is_set(entity) ? give_text(entity->name, buffer, size) : -1;
}

// A request that sends a parent and a name, and gets an id.
int ask_for_id(
    Op op, const rpy_entity *parent, bool send_parent, const char *text, rpy_entity *filled, int replace = -1)
{
	if (filled == nullptr || text == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (!is_set(parent) || !same_handle(parent, filled))
		return -1;
	std::string_view name = name_of(text);
	if (name.empty())
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	Call call(op);
	if (send_parent)
		call.out.u64(parent->id);
	call.out.text(name);
	if (replace >= 0)
		call.out.u32(static_cast<uint32_t>(replace));
	if (!call.send(parent->handle))
		return -1;
	uint64_t id = call.in.u64();
	if (!call.sound() || id == 0)
		return fail(RPY_ERROR_INTERNAL);
	filled->set(id, name);
	return 0;
}

int delete_entity(Op op, const rpy_entity *entity, int all)
{
	if (!is_set(entity))
		return -1;
	Call call(op);
	call.out.u64(entity->id);
	if (all >= 0)
		call.out.u32(all != 0 ? 1 : 0);
	return call.send(entity->handle) && call.sound() ? 0 : -1;
}

// Fetches all pages of a listing of names, and copies what they hold into one block: they are few and short. A page begins
// with whether more follow, and the count.
int start_names(rpy_iter_t *iter, Walk walk, Op op, const rpy_entity *parent, bool send_parent)
{
	if (iter == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (!is_set(parent))
		return -1;
	if (iter->handle != parent->handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	Writer names;
	Budget budget(listing_max());
	uint32_t total = 0;
	uint64_t after = 0;
	for (bool more = true; more;) {
		Call call(op);
		if (send_parent)
			call.out.u64(parent->id);
		call.out.u64(after);
		if (!call.send(parent->handle, &budget))
			return -1;
		more = call.in.u32() != 0;
		uint32_t count = call.in.u32();
		for (uint32_t i = 0; i < count && call.in.ok(); i++) {
			uint64_t id = call.in.u64();
			std::string_view name = call.in.text();
			if (!call.in.ok() || id <= after || name.empty() || name.size() >= name_max)
				return fail(RPY_ERROR_INTERNAL);
			after = id;
			names.u64(id);
			names.text(name);
			total++;
		}
		if (!call.sound() || (more && count == 0))
			return fail(RPY_ERROR_INTERNAL);
	}
	BlockRef block(names.ok() ? make_block(names.size()) : nullptr);
	if (!block)
		return fail(RPY_ERROR_NO_MEMORY);
	memcpy(block->data(), names.data(), names.size());
	iter->walk = walk;
	iter->in = Reader(block->data(), names.size());
	iter->left = total;
	iter->block = std::move(block);
	iter->parent = parent->id;
	return 0;
}

int next_name(rpy_iter_t *iter, Walk walk, rpy_entity *filled)
{
	if (iter == nullptr || filled == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (iter->walk != walk)
		return fail(RPY_ERROR_NOT_SET);
	if (iter->handle != filled->handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	if (iter->left == 0)
		return 0;
	iter->left--;
	uint64_t id = iter->in.u64();
	filled->set(id, iter->in.text());
	return 1;
}

} // namespace

rpy_scope_t *rpy_scope_create(rpy_handle_t *handle)
{
	return make_object<rpy_scope_t>(handle);
}
rpy_service_t *rpy_service_create(rpy_handle_t *handle)
{
	return make_object<rpy_service_t>(handle);
}
rpy_instance_t *rpy_instance_create(rpy_handle_t *handle)
{
	return make_object<rpy_instance_t>(handle);
}
rpy_snapshot_t *rpy_snapshot_create(rpy_handle_t *handle)
{
	return make_object<rpy_snapshot_t>(handle);
}
rpy_iter_t *rpy_iter_create(rpy_handle_t *handle)
{
	return make_object<rpy_iter_t>(handle);
}

void rpy_scope_destroy(rpy_scope_t *scope)
{
	delete scope;
}
void rpy_service_destroy(rpy_service_t *service)
{
	delete service;
}
void rpy_instance_destroy(rpy_instance_t *instance)
{
	delete instance;
}
void rpy_snapshot_destroy(rpy_snapshot_t *snapshot)
{
	delete snapshot;
}
void rpy_iter_destroy(rpy_iter_t *iter)
{
	delete iter;
}

ssize_t rpy_service_get_name(const rpy_service_t *service, char *buffer, size_t size)
{
	return name_out(service, buffer, size);
}
ssize_t rpy_instance_get_name(const rpy_instance_t *instance, char *buffer, size_t size)
{
	return name_out(instance, buffer, size);
}
ssize_t rpy_snapshot_get_name(const rpy_snapshot_t *snapshot, char *buffer, size_t size)
{
	return name_out(snapshot, buffer, size);
}

int rpy_handle_get_scope(rpy_handle_t *handle, const char *name, rpy_scope_t *scope)
{
	if (handle == nullptr || name == nullptr || scope == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (scope->handle != handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	if (rpy_error_t error = find_daemon(handle); error != RPY_ERROR_NONE)
		return fail(error);
	if (strcmp(name, RPY_SCOPE_LOCAL) != 0)
		return fail(RPY_ERROR_NOT_FOUND);
	scope->set(1, name);
	return 0;
}

// ---- Locators ----

int rpy_parse_svc_locator(char *locator, const char **service, const char **instance)
{
	if (locator == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	size_t length = strlen(locator);
	char *colon = strchr(locator, ':');
	size_t service_length = colon == nullptr ? length : static_cast<size_t>(colon - locator);
	if (!is_service_name({locator, service_length}) || (colon != nullptr && name_of(colon + 1).empty()))
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (colon != nullptr)
		*colon++ = '\0';
	if (service != nullptr)
		*service = locator;
	if (instance != nullptr)
		*instance = colon;
	return 0;
}

int rpy_handle_decode_locator(rpy_handle_t *handle, const char *locator, rpy_scope_t *scope, rpy_service_t *service,
    rpy_instance_t *instance, rpy_propertygroup_t *, rpy_property_t *, uint32_t flags)
{
	if (handle == nullptr || locator == nullptr || flags != 0)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if ((scope != nullptr && scope->handle != handle) || (service != nullptr && service->handle != handle) ||
	    (instance != nullptr && instance->handle != handle))
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	char copy[2 * RPY_NAME_MAX];
	const char *service_name = copy, *instance_name = nullptr;
	if (give_text(locator, copy, sizeof(copy)) >= static_cast<ssize_t>(sizeof(copy)))
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (rpy_parse_svc_locator(copy, &service_name, &instance_name) == -1)
		return -1;
	Call call(Op::decode);
	call.out.text(service_name);
	call.out.text(instance_name == nullptr ? "" : instance_name);
	if (!call.send(handle))
		return -1;
	uint64_t service_id = call.in.u64();
	uint64_t instance_id = call.in.u64();
	if (!call.sound() || service_id == 0 || (instance_id == 0) != (instance_name == nullptr))
		return fail(RPY_ERROR_INTERNAL);
	if (scope != nullptr)
		scope->set(1, RPY_SCOPE_LOCAL);
	if (service != nullptr)
		service->set(service_id, service_name);
	if (instance != nullptr && instance_name != nullptr)
		instance->set(instance_id, instance_name);
	return 0;
}

// ---- Adding, deleting, listing ----

int rpy_scope_add_service(rpy_scope_t *scope, const char *name, rpy_service_t *service)
{
	if (scope == nullptr || service == nullptr || name == nullptr ||
	    !is_service_name({name, strnlen(name, name_max)}))
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (!is_set(scope) || !same_handle(scope, service))
		return -1;
	Call call(Op::add_service);
	call.out.text(name);
	if (!call.send(scope->handle))
		return -1;
	uint64_t id = call.in.u64();
	if (!call.sound() || id == 0)
		return fail(RPY_ERROR_INTERNAL);
	service->set(id, name);
	return 0;
}

int rpy_service_add_instance(rpy_service_t *service, const char *name, rpy_instance_t *instance)
{
	return ask_for_id(Op::add_instance, service, true, name, instance);
}

int _rpy_service_delete(rpy_service_t *service, int all)
{
	return delete_entity(Op::delete_entity, service, all != 0);
}
int _rpy_instance_delete(rpy_instance_t *instance, int all)
{
	return delete_entity(Op::delete_entity, instance, all != 0);
}

int rpy_iter_scope_services(rpy_iter_t *iter, const rpy_scope_t *scope)
{
	return start_names(iter, Walk::services, Op::list_services, scope, false);
}
int rpy_iter_service_instances(rpy_iter_t *iter, const rpy_service_t *service)
{
	return start_names(iter, Walk::instances, Op::list_instances, service, true);
}
int rpy_iter_instance_snapshots(rpy_iter_t *iter, const rpy_instance_t *instance)
{
	return start_names(iter, Walk::snapshots, Op::list_snapshots, instance, true);
}
int rpy_iter_next_service(rpy_iter_t *iter, rpy_service_t *service)
{
	return next_name(iter, Walk::services, service);
}
int rpy_iter_next_instance(rpy_iter_t *iter, rpy_instance_t *instance)
{
	return next_name(iter, Walk::instances, instance);
}
int rpy_iter_next_snapshot(rpy_iter_t *iter, rpy_snapshot_t *snapshot)
{
	const int step = next_name(iter, Walk::snapshots, snapshot);
	if (step == 1)
		snapshot->instance = iter->parent;
	return step;
}

// ---- Snapshots ----

static int ask_for_snapshot(
    Op op, const rpy_instance_t *instance, const char *name, rpy_snapshot_t *snapshot, int replace = -1)
{
	if (ask_for_id(op, instance, true, name, snapshot, replace) == -1)
		return -1;
	snapshot->instance = instance->id;
	return 0;
}

int rpy_instance_get_snapshot(const rpy_instance_t *instance, const char *name, rpy_snapshot_t *snapshot)
{
	return ask_for_snapshot(Op::get_snapshot, instance, name, snapshot);
}
int _rpy_snapshot_take_new(const rpy_instance_t *instance, const char *name, rpy_snapshot_t *snapshot)
{
	return ask_for_snapshot(Op::take_snapshot, instance, name, snapshot, 0);
}
int _rpy_snapshot_take_attach(const rpy_instance_t *instance, rpy_snapshot_t *snapshot)
{
	if (!is_set(instance) || !is_set(snapshot))
		return -1;
	if (snapshot->instance != instance->id)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	char name[RPY_NAME_MAX];
	(void) give_text(snapshot->name, name, sizeof(name));
	return ask_for_snapshot(Op::take_snapshot, instance, name, snapshot, 1);
}
int _rpy_snapshot_revert(rpy_snapshot_t *snapshot)
{
	return delete_entity(Op::revert_snapshot, snapshot, -1);
}
int _rpy_snapshot_delete(rpy_snapshot_t *snapshot)
{
	return delete_entity(Op::delete_snapshot, snapshot, -1);
}
