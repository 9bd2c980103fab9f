// A tool's table of commands, as the tool writes it and as the frame reads it.
#ifndef TOOLS_SHARED_COMMAND_TABLE_H
#define TOOLS_SHARED_COMMAND_TABLE_H

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
	std::span<const Exit> exits; // causes to end that not every tool has
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
	std::span<const Exit> exits;
	std::vector<BoundCommand> commands;
};

#endif
