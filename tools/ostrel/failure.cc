// Errors, warnings and notes on the standard error.
#include "failure.h"

#include <cstdio>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "terminal.h"
#include "text.h"

namespace {

bool as_json = false;

constexpr struct {
	Exit code;
	const char *word;
} exit_words[] = {
    {Exit::done, "done"},
    {Exit::failure, "failure"},
    {Exit::usage, "usage"},
    {Exit::permission, "permission"},
    {Exit::not_found, "not_found"},
    {Exit::exists, "exists"},
    {Exit::invalid, "invalid"},
    {Exit::deferred, "deferred"},
    {Exit::unsupported, "unsupported"},
    {Exit::memory, "memory"},
    {Exit::differences, "differences"},
    {Exit::no_connection, "no_connection"},
};

constexpr struct {
	ostrel_error_t result;
	Exit code;
} result_exits[] = {
    {OSTREL_SUCCESS, Exit::done},
    {OSTREL_EPERM, Exit::permission},
    {OSTREL_INVALID_ARG, Exit::invalid},
    {OSTREL_EXISTS, Exit::exists},
    {OSTREL_NOT_FOUND, Exit::not_found},
    {OSTREL_NO_MEMORY, Exit::memory},
    {OSTREL_NOTSUP, Exit::unsupported},
    {OSTREL_NEEDS_RETRY, Exit::deferred},
};

std::string place_of(const Failure &failure)
{
	std::string place = visible(failure.where);
	if (failure.line != 0)
		place += fmt::format("{}line {}", place.empty() ? "" : ", ", failure.line);
	if (!failure.path.empty())
		place += fmt::format("{}{}", place.empty() ? "" : ", ", visible(failure.path));
	return place.empty() ? place : place + ": ";
}

void print_text(const char *kind, const Failure &failure)
{
	bool colour = terminal_colour(STDERR_FILENO);
	fmt::print(stderr, "ostrel: {}{}{}: {}{}\n", colour ? "\033[1;31m" : "", kind, colour ? "\033[0m" : "",
	    place_of(failure), visible(failure.message));
	if (!failure.hint.empty())
		fmt::print(stderr, "ostrel: hint: {}\n", visible(failure.hint));
}

void print_json(const char *kind, const Failure &failure)
{
	nlohmann::ordered_json body;
	body["code"] = static_cast<int>(failure.code);
	body["name"] = exit_word(failure.code);
	body["message"] = visible(failure.message);
	if (!failure.where.empty())
		body["where"] = visible(failure.where);
	if (failure.line != 0)
		body["line"] = failure.line;
	if (!failure.path.empty())
		body["path"] = visible(failure.path);
	if (!failure.hint.empty())
		body["hint"] = visible(failure.hint);
	nlohmann::ordered_json document;
	document[kind] = body;
	fmt::print(stderr, "{}\n", visible_json(document.dump()));
}

void print(const char *kind, const Failure &failure)
{
	(void) std::fflush(stdout); // what was printed so far comes before the message, where both go to one place
	if (as_json)
		print_json(kind, failure);
	else
		print_text(kind, failure);
}

} // namespace

const char *exit_word(Exit code)
{
	for (const auto &row : exit_words)
		if (row.code == code)
			return row.word;
	return "failure";
}

Exit exit_of(ostrel_error_t result)
{
	for (const auto &row : result_exits)
		if (row.result == result)
			return row.code;
	return Exit::failure;
}

Failure &Failure::in(const std::string &name)
{
	if (where.empty())
		where = name;
	return *this;
}

Failure &Failure::at(const std::string &element)
{
	if (path.empty())
		path = element;
	return *this;
}

Failure &Failure::on_line(size_t number)
{
	if (line == 0)
		line = number;
	return *this;
}

Failure &Failure::next(const std::string &step)
{
	if (hint.empty())
		hint = step;
	return *this;
}

void report_as_json(bool json)
{
	as_json = json;
}

bool reporting_json()
{
	return as_json;
}

void report(const Failure &failure)
{
	print("error", failure);
}

void warn(const Failure &warning)
{
	print("warning", warning);
}

void note(const std::string &text)
{
	if (!as_json && isatty(STDERR_FILENO) != 0)
		fmt::print(stderr, "{}\n", visible(text));
}
