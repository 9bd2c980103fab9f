#include "groups.h"

#include <algorithm>
#include <cstdint>

#include <fmt/format.h>
#include <meridon/rpy.h>

namespace {

constexpr size_t levels_max = 8;
constexpr size_t path_max = RPY_NAME_MAX - 1;
constexpr size_t values_max = 128; // that can be read

std::string trimmed(const std::string &path)
{
	size_t begin = path.find_first_not_of('/');
	size_t end = path.find_last_not_of('/');
	return begin == std::string::npos ? std::string() : path.substr(begin, end - begin + 1);
}

std::vector<std::string> components(const std::string &path)
{
	const std::string text = trimmed(path);
	std::vector<std::string> all;
	for (size_t at = 0, end = 0; !text.empty() && end != std::string::npos; at = end + 1) {
		end = text.find('/', at);
		all.push_back(text.substr(at, end - at));
	}
	return all;
}

size_t levels_of(const std::string &path)
{
	const std::string text = trimmed(path);
	return text.empty() ? 0 : static_cast<size_t>(std::count(text.begin(), text.end(), '/')) + 1;
}

// Numbers lose their width, and what is stored as a count may have been written as an integer.
std::string stored_text(const Property &property, const std::string &value)
{
	if (!property.type->numeric || value.empty() || value[0] != '-')
		return value;
	return std::to_string(static_cast<uint64_t>(std::stoll(value)));
}

std::vector<std::string> stored_texts(const Property &property)
{
	std::vector<std::string> texts;
	for (const std::string &value : property.values)
		texts.push_back(stored_text(property, value));
	return texts;
}

// A stored property keeps the kind of its values.
std::string_view kind_of(const ValueType &type)
{
	return type.numeric ? "numbers" : type.quoted ? "strings" : "booleans";
}

std::optional<Failure> why_bad_property(const Property &property, const Property *stored)
{
	if (property.name.size() > path_max || property.name.find('/') != std::string::npos)
		return Failure(
		    Exit::invalid, fmt::format("{} can't be the name of a property", property.name.substr(0, 40)))
		    .next(fmt::format("a repository takes {} bytes without a /", path_max));
	if (property.values.size() > values_max)
		return Failure(Exit::invalid, fmt::format("the property {} has {} values; {} could be read again",
						  property.name, property.values.size(), values_max));
	if (property.values.size() > 1 && property.type->quoted &&
	    std::any_of(property.values.begin(), property.values.end(), [](const auto &text) { return text.empty(); }))
		return Failure(Exit::invalid,
		    fmt::format("the property {} has an empty value among several, which couldn't be read again",
			property.name));
	if (stored != nullptr && kind_of(*stored->type) != kind_of(*property.type))
		return Failure(Exit::invalid,
		    fmt::format("the property {} is stored already with values of another kind: {}, not {}",
			property.name, kind_of(*stored->type), kind_of(*property.type)))
		    .next("ostrel unset takes a property away first");
	return std::nullopt;
}

// What is wrong with the path of types of a new group. Which levels above it exist isn't known, so each needs a type.
std::optional<Failure> why_bad_types(const Identifiers &id)
{
	const std::string *name = find_identifier(id, group_name_key), *type = find_identifier(id, group_type_key);
	const std::vector<std::string> types = components(type == nullptr ? "" : *type);
	const size_t levels = levels_of(*name);
	if (types.size() < levels || types[levels - 1].empty())
		return Failure(Exit::invalid, "a group that is new needs a type for each level of its path")
		    .next(fmt::format("add object-pgtype=TYPE{}", levels > 1 ? "/TYPE..." : ""));
	if (types[levels - 1].find('*') != std::string::npos)
		return Failure(Exit::invalid, "a type has no '*': that is for the types of a walk");
	return why_bad_pattern(id);
}

} // namespace

const std::string *find_identifier(const Identifiers &id, const char *key)
{
	auto found = std::find_if(id.begin(), id.end(), [&](const auto &pair) { return pair.first == key; });
	return found == id.end() ? nullptr : &found->second;
}

bool names_groups(const Identifiers &id)
{
	return find_identifier(id, group_name_key) != nullptr || find_identifier(id, group_type_key) != nullptr;
}

Identifiers group_of(const Identifiers &id)
{
	Identifiers group;
	for (const auto &[name, value] : id)
		if (name != group_type_key)
			group.emplace_back(name, name == group_name_key ? trimmed(value) : value);
	return group;
}

bool is_below(const Identifiers &id, const Identifiers &above)
{
	const std::string *name = find_identifier(id, group_name_key), *top = find_identifier(above, group_name_key);
	return name != nullptr && top != nullptr && trimmed(*name).rfind(trimmed(*top) + "/", 0) == 0;
}

