/*
 * Objects as the tool holds them, and their way from and to the library's lists. Every value is a text in one normal form, so
 * that equal values are equal texts: a number has no leading zeros, a boolean is true or false. A table of types (object.cc)
 * has what each type needs.
 */
#ifndef OSTREL_TOOL_OBJECT_H
#define OSTREL_TOOL_OBJECT_H

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <libostrel.h>

struct FreeList {
	void operator()(attrlist_t *list) const { attrlist_free(list); }
};
using List = std::unique_ptr<attrlist_t, FreeList>;

// A type of values.
struct ValueType {
	const char *word;
	data_type_t array;
	data_type_t scalar;
	// The normal form of a text. Throws Failure (invalid) for what isn't a value of the type.
	std::string (*normalize)(std::string_view text);
	int (*read)(const attrpair_t *pair, std::vector<std::string> &values);
	int (*read_scalar)(const attrpair_t *pair, std::vector<std::string> &values);
	int (*add)(attrlist_t *list, const char *name, const std::vector<std::string> &values);
	int (*add_scalar)(attrlist_t *list, const char *name, const std::string &value);
	bool numeric;
	bool quoted; // in JSON
};

const ValueType *type_by_word(std::string_view word);
const ValueType &string_type();
// The words of all types, for messages.
std::string type_words();

struct Property {
	std::string name;
	const ValueType *type = nullptr;
	bool scalar = false; // a single value that isn't an array
	std::vector<std::string> values;
};

// A scalar equals an array of one value: it is stored so, and read back as that.
bool same_value(const Property &a, const Property &b);

using Identifiers = std::vector<std::pair<std::string, std::string>>;

struct Object {
	Identifiers id;
	std::vector<Property> props;
	std::string version = {}; // where it was asked for

	const Property *find(const std::string &name) const;
};

// Whether two objects have the same properties in the same order.
bool same_props(const Object &a, const Object &b);

// Throws Failure for a property of a type that the tool doesn't know, rather than losing it.
Object object_from_lists(attrlist_t *id, attrlist_t *props);
// `store`, unless NULL, is the name of the store that this one operation goes to, in place of the handle's.
List id_list(const Identifiers &id, const char *store = nullptr);
List props_list(const std::vector<Property> &props);

// A text that two identifier lists share exactly if the library takes them for the same object.
std::string identity(const Identifiers &id, bool case_sensitive);
// Identifiers for messages and tables: `name=value` words with blanks between them.
std::string id_text(const Identifiers &id);
// Identifiers as words of a command line, with a blank before each.
std::string shell_words(const Identifiers &id);
std::string value_text(const Property &property);

#endif
