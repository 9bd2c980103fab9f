// ostrel import: a JSON document into a database.
#include <fstream>
#include <iostream>
#include <unistd.h>

#include <fmt/format.h>

#include "bulk.h"
#include "command.h"
#include "database.h"
#include "document.h"
#include "shared/terminal.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	app.add_option("FILE", options.other, "The document; - or nothing means the standard input");
	declare_bulk(app, options);
}

std::vector<DocumentObject> read_input(const std::string &path, Complaints &complaints)
{
	bool standard = path.empty() || path == "-";
	std::string name = standard ? "standard input" : path;
	if (standard && is_terminal(STDIN_FILENO))
		note("reading a document from the terminal; Ctrl-D ends it");
	std::ifstream file;
	if (!standard) {
		errno = 0;
		file.open(path, std::ios::binary);
		if (!file || file.peek() == std::ifstream::traits_type::eof()) {
			int error = errno;
			if (error != 0)
				throw Failure(exit_of(ostrel_errno2error(error)), strerror(error)).in(name);
		}
	}
	try {
		return read_document(standard ? std::cin : file, [&](const Failure &failure) {
			Failure placed = failure;
			complaints.take(placed.in(name));
		});
	} catch (Failure &failure) {
		failure.in(name);
		throw;
	}
}

Exit run(const Options &options)
{
	const std::unique_ptr<Database> database = open_database(options);
	database->require_updates(Database::Loss::meant, Database::Hold::no);
	Complaints complaints(options.keep_going);
	std::vector<Incoming> objects;
	for (DocumentObject &element : read_input(options.other, complaints))
		objects.push_back({std::move(element.object), std::move(element.path)});
	return write_many(*database, std::move(objects), complaints, options);
}

} // namespace

const Command import_command = {{"import", "Write the objects of a JSON document, all or none"}, declare, run};
