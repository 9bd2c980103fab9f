#include "repository.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <fmt/format.h>

#include "base/clock.h"
#include "shared/failure.h"
#include "shared/rights.h"

namespace {

constexpr const char *hatch_in_enclave = "/system/transient/repository_hatch"; // below the root

constexpr ErrorMeaning error_meanings[] = {
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
    {RPY_ERROR_NO_RESOURCES, Exit::failure, "the disk is full, descriptors have run out, or the answer is too large"},
    {RPY_ERROR_NO_MEMORY, Exit::memory, ""},
    {RPY_ERROR_CONFLICT, Exit::failure, "a temporary group has the name of one in the snapshot"},
};

void check(int result, const std::string &doing)
{
	if (result == -1)
		fail(doing);
}

// Whether a listing has begun; false if its subject was removed meanwhile.
bool started(int result, const std::string &doing)
{
	if (result == -1 && rpy_error() == RPY_ERROR_DELETED)
		return false;
	check(result, doing);
	return true;
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
		return number_to_json(count);
	case RPY_TYPE_INTEGER:
		(void) rpy_value_get_integer(value, &integer);
		return number_to_json(integer);
	default:
		break;
	}
	std::string text(static_cast<size_t>(rpy_value_get_bytes(value, nullptr, 0)), '\0');
	(void) rpy_value_get_bytes(value, text.data(), text.size());
	return bytes_to_json(text, type == RPY_TYPE_OPAQUE);
}

void set_value(rpy_value_t *value, rpy_type_t type, const Json &from, const std::string &doing)
{
	switch (type) {
	case RPY_TYPE_BOOLEAN:
		return rpy_value_set_boolean(value, from.get<bool>() ? 1 : 0);
	case RPY_TYPE_COUNT:
		return rpy_value_set_count(value, number_from_json<uint64_t>(from).value());
	case RPY_TYPE_INTEGER:
		return rpy_value_set_integer(value, number_from_json<int64_t>(from).value());
	default:
		break;
	}
	std::string text = bytes_from_json(from);
	check(rpy_value_set_bytes(value, type, text.data(), text.size()), doing);
}

void decorate_path(rpy_handle_t *handle, const std::string &path, const std::string &doing)
{
	Value value(made(rpy_value_create(handle)));
	check(rpy_value_set_astring(value.get(), path.c_str()), doing);
	check(rpy_handle_decorate(handle, "hatch_path", value.get()), doing);
}

// The path below the enclave's root goes with the enclave's id, since the registry may change meanwhile.
void decorate_for_enclave(rpy_handle_t *handle, enclaveid_t enclave, const std::string &doing)
{
	char root[ENCLAVE_ROOT_MAX + 1];
	if (enclave_getattr(enclave, ENCLAVE_ATTR_ROOT, root, sizeof(root)) < 0)
		throw Failure(exit_of_errno(errno), fmt::format("{}: {}", doing, std::strerror(errno)));
	Value value(made(rpy_value_create(handle)));
	rpy_value_set_count(value.get(), static_cast<uint64_t>(enclave));
	check(rpy_handle_decorate(handle, "enclave", value.get()), doing);
	decorate_path(handle, root + std::string(hatch_in_enclave), doing);
}

} // namespace

void fail(const std::string &doing)
{
	rpy_error_t error = rpy_error();
	const std::string fault = error == RPY_ERROR_PERMISSION_DENIED ? rights_fault(0) : "";
	Failure failure = failure_by_error(
	    error_meanings, error, fmt::format("{}: {}", doing, rpy_strerror(error)), "the system's log may tell more");
	failure.hint += fault;
	throw failure;
}

Repository::Repository(const std::string &hatch, enclaveid_t enclave) : handle_(rpy_handle_create(RPY_CLIENT_VERSION))
{
	made(handle());
	std::string doing = "the repository";
	if (enclave != ENCLAVE_ID_GLOBAL) {
		doing = fmt::format("the repository of enclave {}", enclave);
		decorate_for_enclave(handle(), enclave, doing);
	} else if (!hatch.empty()) {
		doing = fmt::format("the repository at '{}'", hatch);
		decorate_path(handle(), hatch, doing);
	}
	check(rpy_handle_bind(handle()), doing);
	scope_.reset(made(rpy_scope_create(handle())));
	check(rpy_handle_get_scope(handle(), RPY_SCOPE_LOCAL, scope_.get()), doing);
}

