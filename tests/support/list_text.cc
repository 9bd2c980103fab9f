#include "list_text.h"

#include <map>

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
std::string value_text(const attrpair_t *pair, int (*get)(const attrpair_t *, T *))
{
	T value;
	return get(pair, &value) == 0 ? text_of(value) : "no value";
}

template <typename T>
std::string value_text(const attrpair_t *pair, int (*get)(const attrpair_t *, T **, uint_t *))
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

template <auto get>
std::string value_by(const attrpair_t *pair)
{
	return value_text(pair, get);
}

const std::map<data_type_t, std::string (*)(const attrpair_t *)> value_texts = {
    {DATA_TYPE_BOOLEAN_VALUE, value_by<attrpair_value_boolean_value>},
    {DATA_TYPE_INT32, value_by<attrpair_value_int32>},
    {DATA_TYPE_UINT32, value_by<attrpair_value_uint32>},
    {DATA_TYPE_INT64, value_by<attrpair_value_int64>},
    {DATA_TYPE_UINT64, value_by<attrpair_value_uint64>},
    {DATA_TYPE_STRING, value_by<attrpair_value_string>},
    {DATA_TYPE_ATTRLIST, value_by<attrpair_value_attrlist>},
    {DATA_TYPE_BOOLEAN_ARRAY, value_by<attrpair_value_boolean_array>},
    {DATA_TYPE_INT32_ARRAY, value_by<attrpair_value_int32_array>},
    {DATA_TYPE_UINT32_ARRAY, value_by<attrpair_value_uint32_array>},
    {DATA_TYPE_INT64_ARRAY, value_by<attrpair_value_int64_array>},
    {DATA_TYPE_UINT64_ARRAY, value_by<attrpair_value_uint64_array>},
    {DATA_TYPE_STRING_ARRAY, value_by<attrpair_value_string_array>},
    {DATA_TYPE_ATTRLIST_ARRAY, value_by<attrpair_value_attrlist_array>},
};

} // namespace

std::string pair_text(const attrpair_t *pair)
{
	const auto found = value_texts.find(attrpair_type(pair));
	const std::string type = std::to_string(static_cast<uint32_t>(attrpair_type(pair)));
	const std::string value = found != value_texts.end() ? found->second(pair) : "unknown type";
	return std::string(attrpair_name(pair)) + ":" + type + "=" + value + ";";
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
