// Escapes and widths. Divisions: escapes as they are typed, widths.
#include "text.h"

#include <cctype>
#include <clocale>
#include <cwchar>
#include <cwctype>
#include <locale.h>

#include <fmt/format.h>

#include "failure.h"

namespace {

// ---- Escapes as they are typed ----

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

// Takes one escape from the front of `rest`, which begins behind the backslash.
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

// ---- Widths ----

// Widths follow UTF-8 whatever the user's locale says; the rest of the program stays in the C locale, so that
// comparing without case means ASCII.
size_t width_of(char32_t code)
{
	static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
	if (code < 0x80 || utf8 == nullptr)
		return 1;
	locale_t before = uselocale(utf8);
	int width = wcwidth(static_cast<wchar_t>(code));
	uselocale(before);
	return width < 0 ? 1 : static_cast<size_t>(width);
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

size_t display_width(std::string_view text)
{
	size_t width = 0;
	while (!text.empty()) {
		Decoded next = decode_utf8(text);
		width += next.length == 0 ? 1 : width_of(next.code);
		text.remove_prefix(next.length == 0 ? 1 : next.length);
	}
	return width;
}

size_t fitting_prefix(std::string_view text, size_t width)
{
	size_t used = 0, taken = 0;
	while (taken < text.size()) {
		Decoded next = decode_utf8(text.substr(taken));
		used += next.length == 0 ? 1 : width_of(next.code);
		if (used > width && taken > 0)
			break;
		taken += next.length == 0 ? 1 : next.length;
	}
	return taken;
}
