// Property groups: looking one up, listing many, and the properties of one, which lie in the same block.
#include "rpy/object.h"

using namespace rpy;

namespace rpy {

bool find_property(const Group &group, std::string_view name, Property *found)
{
	Reader in(group.properties);
	for (uint32_t left = in.u32(); left > 0; left--) {
		*found = take_property(&in);
		if (found->name == name)
			return true;
	}
	return false;
}

bool fill_group(Call *call, rpy_propertygroup_t *pg)
{
	Group group;
	if (!take_group(&call->in, &group) || !call->sound())
		return fail(RPY_ERROR_INTERNAL), false;
	pg->group = group;
	pg->block = call->reply;
	return true;
}

} // namespace rpy

namespace {

// What groups hang below.
struct Top {
	rpy_handle_t *handle;
	Parent kind;
	uint64_t id;
};

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
	if (!call.send_read(top.handle) || !fill_group(&call, pg))
		return -1;
	pg->frozen = top.kind == Parent::snapshot || top.kind == Parent::frozen;
	return 0;
}

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

struct Want {
	Filter filter;
	std::string_view text;
};

// Looks through one page: sound groups, ids that rise. Gives the last id.
bool check_page(Call *call, uint32_t count, uint64_t *after)
{
	Group group;
	for (uint32_t i = 0; i < count; i++) {
		if (!take_group(&call->in, &group) || group.id <= *after)
			return false;
		*after = group.id;
	}
	return call->in.done();
}

// The pages are linked from the last to the first while they come in; this turns them round.
Block *in_order(Block *last)
{
	Block *first = nullptr;
	while (last != nullptr) {
		Block *before = last->next_page;
		last->next_page = first;
		first = last;
		last = before;
	}
	return first;
}

constexpr size_t page_head = 2 * sizeof(uint32_t); // magic and error, which every reply has
// Begins to walk a page.
void enter_page(rpy_iter_t *iter)
{
	iter->in = Reader(iter->block->data(), iter->block->size);
	(void) iter->in.bytes(page_head);
	(void) iter->in.u32();
	iter->left = iter->in.u32();
}

