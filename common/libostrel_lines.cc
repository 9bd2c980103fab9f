// The line format: `name=value;...<TAB>name=type,value...;...` and what stands in it.
// Divisions: splitting, values, reading a line, writing a line.
//
// Lines that the writer leaves take the fast path of libostrel_files_fields.h. What this one reads beyond that decides what the
// format means, since people write such files by hand:
// - The words of the types and of booleans in any case; numbers as strtoll() takes them: white space or a plus sign in front, any
//   rest, any length, no digits at all.
// - An identifier without `=`; the same name twice, of which the later one counts; a backslash at the end of the line; bytes
//   below TAB; more pieces and values than the fast path has room for.
#include "libostrel_lines.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "base/growing_array.h"
#include "base/guards.h"
#include "libostrel_idlist.h"

// ---- Splitting ----

char *ostrel_tokenize_by_unescaped_delim(char *str, char delim, char **next)
{
	if (str == nullptr)
		return nullptr;
	bool escaped = false;
	for (char *byte = str; *byte != '\0'; byte++) {
		if (*byte == '\\') {
			escaped = !escaped;
			continue;
		}
		if (*byte == delim && !escaped) {
			*byte = '\0';
			*next = byte[1] != '\0' ? byte + 1 : nullptr;
			return str;
		}
		escaped = false;
	}
	*next = nullptr;
	return str;
}

// ---- Values ----

char *value_add_escapes(const char *value, char *escaped)
{
	char *out = escaped;
	for (; *value != '\0'; value++) {
		if (*value == ',' || *value == ';' || *value == '\\')
			*out++ = '\\';
		*out++ = *value;
	}
	*out = '\0';
	return escaped;
}

char *value_remove_escapes(const char *value)
{
	char *plain = strdup(value);
	if (plain == nullptr)
		return nullptr;
	char *out = plain;
	for (; *value != '\0'; value++) {
		if (*value == '\\' && *++value == '\0')
			break;
		*out++ = *value;
	}
	*out = '\0';
	return plain;
}

// The values of a property while they are read. Texts are blocks of the heap.
template <typename T>
using Values = std::conditional_t<std::is_same_v<T, char *>, GrowingArray<char *, free_heap>, GrowingArray<T>>;

// Stores the value of one token. Errors: OSTREL_INVALID_ARG  the token is no value of this type; OSTREL_NO_MEMORY
template <typename T>
using Convert = ostrel_error_t(const char *token, T *value);

template <typename T>
static ostrel_error_t parse_values(char *text, Convert<T> *convert, Values<T> *values)
{
	if (!values->make_room())
		return OSTREL_NO_MEMORY;
	char *next = text;
	while (char *token = ostrel_tokenize_by_unescaped_delim(next, ',', &next)) {
		if (!values->make_room())
			return OSTREL_NO_MEMORY;
		if (ostrel_error_t bad = convert(token, values->place()))
			return bad;
		values->added();
	}
	return OSTREL_SUCCESS;
}

template <typename T>
static ostrel_error_t parse_array(char *text, Convert<T> *convert, T **array, int *count)
{
	Values<T> values;
	if (ostrel_error_t bad = parse_values<T>(text, convert, &values))
		return bad;
	if (!values.cut_to_size())
		return OSTREL_NO_MEMORY;
	*count = static_cast<int>(values.size());
	*array = values.release();
	return OSTREL_SUCCESS;
}

static ostrel_error_t to_boolean(const char *token, boolean_t *value)
{
	if (strcasecmp(token, "true") == 0)
		*value = B_TRUE;
	else if (strcasecmp(token, "false") == 0)
		*value = B_FALSE;
	else
		return OSTREL_INVALID_ARG;
	return OSTREL_SUCCESS;
}

// A text without digits is 0. A number out of range becomes the nearest one of 64 bits; a 32-bit type keeps its low half.
template <typename T>
static ostrel_error_t to_number(const char *token, T *value)
{
	*value = static_cast<T>(strtoll(token, nullptr, 10));
	return OSTREL_SUCCESS;
}

static ostrel_error_t to_string(const char *token, char **value)
{
	*value = value_remove_escapes(token);
	return *value != nullptr ? OSTREL_SUCCESS : OSTREL_NO_MEMORY;
}

ostrel_error_t ostrel_parse_boolean_array(char *values, boolean_t **array, int *count)
{
	return parse_array<boolean_t>(values, to_boolean, array, count);
}

ostrel_error_t ostrel_parse_int32_array(char *values, int32_t **array, int *count)
{
	return parse_array<int32_t>(values, to_number, array, count);
}

