#include "repository.h"

#include <cstdint>

#include <fmt/format.h>

#include "shared/failure.h"

namespace {

constexpr struct {
	rpy_error_t error;
	Exit code;
	const char *hint;
} error_rows[] = {
    {RPY_ERROR_NO_SERVER, Exit::no_server, "start it: systemctl start cairn-configd, or see cairn.configd(8)"},
    {RPY_ERROR_CONNECTION_BROKEN, Exit::no_server, "the daemon has ended; its last messages are in the system's log"},
    {RPY_ERROR_PERMISSION_DENIED, Exit::permission,
	"changes need root or the right cairn.modify, reads cairn.read where the rights file names it"},
    {RPY_ERROR_BACKEND_ACCESS, Exit::permission, "the daemon can't reach its file"},
    {RPY_ERROR_NOT_FOUND, Exit::not_found, "'cairnctl list' shows what is there"},
    {RPY_ERROR_DELETED, Exit::not_found, "somebody deleted it meanwhile"},
    {RPY_ERROR_EXISTS, Exit::exists, ""},
    {RPY_ERROR_IN_USE, Exit::failure, "it isn't empty; --recursive deletes all that it holds"},
    {RPY_ERROR_INVALID_ARGUMENT, Exit::invalid, "a locator is NAME[/NAME...] or NAME[/NAME...]:INSTANCE"},
    {RPY_ERROR_BACKEND_READONLY, Exit::busy, "the repository's file or file system is read-only at present"},
    {RPY_ERROR_NO_RESOURCES, Exit::failure, "the disk is full, or descriptors have run out"},
    {RPY_ERROR_NO_MEMORY, Exit::memory, ""},
    {RPY_ERROR_CONFLICT, Exit::failure, "a temporary group has the name of one in the snapshot"},
};

constexpr struct {
	rpy_type_t type;
	const char *word;
} type_rows[] = {
    {RPY_TYPE_BOOLEAN, "boolean"},
    {RPY_TYPE_COUNT, "count"},
    {RPY_TYPE_INTEGER, "integer"},
    {RPY_TYPE_TIME, "time"},
    {RPY_TYPE_ASTRING, "astring"},
    {RPY_TYPE_OPAQUE, "opaque"},
    {RPY_TYPE_USTRING, "ustring"},
    {RPY_TYPE_URI, "uri"},
    {RPY_TYPE_LOCATOR, "locator"},
    {RPY_TYPE_HOST, "host"},
    {RPY_TYPE_HOSTNAME, "hostname"},
    {RPY_TYPE_NET_ADDR_V4, "net_addr_v4"},
    {RPY_TYPE_NET_ADDR_V6, "net_addr_v6"},
    {RPY_TYPE_NET_ADDR, "net_addr"},
};

rpy_type_t type_by_word(const std::string &word)
{
	for (const auto &row : type_rows)
		if (word == row.word)
			return row.type;
	return RPY_TYPE_INVALID;
}

void check(int result, const std::string &doing)
{
	if (result == -1)
		fail(doing);
}

template <typename T>
T made(T object)
{
	if (!object)
		fail("making an object");
	return object;
}

template <typename Object>
std::string name_by(ssize_t (*get)(const Object *, char *, size_t), const Object *object)
{
	char name[RPY_NAME_MAX];
	check(static_cast<int>(get(object, name, sizeof(name))), "reading a name");
	return name;
}

bool is_utf8(const std::string &text)
{
	try {
		(void) Json(text).dump();
		return true;
	} catch (const Json::exception &) {
		return false;
	}
}

std::string to_hex(const std::string &bytes)
{
	std::string text;
	for (unsigned char byte : bytes)
		text += fmt::format("{:02x}", byte);
	return text;
}

std::string from_hex(const std::string &text)
{
	std::string bytes;
	for (size_t i = 0; i + 1 < text.size(); i += 2)
		bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
	return bytes;
}

Json json_of(const rpy_value_t *value)
{
	rpy_type_t type;
	uint8_t byte = 0;
	uint64_t count = 0;
	int64_t integer = 0;
	check(rpy_value_type(value, &type), "reading a value");
	switch (type) {
	case RPY_TYPE_BOOLEAN:
		(void) rpy_value_get_boolean(value, &byte);
		return byte != 0;
	case RPY_TYPE_COUNT:
		(void) rpy_value_get_count(value, &count);
		return count;
	case RPY_TYPE_INTEGER:
		(void) rpy_value_get_integer(value, &integer);
		return integer;
	default:
		break;
	}
	std::string text(static_cast<size_t>(rpy_value_get_bytes(value, nullptr, 0)), '\0');
	(void) rpy_value_get_bytes(value, text.data(), text.size());
	if (type != RPY_TYPE_OPAQUE && is_utf8(text))
		return text;
	return Json{{"hex", to_hex(text)}};
}

void set_value(rpy_value_t *value, rpy_type_t type, const Json &from, const std::string &doing)
{
	switch (type) {
	case RPY_TYPE_BOOLEAN:
		return rpy_value_set_boolean(value, from.get<bool>() ? 1 : 0);
	case RPY_TYPE_COUNT:
		return rpy_value_set_count(value, from.get<uint64_t>());
	case RPY_TYPE_INTEGER:
		return rpy_value_set_integer(value, from.get<int64_t>());
	default:
		break;
	}
	std::string text = from.is_object() ? from_hex(from["hex"].get<std::string>()) : from.get<std::string>();
	check(rpy_value_set_bytes(value, type, text.data(), text.size()), doing);
}

bool fits(const Json &value, rpy_type_t type)
{
	switch (type) {
	case RPY_TYPE_BOOLEAN:
		return value.is_boolean();
	case RPY_TYPE_COUNT:
		return value.is_number_unsigned();
	case RPY_TYPE_INTEGER:
		return value.is_number_integer() && (!value.is_number_unsigned() || value.get<uint64_t>() <= INT64_MAX);
	default:
		break;
	}
	if (value.is_string())
		return true;
	if (!value.is_object() || value.size() != 1 || !value.contains("hex") || !value["hex"].is_string())
		return false;
	std::string hex = value["hex"].get<std::string>();
	return hex.size() % 2 == 0 && hex.find_first_not_of("0123456789abcdefABCDEF") == hex.npos;
}

[[noreturn]] void refuse(const std::string &where, const std::string &why)
{
	throw Failure(Exit::invalid, fmt::format("{}: {}", where, why), "see cairnctl(8) for the form of a document");
}

void check_property(const Json &property, const std::string &where)
{
	if (!property.is_object() || !property.contains("name") || !property["name"].is_string())
		refuse(where, "a property without a name");
	std::string here = where + ": property '" + property["name"].get<std::string>() + "'";
	rpy_type_t type = property.contains("type") && property["type"].is_string()
			      ? type_by_word(property["type"].get<std::string>())
			      : RPY_TYPE_INVALID;
	if (type == RPY_TYPE_INVALID)
		refuse(here, "no known type");
	if (!property.contains("values") || !property["values"].is_array())
		refuse(here, "no array of values");
	for (const Json &value : property["values"])
		if (!fits(value, type))
			refuse(here, "the value " + value.dump() + " isn't of type " + type_word(type));
}

} // namespace

