// A list as one line of text, through the public calls alone: what tests compare and print.
#ifndef TESTS_LIST_TEXT_H
#define TESTS_LIST_TEXT_H

#include <string>

#include <meridon/attrlist.h>

// Each pair as `name:type=value,value;` in list order, the type by its number, nested lists in braces. A pair that a
// look-up by its name doesn't find is marked as lost.
std::string list_text(attrlist_t *list);
std::string pair_text(const attrpair_t *pair);

#endif
