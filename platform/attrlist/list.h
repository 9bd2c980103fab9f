// What a list and a pair are made of, and what is done with them below the exported calls.
//
// A pair is one record of the arena: aligned data (numbers, pointers, the headers of nested lists), then the pair itself,
// then its name and the bytes of its texts. Values of up to 8 bytes lie in the pair. Pairs form a ring, of which the
// list knows the last one. Up to linear_max pairs are searched in a line, more through an index.
#ifndef MERIDON_ATTRLIST_LIST_H
#define MERIDON_ATTRLIST_LIST_H

#include <cerrno>
#include <cstring>

#include <meridon/attrlist.h>

#include "attrlist/arena.h"

namespace atl {
struct Index;
} // namespace atl

struct attrpair {
	attrpair *next; // the last pair's is the first pair
	union {
		char bytes[8];
		void *data;
		char *text;
		char **texts;
		attrlist *list;
		attrlist **lists;
	} value;
	uint32_t count; // elements of an array, bytes of a text, 1 for all else
	uint16_t name_length;
	uint8_t type;
	uint8_t flags;
};

struct attrlist {
	union {
		attrpair *last;
		atl::Index *index; // with LIST_INDEXED: holds the last pair too
	};
	union {
		atl::Arena *arena; // of an outermost list; NULL until a copy of exact size is changed
		attrlist *root;    // with LIST_NESTED: the outermost list
	};
	uint32_t count;
	uint8_t level; // 1 for an outermost list
	uint8_t flags;
};

static_assert(sizeof(attrpair) == 24 && sizeof(attrlist) == 24, "the sizes that memory was planned with");
static_assert(sizeof(size_t) == 8, "the sums of sizes below can't overflow 64 bits");