void fail(const std::string &doing)
{
	rpy_error_t error = rpy_error();
	for (const auto &row : error_rows)
		if (row.error == error)
			throw Failure(row.code, fmt::format("{}: {}", doing, rpy_strerror(error)), row.hint);
	throw Failure(
	    Exit::failure, fmt::format("{}: {}", doing, rpy_strerror(error)), "the system's log may tell more");
}

const char *type_word(rpy_type_t type)
{
	for (const auto &row : type_rows)
		if (row.type == type)
			return row.word;
	return "invalid";
}

void check_groups(const Json &groups, const std::string &where)
{
	if (!groups.is_array())
		refuse(where, "the groups aren't an array");
	for (const Json &group : groups) {
		if (!group.is_object() || !group.contains("name") || !group["name"].is_string() ||
		    !group.contains("type") || !group["type"].is_string())
			refuse(where, "a group without a name or a type");
		std::string here = where + "/" + group["name"].get<std::string>();
		if (!group.contains("properties") || !group["properties"].is_array())
			refuse(here, "no array of properties");
		for (const Json &property : group["properties"])
			check_property(property, here);
		if (group.contains("groups"))
			check_groups(group["groups"], here);
	}
}

Repository::Repository(const std::string &hatch) : handle_(rpy_handle_create(RPY_CLIENT_VERSION))
{
	made(handle_.get());
	std::string doing = hatch.empty() ? "the repository" : "the repository at '" + hatch + "'";
	if (!hatch.empty()) {
		Value path(made(rpy_value_create(handle())));
		check(rpy_value_set_astring(path.get(), hatch.c_str()), doing);
		check(rpy_handle_decorate(handle(), "hatch_path", path.get()), doing);
	}
	check(rpy_handle_bind(handle()), doing);
	scope_.reset(made(rpy_scope_create(handle())));
	check(rpy_handle_get_scope(handle(), RPY_SCOPE_LOCAL, scope_.get()), doing);
}

