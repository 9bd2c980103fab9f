// Lists from text and back, so that a test's data reads at a glance.
#ifndef TESTS_SUPPORT_LISTS_H
#define TESTS_SUPPORT_LISTS_H

#include <string>

#include "base/guards.h"
#include "libostrel.h"

// "a=x;b=y" as a list of text keys; adds also what ostrel_idlist_add() refuses.
inline AttrList idl_of(const std::string &text)
{
	AttrList list;
	if (attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0) != 0)
		abort();
	for (size_t at = 0; at < text.size();) {
		size_t end = text.find(';', at);
		end = end == std::string::npos ? text.size() : end;
		const std::string word = text.substr(at, end - at);
		const size_t equals = word.find('=');
		if (attrlist_add_string(list.get(), word.substr(0, equals).c_str(), word.substr(equals + 1).c_str()) !=
		    0)
			abort();
		at = end + 1;
	}
	return list;
}

// "a=x;b=y" as properties, arrays of one string each.
inline AttrList props_of(const std::string &text)
{
	AttrList ids = idl_of(text);
	AttrList list;
	if (attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0) != 0)
		abort();
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(ids.get(), pair)) != nullptr;) {
		char *value;
		if (attrpair_value_string(pair, &value) != 0 ||
		    ostrel_atl_add_one_string(list.get(), attrpair_name(pair), value) != 0)
			abort();
	}
	return list;
}

// The pairs in list order, "a=x;b=y;". A text and an array of one text look alike; all else is shown as its type.
inline std::string text_of(attrlist_t *list)
{
	std::string text;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(list, pair)) != nullptr;) {
		char *value;
		if (attrpair_value_string(pair, &value) != 0 && ostrel_atp_get_one_string(pair, &value) != 0)
			value = nullptr;
		text += attrpair_name(pair);
		text += "=";
		text += value != nullptr ? value : "<" + std::to_string(attrpair_type(pair)) + ">";
		text += ";";
	}
	return text;
}

inline AttrList object_of(const std::string &idl, const std::string &props)
{
	AttrList object;
	if (ostrel_object_create(idl_of(idl).get(), props_of(props).get(), object.out()) != OSTREL_SUCCESS)
		abort();
	return object;
}

#endif
