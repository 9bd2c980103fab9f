// Texts as a person sees and types them: escapes, lists of values.
#ifndef OSTREL_TOOL_TEXT_H
#define OSTREL_TOOL_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "shared/visible.h"

// As visible() has it, with a backslash before each backslash and each comma: unescape() gives the text back.
std::string escape(std::string_view text);
// The values of a property as one word; split_values() is the inverse.
std::string join_values(const std::vector<std::string> &values);

// The position of the first byte of `stops` that isn't escaped; npos if there is none.
size_t find_unescaped(std::string_view text, std::string_view stops, size_t from = 0);
// Removes a backslash before a punctuation mark or a blank, and decodes \n \t \r \xHH. Throws Failure (usage) for any
// other escape.
std::string unescape(std::string_view text);
// Cuts at each unescaped comma and unescapes the pieces. An empty text is one empty value.
std::vector<std::string> split_values(std::string_view text);

#endif
