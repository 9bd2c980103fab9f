// ostrel unset: drops properties of an object.
#include <algorithm>

#include <fmt/format.h>

#include "changes.h"
#include "command.h"
#include "database.h"
#include "word.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	declare_identifiers(app, options);
	declare_update(app, options);
	declare_if_version(app, options);
}

Exit run(const Options &options)
{
	const std::unique_ptr<Database> database = open_database(options);
	Identifiers id = parse_identifiers(options.words);
	if (id.empty() || options.tail.empty())
		throw Failure(Exit::usage, "unset needs identifiers before --, and names of properties behind it");
	return change_object(*database, options, id, [&](Object &object) {
		for (const std::string &name : options.tail) {
			auto found = std::find_if(object.props.begin(), object.props.end(),
			    [&](const Property &p) { return p.name == name; });
			if (found == object.props.end())
				throw Failure(
				    Exit::not_found, fmt::format("{} has no property {}", id_text(object.id), name))
				    .in(database->label())
				    .next(fmt::format(
					"nothing was changed; ostrel show {} shows the object", database->label()));
			object.props.erase(found);
		}
	});
}

} // namespace

const Command unset_command = {
    {"unset", "Drop properties of an object", {}, "the names of the properties"}, declare, run};