Location Repository::find(const std::string &locator)
{
	size_t colon = locator.find(':');
	Location location = {locator, colon == locator.npos ? locator : locator.substr(colon + 1),
	    Service(made(rpy_service_create(handle()))), Instance(made(rpy_instance_create(handle()))),
	    colon != locator.npos};
	check(rpy_handle_decode_locator(handle(), locator.c_str(), nullptr, location.service.get(),
		  location.instance.get(), nullptr, nullptr, 0),
	    "'" + locator + "'");
	return location;
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
	Location location = find(locator);
	check(location.is_instance ? _rpy_instance_delete(location.instance.get(), recursive)
				   : _rpy_service_delete(location.service.get(), recursive),
	    "deleting '" + locator + "'");
}

std::vector<Location> Repository::services()
{
	std::vector<Location> found;
	Iter iter(made(rpy_iter_create(handle())));
	check(rpy_iter_scope_services(iter.get(), scope_.get()), "listing services");
	for (;;) {
		Service service(made(rpy_service_create(handle())));
		int step = rpy_iter_next_service(iter.get(), service.get());
		check(step, "listing services");
		if (step == 0)
			return found;
		std::string name = name_by(rpy_service_get_name, service.get());
		found.push_back({name, name, std::move(service), Instance(), false});
	}
}

std::vector<Location> Repository::instances(const Location &service)
{
	std::vector<Location> found;
	std::string doing = "listing the instances of '" + service.locator + "'";
	Iter iter(made(rpy_iter_create(handle())));
	check(rpy_iter_service_instances(iter.get(), service.service.get()), doing);
	for (;;) {
		Instance instance(made(rpy_instance_create(handle())));
		int step = rpy_iter_next_instance(iter.get(), instance.get());
		check(step, doing);
		if (step == 0)
			return found;
		std::string name = name_by(rpy_instance_get_name, instance.get());
		found.push_back({service.locator + ":" + name, name, Service(), std::move(instance), true});
	}
}

std::vector<std::string> Repository::snapshots(const Location &location)
{
	std::vector<std::string> names;
	Iter iter(made(rpy_iter_create(handle())));
	Snapshot snapshot(made(rpy_snapshot_create(handle())));
	std::string doing = "listing snapshots of '" + location.locator + "'";
	check(rpy_iter_instance_snapshots(iter.get(), location.instance.get()), doing);
	int step;
	while ((step = rpy_iter_next_snapshot(iter.get(), snapshot.get())) == 1)
		names.push_back(name_by(rpy_snapshot_get_name, snapshot.get()));
	check(step, doing);
	return names;
}

Snapshot Repository::snapshot(const Location &location, const std::string &name)
{
	Snapshot found(made(rpy_snapshot_create(handle())));
	if (!location.is_instance)
		throw Failure(Exit::invalid, "'" + location.locator + "' is a service")
		    .next("only instances have snapshots");
	check(rpy_instance_get_snapshot(location.instance.get(), name.c_str(), found.get()),
	    "the snapshot '" + name + "' of '" + location.locator + "'");
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
	int next;
	while ((next = rpy_iter_next_property(properties.get(), property.get())) == 1) {
		rpy_type_t type;
		Json texts = Json::array();
		check(rpy_property_type(property.get(), &type), "reading a property");
		check(rpy_iter_property_values(values.get(), property.get()), "reading values");
		int step;
		while ((step = rpy_iter_next_value(values.get(), value.get())) == 1)
			texts.push_back(json_of(value.get()));
		check(step, "reading values");
		list.push_back({{"name", text_to_json(name_by(rpy_property_get_name, property.get()))},
		    {"type", type_word(type)}, {"values", std::move(texts)}});
	}
	check(next, "reading properties");
	return list;
}

// Nothing if a group was removed meanwhile: its part of the tree is lost, and the rest may mix two states.
std::optional<Json> Repository::groups_of(rpy_iter_t *iter, const std::string &where, int depth)
{
	Json list = Json::array();
	Group group(made(rpy_pg_create(handle())));
	int step;
	while ((step = rpy_iter_next_pg(iter, group.get())) == 1) {
		if (depth > group_depth_max)
			throw Failure(Exit::failure,
			    fmt::format("{}: groups lie deeper in each other than {}", where, group_depth_max))
			    .next("no such tree can be shown; delete it, or its outermost groups");
		uint32_t flags = 0;
		Json entry = {{"name", text_to_json(name_by(rpy_pg_get_name, group.get()))},
		    {"type", text_to_json(name_by(rpy_pg_get_type, group.get()))}};
		check(rpy_pg_get_flags(group.get(), &flags), "reading a group");
		if ((flags & RPY_PG_FLAG_TEMPORARY) != 0)
			entry["temporary"] = true;
		entry["properties"] = properties_of(group.get());
		Iter below(made(rpy_iter_create(handle())));
		if (!started(rpy_iter_pg_pgs(below.get(), group.get()), where))
			return std::nullopt;
		std::optional<Json> nested = groups_of(below.get(), where, depth + 1);
		if (!nested)
			return std::nullopt;
		if (!nested->empty())
			entry["groups"] = std::move(*nested);
		list.push_back(std::move(entry));
	}
	check(step, where);
	return list;
}