ostrel_error_t ostrel_parse_uint32_array(char *values, uint32_t **array, int *count)
{
	return parse_array<uint32_t>(values, to_number, array, count);
}

ostrel_error_t ostrel_parse_int64_array(char *values, int64_t **array, int *count)
{
	return parse_array<int64_t>(values, to_number, array, count);
}

ostrel_error_t ostrel_parse_uint64_array(char *values, uint64_t **array, int *count)
{
	return parse_array<uint64_t>(values, to_number, array, count);
}

ostrel_error_t ostrel_parse_string_array(char *values, char ***array, int *count)
{
	return parse_array<char *>(values, to_string, array, count);
}

// ---- Reading a line ----

template <typename T, Convert<T> *convert, auto Add>
static ostrel_error_t add_property(attrlist_t *props, const char *name, char *text)
{
	Values<T> values;
	if (ostrel_error_t bad = parse_values<T>(text, convert, &values))
		return bad;
	return ostrel_errno2error(Add(props, name, values.begin(), static_cast<uint_t>(values.size())));
}

// The six words of the format.
struct WordRow {
	const char *word;
	data_type_t type;
	ostrel_error_t (*add)(attrlist_t *props, const char *name, char *text);
};

static constexpr WordRow word_rows[] = {
    {"boolean", DATA_TYPE_BOOLEAN_ARRAY, add_property<boolean_t, to_boolean, attrlist_add_boolean_array>},
    {"int32", DATA_TYPE_INT32_ARRAY, add_property<int32_t, to_number<int32_t>, attrlist_add_int32_array>},
    {"uint32", DATA_TYPE_UINT32_ARRAY, add_property<uint32_t, to_number<uint32_t>, attrlist_add_uint32_array>},
    {"int64", DATA_TYPE_INT64_ARRAY, add_property<int64_t, to_number<int64_t>, attrlist_add_int64_array>},
    {"uint64", DATA_TYPE_UINT64_ARRAY, add_property<uint64_t, to_number<uint64_t>, attrlist_add_uint64_array>},
    {"string", DATA_TYPE_STRING_ARRAY, add_property<char *, to_string, attrlist_add_string_array>},
};

static const WordRow *find_word(const char *word)
{
	for (const WordRow &row : word_rows)
		if (strcasecmp(word, row.word) == 0)
			return &row;
	return nullptr;
}

data_type_t str2data_type(const char *word)
{
	const WordRow *row = find_word(word);
	return row != nullptr ? row->type : DATA_TYPE_UNKNOWN;
}

ostrel_error_t ostrel_parse_nvstr(char *piece, attrlist_t **idlist)
{
	char *value = nullptr;
	char *name = ostrel_tokenize_by_unescaped_delim(piece, '=', &value);
	return ostrel_idlist_add(*idlist, name, value);
}

ostrel_error_t ostrel_parse_ntv(char *piece, attrlist_t **props)
{
	char *rest = nullptr;
	char *values = nullptr;
	char *name = ostrel_tokenize_by_unescaped_delim(piece, '=', &rest);
	char *word = ostrel_tokenize_by_unescaped_delim(rest, ',', &values);
	if (name == nullptr || word == nullptr)
		return OSTREL_INVALID_ARG;
	const WordRow *row = find_word(word);
	if (row == nullptr)
		return OSTREL_INVALID_ARG;
	return row->add(*props, name, values);
}

