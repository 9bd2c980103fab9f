// The frame of a tool: its commands as a table, its command line, and the one way in which a run begins and ends.
//
// A tool has a table of commands, each with what it declares and what it does, and hands it to run_tool() in its main().
// The frame adds to every command what all tools have: --json, before the command and after it, --help, --version, and the
// commands `completion` and `version`. Names of commands are the same in all tools: `add`, `list`, `show`, `set`, `remove`;
// a command's older names stay as aliases.
#ifndef TOOLS_SHARED_PROGRAM_H
#define TOOLS_SHARED_PROGRAM_H

#include <functional>
#include <span>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "failure.h"

// What every tool's options have. A tool's own begin with these.
struct CommonOptions {
	bool json = false;
	bool dry_run = false;
	std::string command;           // as it was typed: a name or an alias
	std::vector<std::string> tail; // the words after --, of a command that takes such
};

struct CommandText {
	const char *name;
	const char *summary;
	std::vector<const char *> aliases = {};
	const char *tail = nullptr; // what the words after -- are; NULL: they are words like any other
	const char *help = nullptr; // printed below the options, examples first of all
};

// A command on a tool's own options.
template <typename Options>
struct CommandOf {
	CommandText text;
	void (*declare)(CLI::App &app, Options &options);
	Exit (*run)(const Options &options);
};

// How completion finds the words for an argument: `argument` is the name that help has for it, such as LOCATOR, and `lines`
// a shell command that prints the words, one a line. "$@" in it are the options before the command, such as --hatch PATH.
struct Completer {
	const char *argument;
	const char *lines;
};

template <typename Options>
struct Tool {
	const char *summary;
	const char *footer;                               // of the help, after the exit codes
	const CommandOf<Options> *const *commands;        // in the order in which help lists them; a NULL ends them
	void (*declare)(CLI::App &app, Options &options); // what stands before the command as well as after it
	std::span<const Completer> completers;
};

// A command as the frame sees it, with the options bound.
struct BoundCommand {
	const CommandText *text;
	std::function<void(CLI::App &app)> declare;
	std::function<Exit()> run;
};

struct Program {
	const char *summary;
	const char *footer;
	CommonOptions &options;
	std::function<void(CLI::App &app)> declare;
	std::span<const Completer> completers;
	std::vector<BoundCommand> commands;
};

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
		    [&](CLI::App &app) { tool.declare(app, options); }, tool.completers, {}};
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