// Reads a whole tree. Each level is a call of its own, and others may change the tree between two calls: then it is read
// again from the top, so that the result is never a mixture.
template <typename Start>
Json Repository::whole_tree(const std::string &where, Start start)
{
	constexpr int attempts = 8;
	Backoff backoff(10 * millisecond_ns, second_ns);
	for (int attempt = 1;; attempt++) {
		Iter iter(made(rpy_iter_create(handle())));
		if (start(iter.get()))
			if (std::optional<Json> groups = groups_of(iter.get(), where, 1))
				return std::move(*groups);
		if (attempt == attempts)
			throw Failure(Exit::busy, where + ": it is changed faster than it can be read")
			    .next("try again");
		backoff.pause();
	}
}

Json Repository::groups(const Location &location)
{
	std::string where = "'" + location.locator + "'";
	return whole_tree(where, [&](rpy_iter_t *iter) {
		check(location.is_instance ? rpy_iter_instance_pgs(iter, location.instance.get())
					   : rpy_iter_service_pgs(iter, location.service.get()),
		    where);
		return true;
	});
}

Json Repository::groups(const Location &location, const std::string &snapshot_name)
{
	std::string where = "the snapshot '" + snapshot_name + "' of '" + location.locator + "'";
	return whole_tree(where, [&](rpy_iter_t *iter) {
		Snapshot frozen = snapshot(location, snapshot_name); // one that is taken again is another
		return started(rpy_iter_snapshot_pgs(iter, frozen.get()), where);
	});
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
		std::string name = text_in(property), here = doing + ": property '" + name + "'";
		rpy_type_t type = type_by_word(property["type"].get<std::string>());
		Handle<rpy_transaction_entry_t, rpy_entry_destroy> entry(made(rpy_entry_create(handle())));
		rpy_transaction_entry_t *attached = entry.get();
		check(rpy_transaction_property_new(transaction.get(), attached, name.c_str(), type), here);
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
		throw Failure(Exit::busy, doing + ": somebody changed it meanwhile").next("try again");
}

void Repository::write_group(const Location &location, rpy_propertygroup_t *parent, const Json &document)
{
	std::string name = text_in(document), type = text_in(document, "type");
	std::string doing = "the group '" + name + "' of '" + location.locator + "'";
	uint32_t flags = document.value("temporary", false) ? RPY_PG_FLAG_TEMPORARY : 0;
	Group group(made(rpy_pg_create(handle())));
	int result = parent != nullptr ? rpy_pg_add_pg(parent, name.c_str(), type.c_str(), flags, group.get())
		     : location.is_instance
			 ? rpy_instance_add_pg(location.instance.get(), name.c_str(), type.c_str(), flags, group.get())
			 : rpy_service_add_pg(location.service.get(), name.c_str(), type.c_str(), flags, group.get());
	check(result, doing);
	if (!document["properties"].empty())
		write_properties(group.get(), document["properties"], doing);
	if (document.contains("groups"))
		for (const Json &below : document["groups"])
			write_group(location, group.get(), below);
}

void Repository::write(const Location &location, const Json &documents)
{
	for (const Json &document : documents)
		write_group(location, nullptr, document);
}

void Repository::remove_groups(const Location &location, const Json &groups)
{
	Group group(made(rpy_pg_create(handle())));
	for (const Json &entry : groups) {
		const std::string name = text_in(entry);
		int found = location.is_instance
				? rpy_instance_get_pg(location.instance.get(), name.c_str(), group.get())
				: rpy_service_get_pg(location.service.get(), name.c_str(), group.get());
		if (found == 0)
			check(rpy_pg_delete(group.get()), "deleting groups of '" + location.locator + "'");
	}
}

void Repository::clear(const Location &location)
{
	Iter iter(made(rpy_iter_create(handle())));
	Group group(made(rpy_pg_create(handle())));
	check(location.is_instance ? rpy_iter_instance_pgs(iter.get(), location.instance.get())
				   : rpy_iter_service_pgs(iter.get(), location.service.get()),
	    "'" + location.locator + "'");
	int step;
	while ((step = rpy_iter_next_pg(iter.get(), group.get())) == 1)
		check(rpy_pg_delete(group.get()), "deleting groups of '" + location.locator + "'");
	check(step, "deleting groups of '" + location.locator + "'");
}