size_t group_depth(const Identifiers &id)
{
	const std::string *name = find_identifier(id, group_name_key);
	return name == nullptr ? 0 : levels_of(*name);
}

bool fits_types(const std::string &types, const std::string &pattern)
{
	const std::vector<std::string> there = components(types), wanted = components(pattern);
	return std::equal(there.begin(), there.end(), wanted.begin(), wanted.end(),
	    [](const std::string &type, const std::string &asked) {
		    const size_t star = asked.find('*');
		    return star == std::string::npos ? type == asked : type.compare(0, star, asked, 0, star) == 0;
	    });
}

bool is_repository_form(const Object &written, const Object &stored)
{
	return written.props.size() == stored.props.size() &&
	       std::all_of(written.props.begin(), written.props.end(), [&](const Property &property) {
		       const Property *there = stored.find(property.name);
		       return there != nullptr && there->type->numeric == property.type->numeric &&
			      stored_texts(*there) == stored_texts(property);
	       });
}

std::optional<Failure> why_bad_path(const Identifiers &id)
{
	const std::string *name = find_identifier(id, group_name_key);
	if (name == nullptr || levels_of(*name) == 0)
		return Failure(Exit::invalid, "an object of a repository is named by object-pgname=PATH")
		    .next("for instance object-pgname=eth0 object-pgtype=link");
	if (name->size() > path_max || levels_of(*name) > levels_max)
		return Failure(
		    Exit::invalid, fmt::format("the path {} is too long: {} levels and {} bytes are possible",
				       name->substr(0, 40), levels_max, path_max));
	if (name->find('*') != std::string::npos)
		return Failure(Exit::invalid, "a name has no '*': that is for the types of a walk");
	if (trimmed(*name).find("//") != std::string::npos)
		return Failure(Exit::invalid, "a path has no empty names");
	return std::nullopt;
}

std::optional<Failure> why_bad_pattern(const Identifiers &id)
{
	const std::string *type = find_identifier(id, group_type_key);
	if (type == nullptr || (type->size() <= path_max && levels_of(*type) >= 1 && levels_of(*type) <= levels_max))
		return std::nullopt;
	return Failure(Exit::invalid,
	    fmt::format("a path of types has 1 to {} levels and {} bytes at most", levels_max, path_max));
}

std::optional<Failure> why_unstorable(const Object &object, const Object *stored, bool is_new)
{
	if (std::optional<Failure> bad = why_bad_path(object.id))
		return bad;
	if (is_new) {
		if (std::optional<Failure> bad = why_bad_types(object.id))
			return bad;
	}
	for (const Property &property : object.props) {
		const Property *before = stored == nullptr ? nullptr : stored->find(property.name);
		if (std::optional<Failure> bad = why_bad_property(property, before))
			return bad;
	}
	return std::nullopt;
}

std::optional<Failure> why_unnamable(const Identifiers &from, const Identifiers &to)
{
	if (std::optional<Failure> bad = why_bad_path(to))
		return bad;
	const std::string *level = find_identifier(from, level_key), *new_level = find_identifier(to, level_key);
	const bool one_level = level == nullptr ? new_level == nullptr : new_level != nullptr && *level == *new_level;
	if (one_level && is_below(to, from))
		return Failure(Exit::invalid, "a group can't be put below itself");
	return why_bad_types(to);
}

std::string group_loss(const Object &object, const Object *stored)
{
	const std::string *wanted = find_identifier(object.id, group_type_key);
	const std::string *kept = stored == nullptr ? nullptr : find_identifier(stored->id, group_type_key);
	if (wanted != nullptr && kept != nullptr && trimmed(*wanted) != *kept)
		return fmt::format("the group is there, and keeps its types: {}", *kept);
	if (wanted != nullptr && wanted->size() == path_max)
		return fmt::format("its path of types may have been cut: it has {} bytes", path_max);
	return "";
}

Failure why_refused(const Identifiers &id, const Object *object)
{
	if (std::optional<Failure> bad = why_bad_path(id))
		return *bad;
	if (std::optional<Failure> bad = why_bad_types(id))
		return *bad;
	if (object == nullptr)
		return {Exit::invalid,
		    "a group that holds groups can't be renamed, none can be put below itself, and none gets "
		    "another spelling or other types where it is"};
	return Failure(
	    Exit::invalid, "a property has a type that isn't stored, or is stored already with values of another kind")
	    .next("booleans, numbers and strings are stored; ostrel unset takes a property away first");
}
