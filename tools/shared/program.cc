// The command line of a tool, and how a run begins and ends.
#include "program.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>

#include <fmt/format.h>

#include "completion.h"
#include "json.h"

namespace {

using Words = std::vector<std::string>;

// ---- What all tools have ----

const CommandText version_text = {"version", "Print the version"};
const CommandText completion_text = {"completion", "Print a completion script for a shell"};

Exit print_version(const Program &program)
{
	if (program.options.json)
		write_json(Json{{"version", TOOL_VERSION}});
	else
		fmt::print("{} {}\n", program_name, TOOL_VERSION);
	return Exit::done;
}

void add_common_commands(Program &program, const CLI::App &app, std::string &shell)
{
	program.commands.push_back({&completion_text,
	    [&shell](CLI::App &command) {
		    command.add_option("SHELL", shell, "bash, zsh or fish")
			->required()
			->check(CLI::IsMember({"bash", "zsh", "fish"}));
	    },
	    [&] {
		    fmt::print("{}", completion_script(shell, program, app));
		    return Exit::done;
	    }});
	program.commands.push_back({&version_text, [](CLI::App &) {}, [&] { return print_version(program); }});
}

// ---- The command line ----

void declare(CLI::App &app, const Program &program)
{
	auto declare_common = [&](CLI::App &target) {
		target.add_flag("--json", program.options.json, "Print JSON, errors too");
		program.declare(target);
	};
	app.require_subcommand(1);
	app.fallthrough();
	app.set_version_flag("--version", fmt::format("{} {}", program_name, TOOL_VERSION), "Print the version");
	app.footer(fmt::format("{}{}", exit_codes_help(program.exits), program.footer));
	declare_common(app);
	for (const BoundCommand &command : program.commands) {
		const CommandText &text = *command.text;
		CLI::App *sub = app.add_subcommand(text.name, text.summary);
		for (const char *alias : text.aliases)
			sub->alias(alias);
		if (text.tail != nullptr)
			sub->footer(fmt::format("After -- stand {}.", text.tail));
		else if (text.help != nullptr)
			sub->footer(text.help);
		declare_common(*sub);
		command.declare(*sub);
	}
}

const BoundCommand *command_by_name(const Program &program, const std::string &word)
{
	for (const BoundCommand &command : program.commands) {
		auto is_word = [&](const char *name) { return word == name; };
		if (is_word(command.text->name) ||
		    std::any_of(command.text->aliases.begin(), command.text->aliases.end(), is_word))
			return &command;
	}
	return nullptr;
}

// The first word that is neither an option nor the value of one.
Words::const_iterator command_word(const CLI::App &app, const Words &words)
{
	auto word = words.begin();
	for (; word != words.end() && word->size() > 1 && (*word)[0] == '-'; ++word) {
		const CLI::Option *option = app.get_option_no_throw(*word);
		if (option != nullptr && option->get_items_expected_max() > 0 && word + 1 != words.end())
			++word;
	}
	return word;
}

// The parser's own message for this wouldn't name the word.
const BoundCommand *named_command(const CLI::App &app, const Program &program, const Words &words)
{
	auto word = command_word(app, words);
	if (word == words.end())
		return nullptr; // perhaps it's --help
	const BoundCommand *command = command_by_name(program, *word);
	if (command == nullptr)
		throw Failure(Exit::usage, fmt::format("there is no command '{}'", *word))
		    .next(fmt::format("{} --help lists them", program_name));
	program.options.command = *word;
	return command;
}

// Cuts the words after the last `--` off, for a command that takes such. A `--` before that one, or one of another command,
// is left to the parser: it ends the options.
bool cut_tail(const BoundCommand *command, Words &words, Words &tail)
{
	if (command == nullptr || command->text->tail == nullptr)
		return false;
	auto marker = std::find(words.rbegin(), words.rend(), "--");
	if (marker == words.rend())
		return false;
	tail.assign(marker.base(), words.end());
	words.erase(marker.base() - 1, words.end());
	return true;
}

// False if the command line asked for help or the version, which have been printed.
bool parse(CLI::App &app, Words words)
{
	const std::string hint = fmt::format("{0} --help, or {0} COMMAND --help", program_name);
	try {
		std::reverse(words.begin(), words.end()); // as the parser wants them
		app.parse(words);
		return true;
	} catch (const CLI::Success &asked) {
		app.exit(asked);
		return false;
	} catch (const CLI::RequiredError &error) {
		bool command = std::strstr(error.what(), "subcommand") != nullptr;
		throw Failure(Exit::usage, command ? "a command is needed" : error.what()).next(hint);
	} catch (const CLI::ParseError &error) {
		throw Failure(Exit::usage, error.what()).next(hint);
	}
}

// ---- The end ----

Exit report_unwritten_output()
{
	report(Failure(Exit::failure, "the standard output can't be written")
		   .next("look for a full disk, or a closed end"));
	return Exit::failure;
}

// What was printed counts only once it has left: a full disk is seen here.
Exit flush_output(Exit code)
{
	bool failed = std::fflush(stdout) != 0 || std::ferror(stdout) != 0;
	return failed ? report_unwritten_output() : code;
}

// Without an allocation.
void report_no_memory()
{
	if (reporting_json()) {
		(void) std::fputs(
		    "{\"error\":{\"code\":9,\"name\":\"memory\",\"message\":\"insufficient memory\"}}\n", stderr);
		return;
	}
	(void) std::fputs(program_name, stderr);
	(void) std::fputs(": error: insufficient memory\n", stderr);
}

Exit end_of(const std::function<Exit()> &body)
{
	try {
		return flush_output(body());
	} catch (const Failure &failure) {
		report(failure);
		return failure.code;
	} catch (const std::bad_alloc &) {
		report_no_memory();
		return Exit::memory;
	} catch (const std::exception &error) {
		if (std::ferror(stdout) != 0) // the printing itself threw
			return report_unwritten_output();
		report(Failure(Exit::failure, error.what()));
		return Exit::failure;
	}
}

// Takes the numbers 0, 1 and 2 that the starter left closed. The next files to be opened would get them, and messages would
// go into a socket or a database. Input and output still fail, as they should; messages go nowhere.
void hold_standard_streams()
{
	constexpr int modes[] = {O_WRONLY, O_RDONLY, O_WRONLY};
	for (int fd = 0; fd < 3; fd++)
		if (fcntl(fd, F_GETFD) == -1)
			(void) open("/dev/null", modes[fd]); // the lowest number that is free: this one
}

} // namespace

