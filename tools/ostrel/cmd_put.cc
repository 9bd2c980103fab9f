// ostrel put: makes an object, or replaces all its properties.
#include <fmt/format.h>

#include "changes.h"
#include "command.h"
#include "database.h"
#include "deferred.h"
#include "word.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	declare_identifiers(app, options);
	declare_update(app, options);
	declare_if_version(app, options);
	app.add_flag("--new", options.only_new, "Only if there is no such object yet");
}

Exit run(const Options &options)
{
	const std::unique_ptr<Database> database = open_database(options);
	Object object = {parse_identifiers(options.words), parse_properties(options.tail)};
	if (object.id.empty())
		throw Failure(Exit::usage, "put needs the identifiers of an object before --");
	begin_update(*database, options, Database::Loss::refused,
	    options.only_new ? Database::Hold::yes : Database::Hold::for_owner);
	require_version(*database, options, object.id);
	bool known = database->readable(); // else only the update itself can tell
	if (!known && options.only_new)
		throw Failure(Exit::permission, "--new needs the right to read, too").in(database->label());
	Presence before;
	if (known)
		before = database->presence(object.id);
	if (before.there && options.only_new)
		throw Failure(Exit::exists, fmt::format("there is an object {}", id_text(object.id)))
		    .in(database->label())
		    .next("without --new its properties are replaced; ostrel set changes some of them");
	database->rehearse(object, before);
	if (!options.dry_run && options.if_version) {
		update_if_version(*database, options, {Step::Kind::put, object.id, object.props});
	} else if (!options.dry_run) {
		Retries retries = database->put(object);
		await_object(*database, options, retries, object, before);
	}
	return tell_update(options, !known ? "written" : before.there ? "replaced" : "created", object);
}

} // namespace

const Command put_command = {
    {"put", "Make an object, or replace all its properties", {}, "the properties: name[:type]=value[,value...]"},
    declare, run};
