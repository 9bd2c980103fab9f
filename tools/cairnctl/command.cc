// What the commands of cairnctl do.
#include "command.h"

#include <algorithm>
#include <cstdlib>
#include <fnmatch.h>
#include <map>

#include <fmt/format.h>

#include "completion.h"
#include "files.h"
#include "repository.h"

namespace {

constexpr const char *current = "current"; // what an instance holds now, beside its snapshots

void print_json(const Json &json)
{
	write_json(json, 1, '\t');
}

void print_names(const std::vector<std::string> &names, const Options &options)
{
	if (!options.json) {
		for (const std::string &name : names)
			fmt::print("{}\n", visible(name));
		return;
	}
	Json list = Json::array();
	for (const std::string &name : names)
		list.push_back(text_to_json(name));
	print_json(list);
}

void say(const std::string &text)
{
	fmt::print(stderr, "{}\n", visible(text));
}

void add_locator(CLI::App &app, Options &options)
{
	app.add_option("LOCATOR", options.locator, "a service or an instance")->required();
}

void add_dry_run(CLI::App &app, Options &options)
{
	app.add_flag("-n,--dry-run", options.dry_run, "say what would be done, and do nothing");
}

void add_nothing(CLI::App &, Options &) {}

/* ---- Services and instances ---- */

Exit run_add(const Options &options)
{
	Repository repository(options.hatch);
	if (repository.exists(options.locator))
		throw Failure(Exit::exists, "'" + options.locator + "' exists already", "");
	if (options.dry_run)
		say("would add '" + options.locator + "'");
	else
		(void) repository.add(options.locator);
	return Exit::done;
}

void declare_add(CLI::App &app, Options &options)
{
	add_locator(app, options);
	add_dry_run(app, options);
}

Exit run_delete(const Options &options)
{
	Repository repository(options.hatch);
	if (options.dry_run) {
		(void) repository.find(options.locator);
		say("would delete '" + options.locator + "'");
		return Exit::done;
	}
	repository.remove(options.locator, options.recursive);
	return Exit::done;
}

void declare_delete(CLI::App &app, Options &options)
{
	declare_add(app, options);
	app.add_flag("-r,--recursive", options.recursive, "with all that it holds");
}

// Reads what a listing gave, and passes it over if somebody deleted it since. `above` looks at what holds it: if that
// has gone too, its failure is the answer.
template <typename Read, typename Above>
void unless_deleted(Read read, Above above)
{
	try {
		read();
	} catch (const Failure &failure) {
		if (failure.code != Exit::not_found)
			throw;
		above();
	}
}

std::vector<std::string> all_locators(Repository &repository)
{
	std::vector<std::string> locators;
	auto add_instances = [&](const Place &service) {
		std::vector<Place> instances = repository.instances(service);
		locators.push_back(service.locator);
		for (const Place &instance : instances)
			locators.push_back(instance.locator);
	};
	for (const Place &service : repository.services())
		unless_deleted([&] { add_instances(service); }, [] {});
	return locators;
}

Exit run_list(const Options &options)
{
	Repository repository(options.hatch);
	std::vector<std::string> found;
	for (const std::string &locator : all_locators(repository))
		if (options.pattern.empty() || fnmatch(options.pattern.c_str(), locator.c_str(), 0) == 0)
			found.push_back(locator);
	print_names(found, options);
	return Exit::done;
}

void declare_list(CLI::App &app, Options &options)
{
	app.add_option("PATTERN", options.pattern, "those that fit, as a shell matches file names");
}

/* ---- Showing ---- */

std::string text_of(const Json &value)
{
	return value.is_string()   ? visible(value.get<std::string>())
	       : value.is_object() ? "0x" + value["hex"].get<std::string>()
				   : value.dump();
}

void print_groups(const Json &groups, int depth)
{
	for (const Json &group : groups) {
		fmt::print("{:{}}{} ({}){}\n", "", 2 * depth, visible(text_in(group)), visible(text_in(group, "type")),
		    group.contains("temporary") ? " temporary" : "");
		for (const Json &property : group["properties"]) {
			std::string values;
			for (const Json &value : values_as_numbers(property))
				values += " " + (value.is_string() ? "\"" + text_of(value) + "\"" : text_of(value));
			fmt::print("{:{}}{}:{} ={}\n", "", 2 * depth + 2, visible(text_in(property)),
			    property["type"].get<std::string>(), values);
		}
		if (group.contains("groups"))
			print_groups(group["groups"], depth + 1);
	}
}

Exit run_show(const Options &options)
{
	Repository repository(options.hatch);
	Place place = repository.find(options.locator);
	Json groups = options.snapshot.empty() ? repository.groups(place) : repository.groups(place, options.snapshot);
	if (options.json)
		print_json(groups);
	else
		print_groups(groups, 0);
	return Exit::done;
}

void declare_show(CLI::App &app, Options &options)
{
	add_locator(app, options);
	app.add_option("--snapshot", options.snapshot, "what this snapshot holds")->type_name("NAME");
}

/* ---- Snapshots ---- */

Exit list_snapshots(Repository &repository, const Place &place, const Options &options)
{
	print_names(repository.snapshots(place), options);
	return Exit::done;
}

bool has_snapshot(Repository &repository, const Place &place, const std::string &name)
{
	for (const std::string &other : repository.snapshots(place))
		if (other == name)
			return true;
	return false;
}

Exit take_snapshot(Repository &repository, const Place &place, const Options &options)
{
	int result;
	if (has_snapshot(repository, place, options.name)) {
		Snapshot old = repository.snapshot(place, options.name);
		result = _rpy_snapshot_take_attach(place.instance.get(), old.get());
	} else {
		Snapshot made(rpy_snapshot_create(repository.handle()));
		result = _rpy_snapshot_take_new(place.instance.get(), options.name.c_str(), made.get());
	}
	if (result == -1)
		fail("taking the snapshot '" + options.name + "'");
	return Exit::done;
}

Exit change_snapshot(
    Repository &repository, const Place &place, const Options &options, int (*change)(rpy_snapshot_t *))
{
	Snapshot found = repository.snapshot(place, options.name);
	if (change(found.get()) == -1)
		fail("the snapshot '" + options.name + "'");
	return Exit::done;
}

Exit revert_snapshot(Repository &repository, const Place &place, const Options &options)
{
	return change_snapshot(repository, place, options, _rpy_snapshot_revert);
}

Exit delete_snapshot(Repository &repository, const Place &place, const Options &options)
{
	return change_snapshot(repository, place, options, _rpy_snapshot_delete);
}

constexpr struct {
	const char *name;
	Exit (*run)(Repository &repository, const Place &place, const Options &options);
	bool changes;
} snapshot_actions[] = {
    {"list", list_snapshots, false},
    {"take", take_snapshot, true},
    {"revert", revert_snapshot, true},
    {"delete", delete_snapshot, true},
};

Exit run_snapshot(const Options &options)
{
	for (const auto &action : snapshot_actions) {
		if (options.action != action.name)
			continue;
		if (action.changes && options.name.empty())
			throw Failure(Exit::usage, "'" + options.action + "' needs the name of a snapshot",
			    "see cairnctl snapshot --help");
		Repository repository(options.hatch);
		Place place = repository.find(options.locator);
		if (!place.is_instance)
			throw Failure(
			    Exit::invalid, "'" + options.locator + "' is a service", "only instances have snapshots");
		if (action.changes && options.dry_run) {
			say(fmt::format(
			    "would {} the snapshot '{}' of '{}'", options.action, options.name, options.locator));
			return Exit::done;
		}
		return action.run(repository, place, options);
	}
	throw Failure(Exit::usage, "'" + options.action + "' is nothing to do with snapshots",
	    "give one of list, take, revert, delete");
}

void declare_snapshot(CLI::App &app, Options &options)
{
	add_locator(app, options);
	app.add_option("ACTION", options.action, "list, take, revert or delete")->capture_default_str();
	app.add_option("NAME", options.name, "the snapshot");
	add_dry_run(app, options);
}

/* ---- Differences ---- */

// A text of names with a NUL between them, which no name holds: two that look alike aren't the same.
std::string spaced(std::string text)
{
	std::replace(text.begin(), text.end(), '\0', ' ');
	return text;
}

// A line for each group and property, by its path.
void flatten(const Json &groups, const std::string &path, std::map<std::string, std::string> *lines)
{
	const std::string between(1, '\0');
	for (const Json &group : groups) {
		std::string here = path + "/" + text_in(group);
		(*lines)[here] = text_in(group, "type") + (group.contains("temporary") ? between + "temporary" : "");
		for (const Json &property : group["properties"])
			(*lines)[here + between + text_in(property)] =
			    property["type"].get<std::string>() + " " + values_as_numbers(property).dump();
		if (group.contains("groups"))
			flatten(group["groups"], here, lines);
	}
}

Exit run_diff(const Options &options)
{
	Repository repository(options.hatch);
	Place place = repository.find(options.locator);
	std::map<std::string, std::string> sides[2];
	const std::string *names[] = {&options.name, &options.other};
	for (int i = 0; i < 2; i++)
		flatten(*names[i] == current ? repository.groups(place) : repository.groups(place, *names[i]), "",
		    &sides[i]);
	Json differences = Json::array();
	auto note = [&](const char *sign, const std::string &path, const std::string &text) {
		if (options.json)
			differences.push_back({{"side", text_to_json(sign[0] == '-' ? options.name : options.other)},
			    {"path", text_to_json(spaced(path))}, {"is", text_to_json(spaced(text))}});
		else
			fmt::print("{} {}: {}\n", sign, visible(spaced(path)), visible(spaced(text)));
	};
	bool differ = false;
	for (auto a = sides[0].begin(), b = sides[1].begin(); a != sides[0].end() || b != sides[1].end();) {
		int order = a == sides[0].end() ? 1 : b == sides[1].end() ? -1 : a->first.compare(b->first);
		bool same = order == 0 && a->second == b->second;
		differ = differ || !same;
		if (order <= 0 && !same)
			note("-", a->first, a->second);
		if (order >= 0 && !same)
			note("+", b->first, b->second);
		if (order <= 0)
			++a;
		if (order >= 0)
			++b;
	}
	if (options.json)
		print_json(differences);
	return differ ? Exit::findings : Exit::done;
}

void declare_diff(CLI::App &app, Options &options)
{
	add_locator(app, options);
	app.add_option("A", options.name, "a snapshot, or 'current'")->required();
	app.add_option("B", options.other, "a snapshot, or 'current'")->required();
}

/* ---- Documents ---- */

Json instance_document(Repository &repository, const Place &place)
{
	Json document = {{"name", text_to_json(place.name)}, {"groups", repository.groups(place)}};
	Json &snapshots = document["snapshots"] = Json::array();
	auto add_snapshot = [&](const std::string &name) {
		snapshots.push_back({{"name", text_to_json(name)}, {"groups", repository.groups(place, name)}});
	};
	for (const std::string &name : repository.snapshots(place))
		unless_deleted([&] { add_snapshot(name); }, [&] { (void) repository.snapshots(place); });
	return document;
}

Json service_document(Repository &repository, const Place &place)
{
	Json document = {{"name", text_to_json(place.name)}, {"groups", repository.groups(place)}};
	Json &instances = document["instances"] = Json::array();
	for (const Place &instance : repository.instances(place))
		unless_deleted([&] { instances.push_back(instance_document(repository, instance)); },
		    [&] { (void) repository.instances(place); });
	return document;
}

// What a locator names, with the service above an instance.
Json named_document(Repository &repository, const std::string &locator)
{
	Place place = repository.find(locator);
	if (!place.is_instance)
		return service_document(repository, place);
	return {{"name", text_to_json(locator.substr(0, locator.find(':')))}, {"groups", Json::array()},
	    {"instances", Json::array({instance_document(repository, place)})}};
}

Exit run_export(const Options &options)
{
	Repository repository(options.hatch);
	Json services = Json::array();
	if (!options.locator.empty())
		services.push_back(named_document(repository, options.locator));
	else
		for (const Place &service : repository.services())
			unless_deleted([&] { services.push_back(service_document(repository, service)); }, [] {});
	print_json({{"format", document_format}, {"version", document_version}, {"services", services}});
	return Exit::done;
}

void declare_export(CLI::App &app, Options &options)
{
	app.add_option("LOCATOR", options.locator, "a service or an instance; everything without it");
}

// Snapshots are made by taking them: their groups come first, and go when the snapshot is taken.
void import_instance(Repository &repository, const Place &place, const Json &document)
{
	for (const Json &entry : document["snapshots"]) {
		repository.write(place, entry["groups"]);
		Snapshot made(rpy_snapshot_create(repository.handle()));
		std::string name = text_in(entry);
		if (_rpy_snapshot_take_new(place.instance.get(), name.c_str(), made.get()) == -1)
			fail("the snapshot '" + name + "' of '" + place.locator + "'");
		repository.clear(place);
	}
	repository.write(place, document["groups"]);
}

[[noreturn]] void refuse_taken(const std::string &name)
{
	throw Failure(Exit::exists, "'" + name + "', or an instance of it, exists already",
	    "delete it first: cairnctl delete --recursive LOCATOR");
}

// What an import made: a service, with the groups that it wrote there, or an instance.
struct Made {
	std::string locator;
	const Json *groups = nullptr; // of a service
};

// Notes what it made, and nothing else: what others made since somebody looked is theirs.
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

// Deletes what an import made, whatever of it can be deleted. A service that others use meanwhile stays.
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

Exit run_import(const Options &options)
{
	Json document = parse_document(read_file(options.file), options.file.empty() ? "-" : options.file);
	Repository repository(options.hatch);
	for (const Json &service : document["services"]) {
		check_free(repository, service);
		if (options.dry_run)
			say("would import '" + text_in(service) + "'");
	}
	if (options.dry_run)
		return Exit::done;
	std::vector<Made> made;
	try {
		for (const Json &service : document["services"])
			import_service(repository, service, &made);
	} catch (...) { // whatever it was: what was begun goes again
		undo_import(repository, made);
		throw;
	}
	return Exit::done;
}

void declare_import(CLI::App &app, Options &options)
{
	app.add_option("FILE", options.file, "the document; the standard input without it");
	add_dry_run(app, options);
}

/* ---- The daemon and its store ---- */

Exit run_backup(const Options &options)
{
	Repository repository(options.hatch);
	void *bytes = nullptr;
	size_t size = 0;
	if (_rpy_backup(repository.handle(), &bytes, &size) == -1)
		fail("the backup");
	std::unique_ptr<void, Destroyer<std::free>> hold(bytes);
	write_file(options.file, {static_cast<const char *>(bytes), size});
	return Exit::done;
}

void declare_backup(CLI::App &app, Options &options)
{
	app.add_option("FILE", options.file, "where the copy goes; replaced if it is there")->required();
}

Exit run_verify(const Options &options)
{
	Repository repository(options.hatch);
	char *text = nullptr;
	if (_rpy_verify(repository.handle(), &text) == -1)
		fail("the check");
	std::unique_ptr<char, Destroyer<std::free>> hold(text);
	Json lines = Json::array();
	std::string findings(text);
	for (size_t begin = 0; begin < findings.size();) {
		size_t end = std::min(findings.find('\n', begin), findings.size());
		lines.push_back(visible(findings.substr(begin, end - begin)));
		begin = end + 1;
	}
	if (options.json)
		print_json({{"findings", lines}});
	else
		for (const Json &line : lines)
			fmt::print("{}\n", line.get_ref<const std::string &>());
	return lines.empty() ? Exit::done : Exit::findings;
}

Exit run_status(const Options &options)
{
	Repository repository(options.hatch);
	rpy_status_t status;
	if (_rpy_status(repository.handle(), &status) == -1)
		fail("the daemon's state");
	if (options.json) {
		print_json({{"pid", status.rs_pid}, {"file", visible(status.rs_file)}, {"format", status.rs_format},
		    {"writable", status.rs_writable != 0}, {"groups", number_to_json(status.rs_groups)},
		    {"bytes", number_to_json(status.rs_bytes)}});
		return Exit::done;
	}
	fmt::print("pid       {}\nfile      {}\nformat    {}\nwritable  {}\ngroups    {}\nbytes     {}\n",
	    status.rs_pid, visible(status.rs_file), status.rs_format, status.rs_writable != 0 ? "yes" : "no",
	    status.rs_groups, status.rs_bytes);
	return Exit::done;
}

/* ---- The tool itself ---- */

std::string command_words()
{
	std::string words;
	for (size_t i = 0; i < command_count; i++)
		words += std::string(i == 0 ? "" : " ") + commands[i].name;
	return words;
}

Exit run_completion(const Options &options)
{
	std::string script = completion_script(options.shell, command_words());
	if (script.empty())
		throw Failure(Exit::usage, "'" + options.shell + "' is no shell known here", "give bash, zsh or fish");
	fmt::print("{}", script);
	return Exit::done;
}

void declare_completion(CLI::App &app, Options &options)
{
	app.add_option("SHELL", options.shell, "bash, zsh or fish")->required();
}

Exit run_version(const Options &options)
{
	if (options.json)
		print_json({{"version", CAIRNCTL_VERSION}});
	else
		fmt::print("cairnctl {}\n", CAIRNCTL_VERSION);
	return Exit::done;
}

} // namespace