Exit run_command(Program &program, int argc, char **argv)
{
	Words words(argv + std::min(argc, 1), argv + argc);
	// An error of the command line itself is also printed as JSON.
	report_as_json(std::find(words.begin(), words.end(), "--json") != words.end());

	CLI::App app(program.summary, program_name);
	std::string shell;
	add_common_commands(program, app, shell);
	declare(app, program);
	const BoundCommand *command = named_command(app, program, words);
	const bool has_tail = cut_tail(command, words, program.options.tail);
	if (!parse(app, std::move(words)))
		return Exit::done;
	report_as_json(program.options.json);
	if (command == nullptr)
		throw Failure(Exit::usage, "a command is needed");
	if (command->text->tail != nullptr && !has_tail)
		throw Failure(Exit::usage,
		    fmt::format("{} needs -- and after it {}", program.options.command, command->text->tail))
		    .next(fmt::format("{} {} --help", program_name, program.options.command));
	return command->run();
}

int run_safely(const std::function<Exit()> &body)
{
	hold_standard_streams();
	// A reader that has seen enough ends the tool quietly, also where its starter ignored the signal.
	(void) std::signal(SIGPIPE, SIG_DFL);
	try {
		return exit_code(end_of(body));
	} catch (...) {
		return exit_code(Exit::failure); // not even the message could be printed
	}
}

void declare_dry_run(CLI::App &app, CommonOptions &options)
{
	app.add_flag("-n,--dry-run", options.dry_run, "Change nothing; say what would be done");
}

void declare_enclave(CLI::App &app, std::string &target, const char *help)
{
	app.add_option("-E,--enclave", target, help)->type_name("NAME|ID");
}
