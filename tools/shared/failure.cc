// Errors, warnings and notes on the standard error.
#include "failure.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

#include <fmt/format.h>

#include "json.h"
#include "terminal.h"
#include "visible.h"

namespace {

bool as_json = false;

constexpr struct {
	Exit cause;
	int code;
	const char *word;
} exits[] = {
    {Exit::done, 0, "done"},
    {Exit::failure, 1, "failure"},
    {Exit::usage, 2, "usage"},
    {Exit::permission, 3, "permission"},
    {Exit::not_found, 4, "not_found"},
    {Exit::exists, 5, "exists"},
    {Exit::invalid, 6, "invalid"},
    {Exit::deferred, 7, "deferred"},
    {Exit::busy, 7, "busy"},
    {Exit::unsupported, 8, "unsupported"},
    {Exit::memory, 9, "memory"},
    {Exit::differences, 10, "differences"},
    {Exit::findings, 10, "findings"},
    {Exit::no_connection, 11, "no_connection"},
    {Exit::no_server, 11, "no_server"},
};

constexpr struct {
	int error;
	Exit cause;
} errno_exits[] = {
    {0, Exit::done},
    {EPERM, Exit::permission},
    {EACCES, Exit::permission},
    {ENOENT, Exit::not_found},
    {ENOTDIR, Exit::not_found},
    {ENOMEM, Exit::memory},
    {ENOSPC, Exit::memory},
    {EFAULT, Exit::invalid},
    {EINVAL, Exit::invalid},
    {EEXIST, Exit::exists},
    {ENOTSUP, Exit::unsupported},
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
	fmt::print(stderr, "{}: {}{}{}: {}{}\n", program_name, colour ? "\033[1;31m" : "", kind,
	    colour ? "\033[0m" : "", place_of(failure), visible(failure.message));
	if (!failure.hint.empty())
		fmt::print(stderr, "{}: hint: {}\n", program_name, visible(failure.hint));
}

void print_json(const char *kind, const Failure &failure)
{
	Json body;
	body["code"] = exit_code(failure.code);
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
	write_json(Json{{kind, body}}, stderr);
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

const char *const exit_codes_help =
    "Exit codes: 0 done, 1 failure, 2 usage, 3 permission, 4 not found, 5 exists, 6 invalid argument,\n"
    "7 deferred or busy, 8 unsupported, 9 no memory, 10 differences or findings, 11 no connection.\n";

int exit_code(Exit cause)
{
	for (const auto &row : exits)
		if (row.cause == cause)
			return row.code;
	return 1;
}

const char *exit_word(Exit cause)
{
	for (const auto &row : exits)
		if (row.cause == cause)
			return row.word;
	return "failure";
}

Exit exit_of_errno(int error)
{
	for (const auto &row : errno_exits)
		if (row.error == error)
			return row.cause;
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

Failure failure_by_error(
    std::span<const ErrorMeaning> table, int error, const std::string &message, const char *otherwise)
{
	for (const ErrorMeaning &row : table)
		if (row.error == error)
			return Failure(row.code, message).next(row.hint);
	return Failure(Exit::failure, message).next(otherwise);
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
		say(text);
}

void say(const std::string &text)
{
	fmt::print(stderr, "{}\n", visible(text));
}