static ostrel_error_t parse_pieces(
    char *field, ostrel_error_t (*parse)(char *piece, attrlist_t **list), attrlist_t *list)
{
	char *next = field;
	while (char *piece = ostrel_tokenize_by_unescaped_delim(next, ';', &next))
		if (ostrel_error_t bad = parse(piece, &list))
			return bad;
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_line2attrlist(char *line, attrlist_t **idlist, attrlist_t **props)
{
	*idlist = nullptr;
	*props = nullptr;
	AttrList new_ids;
	AttrList new_props;
	if (int error = attrlist_alloc(new_props.out(), ATL_UNIQUE_NAME, 0))
		return ostrel_errno2error(error);
	if (ostrel_error_t bad = ostrel_idlist_init(new_ids.out(), nullptr))
		return bad;

	char *fields = nullptr;
	char *identifiers = ostrel_tokenize_by_unescaped_delim(line, '\t', &fields);
	if (ostrel_error_t bad = parse_pieces(identifiers, ostrel_parse_nvstr, new_ids.get()))
		return bad;
	if (ostrel_error_t bad = parse_pieces(fields, ostrel_parse_ntv, new_props.get()))
		return bad;
	*idlist = new_ids.release();
	*props = new_props.release();
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_rawline2attrlist(const char *line, uint_t lineno, attrlist_t **idlist, attrlist_t **props)
{
	*idlist = nullptr;
	*props = nullptr;
	char name[OSTREL_LINE_SIZE];
	(void) snprintf(name, sizeof(name), "line%u", lineno); // always fits
	AttrList new_ids;
	AttrList new_props;
	if (ostrel_error_t bad = ostrel_idlist_init(new_ids.out(), nullptr))
		return bad;
	if (ostrel_error_t bad = ostrel_idlist_add(new_ids.get(), OSTREL_ID_RAWLINE, name))
		return bad;
	if (int error = attrlist_alloc(new_props.out(), ATL_UNIQUE_NAME, 0))
		return ostrel_errno2error(error);
	if (int error = attrlist_add_string(new_props.get(), OSTREL_ID_RAWLINE, line))
		return ostrel_errno2error(error);
	*idlist = new_ids.release();
	*props = new_props.release();
	return OSTREL_SUCCESS;
}

// ---- Writing a line ----

static void append(ostrel_line *line, const char *text, size_t length)
{
	size_t room = sizeof(line->text) - 1 - line->length;
	if (length > room) {
		line->overflow = true;
		length = room;
	}
	memcpy(line->text + line->length, text, length);
	line->length += length;
}

static void append(ostrel_line *line, const char *text)
{
	append(line, text, strlen(text));
}

// Whether a text can be read back from its place: it holds no newline and no unescaped delimiter, and no backslash at its end
// escapes the delimiter that follows.
static bool reads_back(const char *text, const char *delimiters)
{
	bool escaped = false;
	for (; *text != '\0'; text++) {
		if (*text == '\n')
			return false;
		if (*text == '\\') {
			escaped = !escaped;
			continue;
		}
		if (!escaped && strchr(delimiters, *text) != nullptr)
			return false;
		escaped = false;
	}
	return !escaped;
}

// Two names address an operation, not an object: they are never stored.
static bool is_stored(const char *name)
{
	return strcmp(name, OSTREL_ID_ID_STRING) != 0 && strcmp(name, OSTREL_ID_DB_NAME) != 0;
}

ostrel_error_t ostrel_check_identifiers(attrlist_t *idlist)
{
	bool first = true;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(idlist, pair)) != nullptr;) {
		const char *name = attrpair_name(pair);
		if (!is_stored(name))
			continue;
		char *value = nullptr;
		if (int error = attrpair_value_string(pair, &value))
			return ostrel_errno2error(error);
		if (!reads_back(name, "\t;=") || !reads_back(value, "\t;"))
			return OSTREL_INVALID_ARG;
		// A reader skips white space before an object, and a line that begins with `#` is a comment.
		if (first && (ostrel_line_space(name[0]) || name[0] == '#'))
			return OSTREL_INVALID_ARG;
		first = false;
	}
	return first ? OSTREL_INVALID_ARG : OSTREL_SUCCESS;
}

// Prints the values of a pair, each after a comma.
using PrintValues = ostrel_error_t(ostrel_line *line, const attrpair_t *pair);

static ostrel_error_t print_value(ostrel_line *line, boolean_t value)
{
	append(line, value != B_FALSE ? "true" : "false");
	return OSTREL_SUCCESS;
}

static ostrel_error_t print_value(ostrel_line *line, int64_t value)
{
	char digits[24];
	std::to_chars_result end = std::to_chars(digits, digits + sizeof(digits), value);
	append(line, digits, static_cast<size_t>(end.ptr - digits));
	return OSTREL_SUCCESS;
}

// An unsigned value is printed as the signed number of the same bits.
static ostrel_error_t print_value(ostrel_line *line, int32_t value)
{
	return print_value(line, static_cast<int64_t>(value));
}
static ostrel_error_t print_value(ostrel_line *line, uint32_t value)
{
	return print_value(line, static_cast<int32_t>(value));
}
static ostrel_error_t print_value(ostrel_line *line, uint64_t value)
{
	return print_value(line, static_cast<int64_t>(value));
}

static ostrel_error_t print_value(ostrel_line *line, const char *value)
{
	size_t length = strnlen(value, OSTREL_ESCAPED_SIZE);
	if (length == OSTREL_ESCAPED_SIZE || memchr(value, '\n', length) != nullptr)
		return OSTREL_INVALID_ARG;
	char escaped[2 * OSTREL_ESCAPED_SIZE];
	size_t room = strlen(value_add_escapes(value, escaped)) + 1;
	if (room > OSTREL_ESCAPED_SIZE)
		return OSTREL_INVALID_ARG;
	append(line, escaped, room - 1);
	return OSTREL_SUCCESS;
}

