// What a service or an instance holds, as a tree.
#include <fmt/format.h>

#include "command.h"
#include "shared/visible.h"

namespace {

void declare_show(CLI::App &app, Options &options)
{
	declare_locator(app, options);
	app.add_option("--snapshot", options.snapshot, "What this snapshot holds")->type_name("NAME");
}

std::string text_of(const Json &value)
{
	return value.is_string()   ? visible(value.get<std::string>())
	       : value.is_object() ? "0x" + value["hex"].get<std::string>()
				   : value.dump();
}

void print_groups(const Json &groups, int depth)
{
	for (const Json &group : groups) {
		fmt::print("{:{}}{} ({}){}\n", "", 2 * depth, visible(text_in(group)), visible(text_in(group, "type")),
		    group.contains("temporary") ? " temporary" : "");
		for (const Json &property : group["properties"]) {
			std::string values;
			for (const Json &value : values_as_numbers(property))
				values += " " + (value.is_string() ? "\"" + text_of(value) + "\"" : text_of(value));
			fmt::print("{:{}}{}:{} ={}\n", "", 2 * depth + 2, visible(text_in(property)),
			    property["type"].get<std::string>(), values);
		}
		if (group.contains("groups"))
			print_groups(group["groups"], depth + 1);
	}
}

Exit show(const Options &options)
{
	Repository repository = open_repository(options);
	Location location = repository.find(options.locator);
	Json groups =
	    options.snapshot.empty() ? repository.groups(location) : repository.groups(location, options.snapshot);
	if (options.json)
		write_json(groups);
	else
		print_groups(groups, 0);
	return Exit::done;
}

} // namespace

const Command show_command = {{"show", "Show the groups of a service or an instance", {}, nullptr,
				  "Example: cairnctl show net/link:default --snapshot running"},
    declare_show, show};
