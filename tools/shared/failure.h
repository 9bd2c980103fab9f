// How a run ends badly: what went wrong, and what to do next.
#ifndef TOOLS_SHARED_FAILURE_H
#define TOOLS_SHARED_FAILURE_H

#include <exception>
#include <string>

#include "visible.h"

enum class Exit : int {
	done = 0,
	failure = 1,
	usage = 2,
	permission = 3,
	not_found = 4,
	exists = 5,
	invalid = 6,
	busy = 7, // the store can't take it now
	memory = 9,
	findings = 10, // differences, or something found wrong
	no_server = 11,
};

class Failure : public std::exception {
public:
	Failure(Exit exit_code, std::string text, std::string step)
	    : code(exit_code), message(std::move(text)), hint(std::move(step))
	{}
	const char *what() const noexcept override { return message.c_str(); }

	Exit code;
	std::string message;
	std::string hint;
};

// The name that the program's messages begin with; each program has its own.
extern const char *const program_name;

// Prints it on the standard error, as text or as one line of JSON.
void report(const Failure &failure, bool as_json);

#endif
