// The words of a command line: identifiers and properties.
#ifndef OSTREL_TOOL_WORD_H
#define OSTREL_TOOL_WORD_H

#include <string>
#include <vector>

#include "object.h"

// `key=value` words, taken as they are. Throws Failure (usage) for a word that isn't one, or a key given twice.
Identifiers parse_identifiers(const std::vector<std::string> &words);

enum class Change { set, append, remove };

// `name[:type]=value[,value...]`; `name:type` alone has no values. Where changes are allowed, also `+=` and `-=`.
struct PropertyWord {
	std::string name;
	const ValueType *type = nullptr; // NULL: none was given
	Change change = Change::set;
	std::vector<std::string> values; // as typed, unescaped
};
PropertyWord parse_property_word(const std::string &word);

// The values in the normal form of `type`. Throws Failure that names the word.
Property make_property(const PropertyWord &word, const ValueType &type);
// For commands that replace: every word sets, a type that isn't given is string.
std::vector<Property> parse_properties(const std::vector<std::string> &words);

#endif
