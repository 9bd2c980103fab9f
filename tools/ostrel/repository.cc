// Objects of the service repository, and its daemon.
#include "repository.h"

#include <algorithm>
#include <cstdint>
#include <memory>

#include <fmt/format.h>
#include <meridon/rpy.h>

namespace {

constexpr size_t levels_max = 8;
constexpr size_t path_max = RPY_NAME_MAX - 1;

std::string trimmed(const std::string &path)
{
	size_t begin = path.find_first_not_of('/');
	size_t end = path.find_last_not_of('/');
	return begin == std::string::npos ? std::string() : path.substr(begin, end - begin + 1);
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

struct DestroyHandle {
	void operator()(rpy_handle_t *handle) const { rpy_handle_destroy(handle); }
};

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
	return std::nullopt;
}

Failure why_refused(const Identifiers &id, const Object *object)
{
	if (std::optional<Failure> bad = why_bad_path(id))
		return *bad;
	const std::string *name = find_identifier(id, group_name_key), *type = find_identifier(id, group_type_key);
	if (type == nullptr || levels_of(*type) < levels_of(*name))
		return Failure(Exit::invalid, "a group that is new needs a type for each level of its path")
		    .next(fmt::format("add object-pgtype=TYPE{}", levels_of(*name) > 1 ? "/TYPE..." : ""));
	if (object == nullptr)
		return {Exit::invalid, "a group that holds groups can't be renamed, and none can be put below itself"};
	return Failure(
	    Exit::invalid, "a property has a type that isn't stored, or is stored already with values of another kind")
	    .next("booleans, numbers and strings are stored; ostrel unset takes a property away first");
}

std::optional<Failure> repository_unreachable()
{
	std::unique_ptr<rpy_handle_t, DestroyHandle> handle(rpy_handle_create(RPY_CLIENT_VERSION));
	if (!handle || rpy_handle_bind(handle.get()) == 0)
		return std::nullopt;
	if (rpy_error() == RPY_ERROR_PERMISSION_DENIED)
		return Failure(Exit::permission, "the repository daemon's hatch can't be opened: permission denied");
	return Failure(Exit::no_connection, fmt::format("no repository: {}", rpy_strerror(rpy_error())))
	    .next("start the daemon: systemctl start cairn-configd");
}
