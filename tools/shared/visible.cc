// UTF-8, and the characters that are escaped.
#include "visible.h"

#include <fmt/format.h>

namespace {

constexpr struct {
	unsigned char mask, lead;
	size_t length;
	char32_t least; // anything below has a shorter form
} utf8_forms[] = {{0x80, 0x00, 1, 0}, {0xe0, 0xc0, 2, 0x80}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, 0x10000}};

// Characters that control a terminal, turn the direction of writing, or are invisible: with them a text can look like
// another one.
constexpr struct {
	char32_t first, last;
} hidden_ranges[] = {{0x00, 0x1f}, {0x7f, 0x9f}, {0xad, 0xad}, {0x34f, 0x34f}, {0x61c, 0x61c}, {0x115f, 0x1160},
    {0x17b4, 0x17b5}, {0x180b, 0x180f}, {0x200b, 0x200f}, {0x2028, 0x202e}, {0x2060, 0x206f}, {0x3164, 0x3164},
    {0xfe00, 0xfe0f}, {0xfeff, 0xfeff}, {0xffa0, 0xffa0}, {0xfff9, 0xfffb}, {0x1bca0, 0x1bca3}, {0x1d173, 0x1d17a},
    {0xe0000, 0xe0fff}};

bool is_hidden(char32_t code)
{
	for (const auto &range : hidden_ranges)
		if (code >= range.first && code <= range.last)
			return true;
	return false;
}

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

// The escape of JSON: a surrogate pair beyond 16 bits.
std::string json_escape(char32_t code)
{
	if (code < 0x10000)
		return fmt::format("\\u{:04x}", static_cast<unsigned>(code));
	const auto rest = static_cast<unsigned>(code - 0x10000);
	return fmt::format("\\u{:04x}\\u{:04x}", 0xd800 + (rest >> 10), 0xdc00 + (rest & 0x3ff));
}

} // namespace

Decoded decode_utf8(std::string_view text)
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

bool is_utf8(std::string_view text)
{
	while (!text.empty()) {
		Decoded next = decode_utf8(text);
		if (next.length == 0)
			return false;
		text.remove_prefix(next.length);
	}
	return true;
}

std::string visible(std::string_view text, std::string_view guarded)
{
	std::string out;
	out.reserve(text.size());
	while (!text.empty()) {
		Decoded next = decode_utf8(text);
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

std::string visible_json(std::string_view document)
{
	std::string out;
	out.reserve(document.size());
	while (!document.empty()) {
		const Decoded next = decode_utf8(document);
		const size_t length = next.length == 0 ? 1 : next.length;
		if (next.code >= 0x7f && is_hidden(next.code)) // below, JSON has escapes and line breaks of its own
			out += json_escape(next.code);
		else
			out += document.substr(0, length);
		document.remove_prefix(length);
	}
	return out;
}
