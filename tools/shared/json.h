// JSON as all tools print it.
#ifndef TOOLS_SHARED_JSON_H
#define TOOLS_SHARED_JSON_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;

// A text as it is, or, where it isn't UTF-8, U+0000 and the hexadecimal digits of its bytes: nothing here holds a NUL.
std::string text_to_json(std::string_view text);

// A whole number; beyond 2^53 as a text of its digits, since most programs read a number of JSON as floating point.
Json number_to_json(uint64_t number);
Json number_to_json(int64_t number);

// The other way, from either form; nothing if it's no whole number of that type.
template <typename Number>
std::optional<Number> number_from_json(const Json &json);

// Prints it as a line on the standard output; with an indent on several. What can't be seen is escaped.
void write_json(const Json &json, int indent = -1, char with = ' ');

#endif
