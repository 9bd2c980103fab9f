// ostrel export: all objects as one JSON document.
#include "command.h"
#include "database.h"
#include "document.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
}

Exit run(const Options &options)
{
	const std::unique_ptr<Database> database = open_database(options);
	// The document begins with the first object, so that a database that can't be read leaves no partial document.
	std::optional<DocumentWriter> document;
	database->walk({}, false, [&](Object &&object) {
		if (!document)
			document.emplace();
		document->add(object);
	});
	if (!document)
		document.emplace();
	document->finish();
	database->warn_of_unread();
	return Exit::done;
}

} // namespace

const Command export_command = {{"export", "Print all objects as a JSON document"}, declare, run};