template <typename T, auto Get>
static ostrel_error_t print_one(ostrel_line *line, const attrpair_t *pair)
{
	T value{};
	if (int error = Get(pair, &value))
		return ostrel_errno2error(error);
	append(line, ",", 1);
	return print_value(line, value);
}

template <typename T, auto Get>
static ostrel_error_t print_array(ostrel_line *line, const attrpair_t *pair)
{
	T *values = nullptr;
	uint_t count = 0;
	if (int error = Get(pair, &values, &count))
		return ostrel_errno2error(error);
	for (uint_t i = 0; i < count; i++) {
		append(line, ",", 1);
		if (ostrel_error_t bad = print_value(line, values[i]))
			return bad;
	}
	return OSTREL_SUCCESS;
}

// The types that have a word. Those without `print` can't be stored.
struct TypeRow {
	data_type_t type;
	const char *word;
	PrintValues *print;
};

static constexpr TypeRow type_rows[] = {
    {DATA_TYPE_INT32, "int32", print_one<int32_t, attrpair_value_int32>},
    {DATA_TYPE_INT32_ARRAY, "int32", print_array<int32_t, attrpair_value_int32_array>},
    {DATA_TYPE_UINT32, "uint32", print_one<uint32_t, attrpair_value_uint32>},
    {DATA_TYPE_UINT32_ARRAY, "uint32", print_array<uint32_t, attrpair_value_uint32_array>},
    {DATA_TYPE_INT64, "int64", nullptr},
    {DATA_TYPE_INT64_ARRAY, "int64", print_array<int64_t, attrpair_value_int64_array>},
    {DATA_TYPE_UINT64, "uint64", nullptr},
    {DATA_TYPE_UINT64_ARRAY, "uint64", print_array<uint64_t, attrpair_value_uint64_array>},
    {DATA_TYPE_STRING, "string", print_one<char *, attrpair_value_string>},
    {DATA_TYPE_STRING_ARRAY, "string", print_array<char *, attrpair_value_string_array>},
    {DATA_TYPE_BOOLEAN_VALUE, "boolean", print_one<boolean_t, attrpair_value_boolean_value>},
    {DATA_TYPE_BOOLEAN_ARRAY, "boolean", print_array<boolean_t, attrpair_value_boolean_array>},
    {DATA_TYPE_UINT8_ARRAY, "uint8", nullptr},
};

static const TypeRow *find_type(data_type_t type)
{
	for (const TypeRow &row : type_rows)
		if (row.type == type)
			return &row;
	return nullptr;
}

const char *data_type2str(data_type_t type)
{
	const TypeRow *row = find_type(type);
	return row != nullptr ? row->word : "unknown";
}

static ostrel_error_t format_property(ostrel_line *line, const attrpair_t *pair)
{
	const char *name = attrpair_name(pair);
	const TypeRow *row = find_type(attrpair_type(pair));
	append(line, name);
	append(line, "=", 1);
	append(line, data_type2str(attrpair_type(pair)));
	if (row == nullptr || row->print == nullptr || !reads_back(name, ";="))
		return ostrel_errno2error(EINVAL);
	if (ostrel_error_t bad = row->print(line, pair))
		return bad;
	append(line, ";", 1);
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_format_line(ostrel_line *line, const char *idstr, attrlist_t *props)
{
	line->length = 0;
	line->overflow = false;
	append(line, idstr);
	append(line, "\t", 1);
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(props, pair)) != nullptr;)
		if (ostrel_error_t bad = format_property(line, pair))
			return bad;
	append(line, "\n", 1);
	return line->overflow ? OSTREL_INVALID_ARG : OSTREL_SUCCESS;
}

ostrel_error_t ostrel_format_object(attrlist_t *idlist, attrlist_t *props, ostrel_line *line)
{
	char idstr[OSTREL_IDSTR_SIZE];
	if (ostrel_error_t bad = ostrel_check_identifiers(idlist))
		return bad;
	if (ostrel_error_t bad = ostrel_idlist2idstr(idlist, idstr))
		return bad;
	return ostrel_format_line(line, idstr, props);
}

ostrel_error_t ostrel_attrlist2line(FILE *stream, const char *idstr, attrlist_t *props)
{
	ostrel_line line;
	ostrel_error_t result = ostrel_format_line(&line, idstr, props);
	bool printed = fwrite(line.text, 1, line.length, stream) == line.length;
	if (result != OSTREL_SUCCESS)
		return result;
	if (!printed || fflush(stream) != 0)
		return ostrel_errno2error(errno);
	return OSTREL_SUCCESS;
}
