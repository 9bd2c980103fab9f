/*
 * Attribute lists: ordered lists of named, typed values.
 *
 * A list holds at most one pair of a name. Adding a pair under a name that the list has already removes the old
 * pair, whatever its type, and the new pair takes the last place. Pairs keep their order of insertion.
 *
 * Rules that hold for every call below, unless its comment says otherwise:
 *   Owns:    what is added is copied, deeply; the caller keeps what it added. What a look-up or a pair-value call
 *            gives points into the list: it stays valid until the list is changed or freed, and is never freed.
 *   Errors:  0, or an errno value; nothing is changed on failure.
 *            EINVAL  a NULL list, name, value or out-parameter; an array that is NULL with a count above 0
 *            ENOMEM  memory ran out
 *            ENOENT  a look-up or a removal found no pair of that name and type
 *   Limits:  ATTRLIST_DEPTH_MAX, ATTRLIST_NAME_MAX, ATTRLIST_ELEMENTS_MAX
 *   Threads: a list has no lock; one thread at a time uses it, and all that lies in it.
 */
#ifndef MERIDON_ATTRLIST_H
#define MERIDON_ATTRLIST_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#define MERIDON_ENUM32 : uint32_t
#else
#define MERIDON_ENUM32
#endif
#pragma GCC visibility push(default)

typedef unsigned int uint_t;

/* 32 bits wide, also as an element of an array. Any value but 0 counts as true. */
typedef enum boolean MERIDON_ENUM32 { B_FALSE = 0, B_TRUE = 1 } boolean_t;

/* The type of a pair. The numbers are fixed; those without a call below are reserved. */
typedef enum data_type MERIDON_ENUM32 {
	DATA_TYPE_UNKNOWN = 0,
	DATA_TYPE_BOOLEAN = 1,
	DATA_TYPE_BYTE = 2,
	DATA_TYPE_INT16 = 3,
	DATA_TYPE_UINT16 = 4,
	DATA_TYPE_INT32 = 5,
	DATA_TYPE_UINT32 = 6,
	DATA_TYPE_INT64 = 7,
	DATA_TYPE_UINT64 = 8,
	DATA_TYPE_STRING = 9,
	DATA_TYPE_BYTE_ARRAY = 10,
	DATA_TYPE_INT16_ARRAY = 11,
	DATA_TYPE_UINT16_ARRAY = 12,
	DATA_TYPE_INT32_ARRAY = 13,
	DATA_TYPE_UINT32_ARRAY = 14,
	DATA_TYPE_INT64_ARRAY = 15,
	DATA_TYPE_UINT64_ARRAY = 16,
	DATA_TYPE_STRING_ARRAY = 17,
	DATA_TYPE_RESERVED_18 = 18,
	DATA_TYPE_ATTRLIST = 19,
	DATA_TYPE_ATTRLIST_ARRAY = 20,
	DATA_TYPE_BOOLEAN_VALUE = 21,
	DATA_TYPE_INT8 = 22,
	DATA_TYPE_UINT8 = 23,
	DATA_TYPE_BOOLEAN_ARRAY = 24,
	DATA_TYPE_INT8_ARRAY = 25,
	DATA_TYPE_UINT8_ARRAY = 26,
	DATA_TYPE_RESERVED_27 = 27,
	DATA_TYPE_RESERVED_28 = 28,
	DATA_TYPE_INVALID = 29
} data_type_t;

#define ATL_UNIQUE_NAME 1      /* the mode of a list: at most one pair of a name */
#define ATL_UNIQUE_NAME_TYPE 2 /* what attrlist_merge() is called with; it replaces by name all the same */
#define ATL_ENCODE_XDR 1       /* the one packed form */

#define ATTRLIST_DEPTH_MAX 64             /* a list in a list in a list ...: the outermost counts as 1 */
#define ATTRLIST_NAME_MAX 65535           /* bytes of a name, without its terminator */
#define ATTRLIST_ELEMENTS_MAX 0x7fffffffU /* elements of an array */

typedef struct attrlist attrlist_t;
typedef struct attrpair attrpair_t;

/* ---- Walking. These have no errno result; a NULL argument gives NULL, DATA_TYPE_UNKNOWN or 0. ---- */

/* The pair after `pair`, the first one if `pair` is NULL, NULL at the end. Doesn't survive a change of the list. */
attrpair_t *attrlist_next_attrpair(attrlist_t *list, const attrpair_t *pair);
/* The name, which the pair owns. */
char *attrpair_name(const attrpair_t *pair);
data_type_t attrpair_type(const attrpair_t *pair);
/* Non-zero if the list has a pair of that name, whatever its type. */
int attrlist_exists(attrlist_t *list, const char *name);

