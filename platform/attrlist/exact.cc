// Lists in one block of exactly the size that they need: what copies and unpacked lists are.
//
// Such a list has no arena: freeing it is freeing one block. It gets an arena with its first change (make_arena()), for what is
// added from then on; the block, and what lies in it, stays where it is.
//
// A list that was only ever appended to lies in one run of memory: it is copied as that, and all pointers into it are moved
// by the distance. Any other list is measured and copied pair by pair.
#include <cstdlib>

#include "attrlist/list.h"

namespace atl {

namespace {

// All that points into a run of memory that was copied as it stands is moved by the distance of the copy.
struct Move {
	attrlist *root;
	ptrdiff_t distance;

	template <typename T>
	void pointer(T *&pointer) const
	{
		pointer = reinterpret_cast<T *>(reinterpret_cast<char *>(pointer) + distance);
	}
	void value(attrpair *pair, TypeInfo info) const;
	void index(attrlist *list) const;
	void pairs(attrlist *list) const;
};

void Move::value(attrpair *pair, TypeInfo info) const
{
	pointer(pair->value.data);
	for (uint32_t i = 0; info.kind == Kind::Texts && i < pair->count; i++)
		pointer(pair->value.texts[i]);
	for (uint32_t i = 0; holds_lists(info) && i < pair->count; i++) {
		if (info.kind == Kind::Lists)
			pointer(pair->value.lists[i]);
		attrlist *list = &lists_of(pair, info)[i];
		list->root = root;
		pairs(list);
	}
}

void Move::index(attrlist *list) const
{
	pointer(list->index);
	Index *index = list->index;
	if (index->last != nullptr)
		pointer(index->last);
	for (size_t i = 0; i <= index->mask; i++)
		if (index->slots()[i].before != nullptr)
			pointer(index->slots()[i].before);
}

void Move::pairs(attrlist *list) const
{
	if ((list->flags & LIST_INDEXED) != 0)
		index(list);
	else if (list->last != nullptr)
		pointer(list->last);
	attrpair *pair = last_of(list);
	for (uint32_t left = list->count; left > 0; left--) {
		pointer(pair->next);
		pair = pair->next;
		TypeInfo info = info_of(pair->type);
		if (lies_apart(pair, info))
			value(pair, info);
	}
}

// A list that was filled in one run is copied in one go.
attrlist *copy_run(attrlist *list)
{
	const Arena *arena = list->arena;
	auto size = static_cast<size_t>(arena->at - arena->run);
	auto *copy = static_cast<attrlist *>(malloc(sizeof(attrlist) + size));
	if (copy == nullptr)
		return nullptr;
	*copy = *list;
	copy->arena = nullptr;
	copy_words(copy + 1, arena->run, size);
	Move{copy, reinterpret_cast<char *>(copy + 1) - arena->run}.pairs(copy);
	return copy;
}

size_t memory_size(attrlist *list);

size_t pair_memory(const attrpair *pair)
{
	size_t size = record_size(pair);
	TypeInfo info = info_of(pair->type);
	if (holds_lists(info))
		for (uint32_t i = 0; i < pair->count; i++)
			size += memory_size(&lists_of(pair, info)[i]);
	return size;
}

// What the records of a list take.
size_t memory_size(attrlist *list)
{
	size_t size = index_size(list->count);
	for (const attrpair *pair = first_of(list); pair != nullptr; pair = after(list, pair))
		size += pair_memory(pair);
	return size;
}

} // namespace

attrlist *open_exact(size_t size, Arena *arena)
{
	auto *root = static_cast<attrlist *>(malloc(sizeof(attrlist) + size));
	if (root == nullptr)
		return nullptr;
	arena_start_exact(arena, reinterpret_cast<char *>(root + 1), size);
	*root = {};
	root->level = 1;
	root->arena = arena;
	return root;
}

void close_exact(attrlist *root)
{
	root->arena = nullptr;
}

attrlist *copy_exactly(attrlist *list)
{
	bool outermost = (list->flags & LIST_NESTED) == 0;
	if (outermost && list->arena != nullptr && arena_is_run(list->arena))
		return copy_run(list);
	Arena arena;
	attrlist *copy = open_exact(memory_size(list), &arena);
	if (copy == nullptr)
		return nullptr;
	(void) copy_pairs(copy, list); // the memory is there, and the depth can't grow
	close_exact(copy);
	return copy;
}

} // namespace atl
