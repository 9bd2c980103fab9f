// How a command ends badly: what went wrong, with which thing, where, and what to do next.
#ifndef OSTREL_TOOL_FAILURE_H
#define OSTREL_TOOL_FAILURE_H

#include <cstddef>
#include <exception>
#include <string>

#include <libostrel.h>

enum class Exit : int {
	done = 0,
	failure = 1,
	usage = 2,
	permission = 3,
	not_found = 4,
	exists = 5,
	invalid = 6,
	deferred = 7,
	unsupported = 8,
	memory = 9,
	differences = 10,
	no_connection = 11,
};

// The word that stands for an exit code in JSON.
const char *exit_word(Exit code);
Exit exit_of(ostrel_error_t result);

class Failure : public std::exception {
public:
	Failure(Exit exit_code, std::string text) : code(exit_code), message(std::move(text)) {}

	// What is added along the way up: the innermost answer stays.
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
};

// Everything that isn't data goes to the standard error, as text or as one line of JSON.
void report_as_json(bool json);
bool reporting_json();
void report(const Failure &failure);
void warn(const Failure &warning);
// Says something to whoever sits in front of the terminal, and to nobody else.
void note(const std::string &text);

#endif
