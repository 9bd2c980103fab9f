// The frame of a tool: its commands as a table, its command line, and the one way in which a run begins and ends.
//
// A tool has a table of commands, each with what it declares and what it does, and hands it to run_tool() in its main().
// The frame adds to every command what all tools have: --json, before the command and after it, --help, --version, and the
// commands `completion` and `version`. Names of commands are the same in all tools: `add`, `list`, `show`, `set`, `remove`;
// a command's older names stay as aliases.
#ifndef TOOLS_SHARED_PROGRAM_H
#define TOOLS_SHARED_PROGRAM_H

#include <functional>
#include <string>

#include <CLI/CLI.hpp>

#include "command_table.h"
#include "failure.h"

// Parses the command line, and runs the command that it names.
Exit run_command(Program &program, int argc, char **argv);

// Runs `body` as the body of main(): a failure, whatever it is, is reported, and output that can't be written is one.
// Gives the exit code.
int run_safely(const std::function<Exit()> &body);

template <typename Options>
int run_tool(const Tool<Options> &tool, int argc, char **argv)
{
	return run_safely([&] {
		Options options;
		Program program = {tool.summary, tool.footer, options,
		    [&](CLI::App &app) { tool.declare(app, options); }, tool.completers, tool.exits, {}};
		for (auto row = tool.commands; *row != nullptr; row++) {
			const CommandOf<Options> *command = *row;
			program.commands.push_back(
			    {&command->text, [command, &options](CLI::App &app) { command->declare(app, options); },
				[command, &options] { return command->run(options); }});
		}
		return run_command(program, argc, argv);
	});
}

// ---- What several commands declare ----

template <typename Options>
void declare_nothing(CLI::App &, Options &)
{}
void declare_dry_run(CLI::App &app, CommonOptions &options);
// -E; `target` gets the enclave's name or number.
void declare_enclave(CLI::App &app, std::string &target, const char *help);

#endif
