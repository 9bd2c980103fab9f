// The index of a long list: which pair has a name, and which pair stands before it.
#ifndef MERIDON_ATTRLIST_INDEX_H
#define MERIDON_ATTRLIST_INDEX_H

#include "attrlist/pair.h"

namespace atl {

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

inline attrpair *&last_of(attrlist *list)
{
	return (list->flags & LIST_INDEXED) != 0 ? list->index->last : list->last;
}

// Where a pair is: `pair` is NULL if there is none.
struct Position {
	attrpair *pair;
	attrpair *before;
	Slot *slot;
};

// Never 0. Depends on a secret of the process, so that names can't be chosen to collide.
uint32_t hash_name(const char *name, size_t length);

Position find_in_index(attrlist *list, const Key &key);

// The bytes of the index that a list of `count` pairs has when it's made in one go; 0 for a short list.
size_t long_index_size(size_t count);
// Makes sure that `more` pairs can be appended without memory for the index. 0, ENOMEM or EINVAL (too many pairs).
int grow_index(attrlist *list, size_t more);
void insert_in_index(attrlist *list, attrpair *before, uint32_t hash);
void erase_from_index(attrlist *list, const Position &position);
// Gives the index back. The list is without one, and its last pair to be set.
void release_index(attrlist *list);

} // namespace atl

#endif
