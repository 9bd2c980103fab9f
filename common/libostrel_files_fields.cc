// The fast path. Divisions: where the structure is, values, properties, identifiers, making the object, comparing identifiers.
#include "libostrel_files_fields.h"

#include <bit>
#include <cctype>
#include <climits>
#include <cstring>
#include <strings.h>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "libostrel_idlist.h"
#include "libostrel_lines.h"
#include "libostrel_objects.h"

// ---- Where the structure is ----

// All control bytes up to the newline are marked, though only NUL, TAB and newline mean something: so one comparison covers
// them. A line that holds any of the others takes the general path.
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
	uint64_t *bits = bits_;
	for (const char *at = begin; at < end; at += 64)
		*bits++ = structure_of_64(at);
}

// ---- Values ----

// Up to eight digits as one little-endian number, with the digit zero before the first.
static uint64_t eight_digits(const char *text, size_t length)
{
	static constexpr uint64_t zeros = 0x3030303030303030;
	if constexpr (std::endian::native == std::endian::little) {
		uint64_t bytes;
		memcpy(&bytes, text, sizeof(bytes)); // what follows the digits is shifted out
		return length < 8 ? bytes << (64 - 8 * length) | zeros >> (8 * length) : bytes;
	}
	uint64_t bytes = zeros;
	for (size_t i = 0; i < length; i++)
		bytes = bytes >> 8 | static_cast<uint64_t>(static_cast<unsigned char>(text[i])) << 56;
	return bytes;
}

static bool all_digits(uint64_t bytes)
{
	return ((bytes & 0xf0f0f0f0f0f0f0f0) | ((bytes + 0x0606060606060606) & 0xf0f0f0f0f0f0f0f0) >> 4) ==
	       0x3333333333333333;
}

// Adds up digits to pairs, pairs to fours, fours to the value, each step for all at once.
static uint64_t value_of_digits(uint64_t bytes)
{
	bytes = (bytes & 0x0f0f0f0f0f0f0f0f) * 2561 >> 8;
	bytes = (bytes & 0x00ff00ff00ff00ff) * 6553601 >> 16;
	return (bytes & 0x0000ffff0000ffff) * 42949672960001 >> 32;
}

// Whether these are 1 to 18 digits. So many fit 64 bits whatever they are.
static bool are_digits(const char *text, size_t length)
{
	if (length == 0 || length > 18)
		return false;
	for (size_t chunk = (length - 1) % 8 + 1; length > 0; chunk = 8) {
		if (!all_digits(eight_digits(text, chunk)))
			return false;
		text += chunk;
		length -= chunk;
	}
	return true;
}

// The value of a text that is_number().
static int64_t value_of_number(const attrtext_t &number)
{
	bool negative = *number.text == '-';
	const char *digits = number.text + negative;
	size_t length = number.length - negative;
	int64_t value = 0;
	for (size_t chunk = (length - 1) % 8 + 1; length > 0; chunk = 8) {
		value = value * 100000000 + static_cast<int64_t>(value_of_digits(eight_digits(digits, chunk)));
		digits += chunk;
		length -= chunk;
	}
	return negative ? -value : value;
}

// Whether it is a number in the usual form: digits, and a minus sign or none. Clears *as_written if the writer would print it in
// another form.
static bool is_number(const attrtext_t &number, bool wide, bool *as_written)
{
	bool negative = *number.text == '-';
	size_t length = number.length - negative;
	const char *digits = number.text + negative;
	if (!are_digits(digits, length))
		return false;
	if (*digits == '0' && (negative || length > 1))
		*as_written = false;
	if (!wide && length > 9) {
		int64_t value = value_of_number(number);
		if (value < INT32_MIN || value > INT32_MAX)
			*as_written = false;
	}
	return true;
}

