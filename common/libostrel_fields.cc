// Plain lines, taken apart. First all bytes of a block that have a meaning are found, 64 at a time; then a line is gone
// through from one such byte to the next.
#include "libostrel_fields.h"

#include <bit>
#include <climits>
#include <cstring>
#include <strings.h>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "libostrel_lines.h"

// ---- Where the structure is ----

// Control bytes up to the newline are among them, though only NUL, TAB and newline mean something: a line that holds
// another is odd, so that one test covers them all.
#ifdef __SSE2__
static uint64_t structure_of_16(const char *bytes)
{
	const __m128i data = _mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes));
	const __m128i newline = _mm_set1_epi8('\n');
	__m128i found = _mm_cmpeq_epi8(_mm_max_epu8(data, newline), newline);
	static constexpr char marks[] = {';', '=', ',', '\\'};
	for (char mark : marks)
		found = _mm_or_si128(found, _mm_cmpeq_epi8(data, _mm_set1_epi8(mark)));
	return static_cast<uint64_t>(_mm_movemask_epi8(found));
}

static uint64_t structure_of_64(const char *bytes)
{
	return structure_of_16(bytes) | structure_of_16(bytes + 16) << 16 | structure_of_16(bytes + 32) << 32 |
	       structure_of_16(bytes + 48) << 48;
}
#else
static uint64_t structure_of_64(const char *bytes)
{
	uint64_t found = 0;
	for (size_t i = 0; i < 64; i++) {
		unsigned char c = static_cast<unsigned char>(bytes[i]);
		bool meant = c <= '\n' || c == ';' || c == '=' || c == ',' || c == '\\';
		found |= uint64_t{meant} << i;
	}
	return found;
}
#endif

void StructureIndex::build(const char *begin, const char *end)
{
	begin_ = begin;
	size_t word = 0;
	for (const char *at = begin; at < end; at += 64)
		bits_[word++] = structure_of_64(at);
}

// ---- Values ----

// The eight bytes at `text`, of which those behind `length` are replaced by leading zeros: digits of one number.
static uint64_t eight_digits(const char *text, size_t length)
{
	static constexpr uint64_t zeros = 0x3030303030303030;
	uint64_t bytes;
	memcpy(&bytes, text, sizeof(bytes));
	if (length < 8)
		bytes = bytes << (64 - 8 * length) | zeros >> (8 * length);
	return bytes;
}

static bool all_digits(uint64_t bytes)
{
	return ((bytes & 0xf0f0f0f0f0f0f0f0) | ((bytes + 0x0606060606060606) & 0xf0f0f0f0f0f0f0f0) >> 4) ==
	       0x3333333333333333;
}

// Digits two by two, four by four, then both halves.
static uint64_t value_of_digits(uint64_t bytes)
{
	bytes = (bytes & 0x0f0f0f0f0f0f0f0f) * 2561 >> 8;
	bytes = (bytes & 0x00ff00ff00ff00ff) * 6553601 >> 16;
	return (bytes & 0x0000ffff0000ffff) * 42949672960001 >> 32;
}

// One to 18 digits; false for anything else.
static bool parse_digits(const char *text, size_t length, uint64_t *value)
{
	if (length == 0 || length > 18)
		return false;
	*value = 0;
	if constexpr (std::endian::native == std::endian::little) {
		for (size_t chunk = (length - 1) % 8 + 1; length > 0; chunk = 8) {
			uint64_t bytes = eight_digits(text, chunk);
			if (!all_digits(bytes))
				return false;
			*value = *value * 100000000 + value_of_digits(bytes);
			text += chunk;
			length -= chunk;
		}
		return true;
	}
	for (; length > 0; length--, text++) {
		if (*text < '0' || *text > '9')
			return false;
		*value = *value * 10 + static_cast<uint64_t>(*text - '0');
	}
	return true;
}

// False for what only the general reader takes. *as_written: the writer prints the number like this.
static bool parse_number(const char *text, const char *end, bool wide, int64_t *number, bool *as_written)
{
	bool negative = *text == '-';
	const char *digits = text + negative;
	uint64_t value;
	if (!parse_digits(digits, static_cast<size_t>(end - digits), &value))
		return false;
	*number = negative ? -static_cast<int64_t>(value) : static_cast<int64_t>(value);
	bool leading_zero = *digits == '0' && (negative || end - digits > 1);
	if (leading_zero || (!wide && (*number < INT32_MIN || *number > INT32_MAX)))
		*as_written = false;
	return true;
}