/* ---- Making ---- */

/*
 * Makes an empty list. `flag` is ATL_UNIQUE_NAME and `zero` is 0; anything else is EINVAL.
 * Owns: *listp is new; free it with attrlist_free().
 */
int attrlist_alloc(attrlist_t **listp, uint_t flag, int zero);

/* Frees a list and all that it holds. NULL does nothing. A list that lies in another one isn't freed by hand. */
void attrlist_free(attrlist_t *list);

/*
 * Makes a deep copy with the same order and mode, in one block of exactly the size needed.
 * Owns: *outp is new; free it with attrlist_free(). Untouched on failure.
 */
int attrlist_dup(attrlist_t *list, attrlist_t **outp, int zero);

/*
 * Adds a copy of every pair of `src` to `dst`, which replaces pairs of the same name, whatever `flag` says. `src` may be
 * `dst` (no change), lie in it, or hold it: what is added is as `src` was before the call.
 */
int attrlist_merge(attrlist_t *dst, attrlist_t *src, int flag);

/* Removes all pairs and keeps the memory for the next ones: for a scratch list that is filled again and again. */
int attrlist_clear(attrlist_t *list);

/* ---- Building a whole list at once ---- */

/* Bytes that need no terminator. They hold no NUL. */
typedef struct attrtext {
	const char *text;
	size_t length;
} attrtext_t;

#define ATTRDRAFT_PAIRS_MAX 32 /* pairs of a list that is drafted */

/* A pair to be: of an array of numbers or booleans, a string, an array of strings, or a nested list. */
typedef struct attrdraft {
	attrtext_t name;
	data_type_t type;
	uint_t count;         /* elements; 1 for a string; for a nested list the drafts of its pairs */
	const void *elements; /* the numbers, attrtext_t for strings, attrdraft_t for a nested list */
} attrdraft_t;

/*
 * Makes a list of the drafted pairs, in one block of exactly the size needed. For a reader that has the parts of a list
 * at hand: it is several times as quick as adding them one by one.
 * Owns:   *listp is new; free it with attrlist_free(). The drafts are only read.
 * Errors: EINVAL also for another type, or too many pairs. That the names of a list differ is for the caller to know.
 * Limits: ATTRDRAFT_PAIRS_MAX
 */
int attrlist_build(attrlist_t **listp, const attrdraft_t *drafts, uint_t count);

/* ---- Packing ---- */

/*
 * Serializes a list, nested lists included. `encoding` is ATL_ENCODE_XDR, `zero` is 0, *bufp is NULL on entry;
 * anything else is EINVAL.
 * Owns: *bufp is new; free it with free(). Untouched on failure.
 */
int attrlist_pack(attrlist_t *list, char **bufp, size_t *lenp, int encoding, int zero);

/*
 * Makes a new list from packed bytes: same pairs, types, order and mode. The bytes may come from a stranger:
 * whatever isn't exactly what attrlist_pack() writes is EINVAL, and no length is believed before it is proven.
 * Owns: *outp is new; free it with attrlist_free(). Untouched on failure.
 */
int attrlist_unpack(const char *buf, size_t len, attrlist_t **outp, int zero);

/* ---- Adding one pair ---- */

int attrlist_add_boolean_value(attrlist_t *list, const char *name, boolean_t value);
int attrlist_add_int32(attrlist_t *list, const char *name, int32_t value);
int attrlist_add_uint32(attrlist_t *list, const char *name, uint32_t value);
int attrlist_add_int64(attrlist_t *list, const char *name, int64_t value);
int attrlist_add_uint64(attrlist_t *list, const char *name, uint64_t value);
int attrlist_add_string(attrlist_t *list, const char *name, const char *value);
/* EINVAL also if the result would be deeper than ATTRLIST_DEPTH_MAX. `value` may be `list` itself: its copy is added. */
int attrlist_add_attrlist(attrlist_t *list, const char *name, attrlist_t *value);
/* Adds an empty nested list and hands it out, to be filled in place: *valuep lies in `list`. */
int attrlist_add_new_attrlist(attrlist_t *list, const char *name, attrlist_t **valuep);

/* An array may be NULL if its count is 0; an array of no elements is a value like any other. The arrays and their
 * elements are only read. A NULL element is EINVAL. */
