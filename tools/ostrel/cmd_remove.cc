// ostrel remove: removes an object, or a whole database.
#include <fmt/format.h>

#include "changes.h"
#include "command.h"
#include "database.h"
#include "deferred.h"
#include "document.h"
#include "word.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	declare_identifiers(app, options);
	declare_update(app, options);
	declare_if_version(app, options);
	app.add_flag("--all", options.all, "Remove the whole database");
	app.add_flag("--yes", options.yes, "With --all: really");
}

Exit remove_all(Database &database, const Options &options)
{
	const std::optional<size_t> found = database.count();
	const bool known = database.readable();
	// A missing database ends here, with its own message.
	const size_t count = found ? *found : known ? database.objects().size() : 0;
	if (!options.dry_run && !options.yes)
		throw Failure(
		    Exit::usage, known ? fmt::format("remove --all removes the database with its {} objects", count)
				       : std::string("remove --all removes the whole database"))
		    .in(database.label())
		    .next("add --yes if that is meant");
	database.require_place();
	if (!options.dry_run) {
		Retries retries = database.remove_all();
		await_update(database, options, retries, [&] {
			const size_t left = database.count().value_or(0);
			return Seen{left == 0, left == count};
		});
	}
	if (options.json) {
		Json json = update_answer("removed", options.dry_run);
		json["database"] = text_to_json(database.label());
		if (known)
			json["objects"] = count;
		write_json(json);
	} else if (options.dry_run) {
		fmt::print(
		    "would be removed: the database{}\n", known ? fmt::format(" with its {} objects", count) : "");
	}
	return Exit::done;
}

Exit run(const Options &options)
{
	const std::unique_ptr<Database> opened = open_database(options);
	Database &database = *opened;
	Identifiers id = parse_identifiers(options.words);
	if (options.all != id.empty())
		throw Failure(Exit::usage,
		    options.all ? "remove --all takes no identifiers" : "remove needs the identifiers of an object")
		    .next("remove DB ID... removes an object, remove DB --all --yes the whole database");
	if (options.all) {
		if (options.if_version)
			throw Failure(Exit::usage, "--if-version is about one object");
		database.require_updates(Database::Loss::meant, Database::Hold::no); // the library holds it itself
		return remove_all(database, options);
	}
	begin_update(database, options, Database::Loss::refused, Database::Hold::for_owner);
	require_version(database, options, id);
	Object object = database.readable() ? database.get_for_update(id) : Object{id, {}};
	database.require_place();
	if (!options.dry_run && options.if_version) {
		update_if_version(database, options, {Step::Kind::remove, id});
	} else if (!options.dry_run) {
		Retries retries = database.remove(id);
		await_update(database, options, retries, [&] {
			const bool gone = database.is_gone(object.id);
			return Seen{gone, !gone};
		});
	}
	return tell_update(options, "removed", object);
}

} // namespace

const Command remove_command = {{"remove", "Remove an object, or a whole database"}, declare, run};
