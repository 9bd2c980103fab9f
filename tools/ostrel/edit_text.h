/*
 * Objects as a text that a person edits: the lines that `diff` prints, without its signs. An object is a line of identifiers, and
 * an indented line for each property. A `#` at the beginning of a line makes it a comment.
 *
 * Comments at the end list the objects that the text is about, so that a text that was kept can be gone on with: an object that
 * is missing in it is removed only if it was there when the text was made.
 */
#ifndef OSTREL_TOOL_EDIT_TEXT_H
#define OSTREL_TOOL_EDIT_TEXT_H

#include <cstdio>
#include <string>
#include <vector>

#include "object.h"

struct EditText {
	std::vector<Object> objects;
	std::vector<Identifiers> about;
};

// The text of objects, which is about just these.
std::string edit_text(const std::string &label, const std::vector<Object> &objects);
// Reads a text. Throws Failure that names the line.
EditText read_edit_text(const std::string &path);

#endif
