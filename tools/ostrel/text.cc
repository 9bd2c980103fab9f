// Escapes and widths. Divisions: UTF-8, making visible, escapes as they are typed, widths.
#include "text.h"

#include <cctype>
#include <clocale>
#include <cwchar>
#include <cwctype>
#include <locale.h>

#include <fmt/format.h>

#include "failure.h"

namespace {

// ---- UTF-8 ----

struct Decoded {
	char32_t code;
	size_t length; // 0: not UTF-8 here
};

constexpr struct {
	unsigned char mask, lead;
	size_t length;
	char32_t least; // anything below has a shorter form
} utf8_forms[] = {{0x80, 0x00, 1, 0}, {0xe0, 0xc0, 2, 0x80}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, 0x10000}};

Decoded decode(std::string_view text)
{
	auto first = static_cast<unsigned char>(text[0]);
	for (const auto &form : utf8_forms) {
		if ((first & form.mask) != form.lead)
			continue;
		if (text.size() < form.length)
			return {0, 0};
		char32_t code = first & static_cast<unsigned char>(~form.mask);
		for (size_t i = 1; i < form.length; i++) {
			auto byte = static_cast<unsigned char>(text[i]);
			if ((byte & 0xc0) != 0x80)
				return {0, 0};
			code = code << 6 | (byte & 0x3f);
		}
		if (code < form.least || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff))
			return {0, 0};
		return {code, form.length};
	}
	return {0, 0};
}

// ---- Making visible ----

// Characters that a terminal obeys instead of showing, or that hide what stands beside them.
constexpr struct {
	char32_t first, last;
} hidden_ranges[] = {{0x00, 0x1f}, {0x7f, 0x9f}, {0xad, 0xad}, {0x61c, 0x61c}, {0x180e, 0x180e}, {0x200b, 0x200f},
    {0x2028, 0x202e}, {0x2060, 0x206f}, {0xfeff, 0xfeff}, {0xfff9, 0xfffb}, {0xe0000, 0xe007f}};

bool is_hidden(char32_t code)
{
	for (const auto &range : hidden_ranges)
		if (code >= range.first && code <= range.last)
			return true;
	return false;
}

constexpr struct {
	char byte, letter;
} short_escapes[] = {{'\n', 'n'}, {'\t', 't'}, {'\r', 'r'}};

void append_escaped_byte(std::string &out, char byte)
{
	for (const auto &row : short_escapes) {
		if (row.byte == byte) {
			out += '\\';
			out += row.letter;
			return;
		}
	}
	out += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
}

std::string show(std::string_view text, std::string_view guarded)
{
	std::string out;
	out.reserve(text.size());
	while (!text.empty()) {
		Decoded next = decode(text);
		size_t length = next.length == 0 ? 1 : next.length;
		std::string_view bytes = text.substr(0, length);
		if (next.length == 0 || is_hidden(next.code)) {
			for (char byte : bytes)
				append_escaped_byte(out, byte);
		} else {
			if (guarded.find(bytes[0]) != std::string_view::npos)
				out += '\\';
			out += bytes;
		}
		text.remove_prefix(length);
	}
	return out;
}

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

bool is_utf8(std::string_view text)
{
	while (!text.empty()) {
		Decoded next = decode(text);
		if (next.length == 0)
			return false;
		text.remove_prefix(next.length);
	}
	return true;
}

std::string visible(std::string_view text)
{
	return show(text, "");
}

std::string escape(std::string_view text)
{
	return show(text, "\\,");
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
		Decoded next = decode(text);
		width += next.length == 0 ? 1 : width_of(next.code);
		text.remove_prefix(next.length == 0 ? 1 : next.length);
	}
	return width;
}

size_t fitting_prefix(std::string_view text, size_t width)
{
	size_t used = 0, taken = 0;
	while (taken < text.size()) {
		Decoded next = decode(text.substr(taken));
		used += next.length == 0 ? 1 : width_of(next.code);
		if (used > width && taken > 0)
			break;
		taken += next.length == 0 ? 1 : next.length;
	}
	return taken;
}
