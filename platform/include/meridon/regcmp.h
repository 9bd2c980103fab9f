/*
 * Patterns: POSIX extended regular expressions, tried once and kept as a single block of memory.
 *
 * The expressions are those of the C library, in the locale of the process. A search isn't anchored: a pattern without
 * ^ and $ matches anywhere in the subject, and one that matches the empty text matches everything.
 */
#ifndef MERIDON_REGCMP_H
#define MERIDON_REGCMP_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Tries a pattern. It may come in several parts, which are put together; the last argument is a NULL pointer.
 *
 * Owns:    the result is one new block; release it with free().
 * Errors:  NULL, with errno set
 *          EINVAL  no part, or the C library refuses the pattern
 *          ENOMEM  memory ran out
 * Threads: any.
 */
char *regcmp(const char *pattern, ... /* , NULL */);

/*
 * Looks for a pattern, as regcmp() gave it, in a text.
 *
 * Owns:    the result points into `subject`, to the byte after the leftmost longest match; it isn't freed.
 * Errors:  NULL  there is no match, an argument is NULL, or memory ran out
 * Threads: any; one compiled pattern may be used by several at once.
 */
char *regex(const char *compiled, const char *subject);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
