// Documents: how the repository looks in JSON, and what of that is accepted.
#ifndef CAIRNCTL_DOCUMENT_H
#define CAIRNCTL_DOCUMENT_H

#include <string>

#include <meridon/rpy.h>

#include "shared/json.h"

constexpr const char *document_format = "cairn-repository";
constexpr int document_version = 2; // 1 is read as well: it had whole numbers as numbers alone

// How deep groups may be nested: far deeper than a daemon accepts, and within what recursion over them, such as that of the
// JSON library's printer, can bear.
constexpr int group_depth_max = 512;

// The words of value types.
const char *type_word(rpy_type_t type);
rpy_type_t type_by_word(const std::string &word);

// The name of a part of a checked document, or another text in the same form.
std::string text_in(const Json &part, const char *key = "name");

// A value's bytes: a text, or an object with `hex`.
Json bytes_to_json(const std::string &bytes, bool opaque);
std::string bytes_from_json(const Json &value);

// The values of a property of a document, numbers all in one form.
Json values_as_numbers(const Json &property);

// Parses what `export` wrote, and refuses anything else. `file` is the name to call it by.
Json parse_document(const std::string &text, const std::string &file);

#endif
