// The commands of cairnctl: each declares its words and does its work.
#ifndef CAIRNCTL_COMMAND_H
#define CAIRNCTL_COMMAND_H

#include <string>

#include <CLI/CLI.hpp>

#include "shared/failure.h"

// What the command line said.
struct Options {
	std::string hatch;
	std::string locator;
	std::string pattern;
	std::string snapshot;
	std::string action = "list";
	std::string name;
	std::string other;
	std::string file;
	std::string shell;
	bool recursive = false;
	bool dry_run = false;
	bool json = false;
};

struct Command {
	const char *name;
	const char *summary;
	const char *help; // printed below the options
	void (*declare)(CLI::App &app, Options &options);
	Exit (*run)(const Options &options);
};

extern const Command commands[];
extern const size_t command_count;

#endif
