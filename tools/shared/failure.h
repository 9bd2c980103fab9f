// How a run of a tool ends, and what it says about that: exit codes, errors, warnings and notes, the same in all tools.
//
// A failure is raised where it is found, as a Failure with the cause, a sentence and, where there is one, the next step. Callers
// add what they know of the place; the first answer stays. The frame (program.h) reports it, once, and
// ends the tool with the cause's exit code. All of this goes to the standard error: the standard output holds data alone.
#ifndef TOOLS_SHARED_FAILURE_H
#define TOOLS_SHARED_FAILURE_H

#include <cstddef>
#include <exception>
#include <span>
#include <string>

// Why a run ends. Causes that a script tells apart by the words of a JSON document alone share an exit code.
enum class Exit {
	done,
	failure,
	usage,
	permission,
	not_found,
	exists,
	invalid,
	deferred, // 7: an update goes on without the tool, or was given up
	busy,     // 7: the store can't take it now
	unsupported,
	memory,
	conflict,      // 12: somebody changed it meanwhile
	differences,   // 10
	findings,      // 10
	no_connection, // 11: to the server of a database
	no_server,     // 11: the daemon doesn't run
};

// The exit code of a cause, and the word that stands for it in JSON.
int exit_code(Exit cause);
const char *exit_word(Exit cause);
// That of a failed call, by its errno value.
Exit exit_of_errno(int error);
// The exit codes as help lists them: those that every tool gives, and those of further causes.
std::string exit_codes_help(std::span<const Exit> further);

class Failure : public std::exception {
public:
	Failure(Exit cause, std::string text) : code(cause), message(std::move(text)) {}

	// What is added on the way up; the innermost answer stays.
	Failure &in(const std::string &name);
	Failure &at(const std::string &element);
	Failure &on_line(size_t number);
	Failure &next(const std::string &step);

	const char *what() const noexcept override { return message.c_str(); }

	Exit code;
	std::string message;
	std::string where; // a database, or a file
	std::string path;  // an element of a JSON document, as a JSON pointer
	size_t line = 0;
	std::string hint;
	std::string more; // further members of its JSON form, as an object of JSON; or nothing
};

// What an error number of a library means to the user of a tool.
struct ErrorMeaning {
	int error;
	Exit code;
	const char *hint;
};
// The failure that a table has for an error number; an error that it doesn't list is a plain failure with `otherwise` as
// the next step.
Failure failure_by_error(
    std::span<const ErrorMeaning> table, int error, const std::string &message, const char *otherwise = "");

// The name that the program's messages begin with; each program defines its own.
extern const char *const program_name;

// Whether errors and warnings are lines of JSON from now on.
void report_as_json(bool json);
bool reporting_json();
void report(const Failure &failure);
void warn(const Failure &warning);
// Tells a person at a terminal something, and no script.
void note(const std::string &text);
// Tells what a dry run would do, where the standard output holds data.
void say(const std::string &text);

#endif