static bool parse_boolean(const char *text, const char *end, int64_t *number)
{
	uint32_t first;
	memcpy(&first, text, sizeof(first));
	uint32_t last;
	memcpy(&last, end - sizeof(last), sizeof(last));
	uint32_t words[2]; // "true" and the end of "false"
	memcpy(words, "truealse", sizeof(words));
	*number = end - text == 4 && first == words[0];
	return *number != 0 || (end - text == 5 && *text == 'f' && last == words[1]);
}

// ---- Properties ----

// A word of up to 8 bytes as a number, for a comparison in one step.
static constexpr uint64_t word_value(const char *word, size_t length)
{
	uint64_t value = 0;
	for (size_t i = 0; i < length; i++) {
		size_t place = std::endian::native == std::endian::little ? i : 7 - i;
		value |= static_cast<uint64_t>(static_cast<unsigned char>(word[i])) << (8 * place);
	}
	return value;
}

struct TypeWord {
	uint64_t word;
	data_type_t type;
};

static constexpr TypeWord type_words[] = {
    {word_value("string", 6), DATA_TYPE_STRING_ARRAY},
    {word_value("uint32", 6), DATA_TYPE_UINT32_ARRAY},
    {word_value("boolean", 7), DATA_TYPE_BOOLEAN_ARRAY},
    {word_value("int64", 5), DATA_TYPE_INT64_ARRAY},
    {word_value("int32", 5), DATA_TYPE_INT32_ARRAY},
    {word_value("uint64", 6), DATA_TYPE_UINT64_ARRAY},
};

// DATA_TYPE_UNKNOWN for a word that isn't in the writer's spelling.
static data_type_t type_of(const char *word, const char *end)
{
	size_t length = static_cast<size_t>(end - word);
	if (length > 7)
		return DATA_TYPE_UNKNOWN;
	uint64_t value = 0;
	memcpy(&value, word, sizeof(value)); // what is behind the word is cut off
	unsigned excess = static_cast<unsigned>(64 - 8 * length);
	if constexpr (std::endian::native == std::endian::little)
		value = length == 0 ? 0 : value << excess >> excess;
	else
		value = length == 0 ? 0 : value >> excess << excess;
	for (const TypeWord &row : type_words)
		if (row.word == value)
			return row.type;
	return DATA_TYPE_UNKNOWN;
}

// A line on its way into its fields.
struct Taking {
	StructureCursor cursor;
	ostrel_fields *fields;
	const char *at; // the byte of structure that was reached

	void advance() { at = cursor.next(); }
};

static attrtext_t text_between(const char *begin, const char *end)
{
	return {begin, static_cast<size_t>(end - begin)};
}

// Goes to the end of a string value. False: odd.
static bool take_string(Taking *line)
{
	ostrel_fields *fields = line->fields;
	const char *begin = line->at + 1;
	if (fields->text_count == ostrel_fields::values_max)
		return false;
	for (;;) {
		line->advance();
		switch (*line->at) {
		case ',':
		case ';':
		case '\n':
			fields->texts[fields->text_count++] = text_between(begin, line->at);
			return true;
		case '=':
		case '\t':
			continue;
		case '\\':
			break;
		default:
			return false;
		}
		fields->has_escapes = true;
		const char *hidden = line->at + 1;
		if (*hidden == ',' || *hidden == ';' || *hidden == '\\') {
			line->advance();
			continue;
		}
		fields->as_written = false;
		if (*hidden == '\n' || *hidden == '\0')
			return false;
		line->cursor.seek(hidden + 1);
	}
}

// Goes to the end of a number or boolean, which becomes element `index` of the numbers. False: odd.
static bool take_number(Taking *line, data_type_t type, uint_t index, int64_t *numbers)
{
	const char *begin = line->at + 1;
	int64_t number;
	line->advance();
	if (type == DATA_TYPE_INT64_ARRAY || type == DATA_TYPE_UINT64_ARRAY)
		return parse_number(begin, line->at, true, &numbers[index], &line->fields->as_written);
	bool taken = type == DATA_TYPE_BOOLEAN_ARRAY
			 ? parse_boolean(begin, line->at, &number)
			 : parse_number(begin, line->at, false, &number, &line->fields->as_written);
	if (!taken)
		return false;
	int32_t narrow = static_cast<int32_t>(number);
	memcpy(reinterpret_cast<char *>(numbers) + index * sizeof(narrow), &narrow, sizeof(narrow));
	return true;
}

