// cairnctl: the service repository from the command line.
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

const char *const program_name = "cairnctl";

namespace {

void declare(CLI::App &app, Options &options)
{
	app.require_subcommand(1);
	app.fallthrough(); // --json may stand anywhere
	app.set_version_flag("--version", "cairnctl " CAIRNCTL_VERSION);
	app.add_flag("--json", options.json, "print data and errors as JSON");
	app.add_option("--hatch", options.hatch, "the hatch of the daemon to ask")->type_name("PATH");
	app.footer("A locator is NAME[/NAME...] for a service, NAME[/NAME...]:INSTANCE for an instance.\n"
		   "Exit codes: 0 done, 1 failure, 2 usage, 3 permission, 4 not found, 5 exists, 6 invalid argument,\n"
		   "7 the store can't be written, or changes too fast, at present, 9 no memory, 10 differences or "
		   "findings, 11 no daemon.");
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
	CLI::App app("Looks at and changes the service repository of this host.", "cairnctl");
	declare(app, options);
	try {
		app.parse(argc, argv);
	} catch (const CLI::Success &asked) { // --help, --version
		return flushed(static_cast<Exit>(app.exit(asked)));
	} catch (const CLI::ParseError &error) {
		throw Failure(Exit::usage, error.what(), "see cairnctl --help, or cairnctl COMMAND --help");
	}
	Exit code = Exit::done;
	for (size_t i = 0; i < command_count; i++)
		if (app.got_subcommand(commands[i].name))
			code = commands[i].run(options);
	return flushed(code);
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
		(void) std::fputs(
		    json ? "{\"error\":{\"code\":9,\"name\":\"memory\",\"message\":\"insufficient memory\"}}\n"
			 : "cairnctl: error: insufficient memory\n",
		    stderr);
		return static_cast<int>(Exit::memory);
	} catch (const std::exception &error) {
		report(Failure(Exit::failure, error.what(), ""), json);
		return static_cast<int>(Exit::failure);
	}
}
