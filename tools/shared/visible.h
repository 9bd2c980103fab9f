// Makes text of any origin safe to show on a terminal.
//
// Names and values come out of files and other processes. Printed as they are, they could move a cursor, set a title, or
// look like another name. Everything that a tool prints for people goes through visible(), all JSON through visible_json().
#ifndef TOOLS_SHARED_VISIBLE_H
#define TOOLS_SHARED_VISIBLE_H

#include <string>
#include <string_view>

struct Decoded {
	char32_t code;
	size_t length; // 0: not UTF-8 here
};
// The first character of a text that isn't empty.
Decoded decode_utf8(std::string_view text);
bool is_utf8(std::string_view text);

inline constexpr struct {
	char byte, letter;
} short_escapes[] = {{'\n', 'n'}, {'\t', 't'}, {'\r', 'r'}};

// Writes control characters, marks that turn the direction of writing, other invisible characters, and bytes that aren't
// UTF-8 as \n, \t, \r or \xHH, and a backslash before each of the `guarded` characters.
std::string visible(std::string_view text, std::string_view guarded = "");

// Writes those characters of a JSON document as \uHHHH, so that it keeps its meaning.
std::string visible_json(std::string_view document);

#endif
