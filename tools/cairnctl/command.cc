// What several commands share.
#include "command.h"

#include <fmt/format.h>

#include "shared/enclaves.h"
#include "shared/visible.h"

void declare_locator(CLI::App &app, Options &options)
{
	app.add_option("LOCATOR", options.locator, "A service or an instance")->required();
}

Repository open_repository(const Options &options)
{
	if (!options.hatch.empty() && !options.enclave.empty())
		throw Failure(Exit::usage, "--hatch and --enclave exclude each other");
	return Repository(options.hatch, enclave_option(options.enclave));
}

void print_names(const std::vector<std::string> &names, const Options &options)
{
	Json list = Json::array();
	for (const std::string &name : names) {
		if (options.json)
			list.push_back(text_to_json(name));
		else
			fmt::print("{}\n", visible(name));
	}
	if (options.json)
		write_json(list);
}

Exit tell_update(const Options &options, const char *done, const std::string &would)
{
	if (options.json) {
		Json answer = update_answer(done, options.dry_run);
		if (!options.locator.empty())
			answer["locator"] = text_to_json(options.locator);
		if (!options.name.empty())
			answer["snapshot"] = text_to_json(options.name);
		write_json(answer);
	} else if (options.dry_run) {
		say(would);
	}
	return Exit::done;
}
