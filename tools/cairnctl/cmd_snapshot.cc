// Snapshots of an instance: a table of what can be done with them.
#include <algorithm>

#include <fmt/format.h>

#include "command.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_locator(app, options);
	app.add_option("ACTION", options.action, "list, take, revert or remove")->capture_default_str();
	app.add_option("NAME", options.name, "The snapshot");
	declare_dry_run(app, options);
}

void list(Repository &repository, const Location &location, const Options &options)
{
	print_names(repository.snapshots(location), options);
}

void take(Repository &repository, const Location &location, const Options &options)
{
	const std::vector<std::string> names = repository.snapshots(location);
	int result;
	if (std::find(names.begin(), names.end(), options.name) != names.end()) {
		Snapshot old = repository.snapshot(location, options.name);
		result = _rpy_snapshot_take_attach(location.instance.get(), old.get());
	} else {
		Snapshot made(rpy_snapshot_create(repository.handle()));
		result = _rpy_snapshot_take_new(location.instance.get(), options.name.c_str(), made.get());
	}
	if (result == -1)
		fail("taking the snapshot '" + options.name + "'");
}

template <int (*change)(rpy_snapshot_t *)>
void change_snapshot(Repository &repository, const Location &location, const Options &options)
{
	Snapshot found = repository.snapshot(location, options.name);
	if (change(found.get()) == -1)
		fail("the snapshot '" + options.name + "'");
}

constexpr struct Action {
	const char *name;
	const char *done; // NULL: it changes nothing
	void (*run)(Repository &repository, const Location &location, const Options &options);
} actions[] = {
    {"list", nullptr, list},
    {"take", "taken", take},
    {"revert", "reverted", change_snapshot<_rpy_snapshot_revert>},
    {"remove", "removed", change_snapshot<_rpy_snapshot_delete>},
    {"delete", "removed", change_snapshot<_rpy_snapshot_delete>},
};

const Action &action_by_name(const std::string &name)
{
	for (const Action &action : actions)
		if (name == action.name)
			return action;
	throw Failure(Exit::usage, fmt::format("'{}' is nothing to do with snapshots", name))
	    .next("give one of list, take, revert, remove");
}

Exit run(const Options &options)
{
	const Action &action = action_by_name(options.action);
	const bool changes = action.done != nullptr;
	if (changes && options.name.empty())
		throw Failure(Exit::usage, fmt::format("'{}' needs the name of a snapshot", options.action))
		    .next("see cairnctl snapshot --help");
	Repository repository = open_repository(options);
	Location location = repository.find(options.locator);
	if (!location.is_instance)
		throw Failure(Exit::invalid, fmt::format("'{}' is a service", options.locator))
		    .next("only instances have snapshots");
	if (!changes || !options.dry_run)
		action.run(repository, location, options);
	if (!changes)
		return Exit::done;
	return tell_update(options, action.done,
	    fmt::format("would {} the snapshot '{}' of '{}'", options.action, options.name, options.locator));
}

} // namespace

const Command snapshot_command = {{"snapshot", "List, take, revert to and remove snapshots", {}, nullptr,
				      "'take' takes a snapshot that is there again.\n"
				      "Example: cairnctl snapshot net/link:default take before-the-change"},
    declare, run};
