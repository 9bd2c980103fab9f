// JSON as all tools print it.
//
// An answer is one line. A document that is kept in a file has the members `format` and `version`, and is laid out over
// lines where it is for people as well. A document's members are never renamed or removed; new ones are added. An update
// answers with what it did, in `result`, and with whether it was a `dry_run`; errors are as failure.cc prints them.
// Texts that aren't UTF-8 and numbers that floating point can't hold have forms of their own, the same in all tools.
#ifndef TOOLS_SHARED_JSON_H
#define TOOLS_SHARED_JSON_H

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;

// A text as it is, or, where it isn't UTF-8, U+0000 and the hexadecimal digits of its bytes: no text here holds a NUL.
std::string text_to_json(std::string_view text);

// A whole number; beyond 2^53 as a text of its digits, since most programs read a number of JSON as floating point.
Json number_to_json(uint64_t number);
Json number_to_json(int64_t number);

// Reads either form of a number; nothing if it isn't a whole number of that type.
template <typename Number>
std::optional<Number> number_from_json(const Json &json);

// Prints an answer as one line. What can't be seen is escaped. Throws std::system_error if the stream can't be written.
void write_json(const Json &json, FILE *stream = stdout);
// Prints a document to the standard output, a member a line.
void write_document(const Json &json);

// How the answer of an update begins: {"result":"added","dry_run":false}.
Json update_answer(const char *done, bool dry_run);

// What the parser found wrong, without its own name for the error.
std::string parse_error_text(const Json::exception &error);

#endif
