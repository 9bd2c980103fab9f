// ostrel convert: shows an object as a daemon's table of property descriptors converts it.
#include <new>

#include <fmt/format.h>

#include "command.h"
#include "database.h"
#include "document.h"
#include "log_messages.h"
#include "table.h"
#include "text.h"
#include "word.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	declare_identifiers(app, options);
	app.add_option("-t,--table", options.table, "The table of property descriptors, a JSON document")
	    ->type_name("FILE")
	    ->required();
	auto *to =
	    app.add_flag("--to-persist", options.to_persist, "From the form in which a daemon works to the stored one");
	app.add_flag("--from-persist", options.from_persist, "From the stored form to the one in which a daemon works")
	    ->excludes(to);
}

// Converts the properties, and throws Failure if that fails. Other messages of the conversion become warnings.
List convert(const Object &object, const PropertyTable &table, bool to_persist, const std::string &label)
{
	List props = props_list(object.props);
	auto *convert = to_persist ? ostrel_proplist_convert_to_persist : ostrel_proplist_convert_from_persist;
	int error = 0;
	std::vector<std::string> messages =
	    log_messages([&] { error = convert(props.get(), sizeof(ostrel_propdesc_t), table.descs()); });
	if (error == ENOMEM)
		throw std::bad_alloc();
	std::string reason;
	if (error != 0 && !messages.empty()) {
		reason = messages.back();
		messages.pop_back();
	}
	for (const std::string &message : messages)
		warn(Failure(Exit::done, message).in(label));
	if (error != 0)
		throw Failure(exit_of(ostrel_errno2error(error)), reason.empty() ? "it can't be converted" : reason)
		    .in(label)
		    .next("compare the object with the table");
	return props;
}

Exit run(const Options &options)
{
	if (!options.to_persist && !options.from_persist)
		throw Failure(Exit::usage, "convert needs --to-persist or --from-persist");
	Identifiers id = parse_identifiers(options.words);
	if (id.empty())
		throw Failure(Exit::usage, "convert needs the identifiers of an object")
		    .next(fmt::format("ostrel list {} lists the objects", options.database));
	PropertyTable table(options.table);
	const std::unique_ptr<Database> database = open_database(options);
	Object object = database->get(id);
	List props = convert(object, table, options.to_persist, database->label());
	Object converted = object_from_lists(id_list(object.id).get(), props.get());
	if (options.json)
		write_json(object_to_json(converted));
	else
		print_object(converted);
	return Exit::done;
}

} // namespace

const Command convert_command = {{"convert", "Show an object as a daemon's table converts it"}, declare, run};