int attrlist_add_boolean_array(attrlist_t *list, const char *name, const boolean_t *array, uint_t count);
int attrlist_add_int32_array(attrlist_t *list, const char *name, const int32_t *array, uint_t count);
int attrlist_add_uint32_array(attrlist_t *list, const char *name, const uint32_t *array, uint_t count);
int attrlist_add_int64_array(attrlist_t *list, const char *name, const int64_t *array, uint_t count);
int attrlist_add_uint64_array(attrlist_t *list, const char *name, const uint64_t *array, uint_t count);
int attrlist_add_string_array(attrlist_t *list, const char *name, char *const *array, uint_t count);
int attrlist_add_attrlist_array(attrlist_t *list, const char *name, attrlist_t *const *array, uint_t count);

/* Adds a copy of a pair, which may lie in another list or in this one. */
int attrlist_add_attrpair(attrlist_t *list, const attrpair_t *pair);

/* ---- Removing ---- */

/* Removes the pair of that name and type. */
int attrlist_remove(attrlist_t *list, const char *name, data_type_t type);
/* Removes the pairs of that name, whatever the type. */
int attrlist_remove_all(attrlist_t *list, const char *name);

/* ---- Looking up, by name and type together ---- */

int attrlist_lookup_boolean_value(attrlist_t *list, const char *name, boolean_t *valuep);
int attrlist_lookup_int32(attrlist_t *list, const char *name, int32_t *valuep);
int attrlist_lookup_uint32(attrlist_t *list, const char *name, uint32_t *valuep);
int attrlist_lookup_int64(attrlist_t *list, const char *name, int64_t *valuep);
int attrlist_lookup_uint64(attrlist_t *list, const char *name, uint64_t *valuep);
int attrlist_lookup_string(attrlist_t *list, const char *name, char **valuep);
int attrlist_lookup_attrlist(attrlist_t *list, const char *name, attrlist_t **valuep);

/* An array of no elements gives a count of 0 and a pointer that isn't to be followed. */
int attrlist_lookup_boolean_array(attrlist_t *list, const char *name, boolean_t **arrayp, uint_t *countp);
int attrlist_lookup_int32_array(attrlist_t *list, const char *name, int32_t **arrayp, uint_t *countp);
int attrlist_lookup_uint32_array(attrlist_t *list, const char *name, uint32_t **arrayp, uint_t *countp);
int attrlist_lookup_int64_array(attrlist_t *list, const char *name, int64_t **arrayp, uint_t *countp);
int attrlist_lookup_uint64_array(attrlist_t *list, const char *name, uint64_t **arrayp, uint_t *countp);
int attrlist_lookup_string_array(attrlist_t *list, const char *name, char ***arrayp, uint_t *countp);
int attrlist_lookup_attrlist_array(attrlist_t *list, const char *name, attrlist_t ***arrayp, uint_t *countp);

/* Gives the pair, by name alone. */
int attrlist_lookup_attrpair(attrlist_t *list, const char *name, attrpair_t **pairp);

/* ---- The value of a pair. EINVAL if the pair has another type. ---- */

int attrpair_value_boolean_value(const attrpair_t *pair, boolean_t *valuep);
int attrpair_value_int32(const attrpair_t *pair, int32_t *valuep);
int attrpair_value_uint32(const attrpair_t *pair, uint32_t *valuep);
int attrpair_value_int64(const attrpair_t *pair, int64_t *valuep);
int attrpair_value_uint64(const attrpair_t *pair, uint64_t *valuep);
int attrpair_value_string(const attrpair_t *pair, char **valuep);
int attrpair_value_attrlist(const attrpair_t *pair, attrlist_t **valuep);

int attrpair_value_boolean_array(const attrpair_t *pair, boolean_t **arrayp, uint_t *countp);
int attrpair_value_int32_array(const attrpair_t *pair, int32_t **arrayp, uint_t *countp);
int attrpair_value_uint32_array(const attrpair_t *pair, uint32_t **arrayp, uint_t *countp);
int attrpair_value_int64_array(const attrpair_t *pair, int64_t **arrayp, uint_t *countp);
int attrpair_value_uint64_array(const attrpair_t *pair, uint64_t **arrayp, uint_t *countp);
int attrpair_value_string_array(const attrpair_t *pair, char ***arrayp, uint_t *countp);
int attrpair_value_attrlist_array(const attrpair_t *pair, attrlist_t ***arrayp, uint_t *countp);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
