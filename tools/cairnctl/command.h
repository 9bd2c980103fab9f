// The commands of cairnctl. A source for each subject, one table for all; shared/program.h has the frame.
#ifndef CAIRNCTL_COMMAND_H
#define CAIRNCTL_COMMAND_H

#include <string>
#include <vector>

#include "repository.h"
#include "shared/json.h"
#include "shared/program.h"

// What the command line said. Commands use what they declare.
struct Options : CommonOptions {
	std::string hatch;
	std::string enclave;
	std::string locator;
	std::string pattern;
	std::string snapshot;
	std::string action = "list";
	std::string name;
	std::string other;
	std::string file;
	bool recursive = false;
};

using Command = CommandOf<Options>;

// Services and instances (cmd_places.cc), what they hold (cmd_show.cc, cmd_diff.cc), snapshots (cmd_snapshot.cc), documents
// (cmd_documents.cc), the daemon and its store (cmd_store.cc).
extern const Command add_command, remove_command, list_command, show_command, diff_command, snapshot_command,
    export_command, import_command, backup_command, verify_command, status_command;

// ---- What several commands declare and do ----

void declare_locator(CLI::App &app, Options &options);

// The repository that the options name, bound to its daemon.
Repository open_repository(const Options &options);

// Prints names, one a line, or as an array.
void print_names(const std::vector<std::string> &names, const Options &options);

// Tells what an update did: as JSON if that is asked for, else not at all. A dry run says `would` to people.
Exit tell_update(const Options &options, const char *done, const std::string &would);

// Reads what a listing gave, and passes it over if somebody removed it since. `above` looks at what holds it: if that
// has gone too, its failure is the answer.
template <typename Read, typename Above>
void unless_removed(Read read, Above above)
{
	try {
		read();
	} catch (const Failure &failure) {
		if (failure.code != Exit::not_found)
			throw;
		above();
	}
}

#endif
