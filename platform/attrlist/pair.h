// What a pair is made of.
//
// A pair is one record of the arena: aligned data (numbers, pointers, the headers of nested lists), then the pair itself,
// then its name and the bytes of its texts. Values of up to 8 bytes lie in the pair.
#ifndef MERIDON_ATTRLIST_PAIR_H
#define MERIDON_ATTRLIST_PAIR_H

#include <cstddef>

#include <meridon/attrlist.h>

#include "attrlist/arena.h"
#include "attrlist/words.h"

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
	uint8_t eighths; // an eighth of the record's size, or one of the two numbers below
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
static_assert(
    offsetof(attrpair, count) == 16 && offsetof(attrpair, eighths) == 23, "set_head() writes them as one word");
static_assert(sizeof(size_t) == 8, "the sums of sizes below can't overflow 64 bits");

namespace atl {

enum : uint8_t { EIGHTHS_MANY = 254, EIGHTHS_LARGE = 255 }; // the size is to be worked out; LARGE lies apart
enum : uint8_t { LIST_NESTED = 1, LIST_INDEXED = 2 };

inline constexpr uint32_t linear_max = 16;

enum class Kind : uint8_t { None, Scalar, Numbers, Text, Texts, List, Lists };

struct TypeInfo {
	Kind kind;
	uint8_t width;  // of one number
	uint8_t front;  // what an element takes in front of the pair,
	uint8_t inside; // but for so many bytes, which lie in the pair
};

inline constexpr TypeInfo no_type = {Kind::None, 0, 0, 0};
inline constexpr TypeInfo scalar32 = {Kind::Scalar, 4, 0, 0};
inline constexpr TypeInfo scalar64 = {Kind::Scalar, 8, 0, 0};
inline constexpr TypeInfo numbers32 = {Kind::Numbers, 4, 4, 8};
inline constexpr TypeInfo numbers64 = {Kind::Numbers, 8, 8, 8};

// By data_type_t. What no call adds is no_type.
inline constexpr TypeInfo type_infos[] = {
    no_type,                                                    // unknown
    no_type,                                                    // boolean without a value
    no_type,                                                    // byte
    no_type,                                                    // int16
    no_type,                                                    // uint16
    scalar32,                                                   // int32
    scalar32,                                                   // uint32
    scalar64,                                                   // int64
    scalar64,                                                   // uint64
    {Kind::Text, 0, 0, 0},                                      // string
    no_type,                                                    // byte array
    no_type,                                                    // int16 array
    no_type,                                                    // uint16 array
    numbers32,                                                  // int32 array
    numbers32,                                                  // uint32 array
    numbers64,                                                  // int64 array
    numbers64,                                                  // uint64 array
    {Kind::Texts, 0, sizeof(char *), 0},                        // string array
    no_type,                                                    // reserved
    {Kind::List, 0, sizeof(attrlist), 0},                       // list
    {Kind::Lists, 0, sizeof(attrlist) + sizeof(attrlist *), 0}, // list array
    scalar32,                                                   // boolean value
    no_type,                                                    // int8
    no_type,                                                    // uint8
    numbers32,                                                  // boolean array
};

inline TypeInfo info_of(uint32_t type)
{
	return type < sizeof(type_infos) / sizeof(type_infos[0]) ? type_infos[type] : no_type;
}

// ---- The parts of a record ----

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
	size_t bytes = count * info.front;
	return bytes <= info.inside ? 0 : (bytes + 7) & ~size_t{7};
}

// The bytes that a text takes after a pair's name.
inline size_t text_size(size_t length)
{
	return length < sizeof(attrpair::value) ? 0 : length + 1;
}

// The size of a pair's record; `back` is the size of its texts.
inline size_t record_size(size_t front, size_t name_length, size_t back)
{
	return rounded(front + sizeof(attrpair) + name_length + 1 + back);
}

inline uint8_t eighths_of(size_t size, const Arena *arena)
{
	if (size / 8 < EIGHTHS_MANY)
		return static_cast<uint8_t>(size / 8);
	return size > record_max && !arena->exact ? EIGHTHS_LARGE : EIGHTHS_MANY;
}

// The size of a record that is too large to note it.
size_t long_record_size(const attrpair *pair);
inline size_t record_size(const attrpair *pair)
{
	return pair->eighths < EIGHTHS_MANY ? pair->eighths * size_t{8} : long_record_size(pair);
}

// Whether the value is a pointer to elsewhere in the record.
inline bool lies_apart(const attrpair *pair, TypeInfo info)
{
	return front_size(info, pair->count) != 0 || (info.kind == Kind::Text && text_size(pair->count) != 0);
}

// The elements of a pair's value, wherever they lie.
inline const void *data_of(const attrpair *pair, TypeInfo info)
{
	return lies_apart(pair, info) ? pair->value.data : pair->value.bytes;
}

inline bool holds_lists(TypeInfo info)
{
	return info.kind == Kind::List || info.kind == Kind::Lists;
}

// The nested lists of a pair that holds lists lie one after the other, at the front of its record.
inline attrlist *lists_of(const attrpair *pair, TypeInfo info)
{
	auto *front = reinterpret_cast<const char *>(pair) - front_size(info, pair->count);
	return reinterpret_cast<attrlist *>(const_cast<char *>(front));
}

// ---- A name to look for or to give ----

struct Key {
	const char *name;
	size_t length;
	uint64_t head; // the first bytes of the name
	uint32_t hash; // only for a list with an index
};

inline bool has_name(const attrpair *pair, const Key &key)
{
	if (pair->name_length != key.length)
		return false;
	// A record has room for a whole word after the pair.
	if (keep_head(load<uint64_t>(name_of(pair)), key.length) != key.head)
		return false;
	return key.length <= 8 || memcmp(name_of(pair) + 8, key.name + 8, key.length - 8) == 0;
}

// Sets four fields by one word, since the next copy of the record reads them as one.
inline void set_head(attrpair *pair, uint64_t count, uint64_t name_length, uint64_t type, uint64_t eighths)
{
#if __BYTE_ORDER == __LITTLE_ENDIAN
	store(&pair->count, count | name_length << 32 | type << 48 | eighths << 56);
#else
	store(&pair->count, count << 32 | name_length << 16 | type << 8 | eighths);
#endif
}

// Makes the pair of a new record: its name, and a value that is still a pointer to the front of the record.
inline attrpair *start_pair(void *record, size_t front, const Key &key, uint8_t type, size_t count, uint8_t eighths)
{
	auto *pair = reinterpret_cast<attrpair *>(static_cast<char *>(record) + front);
	pair->value.data = record;
	set_head(pair, count, key.length, type, eighths);
	store(name_of(pair), key.head);
	if (key.length >= 8)
		copy_padded(name_of(pair) + 8, key.name + 8, key.length - 7);
	return pair;
}

inline attrlist *root_of(attrlist *list)
{
	return (list->flags & LIST_NESTED) != 0 ? list->root : list;
}

// The arena of an outermost list, made if need be; NULL without memory.
Arena *make_arena(attrlist *root);
inline Arena *arena_of(attrlist *root)
{
	return root->arena != nullptr ? root->arena : make_arena(root);
}

} // namespace atl

#endif
