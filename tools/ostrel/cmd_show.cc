// ostrel show, also get: one object, or single properties of it.
#include <unistd.h>

#include <fmt/format.h>

#include "command.h"
#include "database.h"
#include "document.h"
#include "shared/terminal.h"
#include "text.h"
#include "word.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	declare_identifiers(app, options);
	app.add_option("-p,--prop", options.props, "Print the values of this property, one a line; can be repeated")
	    ->type_name("PROP")
	    ->allow_extra_args(false);
	app.add_flag("--show-version", options.show_version,
	       "Print its version, for --if-version; with --json beside the object")
	    ->excludes("--prop");
}

// A script gets the bytes as they are; a terminal never gets them raw.
void print_values(const Property &property)
{
	bool terminal = is_terminal(STDOUT_FILENO);
	for (const std::string &value : property.values)
		fmt::print("{}\n", terminal ? visible(value) : value);
}

Exit run(const Options &options)
{
	const std::unique_ptr<Database> database = open_database(options);
	Identifiers id = parse_identifiers(options.words);
	if (id.empty())
		throw Failure(Exit::usage, fmt::format("{} needs the identifiers of an object", options.command))
		    .next(fmt::format("ostrel list {} lists the objects", options.database));
	if (options.show_version)
		database->want_versions();
	Object object = database->get(id);

	Object chosen = {object.id, {}};
	for (const std::string &name : options.props) {
		const Property *property = object.find(name);
		if (property == nullptr)
			throw Failure(Exit::not_found, fmt::format("{} has no property {}", id_text(object.id), name))
			    .in(database->label());
		chosen.props.push_back(*property);
	}
	const Object &shown = options.props.empty() ? object : chosen;
	if (options.json) {
		Json json = object_to_json(shown);
		if (options.show_version)
			json["version"] = object.version;
		write_json(json);
	} else if (options.show_version) {
		fmt::print("{}\n", object.version);
	} else if (options.props.empty()) {
		print_object(shown);
	} else {
		for (const Property &property : shown.props)
			print_values(property);
	}
	return Exit::done;
}

} // namespace

const Command show_command = {{"show", "Print one object, or single properties of it", {"get"}}, declare, run};
