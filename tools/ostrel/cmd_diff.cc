// ostrel diff: in what two databases differ.
#include "command.h"
#include "database.h"
#include "differences.h"
#include "stores.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	app.add_option("OTHER", options.other, "The database to compare with")->required();
	app.add_option("--other-enclave", options.other_enclave, "The enclave in which that one lies")
	    ->type_name("NAME|ID");
}

Exit run(const Options &options)
{
	const std::unique_ptr<Database> one = open_database(options);
	const std::unique_ptr<Database> other =
	    open_database(options.other, enclave_option(options.other_enclave), options.case_sensitive);
	std::vector<Object> before = one->objects(), after = other->objects();
	one->warn_of_unread();
	other->warn_of_unread();
	std::vector<Difference> differences = compare(before, after, options.case_sensitive);
	if (options.json)
		write_json(Json{{"differences", differences_to_json(differences)}});
	else
		print_differences(differences);
	return differences.empty() ? Exit::done : Exit::differences;
}

} // namespace

const Command diff_command = {{"diff", "Tell in what two databases differ"}, declare, run};
