// cairnctl: the service repository from the command line.
#include "command.h"

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
	static constexpr Exit exits[] = {Exit::busy, Exit::differences, Exit::findings, Exit::no_server};
	const Tool<Options> tool = {"Looks at and changes the service repository of this host.",
	    "A locator is NAME[/NAME...] for a service, NAME[/NAME...]:INSTANCE for an instance.\n"
	    "cairnctl(8) has the whole story.",
	    commands, declare_repository, completers, exits};
	return run_tool(tool, argc, argv);
}
