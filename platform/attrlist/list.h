// What is done with lists below the exported calls. Pairs form a ring, of which the list knows the last one. Up to
// linear_max pairs are searched in a line, more through an index.
#ifndef MERIDON_ATTRLIST_LIST_H
#define MERIDON_ATTRLIST_LIST_H

#include <cerrno>

#include "attrlist/index.h"

namespace atl {

inline attrpair *first_of(attrlist *list)
{
	attrpair *last = last_of(list);
	return last == nullptr ? nullptr : last->next;
}

inline attrpair *after(attrlist *list, const attrpair *pair)
{
	return pair == last_of(list) ? nullptr : pair->next;
}

inline uint32_t hash_for(const attrlist *list, const char *name, size_t length)
{
	return (list->flags & LIST_INDEXED) != 0 ? hash_name(name, length) : 0;
}

inline Key key_for(const attrlist *list, const char *name, size_t length)
{
	return {name, length, load_head(name, length), hash_for(list, name, length)};
}

inline Position find(attrlist *list, const Key &key)
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

// Makes the nested lists of a pair, whose room was taken with its record, empty ones of `list`.
inline attrlist *start_lists(attrpair *pair, TypeInfo info, attrlist *list)
{
	attrlist *lists = lists_of(pair, info);
	if (info.kind == Kind::Lists)
		pair->value.lists = reinterpret_cast<attrlist **>(lists + pair->count);
	for (uint32_t i = 0; i < pair->count; i++) {
		start_list(&lists[i], list);
		if (info.kind == Kind::Lists)
			pair->value.lists[i] = &lists[i];
	}
	return lists;
}

inline size_t index_size(size_t count)
{
	return count <= linear_max ? 0 : long_index_size(count);
}
inline int reserve_index(attrlist *list, size_t more)
{
	bool no_index = (list->flags & LIST_INDEXED) == 0 && more <= linear_max && list->count + more <= linear_max;
	return no_index ? 0 : grow_index(list, more);
}
// Puts a pair after the last one. Its name isn't in the list, and the index has room.
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
void remove_at(attrlist *list, const Position &position);
// Gives back a pair that is in no ring, with all that lies in it.
void release_pair(attrlist *root, attrpair *pair);
// Removes all pairs, one by one.
void release_pairs(attrlist *list);

// A pair that isn't in a ring yet; without one, why.
struct Made {
	attrpair *pair;
	int error; // ENOMEM, or EINVAL for lists that would lie too deep
};

// Makes a pair of nested lists for `list`: copies, or empty ones if `from` is NULL.
Made make_lists(attrlist *list, const Key &key, uint8_t type, attrlist *const *from, size_t count);
Made copy_pair(attrlist *list, const attrpair *pair);
// Appends copies of all pairs of `from` to the empty list `to`. 0 or an error; after one, `to` holds some of them.
int copy_pairs(attrlist *to, attrlist *from);

// Puts a made pair at the end of the list, in place of one with its name. The index has room.
inline void put_pair(attrlist *list, const Key &key, attrpair *pair)
{
	if (Position old = find(list, key); old.pair != nullptr)
		remove_at(list, old);
	append(list, pair, key.hash);
}

// Makes an outermost list with room of exactly `size` bytes after it; `arena` is the caller's, and in use until
// close_exact().
attrlist *open_exact(size_t size, Arena *arena);
void close_exact(attrlist *root);
// Makes a copy of exact size. NULL without memory.
attrlist *copy_exactly(attrlist *list);

} // namespace atl

#endif
