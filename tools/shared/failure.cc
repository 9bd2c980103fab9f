// Errors, warnings and notes on the standard error.
#include "failure.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <unistd.h>

#include <fmt/format.h>

#include "json.h"
#include "terminal.h"
#include "visible.h"

namespace {

bool as_json = false;

enum class Given { by_every_tool, by_some };

constexpr struct {
	Exit cause;
	int code;
	const char *word;
	const char *help;
	Given given = Given::by_some;
} exits[] = {
    {Exit::done, 0, "done", "done", Given::by_every_tool},
    {Exit::failure, 1, "failure", "failure", Given::by_every_tool},
    {Exit::usage, 2, "usage", "usage", Given::by_every_tool},
    {Exit::permission, 3, "permission", "permission", Given::by_every_tool},
    {Exit::not_found, 4, "not_found", "not found", Given::by_every_tool},
    {Exit::exists, 5, "exists", "exists", Given::by_every_tool},
    {Exit::invalid, 6, "invalid", "invalid argument", Given::by_every_tool},
    {Exit::deferred, 7, "deferred", "deferred"},
    {Exit::busy, 7, "busy", "busy"},
    {Exit::unsupported, 8, "unsupported", "unsupported"},
    {Exit::memory, 9, "memory", "no memory", Given::by_every_tool},
    {Exit::differences, 10, "differences", "differences"},
    {Exit::findings, 10, "findings", "findings"},
    {Exit::no_connection, 11, "no_connection", "no connection"},
    {Exit::no_server, 11, "no_server", "no server"},
    {Exit::conflict, 12, "conflict", "changed meanwhile"},
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
	if (!failure.more.empty())
		body.update(Json::parse(failure.more));
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

std::string exit_codes_help(std::span<const Exit> further)
{
	std::string text;
	int before = -1;
	for (const auto &row : exits) {
		if (row.given == Given::by_some &&
		    std::find(further.begin(), further.end(), row.cause) == further.end())
			continue;
		if (row.code == before)
			text += fmt::format(" or {}", row.help);
		else
			text += fmt::format("{}{} {}",
			    text.empty()  ? "Exit codes: "
			    : before == 6 ? ",\n"
					  : ", ",
			    row.code, row.help);
		before = row.code;
	}
	return text + ".\n";
}

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
