// cairnctl: the service repository from the command line. Here: the table of commands, and what several of them share.
#include <fmt/format.h>

#include "command.h"
#include "shared/enclaves.h"
#include "shared/visible.h"

const char *const program_name = "cairnctl";

namespace {

const Command *const commands[] = {
    &add_command,
    &remove_command,
    &list_command,
    &show_command,
    &snapshot_command,
    &diff_command,
    &export_command,
    &import_command,
    &backup_command,
    &verify_command,
    &status_command,
    nullptr,
};

void declare_repository(CLI::App &app, Options &options)
{
	app.add_option("--hatch", options.hatch, "The hatch of the daemon to ask")->type_name("PATH");
	declare_enclave(app, options.enclave, "The enclave in which the repository lies");
}

} // namespace

int main(int argc, char **argv)
{
	static constexpr Completer completers[] = {{"LOCATOR", "cairnctl \"$@\" list"},
	    {"PATTERN", "cairnctl \"$@\" list"}, {"NAME|ID", "ostrel enclaves | cut -f2"}};
	const Tool<Options> tool = {"Looks at and changes the service repository of this host.",
	    "A locator is NAME[/NAME...] for a service, NAME[/NAME...]:INSTANCE for an instance.\n"
	    "cairnctl(8) has the whole story.",
	    commands, declare_repository, completers};
	return run_tool(tool, argc, argv);
}

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