// The values of a property, each behind a comma; ends at what closes the property.
static bool take_values(Taking *line, attrdraft_t *property)
{
	ostrel_fields *fields = line->fields;
	bool strings = property->type == DATA_TYPE_STRING_ARRAY;
	int64_t *numbers = fields->numbers + fields->number_count;
	uint_t count = 0;
	property->elements = strings ? static_cast<const void *>(fields->texts + fields->text_count) : numbers;
	for (; *line->at == ','; count++) {
		if (line->at[1] == ';' || line->at[1] == '\n') {
			// A comma at the very end starts no value.
			fields->as_written = false;
			line->advance();
			break;
		}
		if (!strings && fields->number_count + count == ostrel_fields::values_max)
			return false;
		if (!(strings ? take_string(line) : take_number(line, property->type, count, numbers)))
			return false;
	}
	property->count = count;
	if (!strings)
		fields->number_count += count;
	return *line->at == ';' || *line->at == '\n';
}

static bool same_text(const attrtext_t &a, const attrtext_t &b)
{
	if (a.length != b.length || a.length == 0)
		return a.length == b.length;
	// The last byte tells most texts apart, without a call.
	return a.text[a.length - 1] == b.text[a.length - 1] && memcmp(a.text, b.text, a.length) == 0;
}

// One property, from behind the byte that was reached.
static bool take_property(Taking *line)
{
	ostrel_fields *fields = line->fields;
	if (fields->property_count == ostrel_fields::properties_max)
		return false;
	attrdraft_t *property = &fields->properties[fields->property_count];
	const char *name = line->at + 1;
	line->advance();
	if (*line->at != '=')
		return false;
	property->name = text_between(name, line->at);
	for (size_t i = 0; i < fields->property_count; i++)
		if (same_text(fields->properties[i].name, property->name))
			return false;
	fields->property_count++;
	const char *word = line->at + 1;
	line->advance();
	property->type = type_of(word, line->at);
	return property->type != DATA_TYPE_UNKNOWN && take_values(line, property);
}

// From the TAB to the newline.
static bool take_properties(Taking *line)
{
	while (line->at[1] != '\n') {
		if (!take_property(line))
			return false;
		if (*line->at == '\n') {
			line->fields->as_written = false; // the last piece isn't closed
			return true;
		}
	}
	line->advance();
	return true;
}

// ---- Identifiers ----

// Names that can't be stored.
static bool is_reserved(const attrtext_t &name)
{
	static constexpr attrtext_t reserved[] = {
	    {OSTREL_ID_DB_NAME, sizeof(OSTREL_ID_DB_NAME) - 1},
	    {OSTREL_ID_ID_STRING, sizeof(OSTREL_ID_ID_STRING) - 1},
	};
	return same_text(name, reserved[0]) || same_text(name, reserved[1]);
}

// One identifier, from `begin`. Ends at what closes it.
static bool take_identifier(Taking *line, const char *begin)
{
	ostrel_fields *fields = line->fields;
	if (fields->identifier_count == ostrel_fields::identifiers_max)
		return false;
	attrdraft_t *identifier = &fields->identifiers[fields->identifier_count];
	line->advance();
	while (*line->at == ',')
		line->advance();
	if (*line->at != '=')
		return false;
	identifier->name = text_between(begin, line->at);
	const char *value = line->at + 1;
	do
		line->advance();
	while (*line->at == '=' || *line->at == ',');
	for (uint_t i = 0; i < fields->identifier_count; i++)
		if (same_text(fields->identifiers[i].name, identifier->name))
			return false;
	identifier->type = DATA_TYPE_STRING;
	identifier->count = 1;
	identifier->elements = &fields->identifier_values[fields->identifier_count];
	fields->identifier_values[fields->identifier_count++] = text_between(value, line->at);
	return !is_reserved(identifier->name);
}

// From the first byte to the TAB, or to the newline if there is none. False: odd.
static bool take_identifiers(Taking *line, const char *begin)
{
	for (;;) {
		if (!take_identifier(line, begin))
			return false;
		if (*line->at != ';') {
			line->fields->as_written = false; // the last piece isn't closed
			return *line->at == '\t' || *line->at == '\n';
		}
		begin = line->at + 1;
		if (*begin == '\t' || *begin == '\n') {
			line->advance();
			return true;
		}
	}
}

