// Conversion of property lists between the form in which a daemon works and the form in which they are stored, driven by
// the daemon's table of property descriptors. First what both ways share, then the way to the store, then the way back.
//
// A property is computed whole, in arrays of fixed size on the stack, before the list is touched: one that fails stays as
// it was. Those before it in the table stay converted.
//
// Divisions: what both ways share; to persistent form: a delimited text; to persistent form: texts that stand for typed
// values; to persistent form: numbers that have names; from persistent form.
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "libostrel_log.h"

namespace {

constexpr uint_t values_max = OSTREL_PROP_VALUES_MAX;
constexpr size_t text_size = OSTREL_PROP_TEXT_MAX + 1;

#define TO_PERSIST "%s: could not convert to persistent type: "
#define FROM_PERSIST "%s: could not convert from persistent type: "

// ---- What both ways share ----

// A list of at most 128 values that counts what it is given.
template <typename T>
struct Values {
	T array[values_max];
	uint_t count = 0;

	bool add(T value)
	{
		if (count == values_max)
			return false;
		array[count++] = value;
		return true;
	}
};

using ConvertOne = int (*)(attrlist_t *props, attrpair_t *pair, const ostrel_propdesc_t &desc);

// Goes through the table; the first failure ends the whole. Of the entry that ends it only the name is there for sure.
int convert(attrlist_t *props, size_t size, const void *descs, ConvertOne convert_one)
{
	if (props == nullptr || descs == nullptr || size == 0)
		return EINVAL;
	for (const char *entry = static_cast<const char *>(descs);; entry += size) {
		const auto *desc = static_cast<const ostrel_propdesc_t *>(static_cast<const void *>(entry));
		if (desc->npd_name == nullptr)
			return 0;
		attrpair_t *pair;
		if (attrlist_lookup_attrpair(props, desc->npd_name, &pair) != 0)
			continue;
		if (int error = convert_one(props, pair, *desc))
			return error;
	}
}

bool has_flag(const ostrel_propdesc_t &desc, uint64_t flag)
{
	return (desc.npd_flags & flag) != 0;
}

// ---- To persistent form: a delimited text ----

int split(attrlist_t *props, const char *text, const ostrel_propdesc_t &desc)
{
	if (desc.npd_delimiters == nullptr) {
		ostrel_log(LOG_DEBUG, TO_PERSIST "no delimiters", desc.npd_name);
		return EINVAL;
	}
	char buffer[text_size];
	size_t length = strnlen(text, sizeof(buffer) - 1);
	memcpy(buffer, text, length);
	buffer[length] = '\0';

	Values<char *> values;
	char *rest;
	for (char *value = strtok_r(buffer, desc.npd_delimiters, &rest); value != nullptr;
	     value = strtok_r(nullptr, desc.npd_delimiters, &rest)) {
		if (!values.add(value)) {
			ostrel_log(LOG_DEBUG, "%s: could not convert %s to persistent type: too many delimited values",
			    desc.npd_name, text);
			return EINVAL;
		}
	}
	return values.count == 0 ? 0 : attrlist_add_string_array(props, desc.npd_name, values.array, values.count);
}

// ---- To persistent form: texts that stand for typed values ----

// These return whether the whole of the text was a value.
bool parse_int64(const char *text, int64_t *value)
{
	char *end;
	errno = 0;
	*value = strtoll(text, &end, 0);
	return errno == 0 && *end == '\0';
}

bool parse_uint64(const char *text, uint64_t *value)
{
	char *end;
	errno = 0;
	*value = strtoull(text, &end, 0);
	return errno == 0 && *end == '\0';
}

bool parse_boolean(const char *text, boolean_t *value)
{
	bool is_true = strcasecmp(text, "true") == 0;
	if (is_true || strcasecmp(text, "false") == 0) {
		*value = is_true ? B_TRUE : B_FALSE;
		return true;
	}
	int64_t number;
	if (!parse_int64(text, &number))
		return false;
	*value = static_cast<boolean_t>(number);
	return true;
}

// Parses all texts with `Parse` and puts the array in their place. *failed is the first text that is no value.
template <typename T, auto Parse, auto Add>
int parse_and_add(attrlist_t *props, const char *name, char **texts, uint_t count, const char **failed)
{
	Values<T> values;
	for (uint_t i = 0; i < count; i++) {
		T value;
		if (!Parse(texts[i], &value)) {
			*failed = texts[i];
			return EINVAL;
		}
		(void) values.add(value); // fits: the count was looked at before
	}
	return Add(props, name, values.array, values.count);
}

struct PersistentType {
	data_type_t type;
	const char *word;
	int (*parse)(attrlist_t *props, const char *name, char **texts, uint_t count, const char **failed);
};

constexpr PersistentType persistent_types[] = {
    {DATA_TYPE_BOOLEAN, "boolean", parse_and_add<boolean_t, parse_boolean, attrlist_add_boolean_array>},
    {DATA_TYPE_INT64, "int64", parse_and_add<int64_t, parse_int64, attrlist_add_int64_array>},
    {DATA_TYPE_UINT64, "uint64", parse_and_add<uint64_t, parse_uint64, attrlist_add_uint64_array>},
};

const PersistentType *find_type(uint64_t type)
{
	for (const PersistentType &known : persistent_types) {
		if (known.type == type)
			return &known;
	}
	return nullptr;
}

int too_many_values(const ostrel_propdesc_t &desc)
{
	ostrel_log(LOG_DEBUG, TO_PERSIST "too many values", desc.npd_name);
	return EINVAL;
}

int parse_texts(attrlist_t *props, char **texts, uint_t count, const ostrel_propdesc_t &desc)
{
	if (count > values_max)
		return too_many_values(desc);
	const PersistentType *type = find_type(desc.npd_type);
	const char *failed = nullptr;
	int error = type == nullptr ? EINVAL : type->parse(props, desc.npd_name, texts, count, &failed);
	if (failed != nullptr)
		ostrel_log(
		    LOG_DEBUG, "%s: could not convert %s to persistent type %s", desc.npd_name, failed, type->word);
	else if (error != 0)
		ostrel_log(LOG_DEBUG, "%s: could not add %d %s to proplist", desc.npd_name, static_cast<int>(count),
		    type == nullptr || count == 0 ? "unknown" : type->word);
	return error;
}

// ---- To persistent form: numbers that have names ----

// The names that a property's numbers have, as they are found.
struct Names {
	Values<const char *> values;
	bool unnamed = false; // some number has no persistent form
	uint64_t bits = 0;    // those that the names of a bitfield stand for, over all its numbers
	bool too_many = false;