Place Repository::find(const std::string &locator)
{
	Place place = {locator, Service(made(rpy_service_create(handle()))),
	    Instance(made(rpy_instance_create(handle()))), locator.find(':') != locator.npos};
	check(rpy_handle_decode_locator(
		  handle(), locator.c_str(), nullptr, place.service.get(), place.instance.get(), nullptr, nullptr, 0),
	    "'" + locator + "'");
	return place;
}

bool Repository::exists(const std::string &locator)
{
	int result =
	    rpy_handle_decode_locator(handle(), locator.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr, 0);
	if (result == -1 && rpy_error() != RPY_ERROR_NOT_FOUND)
		fail("'" + locator + "'");
	return result == 0;
}

bool Repository::add(const std::string &locator)
{
	if (exists(locator))
		return false;
	size_t colon = locator.find(':');
	std::string service_name = locator.substr(0, colon), doing = "'" + locator + "'";
	Service service(made(rpy_service_create(handle())));
	if (exists(service_name))
		service = std::move(find(service_name).service);
	else
		check(rpy_scope_add_service(scope_.get(), service_name.c_str(), service.get()), doing);
	Instance instance(made(rpy_instance_create(handle())));
	if (colon != locator.npos)
		check(rpy_service_add_instance(service.get(), locator.c_str() + colon + 1, instance.get()), doing);
	return true;
}

void Repository::remove(const std::string &locator, bool recursive)
{
	Place place = find(locator);
	check(place.is_instance ? _rpy_instance_delete(place.instance.get(), recursive)
				: _rpy_service_delete(place.service.get(), recursive),
	    "deleting '" + locator + "'");
}

std::vector<std::string> Repository::services()
{
	std::vector<std::string> names;
	Iter iter(made(rpy_iter_create(handle())));
	Service service(made(rpy_service_create(handle())));
	check(rpy_iter_scope_services(iter.get(), scope_.get()), "listing services");
	while (rpy_iter_next_service(iter.get(), service.get()) == 1)
		names.push_back(name_by(rpy_service_get_name, service.get()));
	return names;
}

std::vector<std::string> Repository::instances(const std::string &name)
{
	std::vector<std::string> names;
	Place place = find(name);
	Iter iter(made(rpy_iter_create(handle())));
	check(rpy_iter_service_instances(iter.get(), place.service.get()), "listing the instances of '" + name + "'");
	while (rpy_iter_next_instance(iter.get(), place.instance.get()) == 1)
		names.push_back(name_by(rpy_instance_get_name, place.instance.get()));
	return names;
}

std::vector<std::string> Repository::snapshots(const Place &place)
{
	std::vector<std::string> names;
	Iter iter(made(rpy_iter_create(handle())));
	Snapshot snapshot(made(rpy_snapshot_create(handle())));
	check(rpy_iter_instance_snapshots(iter.get(), place.instance.get()),
	    "listing snapshots of '" + place.locator + "'");
	while (rpy_iter_next_snapshot(iter.get(), snapshot.get()) == 1)
		names.push_back(name_by(rpy_snapshot_get_name, snapshot.get()));
	return names;
}

Snapshot Repository::snapshot(const Place &place, const std::string &name)
{
	Snapshot found(made(rpy_snapshot_create(handle())));
	if (!place.is_instance)
		throw Failure(Exit::invalid, "'" + place.locator + "' is a service", "only instances have snapshots");
	check(rpy_instance_get_snapshot(place.instance.get(), name.c_str(), found.get()),
	    "the snapshot '" + name + "' of '" + place.locator + "'");
	return found;
}

// ---- Reading ----

Json Repository::properties_of(rpy_propertygroup_t *group)
{
	Json list = Json::array();
	Iter properties(made(rpy_iter_create(handle()))), values(made(rpy_iter_create(handle())));
	Property property(made(rpy_property_create(handle())));
	Value value(made(rpy_value_create(handle())));
	check(rpy_iter_pg_properties(properties.get(), group), "reading properties");
	while (rpy_iter_next_property(properties.get(), property.get()) == 1) {
		rpy_type_t type;
		Json texts = Json::array();
		check(rpy_property_type(property.get(), &type), "reading a property");
		check(rpy_iter_property_values(values.get(), property.get()), "reading values");
		int step;
		while ((step = rpy_iter_next_value(values.get(), value.get())) == 1)
			texts.push_back(json_of(value.get()));
		check(step, "reading values");
		list.push_back({{"name", name_by(rpy_property_get_name, property.get())}, {"type", type_word(type)},
		    {"values", texts}});
	}
	return list;
}