bool ostrel_take_apart(const char *line, StructureCursor *cursor, ostrel_fields *fields, const char **newline)
{
	fields->identifier_count = fields->property_count = fields->text_count = fields->number_count = 0;
	fields->has_escapes = false;
	fields->as_written = true;
	fields->begin = line;
	if (ostrel_line_space(*line) || *line == '#')
		return false;
	Taking taking = {*cursor, fields, line};
	if (!take_identifiers(&taking, line))
		return false;
	if (*taking.at == '\n')
		fields->as_written = false; // the writer ends the identifiers with a TAB
	else if (!take_properties(&taking))
		return false;
	*newline = taking.at;
	*cursor = taking.cursor;
	return true;
}

bool ostrel_is_as_written(const ostrel_fields &fields)
{
	const attrtext_t &last = fields.identifier_values[fields.identifier_count - 1];
	if (!fields.as_written || last.text + last.length + 1 - fields.begin >= OSTREL_IDSTR_SIZE)
		return false;
	for (uint_t i = 0; i < fields.text_count; i++)
		if (fields.texts[i].length >= OSTREL_ESCAPED_SIZE)
			return false;
	return true;
}

// ---- Making the object ----

// Drops each backslash and takes the byte after it as it is.
static void remove_escapes(attrtext_t *text)
{
	const char *from = static_cast<const char *>(memchr(text->text, '\\', text->length));
	if (from == nullptr)
		return;
	const char *end = text->text + text->length;
	char *to = const_cast<char *>(from); // the reader's buffer
	for (; from < end; from++) {
		if (*from == '\\')
			from++;
		*to++ = *from;
	}
	text->length = static_cast<size_t>(to - text->text);
}

ostrel_error_t ostrel_make_object(ostrel_fields *fields, bool with_props, attrlist_t **object)
{
	for (uint_t i = 0; fields->has_escapes && i < fields->text_count; i++)
		remove_escapes(&fields->texts[i]);
	attrdraft_t parts[] = {
	    {{OSTREL_OBJECT_IDLIST, sizeof(OSTREL_OBJECT_IDLIST) - 1}, DATA_TYPE_ATTRLIST, fields->identifier_count,
		fields->identifiers},
	    {{OSTREL_OBJECT_PROPS, sizeof(OSTREL_OBJECT_PROPS) - 1}, DATA_TYPE_ATTRLIST, fields->property_count,
		fields->properties},
	};
	return ostrel_errno2error(attrlist_build(object, parts, with_props ? 2 : 1));
}

// ---- Comparing identifiers ----

bool FieldMatch::prepare(ostrel_db_t db, attrlist_t *idlist, bool exact)
{
	exact_ = exact;
	with_case_ = (ostrel_db_get_flags(db) & OSTREL_DB_CASE_SENSITIVE) != 0;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(idlist, pair)) != nullptr;) {
		const char *name = attrpair_name(pair);
		ostrel_wanted wanted = {{name, strlen(name)}, {nullptr, 0}};
		if (is_reserved(wanted.name))
			continue;
		char *value = nullptr;
		if (count_ == ostrel_fields::identifiers_max || attrpair_value_string(pair, &value) != 0)
			return false;
		wanted.value = {value, strlen(value)};
		wanted_[count_++] = wanted;
	}
	return true;
}

bool FieldMatch::selects(const ostrel_fields &fields) const
{
	if (exact_ && fields.identifier_count != count_)
		return false;
	for (size_t i = 0; i < count_; i++) {
		const ostrel_wanted &wanted = wanted_[i];
		uint_t place = 0;
		while (place < fields.identifier_count && !same_text(fields.identifiers[place].name, wanted.name))
			place++;
		if (place == fields.identifier_count)
			return false;
		const attrtext_t &stored = fields.identifier_values[place];
		if (!exact_ && wanted.value.length == 0)
			continue;
		if (stored.length != wanted.value.length)
			return false;
		const char *a = stored.text;
		const char *b = wanted.value.text;
		if (with_case_ ? memcmp(a, b, stored.length) != 0 : strncasecmp(a, b, stored.length) != 0)
			return false;
	}
	return true;
}