static bool is_boolean(const attrtext_t &word)
{
	return (word.length == 4 && memcmp(word.text, "true", 4) == 0) ||
	       (word.length == 5 && memcmp(word.text, "false", 5) == 0);
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
	memcpy(&value, word, sizeof(value)); // what follows the word is cut off
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

// The state of taking a line apart. It is a local variable whose address no call that isn't inlined gets: so the compiler keeps
// it in registers through the loops below. The counts go into the fields at the end.
struct Taking {
	StructureCursor cursor;
	const char *at; // the marked byte that was reached
	ostrel_fields *fields;
	uint_t identifiers = 0;
	uint_t properties = 0;
	uint_t values = 0;
	// As long as each piece begins as in the line before, its name and type are known, and so is that the names differ.
	uint_t alike_identifiers = fields->known_identifiers;
	uint_t alike_properties = fields->known_properties;
	bool has_escapes = false;
	bool as_written = true;

	void advance() { at = cursor.next(); }
};

#define HOT [[gnu::always_inline]] static inline

static uint64_t eight_bytes(const char *text)
{
	uint64_t bytes;
	memcpy(&bytes, text, sizeof(bytes));
	return bytes;
}

// Whether both texts, which lie in a block, begin with the same `length` bytes. The block may end before `length`: so this reads at
// most sixteen bytes after the first that differs, while memcmp() may read all.
HOT bool begin_alike(const char *a, const char *b, size_t length)
{
	for (; length > 16; a += 8, b += 8, length -= 8)
		if (eight_bytes(a) != eight_bytes(b))
			return false;
	if (length >= 8)
		return ((eight_bytes(a) ^ eight_bytes(b)) |
			   (eight_bytes(a + length - 8) ^ eight_bytes(b + length - 8))) == 0;
	for (size_t i = 0; i < length; i++)
		if (a[i] != b[i])
			return false;
	return true;
}

static attrtext_t text_between(const char *begin, const char *end)
{
	return {begin, static_cast<size_t>(end - begin)};
}

// The functions below that return bool return false for a line that must take the general path.

// Goes to the end of a string value.
HOT bool take_string(Taking *line, attrtext_t *value)
{
	const char *begin = line->at + 1;
	for (;;) {
		line->advance();
		switch (*line->at) {
		case ',':
		case ';':
		case '\n':
			*value = text_between(begin, line->at);
			return true;
		case '=':
		case '\t':
			continue;
		case '\\':
			break;
		default:
			return false;
		}
		line->has_escapes = true;
		const char *escaped = line->at + 1;
		if (*escaped == ',' || *escaped == ';' || *escaped == '\\') {
			line->advance();
			continue;
		}
		line->as_written = false;
		if (*escaped == '\n' || *escaped == '\0')
			return false;
		line->cursor.skip_to(escaped + 1);
	}
}

// Goes to the end of a number or boolean.
HOT bool take_number_or_boolean(Taking *line, data_type_t type, attrtext_t *value)
{
	const char *begin = line->at + 1;
	line->advance();
	*value = text_between(begin, line->at);
	if (type == DATA_TYPE_BOOLEAN_ARRAY)
		return is_boolean(*value);
	bool wide = type == DATA_TYPE_INT64_ARRAY || type == DATA_TYPE_UINT64_ARRAY;
	return is_number(*value, wide, &line->as_written);
}

// The values of a property, each after a comma. Ends at the byte that closes the property.
HOT bool take_values(Taking *line, attrdraft_t *property)
{
	attrtext_t *first = &line->fields->values[line->values];
	attrtext_t *value = first;
	for (; *line->at == ','; value++) {
		if (line->at[1] == ';' || line->at[1] == '\n') {
			// A comma at the end of the property starts no value.
			line->as_written = false;
			line->advance();
			break;
		}
		if (value == line->fields->values + ostrel_fields::values_max)
			return false;
		bool taken = property->type == DATA_TYPE_STRING_ARRAY
				 ? take_string(line, value)
				 : take_number_or_boolean(line, property->type, value);
		if (!taken)
			return false;
	}
	property->elements = first;
	property->count = static_cast<uint_t>(value - first);
	line->values += property->count;
	return *line->at == ';' || *line->at == '\n';
}

static bool same_text(const attrtext_t &a, const attrtext_t &b)
{
	if (a.length != b.length || a.length == 0)
		return a.length == b.length;
	// Most texts differ in their last byte, which costs no call.
	return a.text[a.length - 1] == b.text[a.length - 1] && memcmp(a.text, b.text, a.length) == 0;
}

// The name and type of a property, from `name`. Ends after the type. Not inlined, and given a copy of the state: it is called
// for lines that begin unlike the one before.
[[gnu::noinline]] static bool take_head(Taking *line, const char *name)
{
	attrdraft_t *property = &line->fields->properties[line->properties];
	line->advance();
	if (*line->at != '=')
		return false;
	property->name = text_between(name, line->at);
	for (uint_t i = 0; i < line->properties; i++)
		if (same_text(line->fields->properties[i].name, property->name))
			return false;
	const char *word = line->at + 1;
	line->advance();
	property->type = type_of(word, line->at);
	line->fields->property_heads[line->properties] = static_cast<uint16_t>(line->at - name);
	line->alike_properties = 0;
	return property->type != DATA_TYPE_UNKNOWN;
}

// One property, from the byte after the one that was reached.
HOT bool take_property(Taking *line)
{
	if (line->properties == ostrel_fields::properties_max)
		return false;
	attrdraft_t *property = &line->fields->properties[line->properties];
	size_t head = line->fields->property_heads[line->properties];
	const char *name = line->at + 1;
	if (line->properties < line->alike_properties && begin_alike(name, property->name.text, head)) {
		property->name.text = name;
		(void) line->cursor.next(); // the `=`
		line->advance();
		if (line->at != name + head)
			return false; // the type word is longer than in the line before
	} else {
		Taking copy = *line;
		bool taken = take_head(&copy, name);
		*line = copy;
		if (!taken)
			return false;
	}
	line->properties++;
	return take_values(line, property);
}

// From the TAB to the newline.
HOT bool take_properties(Taking *line)
{
	while (line->at[1] != '\n') {
		if (!take_property(line))
			return false;
		if (*line->at == '\n') {
			line->as_written = false; // the last piece isn't closed
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

// The name of an identifier, from `begin`. Ends at the `=`.
[[gnu::noinline]] static bool take_name(Taking *line, const char *begin)
{
	attrdraft_t *identifier = &line->fields->identifiers[line->identifiers];
	do
		line->advance();
	while (*line->at == ',');
	if (*line->at != '=')
		return false;
	identifier->name = text_between(begin, line->at);
	for (uint_t i = 0; i < line->identifiers; i++)
		if (same_text(line->fields->identifiers[i].name, identifier->name))
			return false;
	identifier->type = DATA_TYPE_STRING;
	identifier->count = 1;
	identifier->elements = &line->fields->identifier_values[line->identifiers];
	line->alike_identifiers = 0;
	return !is_reserved(identifier->name);
}

// One identifier, from `begin`. Ends at what closes it.
HOT bool take_identifier(Taking *line, const char *begin)
{
	if (line->identifiers == ostrel_fields::identifiers_max)
		return false;
	attrdraft_t *identifier = &line->fields->identifiers[line->identifiers];
	size_t head = identifier->name.length + 1; // with the `=`
	if (line->identifiers < line->alike_identifiers && begin_alike(begin, identifier->name.text, head)) {
		identifier->name.text = begin;
		do
			line->advance();
		while (*line->at == ',');
	} else {
		Taking copy = *line;
		bool taken = take_name(&copy, begin);
		*line = copy;
		if (!taken)
			return false;
	}
	const char *value = line->at + 1;
	do
		line->advance();
	while (*line->at == '=' || *line->at == ',');
	line->fields->identifier_values[line->identifiers++] = text_between(value, line->at);
	return true;
}

// From the first byte to the TAB, or to the newline if there is none.
HOT bool take_identifiers(Taking *line, const char *begin)
{
	for (;;) {
		if (!take_identifier(line, begin))
			return false;
		if (*line->at != ';') {
			line->as_written = false; // the last piece isn't closed
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
	if (ostrel_line_space(*line) || *line == '#')
		return false;
	Taking taking = {*cursor, line, fields};
	fields->forget();
	if (!take_identifiers(&taking, line))
		return false;
	if (*taking.at == '\n')
		taking.as_written = false; // the writer ends the identifiers with a TAB
	else if (!take_properties(&taking))
		return false;
	fields->known_identifiers = fields->identifier_count = taking.identifiers;
	fields->known_properties = fields->property_count = taking.properties;
	fields->value_count = taking.values;
	fields->begin = line;
	fields->has_escapes = taking.has_escapes;
	fields->as_written = taking.as_written;
	*newline = taking.at;
	*cursor = taking.cursor;
	return true;
}

bool ostrel_is_as_written(const ostrel_fields &fields, const char *newline)
{
	if (!fields.as_written || newline - fields.begin < OSTREL_IDSTR_SIZE)
		return fields.as_written; // such a line holds nothing that is too long
	const attrtext_t &last = fields.identifier_values[fields.identifier_count - 1];
	if (last.text + last.length + 1 - fields.begin >= OSTREL_IDSTR_SIZE)
		return false;
	for (uint_t i = 0; i < fields.value_count; i++)
		if (fields.values[i].length >= OSTREL_ESCAPED_SIZE)
			return false;
	return true;
}

// ---- Making the object ----

// Removes each backslash that isn't itself escaped, in place.
static void remove_escapes(attrtext_t *text)
{
	const char *from = static_cast<const char *>(memchr(text->text, '\\', text->length));
	if (from == nullptr)
		return;
	const char *end = text->text + text->length;
	char *to = const_cast<char *>(from); // in the buffer of a BlockReader, whose bytes may be changed
	for (; from < end; from++) {
		if (*from == '\\')
			from++;
		*to++ = *from;
	}
	text->length = static_cast<size_t>(to - text->text);
}

// Room for the numbers of a line. Each property begins at an element of 64 bits, whatever its type.
struct Numbers {
	int64_t elements[ostrel_fields::values_max];
	size_t used;
};

template <typename T>
static void convert_elements(attrdraft_t *property, Numbers *numbers)
{
	const attrtext_t *values = static_cast<const attrtext_t *>(property->elements);
	T *elements = reinterpret_cast<T *>(numbers->elements + numbers->used);
	bool words = property->type == DATA_TYPE_BOOLEAN_ARRAY;
	for (uint_t i = 0; i < property->count; i++)
		elements[i] = static_cast<T>(words ? *values[i].text == 't' : value_of_number(values[i]));
	property->elements = elements;
	numbers->used += property->count;
}

// Replaces the texts of a property's values by the elements of its type.
static void convert(attrdraft_t *property, bool has_escapes, Numbers *numbers)
{
	attrtext_t *values = static_cast<attrtext_t *>(const_cast<void *>(property->elements));
	switch (property->type) {
	case DATA_TYPE_STRING_ARRAY:
		for (uint_t i = 0; has_escapes && i < property->count; i++)
			remove_escapes(&values[i]);
		break;
	case DATA_TYPE_INT64_ARRAY:
	case DATA_TYPE_UINT64_ARRAY:
		convert_elements<int64_t>(property, numbers);
		break;
	default:
		convert_elements<int32_t>(property, numbers);
		break;
	}
}

ostrel_error_t ostrel_make_object(ostrel_fields *fields, bool with_props, attrlist_t **object)
{
	Numbers numbers;
	numbers.used = 0;
	for (uint_t i = 0; with_props && i < fields->property_count; i++)
		convert(&fields->properties[i], fields->has_escapes, &numbers);
	attrdraft_t parts[] = {
	    {{OSTREL_OBJECT_IDLIST, sizeof(OSTREL_OBJECT_IDLIST) - 1}, DATA_TYPE_ATTRLIST, fields->identifier_count,
		fields->identifiers},
	    {{OSTREL_OBJECT_PROPS, sizeof(OSTREL_OBJECT_PROPS) - 1}, DATA_TYPE_ATTRLIST, fields->property_count,
		fields->properties},
	};
	return ostrel_errno2error(attrlist_build(object, parts, with_props ? 2 : 1));
}

// ---- Comparing identifiers ----

// Whether the locale's comparison without case pairs ASCII bytes as usual: each letter with its other case, and nothing else.
static bool locale_folds_as_usual()
{
#ifdef __GLIBC__
	const int *lower = *__ctype_tolower_loc();
	int unusual = 0;
	for (int c = 0; c < 128; c++)
		unusual |= lower[c] ^ (c + (c >= 'A' && c <= 'Z' ? 0x20 : 0));
	for (int c = 128; c < 256; c++)
		unusual |= lower[c] < 128;
	return unusual == 0;
#else
	for (int c = 0; c < 256; c++)
		if (c < 128 ? tolower(c) != c + (c >= 'A' && c <= 'Z' ? 0x20 : 0) : tolower(c) < 128)
			return false;
	return true;
#endif
}

bool FieldMatch::prepare(bool with_case, attrlist_t *idlist, bool exact)
{
	exact_ = exact;
	with_case_ = with_case;
	usual_case_ = with_case_ || locale_folds_as_usual();
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

// Whether ASCII bytes differ in more than case. Most values differ in their last byte, so that no call is needed.
bool FieldMatch::ends_differ(char a, char b) const
{
	return usual_case_ && ((a | b) & 0x80) == 0 && ((a ^ b) & ~0x20) != 0;
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
		if (stored.length > 0 && ends_differ(a[stored.length - 1], b[stored.length - 1]))
			return false;
		if (with_case_ ? memcmp(a, b, stored.length) != 0 : strncasecmp(a, b, stored.length) != 0)
			return false;
	}
	return true;
}
