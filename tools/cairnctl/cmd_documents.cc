// The repository as a JSON document: export, import.
#include <fmt/format.h>

#include "command.h"
#include "files.h"

namespace {

// ---- Export ----

void declare_export(CLI::App &app, Options &options)
{
	app.add_option("LOCATOR", options.locator, "A service or an instance; everything without it");
}

Json instance_document(Repository &repository, const Location &location)
{
	Json document = {{"name", text_to_json(location.name)}, {"groups", repository.groups(location)}};
	Json &snapshots = document["snapshots"] = Json::array();
	auto add_snapshot = [&](const std::string &name) {
		snapshots.push_back({{"name", text_to_json(name)}, {"groups", repository.groups(location, name)}});
	};
	for (const std::string &name : repository.snapshots(location))
		unless_removed([&] { add_snapshot(name); }, [&] { (void) repository.snapshots(location); });
	return document;
}

Json service_document(Repository &repository, const Location &location)
{
	Json document = {{"name", text_to_json(location.name)}, {"groups", repository.groups(location)}};
	Json &instances = document["instances"] = Json::array();
	for (const Location &instance : repository.instances(location))
		unless_removed([&] { instances.push_back(instance_document(repository, instance)); },
		    [&] { (void) repository.instances(location); });
	return document;
}

// What a locator names, with the service above an instance.
Json named_document(Repository &repository, const std::string &locator)
{
	Location location = repository.find(locator);
	if (!location.is_instance)
		return service_document(repository, location);
	return {{"name", text_to_json(locator.substr(0, locator.find(':')))}, {"groups", Json::array()},
	    {"instances", Json::array({instance_document(repository, location)})}};
}

Exit export_document(const Options &options)
{
	Repository repository = open_repository(options);
	Json services = Json::array();
	if (!options.locator.empty())
		services.push_back(named_document(repository, options.locator));
	else
		for (const Location &service : repository.services())
			unless_removed([&] { services.push_back(service_document(repository, service)); }, [] {});
	write_document({{"format", document_format}, {"version", document_version}, {"services", services}});
	return Exit::done;
}

// ---- Import ----

void declare_import(CLI::App &app, Options &options)
{
	app.add_option("FILE", options.file, "The document; the standard input without it");
	declare_dry_run(app, options);
}

// A snapshot can only be taken of what the instance holds: writes the groups of each, takes it, and clears the instance.
void import_instance(Repository &repository, const Location &location, const Json &document)
{
	for (const Json &entry : document["snapshots"]) {
		repository.write(location, entry["groups"]);
		Snapshot made(rpy_snapshot_create(repository.handle()));
		std::string name = text_in(entry);
		if (_rpy_snapshot_take_new(location.instance.get(), name.c_str(), made.get()) == -1)
			fail("the snapshot '" + name + "' of '" + location.locator + "'");
		repository.clear(location);
	}
	repository.write(location, document["groups"]);
}

[[noreturn]] void refuse_taken(const std::string &name)
{
	throw Failure(Exit::exists, fmt::format("'{}', or an instance of it, exists already", name))
	    .next("remove it first: cairnctl remove --recursive LOCATOR");
}

// What an import made: a service, with the groups that it wrote there, or an instance.
struct Made {
	std::string locator;
	const Json *groups = nullptr; // of a service
};

// Adds to `made` what it made itself. What others made since check_free() is theirs, and makes the import fail.
void import_service(Repository &repository, const Json &service, std::vector<Made> *made)
{
	std::string name = text_in(service);
	if (repository.add(name))
		made->push_back({name, &service["groups"]});
	else if (!service["groups"].empty())
		refuse_taken(name);
	repository.write(repository.find(name), service["groups"]);
	for (const Json &instance : service["instances"]) {
		std::string locator = name + ":" + text_in(instance);
		if (!repository.add(locator))
			refuse_taken(name);
		made->push_back({locator});
		import_instance(repository, repository.find(locator), instance);
	}
}

// Removes what an import made, as far as it can be removed. A service that others use meanwhile stays.
void undo_import(Repository &repository, const std::vector<Made> &made)
{
	for (auto one = made.rbegin(); one != made.rend(); ++one)
		try {
			if (one->groups != nullptr)
				repository.remove_groups(repository.find(one->locator), *one->groups);
			repository.remove(one->locator, one->groups == nullptr);
		} catch (const Failure &failure) {
			if (failure.code != Exit::not_found)
				say("what was imported so far stays: " + failure.message);
			if (failure.code == Exit::no_server)
				return;
		}
}

void check_free(Repository &repository, const Json &service)
{
	std::string name = text_in(service);
	bool taken = repository.exists(name) && !service["groups"].empty();
	for (const Json &instance : service["instances"])
		taken = taken || repository.exists(name + ":" + text_in(instance));
	if (taken)
		refuse_taken(name);
}

// Imports all services, or none.
void import_services(Repository &repository, const Json &services)
{
	std::vector<Made> made;
	try {
		for (const Json &service : services)
			import_service(repository, service, &made);
	} catch (...) { // whatever it was: what was begun goes again
		undo_import(repository, made);
		throw;
	}
}

Exit import_document(const Options &options)
{
	const Json document = parse_document(read_file(options.file), options.file.empty() ? "-" : options.file);
	Repository repository = open_repository(options);
	for (const Json &service : document["services"])
		check_free(repository, service);
	if (!options.dry_run)
		import_services(repository, document["services"]);
	Json answer = update_answer("imported", options.dry_run);
	answer["services"] = Json::array();
	for (const Json &service : document["services"]) {
		answer["services"].push_back(service["name"]);
		if (options.dry_run && !options.json)
			say(fmt::format("would import '{}'", text_in(service)));
	}
	if (options.json)
		write_json(answer);
	return Exit::done;
}

} // namespace

const Command export_command = {
    {"export", "Write a JSON document with everything", {}, nullptr, "Example: cairnctl export net/link > link.json"},
    declare_export, export_document};
const Command import_command = {{"import", "Make what a document holds, snapshots included", {}, nullptr,
				    "Nothing that is there is changed. After a failure what was made goes again.\n"
				    "Example: cairnctl import link.json"},
    declare_import, import_document};
