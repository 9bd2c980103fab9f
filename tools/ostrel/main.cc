// ostrel: databases of network configuration from the command line. Here: the command line, and how a run ends.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <unistd.h>

#include <fmt/format.h>

#include "command.h"
#include "database.h"
#include "failure.h"
#include "shared/standard_streams.h"

namespace {

const Command *command_by_name(const std::string &name)
{
	for (const Command *const *row = commands; *row != nullptr; row++)
		if (name == (*row)->name || ((*row)->alias != nullptr && name == (*row)->alias))
			return *row;
	return nullptr;
}

// Cuts the words behind the last `--` off, if the command has a use for them. A `--` before that one, or one of
// another command, is left to the parser: it ends the options.
std::vector<std::string> cut_tail(std::vector<std::string> &arguments, bool &cut)
{
	std::vector<std::string> tail;
	cut = false;
	auto named = std::find_if(arguments.begin(), arguments.end(),
	    [](const std::string &word) { return command_by_name(word) != nullptr; });
	if (named == arguments.end() || command_by_name(*named)->tail == nullptr)
		return tail;
	auto marker = std::find(arguments.rbegin(), arguments.rend(), "--");
	if (marker == arguments.rend())
		return tail;
	cut = true;
	tail.assign(marker.base(), arguments.end());
	arguments.erase(marker.base() - 1, arguments.end());
	return tail;
}

// The parser's own message for this wouldn't name the word.
void require_command(const std::vector<std::string> &arguments)
{
	auto word = std::find_if(
	    arguments.begin(), arguments.end(), [](const std::string &text) { return text.empty() || text[0] != '-'; });
	if (word != arguments.end() && command_by_name(*word) == nullptr)
		throw Failure(Exit::usage, fmt::format("there is no command '{}'", *word))
		    .next("ostrel --help lists them");
}

const Command &chosen_command(const CLI::App &app)
{
	return *command_by_name(app.get_subcommands().at(0)->get_name());
}

Exit run(int argc, char **argv)
{
	std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
	// An error of the command line itself is also printed as JSON.
	report_as_json(std::find(arguments.begin(), arguments.end(), "--json") != arguments.end());

	CLI::App app("Reads and changes databases of network configuration.", "ostrel");
	Options options;
	declare_all(app, options);
	require_command(arguments);
	bool cut = false;
	options.tail = cut_tail(arguments, cut);
	try {
		std::reverse(arguments.begin(), arguments.end()); // as the parser wants them
		app.parse(arguments);
	} catch (const CLI::Success &success) { // help, version
		app.exit(success);
		return Exit::done;
	} catch (const CLI::RequiredError &error) {
		bool command = std::strstr(error.what(), "subcommand") != nullptr;
		throw Failure(Exit::usage, command ? "a command is needed" : error.what())
		    .next("ostrel --help, or ostrel COMMAND --help");
	} catch (const CLI::ParseError &error) {
		throw Failure(Exit::usage, error.what()).next("ostrel --help, or ostrel COMMAND --help");
	}
	report_as_json(options.json);
	const Command &command = chosen_command(app);
	if (command.tail != nullptr && !cut)
		throw Failure(Exit::usage, fmt::format("{} needs -- and behind it {}", command.name, command.tail))
		    .next(fmt::format("ostrel {} --help", command.name));
	return command.run(options);
}

// What was printed counts only once it has left: a full disk is seen here.
Exit flush_output(Exit code)
{
	bool failed = std::fflush(stdout) != 0 || std::ferror(stdout) != 0;
	if (!failed)
		return code;
	report(Failure(Exit::failure, "the standard output can't be written")
		   .next("look for a full disk, or a closed end"));
	return Exit::failure;
}

Exit run_safely(int argc, char **argv)
{
	try {
		return flush_output(run(argc, argv));
	} catch (const Failure &failure) {
		report(failure);
		return failure.code;
	} catch (const std::bad_alloc &) {
		(void) std::fputs(
		    reporting_json()
			? "{\"error\":{\"code\":9,\"name\":\"memory\",\"message\":\"insufficient memory\"}}\n"
			: "ostrel: error: insufficient memory\n",
		    stderr);
		return Exit::memory;
	} catch (const std::exception &error) {
		report(Failure(Exit::failure, error.what()));
		return Exit::failure;
	}
}

} // namespace

int main(int argc, char **argv)
{
	hold_standard_streams();
	// A reader that has seen enough ends the tool quietly, also where its starter ignored the signal.
	(void) std::signal(SIGPIPE, SIG_DFL);
	try {
		const Exit code = run_safely(argc, argv);
		if (updates_left_running()) {
			(void) std::fflush(nullptr); // was flushed and looked at before
			_exit(static_cast<int>(code));
		}
		return static_cast<int>(code);
	} catch (...) {
		return static_cast<int>(Exit::failure); // not even the message could be printed
	}
}
