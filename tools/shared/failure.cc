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

// The length of a well-formed character at `at` that may be shown as it is; 0 if there is none.
size_t plain_length(const std::string &text, size_t at)
{
	unsigned char first = static_cast<unsigned char>(text[at]);
	if (first < 0x80)
		return first >= ' ' && first != 0x7f ? 1 : 0;
	size_t length = first >= 0xf0 && first < 0xf5 ? 4 : first >= 0xe0 ? 3 : first >= 0xc2 ? 2 : 0;
	if (length == 0 || first >= 0xf5 || at + length > text.size())
		return 0;
	for (size_t i = 1; i < length; i++)
		if ((static_cast<unsigned char>(text[at + i]) & 0xc0) != 0x80)
			return 0;
	unsigned char second = static_cast<unsigned char>(text[at + 1]);
	bool control = first == 0xc2 && second < 0xa0;
	bool overlong = (first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90);
	bool outside = (first == 0xed && second >= 0xa0) || (first == 0xf4 && second >= 0x90);
	return control || overlong || outside ? 0 : length;
}

} // namespace

std::string visible(const std::string &text)
{
	std::string shown;
	for (size_t at = 0; at < text.size();) {
		size_t length = plain_length(text, at);
		if (length == 0)
			shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[at]));
		else
			shown += text.substr(at, length);
		at += length == 0 ? 1 : length;
	}
	return shown;
}

void report(const Failure &failure, bool as_json)
{
	if (as_json) {
		nlohmann::ordered_json error = {{"code", static_cast<int>(failure.code)},
		    {"name", word_of(failure.code)}, {"message", visible(failure.message)}};
		if (!failure.hint.empty())
			error["hint"] = visible(failure.hint);
		fmt::print(stderr, "{}\n", nlohmann::ordered_json{{"error", error}}.dump());
		return;
	}
	const char *no_color = std::getenv("NO_COLOR");
	bool colour = isatty(STDERR_FILENO) != 0 && (no_color == nullptr || *no_color == '\0');
	fmt::print(stderr, "{}: {}error{}: {}\n", program_name, colour ? "\033[1;31m" : "", colour ? "\033[0m" : "",
	    visible(failure.message));
	if (!failure.hint.empty())
		fmt::print(stderr, "{}: hint: {}\n", program_name, visible(failure.hint));
}
