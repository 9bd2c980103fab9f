// ostrel remove: removes an object, or a whole database.
#include <fmt/format.h>

#include "command.h"
#include "database.h"
#include "document.h"
#include "word.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	declare_identifiers(app, options);
	declare_dry_run(app, options);
	app.add_flag("--all", options.all, "Remove the whole database");
	app.add_flag("--yes", options.yes, "With --all: really");
}

Exit remove_all(Database &database, const Options &options)
{
	size_t count = database.objects().size();
	if (!options.dry_run && !options.yes)
		throw Failure(Exit::usage, fmt::format("remove --all removes the database with its {} objects", count))
		    .in(database.label())
		    .next("add --yes if that is meant");
	if (!options.dry_run)
		database.destroy();
	if (options.json) {
		Json json;
		json["result"] = "removed";
		json["dry_run"] = options.dry_run;
		json["database"] = database.label();
		json["objects"] = count;
		fmt::print("{}\n", json.dump());
	} else if (options.dry_run) {
		fmt::print("would be removed: the database with its {} objects\n", count);
	}
	return Exit::done;
}

Exit run(const Options &options)
{
	Database database(options.database, enclave_option(options.enclave), options.case_sensitive);
	Identifiers id = parse_identifiers(options.words);
	if (options.all != id.empty())
		throw Failure(Exit::usage,
		    options.all ? "remove --all takes no identifiers" : "remove needs the identifiers of an object")
		    .next("remove DB ID... removes an object, remove DB --all --yes the whole database");
	database.require_updates();
	if (options.all)
		return remove_all(database, options);
	Object object = database.get(id);
	if (!options.dry_run)
		database.remove(id);
	return tell_update(options, "removed", object);
}

} // namespace

const Command remove_command = {"remove", nullptr, "Remove an object, or a whole database", declare, run, nullptr};
