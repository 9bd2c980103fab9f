// The commands of enclavectl: each declares its words and does its work.
#ifndef ENCLAVECTL_COMMAND_H
#define ENCLAVECTL_COMMAND_H

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

// What the command line said.
struct Options {
	std::string enclave; // an id or a name
	std::string name;
	std::string root;
	std::string state;
	std::optional<int> leader;
	bool no_leader = false;
	bool dry_run = false;
	bool json = false;
};

struct Command {
	const char *name;
	const char *summary;
	const char *help; // printed below the options
	void (*declare)(CLI::App &app, Options &options);
	void (*run)(const Options &options);
};

extern const Command commands[];
extern const size_t command_count;

#endif
