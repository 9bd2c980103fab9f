// enclavectl: the registry of this host's enclaves from the command line.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

#include <fmt/format.h>

#include "command.h"
#include "shared/failure.h"
#include "shared/standard_streams.h"

const char *const program_name = "enclavectl";

namespace {

void declare(CLI::App &app, Options &options)
{
	app.require_subcommand(1);
	app.fallthrough(); // --json may stand anywhere
	app.set_version_flag("--version", "enclavectl " ENCLAVECTL_VERSION);
	app.add_flag("--json", options.json, "print data and errors as JSON");
	app.footer("Exit codes: 0 done, 1 failure, 2 usage, 3 permission, 4 not found, 5 exists, 6 invalid argument,\n"
		   "9 no memory. MERIDON_ROOT is put before the registry's path, run/enclaves.");
	for (size_t i = 0; i < command_count; i++) {
		CLI::App *command = app.add_subcommand(commands[i].name, commands[i].summary);
		command->footer(commands[i].help);
		commands[i].declare(*command, options);
	}
}

// What was printed counts only once it has left: a full disk is seen here.
Exit flushed(Exit code)
{
	if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
		throw Failure(
		    Exit::failure, "the standard output can't be written", "look for a full disk, or a closed end");
	return code;
}

Exit parse_and_run(int argc, char **argv)
{
	Options options;
	CLI::App app("Registers, lists and removes the enclaves of this host.", "enclavectl");
	declare(app, options);
	try {
		app.parse(argc, argv);
	} catch (const CLI::Success &asked) { // --help, --version
		return flushed(static_cast<Exit>(app.exit(asked)));
	} catch (const CLI::ParseError &error) {
		throw Failure(Exit::usage, error.what(), "see enclavectl --help, or enclavectl COMMAND --help");
	}
	for (size_t i = 0; i < command_count; i++)
		if (app.got_subcommand(commands[i].name))
			commands[i].run(options);
	return flushed(Exit::done);
}

} // namespace

int main(int argc, char **argv)
{
	hold_standard_streams();
	(void) std::signal(SIGPIPE, SIG_DFL);
	// An error of the command line itself is printed as JSON too.
	bool json = std::any_of(argv, argv + argc, [](const char *word) { return std::strcmp(word, "--json") == 0; });
	try {
		return static_cast<int>(parse_and_run(argc, argv));
	} catch (const Failure &failure) {
		report(failure, json);
		return static_cast<int>(failure.code);
	} catch (const std::bad_alloc &) {
		(void) std::fputs("enclavectl: error: insufficient memory\n", stderr);
		return static_cast<int>(Exit::memory);
	} catch (const std::exception &error) {
		(void) std::fprintf(stderr, "enclavectl: error: %s\n", error.what());
		return static_cast<int>(Exit::failure);
	}
}
