// How a run ends badly: what went wrong, and what to do next.
#ifndef ENCLAVECTL_FAILURE_H
#define ENCLAVECTL_FAILURE_H

#include <exception>
#include <string>

enum class Exit : int {
	done = 0,
	failure = 1,
	usage = 2,
	permission = 3,
	not_found = 4,
	exists = 5,
	invalid = 6,
	memory = 9,
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

// A failure of the registry, by its error number.
Failure failure_of(int error, const std::string &doing);

// Prints it on the standard error, as text or as one line of JSON.
void report(const Failure &failure, bool as_json);

// Text that comes from elsewhere, with control characters and broken UTF-8 made visible.
std::string visible(const std::string &text);

#endif
