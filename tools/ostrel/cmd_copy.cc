// ostrel copy: the objects of one database into another.
#include "bulk.h"
#include "command.h"
#include "database.h"
#include "stores.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	app.add_option("TO", options.other, "The database that the objects go to")->required();
	app.add_option("--to-enclave", options.other_enclave, "The enclave in which that one lies")
	    ->type_name("NAME|ID");
	declare_bulk(app, options);
}

Exit run(const Options &options)
{
	const std::unique_ptr<Database> from = open_database(options);
	const std::unique_ptr<Database> to =
	    open_database(options.other, enclave_option(options.other_enclave), options.case_sensitive);
	to->require_updates(Database::Loss::meant, Database::Hold::no);
	Complaints complaints(options.keep_going);
	std::vector<Incoming> objects;
	from->walk({}, false, [&](Object &&object) {
		std::string place = id_text(object.id);
		objects.push_back({std::move(object), std::move(place)});
	});
	from->warn_of_unread();
	return write_many(*to, std::move(objects), complaints, options);
}

} // namespace

const Command copy_command = {{"copy", "Write the objects of one database into another, all or none"}, declare, run};
