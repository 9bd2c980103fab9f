/*
 * Small things that all rooms of the library do with lists and arrays.
 */
#ifndef LIBOSTREL_UTIL_H
#define LIBOSTREL_UTIL_H

#include <cstddef>

#include "libostrel.h"

// One line of text, "name=value,value;" for each pair, cut where `buf` ends. Arrays of 64-bit integers, strings and
// booleans have a value text (at most 511 bytes), all else is shown by name. Gives `buf`.
char *ostrel_atl2str(attrlist_t *list, char *buf, size_t len);
// Doubles a heap array of *countp elements of `size` bytes; the new half isn't zeroed. *countp is at least 1.
// Errors: OSTREL_NO_MEMORY  nothing changed, the old array stays valid
ostrel_error_t grow_buf(void **bufp, int *countp, size_t size);
// Replaces the pair `name` of `dst`, or adds it, by the copy of the one in `src`.
ostrel_error_t atl_add_entry_val(attrlist_t *dst, const char *name, attrlist_t *src);

#endif
