// What the readers of JSON documents share. Every failure names the element by its path, a JSON pointer.
#ifndef OSTREL_TOOL_ELEMENT_H
#define OSTREL_TOOL_ELEMENT_H

#include <initializer_list>
#include <string>

#include "shared/json.h"

// The path of a member of the element at `path`.
std::string pointer(const std::string &path, const std::string &key);

// These throw Failure (invalid) for the element at `path`.
[[noreturn]] void bad_element(const std::string &path, const std::string &message);
void require_kind(const Json &json, Json::value_t kind, const std::string &path);
// An object of no other keys than these.
void require_keys(const Json &json, std::initializer_list<const char *> known, const std::string &path);
const Json &member(const Json &json, const char *key, const std::string &path);

#endif
