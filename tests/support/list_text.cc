#include "list_text.h"

namespace {

std::string text_of(char *text)
{
	return std::string(1, '\'').append(text).append(1, '\'');
}
std::string text_of(attrlist_t *list)
{
	return std::string(1, '{').append(list_text(list)).append(1, '}');
}
std::string text_of(boolean_t value)
{
	return std::to_string(static_cast<uint32_t>(value));
}
template <typename T>
std::string text_of(T number)
{
	return std::to_string(number);
}

template <typename T>
std::string single(const attrpair_t *pair, int (*get)(const attrpair_t *, T *))
{
	T value;
	return get(pair, &value) == 0 ? text_of(value) : "no value";
}

template <typename T>
std::string array(const attrpair_t *pair, int (*get)(const attrpair_t *, T **, uint_t *))
{
	T *values = nullptr;
	uint_t count = 0;
	if (get(pair, &values, &count) != 0)
		return "no value";
	std::string text;
	for (uint_t i = 0; i < count; i++)
		text.append(i > 0 ? "," : "").append(text_of(values[i]));
	return text;
}

std::string value_text(const attrpair_t *pair)
{
	switch (attrpair_type(pair)) {
	case DATA_TYPE_BOOLEAN_VALUE:
		return single(pair, attrpair_value_boolean_value);
	case DATA_TYPE_INT32:
		return single(pair, attrpair_value_int32);
	case DATA_TYPE_UINT32:
		return single(pair, attrpair_value_uint32);
	case DATA_TYPE_INT64:
		return single(pair, attrpair_value_int64);
	case DATA_TYPE_UINT64:
		return single(pair, attrpair_value_uint64);
	case DATA_TYPE_STRING:
		return single(pair, attrpair_value_string);
	case DATA_TYPE_ATTRLIST:
		return single(pair, attrpair_value_attrlist);
	case DATA_TYPE_BOOLEAN_ARRAY:
		return array(pair, attrpair_value_boolean_array);
	case DATA_TYPE_INT32_ARRAY:
		return array(pair, attrpair_value_int32_array);
	case DATA_TYPE_UINT32_ARRAY:
		return array(pair, attrpair_value_uint32_array);
	case DATA_TYPE_INT64_ARRAY:
		return array(pair, attrpair_value_int64_array);
	case DATA_TYPE_UINT64_ARRAY:
		return array(pair, attrpair_value_uint64_array);
	case DATA_TYPE_STRING_ARRAY:
		return array(pair, attrpair_value_string_array);
	case DATA_TYPE_ATTRLIST_ARRAY:
		return array(pair, attrpair_value_attrlist_array);
	default:
		return "unknown type";
	}
}

} // namespace

std::string pair_text(const attrpair_t *pair)
{
	std::string type = std::to_string(static_cast<uint32_t>(attrpair_type(pair)));
	return std::string(attrpair_name(pair)) + ":" + type + "=" + value_text(pair) + ";";
}

std::string list_text(attrlist_t *list)
{
	std::string text;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(list, pair)) != nullptr;) {
		attrpair_t *found = nullptr;
		if (attrlist_lookup_attrpair(list, attrpair_name(pair), &found) != 0 || found != pair)
			text += "lost: ";
		text += pair_text(pair);
	}
	return text;
}
