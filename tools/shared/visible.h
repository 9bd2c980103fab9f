// Text from elsewhere, made fit to be looked at: the same in all tools.
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

// Control characters, marks that turn the direction of writing, other characters that can't be seen, and bytes that aren't
// UTF-8 as \n, \t, \r or \xHH. A backslash comes before each of the `guarded` characters.
std::string visible(std::string_view text, std::string_view guarded = "");

// The same for JSON, which means the same afterwards: those characters as \uHHHH.
std::string visible_json(std::string_view document);

#endif
