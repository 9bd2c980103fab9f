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
// The values of a property as one word, which split_values() takes apart.
std::string join_values(const std::vector<std::string> &values);

// Where the first byte out of `stops` stands that no backslash hides; npos if there is none.
size_t find_unescaped(std::string_view text, std::string_view stops, size_t from = 0);
// Takes a backslash before a punctuation mark or a blank away, and \n \t \r \xHH back. Throws Failure (usage) for
// any other escape.
std::string unescape(std::string_view text);
// Cuts at each unescaped comma and unescapes the pieces. An empty text is one empty value.
std::vector<std::string> split_values(std::string_view text);

#endif
