// Properties of a group and their values. They lie in the group's block, which was checked when the reply came: what is taken
// off it here is sound.
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

} // namespace rpy

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

rpy_property_t *rpy_property_create(rpy_handle_t *handle)
{
	return make_object<rpy_property_t>(handle);
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