Json Repository::groups_of(rpy_iter_t *iter)
{
	Json list = Json::array();
	Group group(made(rpy_pg_create(handle())));
	while (rpy_iter_next_pg(iter, group.get()) == 1) {
		uint32_t flags = 0;
		Json entry = {
		    {"name", name_by(rpy_pg_get_name, group.get())}, {"type", name_by(rpy_pg_get_type, group.get())}};
		check(rpy_pg_get_flags(group.get(), &flags), "reading a group");
		if ((flags & RPY_PG_FLAG_TEMPORARY) != 0)
			entry["temporary"] = true;
		entry["properties"] = properties_of(group.get());
		Iter below(made(rpy_iter_create(handle())));
		if (rpy_iter_pg_pgs(below.get(), group.get()) == -1) {
			if (rpy_error() == RPY_ERROR_DELETED) // meanwhile
				continue;
			fail("listing groups");
		}
		Json nested = groups_of(below.get());
		if (!nested.empty())
			entry["groups"] = nested;
		list.push_back(entry);
	}
	return list;
}

Json Repository::groups(const Place &place)
{
	Iter iter(made(rpy_iter_create(handle())));
	check(place.is_instance ? rpy_iter_instance_pgs(iter.get(), place.instance.get())
				: rpy_iter_service_pgs(iter.get(), place.service.get()),
	    "'" + place.locator + "'");
	return groups_of(iter.get());
}

Json Repository::groups(const Place &place, const std::string &snapshot_name)
{
	Iter iter(made(rpy_iter_create(handle())));
	Snapshot frozen = snapshot(place, snapshot_name);
	check(rpy_iter_snapshot_pgs(iter.get(), frozen.get()), "the snapshot '" + snapshot_name + "'");
	return groups_of(iter.get());
}

// ---- Writing ----

void Repository::write_properties(rpy_propertygroup_t *group, const Json &properties, const std::string &doing)
{
	Transaction transaction(made(rpy_transaction_create(handle())));
	struct Children {
		rpy_transaction_t *of;
		~Children() { rpy_transaction_destroy_children(of); }
	} children = {transaction.get()};
	check(rpy_transaction_start(transaction.get(), group), doing);
	for (const Json &property : properties) {
		std::string here = doing + ": property '" + property["name"].get<std::string>() + "'";
		rpy_type_t type = type_by_word(property["type"].get<std::string>());
		std::unique_ptr<rpy_transaction_entry_t, Destroyer<rpy_entry_destroy>> entry(
		    made(rpy_entry_create(handle())));
		rpy_transaction_entry_t *attached = entry.get();
		check(rpy_transaction_property_new(
			  transaction.get(), attached, property["name"].get<std::string>().c_str(), type),
		    here);
		(void) entry.release(); // it goes with the transaction's children
		for (const Json &from : property["values"]) {
			Value value(made(rpy_value_create(handle())));
			set_value(value.get(), type, from, here);
			check(rpy_entry_add_value(attached, value.get()), here);
			(void) value.release();
		}
	}
	int result = rpy_transaction_commit(transaction.get());
	check(result, doing);
	if (result == 0)
		throw Failure(Exit::busy, doing + ": somebody changed it meanwhile", "try again");
}

void Repository::write_group(const Place &place, rpy_propertygroup_t *parent, const Json &document)
{
	std::string name = document["name"].get<std::string>(), type = document["type"].get<std::string>();
	std::string doing = "the group '" + name + "' of '" + place.locator + "'";
	uint32_t flags = document.value("temporary", false) ? RPY_PG_FLAG_TEMPORARY : 0;
	Group group(made(rpy_pg_create(handle())));
	int result = parent != nullptr ? rpy_pg_add_pg(parent, name.c_str(), type.c_str(), flags, group.get())
		     : place.is_instance
			 ? rpy_instance_add_pg(place.instance.get(), name.c_str(), type.c_str(), flags, group.get())
			 : rpy_service_add_pg(place.service.get(), name.c_str(), type.c_str(), flags, group.get());
	check(result, doing);
	if (!document["properties"].empty())
		write_properties(group.get(), document["properties"], doing);
	if (document.contains("groups"))
		for (const Json &below : document["groups"])
			write_group(place, group.get(), below);
}

void Repository::write(const Place &place, const Json &documents)
{
	for (const Json &document : documents)
		write_group(place, nullptr, document);
}

void Repository::clear(const Place &place)
{
	Iter iter(made(rpy_iter_create(handle())));
	Group group(made(rpy_pg_create(handle())));
	check(place.is_instance ? rpy_iter_instance_pgs(iter.get(), place.instance.get())
				: rpy_iter_service_pgs(iter.get(), place.service.get()),
	    "'" + place.locator + "'");
	while (rpy_iter_next_pg(iter.get(), group.get()) == 1)
		check(rpy_pg_delete(group.get()), "deleting groups of '" + place.locator + "'");
}
