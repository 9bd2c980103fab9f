// ostrel auth: asks the server of a database what it lets the caller do.
#include <fmt/format.h>

#include "command.h"
#include "database.h"
#include "document.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	app.add_flag("--write", options.write, "Ask for updates, not for reading");
}

Exit run(const Options &options)
{
	const std::unique_ptr<Database> database = open_database(options);
	bool allowed = database->allowed(options.write);
	const char *operation = options.write ? "write" : "read";
	if (options.json)
		write_json(Json{{"operation", operation}, {"allowed", allowed}});
	else
		fmt::print("{}: {}\n", operation, allowed ? "allowed" : "refused");
	const std::string fault = allowed ? "" : database->rights_fault();
	if (!fault.empty())
		warn(Failure(Exit::permission, "who holds which right" + fault).in(database->label()));
	else if (!allowed)
		note("root grants rights in /etc/meridon/rights; the server's log and ostrel serve --help tell which "
		     "one it asks for");
	return allowed ? Exit::done : Exit::permission;
}

} // namespace

const Command auth_command = {
    {"auth", "Ask whether the server of a database lets you read or update it"}, declare, run};
