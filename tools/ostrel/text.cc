// Escapes as they are typed.
#include "text.h"

#include <cctype>

#include <fmt/format.h>

#include "failure.h"

namespace {

int hex_digit(char c)
{
	if (c >= '0' && c <= '9')
		return c - '0';
	if (c >= 'a' && c <= 'f')
		return c - 'a' + 10;
	if (c >= 'A' && c <= 'F')
		return c - 'A' + 10;
	return -1;
}

[[noreturn]] void bad_escape(std::string_view text)
{
	throw Failure(Exit::usage, fmt::format("an escape in '{}' isn't known", text))
	    .next("write \\\\ for a backslash, \\, for a comma, and \\n, \\t, \\r or \\xHH for other bytes");
}

// Takes one escape from the front of `rest`, which begins after the backslash.
char take_escape(std::string_view &rest, std::string_view whole)
{
	if (rest.empty())
		bad_escape(whole);
	char letter = rest[0];
	rest.remove_prefix(1);
	if (std::ispunct(static_cast<unsigned char>(letter)) != 0 || letter == ' ')
		return letter;
	for (const auto &row : short_escapes)
		if (row.letter == letter)
			return row.byte;
	if (letter != 'x' || rest.size() < 2)
		bad_escape(whole);
	int high = hex_digit(rest[0]), low = hex_digit(rest[1]);
	if (high < 0 || low < 0 || (high == 0 && low == 0)) // a NUL would end the text
		bad_escape(whole);
	rest.remove_prefix(2);
	return static_cast<char>(high << 4 | low);
}

} // namespace

std::string escape(std::string_view text)
{
	return visible(text, "\\,");
}

std::string join_values(const std::vector<std::string> &values)
{
	std::string out;
	for (size_t i = 0; i < values.size(); i++) {
		if (i > 0)
			out += ',';
		out += escape(values[i]);
	}
	return out;
}

size_t find_unescaped(std::string_view text, std::string_view stops, size_t from)
{
	for (size_t i = from; i < text.size(); i++) {
		if (text[i] == '\\')
			i++;
		else if (stops.find(text[i]) != std::string_view::npos)
			return i;
	}
	return std::string_view::npos;
}

std::string unescape(std::string_view text)
{
	std::string out;
	std::string_view rest = text;
	while (!rest.empty()) {
		char byte = rest[0];
		rest.remove_prefix(1);
		out += byte == '\\' ? take_escape(rest, text) : byte;
	}
	return out;
}

std::vector<std::string> split_values(std::string_view text)
{
	std::vector<std::string> values;
	for (;;) {
		size_t comma = find_unescaped(text, ",");
		values.push_back(unescape(text.substr(0, comma)));
		if (comma == std::string_view::npos)
			return values;
		text.remove_prefix(comma + 1);
	}
}