int start_groups(rpy_iter_t *iter, const Top &top, const Want &want)
{
	if (iter == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (iter->handle != top.handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	BlockRef pages;
	Budget budget(listing_max());
	uint64_t after = 0;
	for (bool more = true; more;) {
		Call call(Op::list_groups);
		put_parent(&call.out, top.kind, top.id);
		call.out.u32(static_cast<uint32_t>(want.filter));
		call.out.text(want.text);
		call.out.u64(after);
		if (!call.send(top.handle, &budget))
			return -1;
		more = call.in.u32() != 0;
		uint32_t count = call.in.u32();
		if (!call.in.ok() || (more && count == 0) || !check_page(&call, count, &after))
			return fail(RPY_ERROR_INTERNAL);
		call.reply->next_page = pages.release();
		pages = std::move(call.reply);
	}
	iter->block = BlockRef(in_order(pages.release()));
	iter->walk = Walk::groups;
	iter->frozen = top.kind == Parent::snapshot || top.kind == Parent::frozen;
	enter_page(iter);
	return 0;
}

int start_like(rpy_iter_t *iter, const Top &top, const char *name, const char *type)
{
	if (name != nullptr && type != nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (name != nullptr)
		return start_groups(iter, top, {Filter::name_without_case, name});
	if (type == nullptr)
		return start_groups(iter, top, {Filter::all, {}});
	std::string_view pattern(type);
	size_t star = pattern.find('*');
	return start_groups(
	    iter, top, {star == pattern.npos ? Filter::type : Filter::type_prefix, pattern.substr(0, star)});
}

} // namespace

rpy_propertygroup_t *rpy_pg_create(rpy_handle_t *handle)
{
	if (handle == nullptr)
		return fail_null<rpy_propertygroup_t>(RPY_ERROR_INVALID_ARGUMENT);
	auto *pg = new (std::nothrow) rpy_propertygroup_t;
	if (pg == nullptr)
		return fail_null<rpy_propertygroup_t>(RPY_ERROR_NO_MEMORY);
	pg->handle = handle;
	return pg;
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

int rpy_pg_update(rpy_propertygroup_t *pg)
{
	if (!is_set(pg))
		return -1;
	if (pg->frozen)
		return 0;
	Call call(Op::read_group);
	call.out.u64(pg->group.id);
	uint64_t before = pg->group.version;
	if (!call.send_read(pg->handle) || !fill_group(&call, pg))
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

// ---- Listings ----

int _rpy_iter_service_pgs_like(rpy_iter_t *iter, const rpy_service_t *service, const char *name, const char *type)
{
	Top top;
	return set_top(&top, Parent::service, service) ? start_like(iter, top, name, type) : -1;
}
int _rpy_iter_instance_pgs_like(rpy_iter_t *iter, const rpy_instance_t *instance, const char *name, const char *type)
{
	Top top;
	return set_top(&top, Parent::instance, instance) ? start_like(iter, top, name, type) : -1;
}
int _rpy_iter_pg_pgs_like(rpy_iter_t *iter, const rpy_propertygroup_t *pg, const char *name, const char *type)
{
	Top top;
	return set_top(&top, pg) ? start_like(iter, top, name, type) : -1;
}

int rpy_iter_service_pgs(rpy_iter_t *iter, const rpy_service_t *service)
{
	return _rpy_iter_service_pgs_like(iter, service, nullptr, nullptr);
}
int rpy_iter_instance_pgs(rpy_iter_t *iter, const rpy_instance_t *instance)
{
	return _rpy_iter_instance_pgs_like(iter, instance, nullptr, nullptr);
}
int rpy_iter_snapshot_pgs(rpy_iter_t *iter, const rpy_snapshot_t *snapshot)
{
	Top top;
	return set_top(&top, Parent::snapshot, snapshot) ? start_groups(iter, top, {Filter::all, {}}) : -1;
}
int rpy_iter_pg_pgs(rpy_iter_t *iter, const rpy_propertygroup_t *pg)
{
	return _rpy_iter_pg_pgs_like(iter, pg, nullptr, nullptr);
}

int rpy_iter_next_pg(rpy_iter_t *iter, rpy_propertygroup_t *pg)
{
	if (iter == nullptr || pg == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (iter->walk != Walk::groups)
		return fail(RPY_ERROR_NOT_SET);
	if (iter->handle != pg->handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	while (iter->left == 0) {
		BlockRef next = iter->block ? BlockRef::share(iter->block->next_page) : BlockRef();
		iter->block = std::move(next); // what is behind stays with the groups that it gave, and goes with them
		if (!iter->block)
			return 0;
		enter_page(iter);
	}
	iter->left--;
	Group &group = pg->group;
	group.id = iter->in.u64();
	group.version = iter->in.u64();
	group.flags = iter->in.u32();
	group.name = iter->in.text();
	group.type = iter->in.text();
	group.properties = iter->in.text();
	pg->block = iter->block;
	pg->frozen = iter->frozen;
	return 1;
}

// ---- Properties ----

rpy_property_t *rpy_property_create(rpy_handle_t *handle)
{
	if (handle == nullptr)
		return fail_null<rpy_property_t>(RPY_ERROR_INVALID_ARGUMENT);
	auto *property = new (std::nothrow) rpy_property_t;
	if (property == nullptr)
		return fail_null<rpy_property_t>(RPY_ERROR_NO_MEMORY);
	property->handle = handle;
	return property;
}

void rpy_property_destroy(rpy_property_t *property)
{
	delete property;
}

int rpy_pg_get_property(const rpy_propertygroup_t *pg, const char *text, rpy_property_t *property)
{
	if (!is_set(pg))
		return -1;
	std::string_view name = name_of(text);
	if (name.empty() || property == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (property->handle != pg->handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	Property found;
	if (!find_property(pg->group, name, &found))
		return fail(RPY_ERROR_NOT_FOUND);
	property->property = found;
	property->block = pg->block;
	return 0;
}

int rpy_iter_pg_properties(rpy_iter_t *iter, const rpy_propertygroup_t *pg)
{
	if (!is_set(pg))
		return -1;
	if (iter == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (iter->handle != pg->handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	iter->block = pg->block;
	iter->walk = Walk::properties;
	iter->in = Reader(pg->group.properties);
	iter->left = iter->in.u32();
	return 0;
}

int rpy_iter_next_property(rpy_iter_t *iter, rpy_property_t *property)
{
	if (iter == nullptr || property == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (iter->walk != Walk::properties)
		return fail(RPY_ERROR_NOT_SET);
	if (iter->handle != property->handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	if (iter->left == 0)
		return 0;
	iter->left--;
	property->property = take_property(&iter->in);
	property->block = iter->block;
	return 1;
}

namespace {

bool is_set(const rpy_property_t *property)
{
	if (property == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT), false;
	return property->block || (fail(RPY_ERROR_NOT_SET), false);
}

// Takes one value off a property's bytes.
int take_value(Reader *in, uint32_t type, rpy_value_t *value)
{
	if (is_number(type)) {
		value->type = type;
		value->number = in->u64();
		return 0;
	}
	std::string_view text = in->text();
	return rpy_value_set_bytes(value, static_cast<rpy_type_t>(type), text.data(), text.size());
}

} // namespace

ssize_t rpy_property_get_name(const rpy_property_t *property, char *buffer, size_t size)
{
	return is_set(property) ? give_text(property->property.name, buffer, size) : -1;
}

int rpy_property_type(const rpy_property_t *property, rpy_type_t *type)
{
	if (!is_set(property))
		return -1;
	if (type == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	*type = static_cast<rpy_type_t>(property->property.type);
	return 0;
}

int rpy_property_get_value(const rpy_property_t *property, rpy_value_t *value)
{
	if (!is_set(property))
		return -1;
	if (value == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (value->handle != property->handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	if (property->property.count != 1)
		return fail(property->property.count == 0 ? RPY_ERROR_NOT_FOUND : RPY_ERROR_CONSTRAINT_VIOLATED);
	Reader in(property->property.values);
	return take_value(&in, property->property.type, value);
}

int rpy_iter_property_values(rpy_iter_t *iter, const rpy_property_t *property)
{
	if (!is_set(property))
		return -1;
	if (iter == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (iter->handle != property->handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	iter->block = property->block;
	iter->walk = Walk::values;
	iter->in = Reader(property->property.values);
	iter->left = property->property.count;
	iter->type = property->property.type;
	return 0;
}

int rpy_iter_next_value(rpy_iter_t *iter, rpy_value_t *value)
{
	if (iter == nullptr || value == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (iter->walk != Walk::values)
		return fail(RPY_ERROR_NOT_SET);
	if (iter->handle != value->handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	if (iter->left == 0)
		return 0;
	iter->left--;
	return take_value(&iter->in, iter->type, value) == 0 ? 1 : -1;
}
