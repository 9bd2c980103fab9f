// Errors on the standard error.
#include "failure.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace {

constexpr struct {
	Exit code;
	const char *word;
} words[] = {
    {Exit::failure, "failure"},
    {Exit::usage, "usage"},
    {Exit::permission, "permission"},
    {Exit::not_found, "not_found"},
    {Exit::exists, "exists"},
    {Exit::invalid, "invalid"},
    {Exit::busy, "busy"},
    {Exit::memory, "memory"},
    {Exit::findings, "findings"},
    {Exit::no_server, "no_server"},
};

const char *word_of(Exit code)
{
	for (const auto &row : words)
		if (row.code == code)
			return row.word;
	return "failure";
}

} // namespace

void report(const Failure &failure, bool as_json)
{
	if (as_json) {
		nlohmann::ordered_json error = {{"code", static_cast<int>(failure.code)},
		    {"name", word_of(failure.code)}, {"message", visible(failure.message)}};
		if (!failure.hint.empty())
			error["hint"] = visible(failure.hint);
		fmt::print(stderr, "{}\n", visible_json(nlohmann::ordered_json{{"error", error}}.dump()));
		return;
	}
	const char *no_color = std::getenv("NO_COLOR");
	bool colour = isatty(STDERR_FILENO) != 0 && (no_color == nullptr || *no_color == '\0');
	fmt::print(stderr, "{}: {}error{}: {}\n", program_name, colour ? "\033[1;31m" : "", colour ? "\033[0m" : "",
	    visible(failure.message));
	if (!failure.hint.empty())
		fmt::print(stderr, "{}: hint: {}\n", program_name, visible(failure.hint));
}
