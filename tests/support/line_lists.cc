#include "line_lists.h"

#include <cstdlib>

#include "libostrel_lines.h"

static AttrList take(AttrList ids, AttrList props, bool want_ids)
{
	return want_ids ? std::move(ids) : std::move(props);
}

static AttrList parse(std::string line, bool want_ids)
{
	AttrList ids;
	AttrList props;
	if (ostrel_line2attrlist(line.data(), ids.out(), props.out()) != OSTREL_SUCCESS)
		abort();
	return take(std::move(ids), std::move(props), want_ids);
}

AttrList ids(const std::string &text)
{
	AttrList list;
	if (text.empty()) {
		if (ostrel_idlist_init(list.out(), nullptr) != OSTREL_SUCCESS)
			abort();
		return list;
	}
	return parse(text, true);
}

AttrList props(const std::string &text)
{
	return parse("a=1;\t" + text, false);
}

template <typename T, auto Get>
static std::string show_array(const attrpair_t *pair)
{
	T *values = nullptr;
	uint_t count = 0;
	if (Get(pair, &values, &count) != 0)
		return "?";
	std::string text;
	for (uint_t i = 0; i < count; i++) {
		text += i > 0 ? "|" : "";
		if constexpr (std::is_same_v<T, char *>)
			text += values[i];
		else
			text += std::to_string(values[i]);
	}
	return text;
}

template <typename T, auto Get>
static std::string show_one(const attrpair_t *pair)
{
	T value{};
	if (Get(pair, &value) != 0)
		return "?";
	if constexpr (std::is_same_v<T, char *>)
		return value;
	else
		return std::to_string(value);
}

static std::string show_value(const attrpair_t *pair)
{
	switch (attrpair_type(pair)) {
	case DATA_TYPE_STRING:
		return show_one<char *, attrpair_value_string>(pair);
	case DATA_TYPE_INT64:
		return show_one<int64_t, attrpair_value_int64>(pair);
	case DATA_TYPE_BOOLEAN_ARRAY:
		return show_array<boolean_t, attrpair_value_boolean_array>(pair);
	case DATA_TYPE_INT32_ARRAY:
		return show_array<int32_t, attrpair_value_int32_array>(pair);
	case DATA_TYPE_UINT32_ARRAY:
		return show_array<uint32_t, attrpair_value_uint32_array>(pair);
	case DATA_TYPE_INT64_ARRAY:
		return show_array<int64_t, attrpair_value_int64_array>(pair);
	case DATA_TYPE_UINT64_ARRAY:
		return show_array<uint64_t, attrpair_value_uint64_array>(pair);
	case DATA_TYPE_STRING_ARRAY:
		return show_array<char *, attrpair_value_string_array>(pair);
	default:
		return "?";
	}
}

std::string show(attrlist_t *list)
{
	if (list == nullptr)
		return "-";
	std::string text;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(list, pair)) != nullptr;) {
		text.append(text.empty() ? "" : " ").append(attrpair_name(pair)).append(":");
		text.append(std::to_string(attrpair_type(pair))).append("[").append(show_value(pair)).append("]");
	}
	return text;
}

std::string show_object(attrlist_t *object)
{
	attrlist_t *ids = nullptr;
	attrlist_t *props = nullptr;
	(void) attrlist_lookup_attrlist(object, OSTREL_OBJECT_IDLIST, &ids);
	(void) attrlist_lookup_attrlist(object, OSTREL_OBJECT_PROPS, &props); // stays NULL without properties
	std::string text("(");
	return text.append(show(ids)).append(") (").append(show(props)).append(")");
}
