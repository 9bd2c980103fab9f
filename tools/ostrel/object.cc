// Divisions: what each type needs, texts and values, lists and values.
#include "object.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>
#include <new>
#include <strings.h>

#include <fmt/format.h>

#include "failure.h"
#include "text.h"

namespace {

// ---- What each type needs ----

template <typename T>
struct Calls;

template <>
struct Calls<boolean_t> {
	static constexpr const char *word = "boolean";
	static constexpr data_type_t array_type = DATA_TYPE_BOOLEAN_ARRAY, scalar_type = DATA_TYPE_BOOLEAN_VALUE;
	static constexpr auto values = attrpair_value_boolean_array;
	static constexpr auto value = attrpair_value_boolean_value;
	static constexpr auto add_array = attrlist_add_boolean_array;
	static constexpr auto add_value = attrlist_add_boolean_value;
};

#define NUMBER_CALLS(T, name, NAME)                                                                                    \
	template <>                                                                                                    \
	struct Calls<T> {                                                                                              \
		static constexpr const char *word = #name;                                                             \
		static constexpr data_type_t array_type = DATA_TYPE_##NAME##_ARRAY, scalar_type = DATA_TYPE_##NAME;    \
		static constexpr auto values = attrpair_value_##name##_array;                                          \
		static constexpr auto value = attrpair_value_##name;                                                   \
		static constexpr auto add_array = attrlist_add_##name##_array;                                         \
		static constexpr auto add_value = attrlist_add_##name;                                                 \
	}
NUMBER_CALLS(int32_t, int32, INT32);
NUMBER_CALLS(uint32_t, uint32, UINT32);
NUMBER_CALLS(int64_t, int64, INT64);
NUMBER_CALLS(uint64_t, uint64, UINT64);
#undef NUMBER_CALLS

// ---- Texts and values ----

template <typename T>
std::string print_value(T value)
{
	return std::to_string(value);
}

template <>
std::string print_value(boolean_t value)
{
	return value != B_FALSE ? "true" : "false";
}

template <typename T>
T parse_value(std::string_view text)
{
	T value = 0;
	const char *end = text.data() + text.size();
	auto [stop, error] = std::from_chars(text.data(), end, value);
	bool whole = stop == end && !text.empty();
	// A number below 0 is one that an unsigned type can't hold, not a word that isn't a number.
	bool negative = std::is_unsigned_v<T> && text.size() > 1 && text[0] == '-' &&
			text.find_first_not_of("0123456789", 1) == std::string_view::npos;
	if (negative || (whole && error == std::errc::result_out_of_range))
		throw Failure(
		    Exit::invalid, fmt::format("{} is out of the range of {}, which is {} to {}", text, Calls<T>::word,
				       std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
	if (!whole || error != std::errc())
		throw Failure(Exit::invalid, fmt::format("'{}' isn't a number, as {} needs", text, Calls<T>::word));
	return value;
}

template <>
boolean_t parse_value(std::string_view text)
{
	std::string word(text);
	if (strcasecmp(word.c_str(), "true") == 0)
		return B_TRUE;
	if (strcasecmp(word.c_str(), "false") == 0)
		return B_FALSE;
	throw Failure(Exit::invalid, fmt::format("'{}' is neither true nor false, as boolean needs", text));
}

template <typename T>
std::string normalize(std::string_view text)
{
	return print_value(parse_value<T>(text));
}

std::string keep(std::string_view text)
{
	if (text.find('\0') != std::string_view::npos)
		throw Failure(Exit::invalid, "a text can't hold a NUL character");
	return std::string(text);
}

// ---- Lists and values ----

template <typename T>
int read_array(const attrpair_t *pair, std::vector<std::string> &values)
{
	T *array = nullptr;
	uint_t count = 0;
	int error = Calls<T>::values(pair, &array, &count);
	for (uint_t i = 0; error == 0 && i < count; i++)
		values.push_back(print_value(array[i]));
	return error;
}

template <typename T>
int read_one(const attrpair_t *pair, std::vector<std::string> &values)
{
	T value = {};
	int error = Calls<T>::value(pair, &value);
	if (error == 0)
		values.push_back(print_value(value));
	return error;
}

template <typename T>
int add_array(attrlist_t *list, const char *name, const std::vector<std::string> &values)
{
	std::vector<T> array;
	array.reserve(values.size());
	for (const std::string &text : values)
		array.push_back(parse_value<T>(text));
	return Calls<T>::add_array(list, name, array.data(), static_cast<uint_t>(array.size()));
}

template <typename T>
int add_one(attrlist_t *list, const char *name, const std::string &value)
{
	return Calls<T>::add_value(list, name, parse_value<T>(value));
}

int read_strings(const attrpair_t *pair, std::vector<std::string> &values)
{
	char **array = nullptr;
	uint_t count = 0;
	int error = attrpair_value_string_array(pair, &array, &count);
	for (uint_t i = 0; error == 0 && i < count; i++)
		values.emplace_back(array[i]);
	return error;
}

int read_string(const attrpair_t *pair, std::vector<std::string> &values)
{
	char *value = nullptr;
	int error = attrpair_value_string(pair, &value);
	if (error == 0)
		values.emplace_back(value);
	return error;
}

int add_strings(attrlist_t *list, const char *name, const std::vector<std::string> &values)
{
	std::vector<char *> array;
	array.reserve(values.size());
	for (const std::string &text : values)
		array.push_back(const_cast<char *>(text.c_str())); // the call only reads
	return attrlist_add_string_array(list, name, array.data(), static_cast<uint_t>(array.size()));
}

int add_string(attrlist_t *list, const char *name, const std::string &value)
{
	return attrlist_add_string(list, name, value.c_str());
}

template <typename T>
constexpr ValueType row(bool numeric)
{
	return {Calls<T>::word, Calls<T>::array_type, Calls<T>::scalar_type, normalize<T>, read_array<T>, read_one<T>,
	    add_array<T>, add_one<T>, numeric, false};
}

constexpr ValueType value_types[] = {
    {"string", DATA_TYPE_STRING_ARRAY, DATA_TYPE_STRING, keep, read_strings, read_string, add_strings, add_string,
	false, true},
    row<boolean_t>(false),
    row<int32_t>(true),
    row<uint32_t>(true),
    row<int64_t>(true),
    row<uint64_t>(true),
};

// A list that can't take what was parsed and checked has run out of memory, or the thing has no name.
void check_list(int error, const std::string &name)
{
	if (error == ENOMEM)
		throw std::bad_alloc();
	if (error != 0)
		throw Failure(exit_of(ostrel_errno2error(error)), fmt::format("'{}' can't be part of an object", name));
}

Property property_from_pair(attrpair_t *pair)
{
	Property property;
	property.name = attrpair_name(pair);
	data_type_t type = attrpair_type(pair);
	for (const ValueType &row : value_types) {
		if (type != row.array && type != row.scalar)
			continue;
		property.type = &row;
		property.scalar = type == row.scalar;
		auto *read = property.scalar ? row.read_scalar : row.read;
		check_list(read(pair, property.values), property.name);
		return property;
	}
	throw Failure(Exit::unsupported, fmt::format("the property {} has a type ({}) that this tool doesn't know",
					     property.name, static_cast<unsigned>(type)));
}

} // namespace

const ValueType *type_by_word(std::string_view word)
{
	for (const ValueType &row : value_types)
		if (word == row.word)
			return &row;
	return nullptr;
}

const ValueType &string_type()
{
	return value_types[0];
}

std::string type_words()
{
	std::string words;
	for (const ValueType &row : value_types)
		words += fmt::format("{}{}", words.empty() ? "" : ", ", row.word);
	return words;
}

bool same_value(const Property &a, const Property &b)
{
	return a.type == b.type && a.values == b.values;
}

bool same_props(const Object &a, const Object &b)
{
	return std::equal(a.props.begin(), a.props.end(), b.props.begin(), b.props.end(),
	    [](const Property &x, const Property &y) { return x.name == y.name && same_value(x, y); });
}

const Property *Object::find(const std::string &name) const
{
	auto found = std::find_if(props.begin(), props.end(), [&](const Property &p) { return p.name == name; });
	return found == props.end() ? nullptr : &*found;
}

Object object_from_lists(attrlist_t *id, attrlist_t *props)
{
	Object object;
	for (attrpair_t *pair = attrlist_next_attrpair(id, nullptr); pair != nullptr;
	     pair = attrlist_next_attrpair(id, pair)) {
		char *value = nullptr;
		if (attrpair_value_string(pair, &value) == 0)
			object.id.emplace_back(attrpair_name(pair), value);
	}
	for (attrpair_t *pair = attrlist_next_attrpair(props, nullptr); pair != nullptr;
	     pair = attrlist_next_attrpair(props, pair))
		object.props.push_back(property_from_pair(pair));
	return object;
}

List id_list(const Identifiers &id, const char *store)
{
	attrlist_t *made = nullptr;
	if (ostrel_idlist_init(&made, store) != OSTREL_SUCCESS)
		throw std::bad_alloc();
	List list(made);
	for (const auto &[name, value] : id) {
		ostrel_error_t result = ostrel_idlist_add(made, name.c_str(), value.c_str());
		if (result == OSTREL_INVALID_ARG)
			throw Failure(Exit::invalid, fmt::format("'{}' can't be the name of an identifier", name));
		check_list(ostrel_error2errno(result), name);
	}
	return list;
}

List props_list(const std::vector<Property> &props)
{
	attrlist_t *made = nullptr;
	check_list(attrlist_alloc(&made, ATL_UNIQUE_NAME, 0), "");
	List list(made);
	for (const Property &property : props) {
		const ValueType &type = *property.type;
		check_list(property.scalar ? type.add_scalar(made, property.name.c_str(), property.values.at(0))
					   : type.add(made, property.name.c_str(), property.values),
		    property.name);
	}
	return list;
}

std::string identity(const Identifiers &id, bool case_sensitive)
{
	Identifiers sorted = id;
	std::sort(sorted.begin(), sorted.end());
	std::string text;
	for (auto &[name, value] : sorted) {
		if (!case_sensitive)
			for (char &byte : value)
				byte = byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
		text += name;
		text += '\0'; // no text holds one
		text += value;
		text += '\0';
	}
	return text;
}

std::string id_text(const Identifiers &id)
{
	std::string text;
	for (const auto &[name, value] : id)
		text += fmt::format("{}{}={}", text.empty() ? "" : " ", visible(name), visible(value));
	return text;
}

std::string shell_words(const Identifiers &id)
{
	std::string words;
	for (const auto &[name, value] : id)
		words += fmt::format(" '{}={}'", visible(name), visible(value));
	return words;
}

std::string value_text(const Property &property)
{
	return join_values(property.values);
}
