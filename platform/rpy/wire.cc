// What makes names, properties and groups sound, wherever their bytes come from: the client checks what the daemon sends, the
// daemon what a client sends and what its file holds.
#include "rpy/wire.h"

namespace rpy {

bool is_service_name(std::string_view name)
{
	if (name.size() >= name_max || name.find(':') != name.npos)
		return false;
	for (;;) {
		size_t slash = name.find('/');
		if (!is_name(name.substr(0, slash)))
			return false;
		if (slash == name.npos)
			return true;
		name.remove_prefix(slash + 1);
	}
}

bool is_sound(const Property &property)
{
	if (!is_name(property.name) || !is_type(property.type))
		return false;
	if (is_number(property.type))
		return property.values.size() / sizeof(uint64_t) == property.count &&
		       property.values.size() % sizeof(uint64_t) == 0;
	Reader values(property.values);
	for (uint32_t i = 0; i < property.count && values.ok(); i++) {
		std::string_view text = values.text();
		if (property.type != RPY_TYPE_OPAQUE && text.find('\0') != text.npos)
			return false;
	}
	return values.done();
}

bool are_properties(std::string_view block)
{
	Reader in(block);
	uint32_t count = in.u32();
	for (uint32_t i = 0; i < count && in.ok(); i++)
		if (Property property = take_property(&in); !in.ok() || !is_sound(property))
			return false;
	return in.done();
}

bool take_group(Reader *in, Group *group)
{
	group->id = in->u64();
	group->version = in->u64();
	group->flags = in->u32();
	group->name = in->text();
	group->type = in->text();
	group->properties = in->text();
	return in->ok() && is_name(group->name) && is_name(group->type) && are_properties(group->properties);
}

} // namespace rpy
