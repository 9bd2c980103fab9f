/*
 * The text of a database file: from a line to an object's lists, and from lists to a line.
 * It opens no file, keeps no state, and reports nothing by itself: what a failure means is its caller's business.
 * docs/formats/line-format.md has the layout and a worked example.
 */
#ifndef LIBOSTREL_LINES_H
#define LIBOSTREL_LINES_H

#include <cstddef>
#include <cstdio>

#include "libostrel.h"

#define OSTREL_LINE_SIZE 2048   /* room for a line with its newline and a terminator */
#define OSTREL_ESCAPED_SIZE 512 /* room for a string value in its escaped form, with its terminator */

// ---- Values ----

// Copies `value` to `escaped` with a backslash before each `,`, `;` and `\`. The caller's buffer takes twice the
// bytes of `value`, and one.
char *value_add_escapes(const char *value, char *escaped);
// Drops each backslash and takes the byte after it as it is. Owns: the result is new, free it. NULL: no memory.
char *value_remove_escapes(const char *value);
// The array type of one of the six type words, in any case; DATA_TYPE_UNKNOWN for all else.
data_type_t str2data_type(const char *word);
// The word of a type, in lower case; "unknown" where there is none. Not every word can be read back.
const char *data_type2str(data_type_t type);

/*
 * Reads the values of a list that are separated by unescaped commas. `values` is changed in place; NULL has none.
 * Owns:   *array is new and never NULL, also with a count of 0; free it (of strings, each element too).
 * Errors: OSTREL_NO_MEMORY; of booleans OSTREL_INVALID_ARG for any other word than true and false. Nothing is left.
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
 * Reads one object line: without its newline, and from its first byte that isn't white space.
 * Owns:   on success both lists are new; free them with attrlist_free(). On failure both are NULL.
 * Errors: OSTREL_INVALID_ARG  the line doesn't parse: it is taken whole or not at all
 *         OSTREL_NO_MEMORY
 */
ostrel_error_t ostrel_line2attrlist(char *line, attrlist_t **idlist, attrlist_t **props);
// Makes the lists of line number `lineno` of a raw file. Owns and errors as above.
ostrel_error_t ostrel_rawline2attrlist(const char *line, uint_t lineno, attrlist_t **idlist, attrlist_t **props);

// ---- Writing a line ----

// A line that is being put together. What doesn't fit is dropped and remembered.
struct ostrel_line {
	char text[OSTREL_LINE_SIZE];
	size_t length;
	bool overflow;
};

/*
 * Tells whether the identifiers come back from a line as they are: at least one, texts all, no name or value that
 * would be split. Errors: OSTREL_INVALID_ARG.
 */
ostrel_error_t ostrel_check_identifiers(attrlist_t *idlist);

/*
 * Formats one object line, newline included, without a terminator. `idstr` is the text of identifiers that were
 * checked.
 * Errors: OSTREL_INVALID_ARG  a property has a type that can't be stored, a name or value that wouldn't be read back,
 *                             or is too long; or the line is. `line` holds what stands before the failure
 */
ostrel_error_t ostrel_format_line(ostrel_line *line, const char *idstr, attrlist_t *props);

// Formats the line of an object. Errors: OSTREL_INVALID_ARG if it wouldn't be read back as this object.
ostrel_error_t ostrel_format_object(attrlist_t *idlist, attrlist_t *props, ostrel_line *line);

// Formats a line, prints it and flushes the stream. A failure of the formatting leaves the line unfinished in the
// stream. Errors: as ostrel_format_line(), and the error of the stream.
ostrel_error_t ostrel_attrlist2line(FILE *stream, const char *idstr, attrlist_t *props);

// The white space that may stand before an object: six bytes, whatever the locale.
inline bool ostrel_line_space(char c)
{
	return c == ' ' || (c >= '\t' && c <= '\r');
}

#endif
