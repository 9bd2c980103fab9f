/*
 * The text of a database file: from a line to an object's lists, and from lists to a line. docs/formats/line-format.md has the
 * layout and a worked example.
 *
 * It opens no file, keeps no state, and raises no error: results go back to the caller as they are, since a line that doesn't
 * parse is no failure to a reader of files. Every reader and writer of lines rests on it; the fast path of the flat files
 * (libostrel_files_fields.h) is measured by it.
 */
#ifndef LIBOSTREL_LINES_H
#define LIBOSTREL_LINES_H

#include <cstddef>
#include <cstdio>

#include "libostrel.h"

#define OSTREL_LINE_SIZE 2048   /* room for a line with its newline and a terminator */
#define OSTREL_ESCAPED_SIZE 512 /* room for a string value in its escaped form, with its terminator */

// ---- Values ----

// Copies `value` to `escaped` with a backslash before each `,`, `;` and `\`, and returns `escaped`. The caller's buffer has room
// for twice the bytes of `value`, and a terminator.
char *value_add_escapes(const char *value, char *escaped);
// Removes each backslash and keeps the byte after it. Owns: the result is new; free it with free(). NULL: no memory.
char *value_remove_escapes(const char *value);
// The array type of one of the six type words, in any case; DATA_TYPE_UNKNOWN for any other word.
data_type_t str2data_type(const char *word);
// The word of a type, in lower case; "unknown" if it has none. Not every word can be read back.
const char *data_type2str(data_type_t type);

/*
 * Reads values that unescaped commas separate. `values` is changed in place; NULL holds none.
 * Owns:   *array is new and never NULL, also with a count of 0; free it with free(), and each string too. Untouched on failure
 * Errors: OSTREL_NO_MEMORY; for booleans OSTREL_INVALID_ARG at any word but true and false
 */
ostrel_error_t ostrel_parse_boolean_array(char *values, boolean_t **array, int *count);
ostrel_error_t ostrel_parse_int32_array(char *values, int32_t **array, int *count);
ostrel_error_t ostrel_parse_uint32_array(char *values, uint32_t **array, int *count);
ostrel_error_t ostrel_parse_int64_array(char *values, int64_t **array, int *count);
ostrel_error_t ostrel_parse_uint64_array(char *values, uint64_t **array, int *count);
ostrel_error_t ostrel_parse_string_array(char *values, char ***array, int *count);

// ---- Reading a line ----

// Adds the identifier of one piece `name=value` to the list. The piece is changed in place.
ostrel_error_t ostrel_parse_nvstr(char *piece, attrlist_t **idlist);
// Adds the property of one piece `name=type,value...` to the list. The piece is changed in place.
ostrel_error_t ostrel_parse_ntv(char *piece, attrlist_t **props);

/*
 * Reads one object line, from its first byte that isn't white space, without its newline. `line` is changed in place.
 * Owns:   on success both lists are new; free them with attrlist_free(). On failure both are NULL.
 * Errors: OSTREL_INVALID_ARG  the line doesn't parse: a line is accepted whole or not at all
 *         OSTREL_NO_MEMORY
 */
ostrel_error_t ostrel_line2attrlist(char *line, attrlist_t **idlist, attrlist_t **props);
// Makes the lists of line number `lineno` of a raw file. Owns and errors as above.
ostrel_error_t ostrel_rawline2attrlist(const char *line, uint_t lineno, attrlist_t **idlist, attrlist_t **props);

// ---- Writing a line ----

// A line under construction. Bytes that don't fit are dropped, and `overflow` is set.
struct ostrel_line {
	char text[OSTREL_LINE_SIZE];
	size_t length;
	bool overflow;
};

/*
 * Checks that the identifiers can be read back as they are: there is at least one, all are texts, and no delimiter would split
 * a name or value. Errors: OSTREL_INVALID_ARG  they can't
 */
ostrel_error_t ostrel_check_identifiers(attrlist_t *idlist);

/*
 * Formats one object line with its newline, without a terminator. `idstr` is the text of identifiers that were checked.
 * Errors: OSTREL_INVALID_ARG  a property can't be stored: its type has no word, its name or value wouldn't be read back, or is
 *                             too long; or the line is too long. `line` then holds what stands before the failure
 */
ostrel_error_t ostrel_format_line(ostrel_line *line, const char *idstr, attrlist_t *props);

// Checks and formats the line of an object. Errors: OSTREL_INVALID_ARG  it wouldn't be read back as this object
ostrel_error_t ostrel_format_object(attrlist_t *idlist, attrlist_t *props, ostrel_line *line);

// Formats a line, prints it and flushes the stream. A line that can't be formatted is printed up to the failure.
// Errors: as of ostrel_format_line(); the error of the stream
ostrel_error_t ostrel_attrlist2line(FILE *stream, const char *idstr, attrlist_t *props);

// The white space that a reader skips before an object: six bytes, in every locale.
inline bool ostrel_line_space(char c)
{
	return c == ' ' || (c >= '\t' && c <= '\r');
}

#endif