namespace atl {

enum : uint8_t { PAIR_LARGE = 1 };
enum : uint8_t { LIST_NESTED = 1, LIST_INDEXED = 2 };

inline constexpr uint32_t linear_max = 16;

enum class Kind : uint8_t { None, Scalar, Numbers, Text, Texts, List, Lists };

struct TypeInfo {
	Kind kind;
	uint8_t width; // of one element
};

// By data_type_t. What has no call to add it is None.
inline constexpr TypeInfo type_infos[] = {
    {Kind::None, 0},    /* unknown */
    {Kind::None, 0},    /* boolean */
    {Kind::None, 0},    /* byte */
    {Kind::None, 0},    /* int16 */
    {Kind::None, 0},    /* uint16 */
    {Kind::Scalar, 4},  /* int32 */
    {Kind::Scalar, 4},  /* uint32 */
    {Kind::Scalar, 8},  /* int64 */
    {Kind::Scalar, 8},  /* uint64 */
    {Kind::Text, 1},    /* string */
    {Kind::None, 0},    /* byte array */
    {Kind::None, 0},    /* int16 array */
    {Kind::None, 0},    /* uint16 array */
    {Kind::Numbers, 4}, /* int32 array */
    {Kind::Numbers, 4}, /* uint32 array */
    {Kind::Numbers, 8}, /* int64 array */
    {Kind::Numbers, 8}, /* uint64 array */
    {Kind::Texts, 8},   /* string array */
    {Kind::None, 0},    /* reserved */
    {Kind::List, 0},    /* list */
    {Kind::Lists, 8},   /* list array */
    {Kind::Scalar, 4},  /* boolean value */
    {Kind::None, 0},    /* int8 */
    {Kind::None, 0},    /* uint8 */
    {Kind::Numbers, 4}, /* boolean array */
};

inline TypeInfo info_of(uint32_t type)
{
	return type < sizeof(type_infos) / sizeof(type_infos[0]) ? type_infos[type] : TypeInfo{Kind::None, 0};
}

// ---- A pair ----

inline char *name_of(attrpair *pair)
{
	return reinterpret_cast<char *>(pair + 1);
}
inline const char *name_of(const attrpair *pair)
{
	return reinterpret_cast<const char *>(pair + 1);
}

// The bytes of aligned data that lie in front of a pair.
inline size_t front_size(TypeInfo info, size_t count)
{
	switch (info.kind) {
	case Kind::Numbers: {
		size_t bytes = count * info.width;
		return bytes > sizeof(attrpair::value) ? (bytes + 7) & ~size_t{7} : 0;
	}
	case Kind::Texts:
		return count * sizeof(char *);
	case Kind::List:
		return sizeof(attrlist);
	case Kind::Lists:
		return count * (sizeof(attrlist) + sizeof(attrlist *));
	default:
		return 0;
	}
}

// The bytes of a text that lie behind a pair's name.
inline size_t text_size(size_t length)
{
	return length < sizeof(attrpair::value) ? 0 : length + 1;
}

// The size of a pair's record; `back` is the size of its texts.
inline size_t record_size(size_t front, size_t name_length, size_t back)
{
	return rounded(front + sizeof(attrpair) + name_length + 1 + back);
}

inline size_t back_size(const attrpair *pair, TypeInfo info)
{
	if (info.kind == Kind::Text)
		return text_size(pair->count);
	if (info.kind != Kind::Texts || pair->count == 0)
		return 0;
	// The texts lie one behind the other, after the name.
	const char *last = pair->value.texts[pair->count - 1];
	return static_cast<size_t>(last - name_of(pair)) + strlen(last) - pair->name_length;
}

// The elements of a pair's value, wherever they lie.
inline const void *data_of(const attrpair *pair, TypeInfo info)
{
	if (info.kind == Kind::Text)
		return text_size(pair->count) == 0 ? pair->value.bytes : pair->value.text;
	if (info.kind == Kind::Numbers)
		return front_size(info, pair->count) == 0 ? pair->value.bytes : pair->value.data;
	return info.kind == Kind::Scalar ? pair->value.bytes : pair->value.data;
}

// A pair to be made. `data` points to the value, to the array, or to the text itself.
struct Draft {
	uint8_t type;
	const void *data;
	size_t count;
};

// ---- A list ----

struct Slot {
	attrpair *before; // the pair before the one of this slot; NULL for the list's first
	uint32_t hash;    // 0 for an empty slot
};

// Open addressing. It follows its list's ring, and shares the arena.
struct Index {
	attrpair *last;
	size_t mask;
	uint32_t used;
	bool large;
	Slot *slots() { return reinterpret_cast<Slot *>(this + 1); }
};

inline attrlist *root_of(attrlist *list)
{
	return (list->flags & LIST_NESTED) != 0 ? list->root : list;
}

inline attrpair *&last_of(attrlist *list)
{
	return (list->flags & LIST_INDEXED) != 0 ? list->index->last : list->last;
}

inline attrpair *first_of(attrlist *list)
{
	attrpair *last = last_of(list);
	return last == nullptr ? nullptr : last->next;
}

inline attrpair *after(attrlist *list, const attrpair *pair)
{
	return pair == last_of(list) ? nullptr : pair->next;
}

struct Key {
	const char *name;
	size_t length;
	uint32_t hash; // only for a list with an index
};

// Where a pair is: `pair` is NULL if there is none.
struct Place {
	attrpair *pair;
	attrpair *before;
	Slot *slot;
};

inline bool has_name(const attrpair *pair, const Key &key)
{
	return pair->name_length == key.length && memcmp(name_of(pair), key.name, key.length) == 0;
}

// Never 0. Depends on a secret of the process, so that names can't be chosen to collide.
uint32_t hash_name(const char *name, size_t length);

inline Key key_for(const attrlist *list, const char *name, size_t length)
{
	return {name, length, (list->flags & LIST_INDEXED) != 0 ? hash_name(name, length) : 0};
}

Place find_in_index(attrlist *list, const Key &key);
inline Place find(attrlist *list, const Key &key)
{
	if ((list->flags & LIST_INDEXED) != 0)
		return find_in_index(list, key);
	attrpair *before = list->last;
	for (uint32_t left = list->count; left > 0; left--) {
		if (has_name(before->next, key))
			return {before->next, before, nullptr};
		before = before->next;
	}
	return {};
}

inline void start_list(attrlist *list, attrlist *parent)
{
	list->last = nullptr;
	list->root = root_of(parent);
	list->count = 0;
	list->level = static_cast<uint8_t>(parent->level + 1);
	list->flags = LIST_NESTED;
}

// The bytes of the index that a list of `count` pairs has when it's made in one go; 0 for a short list.
size_t index_size(size_t count);
// Makes sure that `more` pairs can be appended without memory for the index. 0, ENOMEM or EINVAL (too many pairs).
int reserve_index(attrlist *list, size_t more);
void insert_in_index(attrlist *list, attrpair *before, uint32_t hash);
void erase_from_index(attrlist *list, const Place &place);

// Puts a pair behind the last one. Its name isn't in the list, and the index has room.
inline void append(attrlist *list, attrpair *pair, uint32_t hash)
{
	attrpair *&last = last_of(list);
	if ((list->flags & LIST_INDEXED) != 0)
		insert_in_index(list, last, hash);
	if (last != nullptr) {
		pair->next = last->next;
		last->next = pair;
	} else {
		pair->next = pair;
	}
	last = pair;
	list->count++;
}

// Takes a pair out of the ring and gives its memory back.
void remove_at(attrlist *list, const Place &place);
// Gives back a pair that is in no ring, with all that lies in it.
void release_pair(attrlist *root, attrpair *pair);
// Removes all pairs, one by one.
void release_pairs(attrlist *list);

// The arena of an outermost list, made if need be; NULL without memory.
Arena *arena_of(attrlist *root);

// Takes the record of a pair and fills in the name; the value is the caller's to set.
attrpair *take_pair(attrlist *root, const char *name, size_t name_length, Draft draft, size_t front, size_t back);

// Makes a pair for `list`, not yet in its ring. 0, ENOMEM, EINVAL (too deep).
int make_pair(attrlist *list, const Key &key, const Draft &draft, attrpair **pairp);
int copy_pair(attrlist *list, const attrpair *pair, attrpair **copyp);
// Appends copies of all pairs of `from` to the empty list `to`.
int copy_pairs(attrlist *to, attrlist *from);

// Puts a made pair at the end of the list, in place of one with its name. The index has room.
void put_pair(attrlist *list, const Key &key, attrpair *pair);

// Makes an outermost list with room of exactly `size` bytes behind it; `arena` is the caller's, and in use until
// close_exact().
attrlist *open_exact(size_t size, Arena *arena);
void close_exact(attrlist *root);

} // namespace atl

#endif
