// ostrel: databases of network configuration from the command line.
#include <cstdio>
#include <unistd.h>

#include "command.h"
#include "database.h"

const char *const program_name = "ostrel";

namespace {

const Command *const commands[] = {
    &list_command,
    &show_command,
    &put_command,
    &set_command,
    &unset_command,
    &edit_command,
    &rename_command,
    &remove_command,
    &export_command,
    &import_command,
    &copy_command,
    &diff_command,
    &watch_command,
    &history_command,
    &undo_command,
    &check_command,
    &convert_command,
    &obsolete_command,
    &serve_command,
    &auth_command,
    &enclaves_command,
    nullptr,
};

} // namespace

int main(int argc, char **argv)
{
	static constexpr Completer completers[] = {{"NAME|ID", "ostrel enclaves | cut -f2"}};
	static constexpr Exit exits[] = {Exit::deferred, Exit::busy, Exit::unsupported, Exit::differences,
	    Exit::findings, Exit::no_connection, Exit::conflict};
	const Tool<Options> tool = {"Reads and changes databases of network configuration.",
	    "ostrel(1) has the whole story.", commands, declare_nothing<Options>, completers, exits};
	const int code = run_tool(tool, argc, argv);
	if (updates_left_running()) {
		(void) std::fflush(nullptr); // was flushed and looked at before
		_exit(code);
	}
	return code;
}