	void take(const char *name) { too_many = !values.add(name); }
	void take_or_mark(const char *name)
	{
		if (strcmp(name, "?") == 0)
			unnamed = true;
		else
			take(name);
	}
};

const ostrel_valdesc_t *find_value(const ostrel_valdesc_t *vals, uint64_t number)
{
	for (; vals->nvd_name != nullptr; vals++) {
		if (vals->nvd_val == number)
			return vals;
	}
	return nullptr;
}

bool name_number(Names &names, const ostrel_propdesc_t &desc, uint64_t number)
{
	const ostrel_valdesc_t *value = find_value(desc.npd_vals, number);
	if (value != nullptr)
		names.take_or_mark(value->nvd_name);
	else
		ostrel_log(LOG_DEBUG, "%s: could not convert value %" PRIu64, desc.npd_name, number);
	return value != nullptr;
}

bool name_bits(Names &names, const ostrel_propdesc_t &desc, uint64_t number)
{
	if (number == 0) {
		if (const ostrel_valdesc_t *zero = find_value(desc.npd_vals, 0))
			names.take_or_mark(zero->nvd_name);
	}
	for (const ostrel_valdesc_t *val = desc.npd_vals; val->nvd_name != nullptr; val++) {
		if ((val->nvd_val & number) == 0)
			continue;
		names.take(val->nvd_name);
		names.bits |= val->nvd_val;
	}
	if (names.bits != number)
		ostrel_log(LOG_DEBUG, "%s: could not convert bitfield %" PRIu64, desc.npd_name, number);
	return names.bits == number;
}

// Puts the names in the place of the numbers. A property without any name, but with a number that has no persistent form,
// goes; one without either stays.
int store_names(attrlist_t *props, const Names &names, const ostrel_propdesc_t &desc)
{
	if (names.too_many)
		return too_many_values(desc);
	if (names.values.count > 0) {
		auto *array = const_cast<char **>(names.values.array); // the list only reads them
		return attrlist_add_string_array(props, desc.npd_name, array, names.values.count);
	}
	return names.unnamed ? attrlist_remove_all(props, desc.npd_name) : 0;
}

int name_numbers(attrlist_t *props, const uint64_t *numbers, uint_t count, const ostrel_propdesc_t &desc)
{
	auto name_one = has_flag(desc, OSTREL_PROP_BITFIELD) ? name_bits : name_number;
	Names names;
	for (uint_t i = 0; i < count; i++) {
		if (!name_one(names, desc, numbers[i]))
			return EINVAL;
	}
	return store_names(props, names, desc);
}

int print_numbers(attrlist_t *props, const uint64_t *numbers, uint_t count, const ostrel_propdesc_t &desc)
{
	char texts[values_max][sizeof("18446744073709551615")];
	Names names;
	for (uint_t i = 0; i < count; i++) {
		(void) snprintf(texts[i], sizeof(texts[i]), "%" PRIu64, numbers[i]);
		names.take(texts[i]);
	}
	return store_names(props, names, desc);
}

int convert_numbers(attrlist_t *props, const uint64_t *numbers, uint_t count, const ostrel_propdesc_t &desc)
{
	if (count > values_max)
		return too_many_values(desc);
	if (desc.npd_vals != nullptr)
		return name_numbers(props, numbers, count, desc);
	return desc.npd_type == DATA_TYPE_STRING ? print_numbers(props, numbers, count, desc) : 0;
}

// The first rule that applies decides; a value for which there is none stays as it is.
int to_persist(attrlist_t *props, attrpair_t *pair, const ostrel_propdesc_t &desc)
{
	char *text;
	char **texts;
	uint64_t *numbers;
	uint_t count;

	if (has_flag(desc, OSTREL_PROP_NO_CONVERT) || desc.npd_type == DATA_TYPE_UNKNOWN)
		return 0;
	if (has_flag(desc, OSTREL_PROP_DELIMITED) && ostrel_atp_get_one_string(pair, &text) == 0)
		return split(props, text, desc);
	if (desc.npd_type != DATA_TYPE_STRING && attrpair_value_string_array(pair, &texts, &count) == 0)
		return parse_texts(props, texts, count, desc);
	if (attrpair_value_uint64_array(pair, &numbers, &count) == 0)
		return convert_numbers(props, numbers, count, desc);
	return 0;
}

// ---- From persistent form ----

// Appends a text to a buffer of text_size bytes that holds `length` bytes so far; false if it doesn't fit.
bool append(char *buffer, size_t *length, const char *text)
{
	size_t more = strnlen(text, text_size);
	if (more >= text_size - *length)
		return false;
	memcpy(buffer + *length, text, more + 1);
	*length += more;
	return true;
}

int join(attrlist_t *props, char **texts, uint_t count, const ostrel_propdesc_t &desc)
{
	if (desc.npd_delimiters == nullptr) {
		ostrel_log(LOG_DEBUG, FROM_PERSIST "no delimiters", desc.npd_name);
		return EINVAL;
	}
	char buffer[text_size] = "";
	size_t length = 0;
	for (uint_t i = 0; i < count; i++) {
		bool fits = i == 0 || append(buffer, &length, desc.npd_delimiters);
		if (!fits || !append(buffer, &length, texts[i])) {
			ostrel_log(LOG_DEBUG, FROM_PERSIST "delimited value too long", desc.npd_name);
			return 0; // no failure: it can be read, in its persistent form
		}
	}
	return ostrel_atl_add_one_string(props, desc.npd_name, buffer);
}

// Calls `take` with the number of each entry of the table that has the text's name. EINVAL if there is none.
template <typename Take>
int find_numbers(const char *text, const ostrel_propdesc_t &desc, Take take)
{
	bool found = false;
	for (const ostrel_valdesc_t *val = desc.npd_vals; val->nvd_name != nullptr; val++) {
		if (strcasecmp(val->nvd_name, text) == 0) {
			take(val->nvd_val);
			found = true;
		}
	}
	if (!found)
		ostrel_log(LOG_DEBUG, "%s: could not convert value string %s to valid value", desc.npd_name, text);
	return found ? 0 : EINVAL;
}

int make_numbers(attrlist_t *props, char **texts, uint_t count, const ostrel_propdesc_t &desc)
{
	Values<uint64_t> numbers;
	bool fits = true;
	for (uint_t i = 0; i < count; i++) {
		if (int error = find_numbers(texts[i], desc, [&](uint64_t val) { fits = numbers.add(val); }))
			return error;
	}
	if (!fits) { // names that repeat in the table give more numbers than there are texts
		ostrel_log(LOG_DEBUG, FROM_PERSIST "too many values", desc.npd_name);
		return EINVAL;
	}
	return attrlist_add_uint64_array(props, desc.npd_name, numbers.array, numbers.count);
}

int make_bits(attrlist_t *props, char **texts, uint_t count, const ostrel_propdesc_t &desc)
{
	uint64_t bits = 0;
	for (uint_t i = 0; i < count; i++) {
		if (int error = find_numbers(texts[i], desc, [&](uint64_t val) { bits |= val; }))
			return error;
	}
	return ostrel_atl_add_one_uint64(props, desc.npd_name, bits);
}

int from_persist(attrlist_t *props, attrpair_t *pair, const ostrel_propdesc_t &desc)
{
	char **texts;
	uint_t count;

	if (attrpair_value_string_array(pair, &texts, &count) != 0 || has_flag(desc, OSTREL_PROP_NO_CONVERT))
		return 0;
	if (count > values_max) {
		ostrel_log(LOG_DEBUG, FROM_PERSIST "too many values", desc.npd_name);
		return 0; // no failure: it can be read, in its persistent form
	}
	if (has_flag(desc, OSTREL_PROP_DELIMITED))
		return join(props, texts, count, desc);
	if (desc.npd_vals == nullptr)
		return 0;
	auto make = has_flag(desc, OSTREL_PROP_BITFIELD) ? make_bits : make_numbers;
	return make(props, texts, count, desc);
}

} // namespace

int ostrel_valdescs_count(const ostrel_valdesc_t *vals)
{
	int count = 0;
	if (vals != nullptr) {
		while (vals[count].nvd_name != nullptr)
			count++;
	}
	return count;
}

int ostrel_proplist_convert_to_persist(attrlist_t *props, size_t size, const void *descs)
{
	return convert(props, size, descs, to_persist);
}

int ostrel_proplist_convert_from_persist(attrlist_t *props, size_t size, const void *descs)
{
	return convert(props, size, descs, from_persist);
}