const Command commands[] = {
    {"add", "Makes a service or an instance, and what is missing of it", "Example: cairnctl add net/link:default",
	declare_add, run_add},
    {"delete", "Deletes a service or an instance", "Example: cairnctl delete --recursive net/link", declare_delete,
	run_delete},
    {"list", "Lists services and instances", "Example: cairnctl list 'net/*'", declare_list, run_list},
    {"show", "Shows the groups of a service or an instance",
	"Example: cairnctl show net/link:default --snapshot running", declare_show, run_show},
    {"snapshot", "Lists, takes, reverts to and deletes snapshots",
	"'take' takes a snapshot that is there anew.\nExample: cairnctl snapshot net/link:default take "
	"before-the-change",
	declare_snapshot, run_snapshot},
    {"diff", "Compares two snapshots, or one with 'current'",
	"Exit code 10 if they differ.\nExample: cairnctl diff net/link:default running current", declare_diff,
	run_diff},
    {"export", "Writes a JSON document with everything", "Example: cairnctl export net/link > link.json",
	declare_export, run_export},
    {"import", "Makes what a document holds, snapshots included",
	"Nothing that is there is changed. After a failure what was made goes again.\nExample: cairnctl import "
	"link.json",
	declare_import, run_import},
    {"backup", "Copies the store while the daemon runs", "Example: cairnctl backup /var/backups/repository.db",
	declare_backup, run_backup},
    {"verify", "Checks the store in full", "Exit code 10 if something was found.", add_nothing, run_verify},
    {"status", "Shows the daemon and its store", "", add_nothing, run_status},
    {"completion", "Prints a script for a shell", "Example: cairnctl completion bash", declare_completion,
	run_completion},
    {"version", "Prints the version", "", add_nothing, run_version},
};
const size_t command_count = sizeof(commands) / sizeof(*commands);
