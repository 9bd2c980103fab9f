// Making, copying, linking and giving back pairs.
//
// A pair is made whole before it is put into a ring. What fails half-way is given back by release_pair(), so a pair of nested
// lists is one from the start: its lists are empty ones until they are filled.
//
// Lists lie in lists up to ATTRLIST_DEPTH_MAX levels, which make_lists() sees to: that bounds every recursion here.
#include "attrlist/list.h"

#include "attrlist/make.h"

namespace atl {

namespace {

// A pair of nested lists, still empty, so that it can be given back at any time.
attrpair *make_empty_lists(attrlist *list, const Key &key, uint8_t type, size_t count)
{
	TypeInfo info = info_of(type);
	attrpair *pair = take_pair(root_of(list), key, type, count, front_size(info, count), 0);
	if (pair == nullptr)
		return nullptr;
	(void) start_lists(pair, info, list);
	return pair;
}

// Pointers into their own record follow it to its new place.
void move_pointers(attrpair *copy, TypeInfo info, ptrdiff_t distance)
{
	copy->value.text += distance;
	for (uint32_t i = 0; info.kind == Kind::Texts && i < copy->count; i++)
		copy->value.texts[i] += distance;
}

// A pair without nested lists is copied as the record that it is.
// It holds no pointer out of itself.
attrpair *copy_record(attrlist *root, const attrpair *pair, TypeInfo info)
{
	Arena *arena = arena_of(root);
	if (arena == nullptr)
		return nullptr;
	size_t size = record_size(pair);
	auto *record = static_cast<char *>(arena_take(arena, size));
	if (record == nullptr)
		return nullptr;
	size_t front = front_size(info, pair->count);
	copy_words(record, reinterpret_cast<const char *>(pair) - front, size);
	auto *copy = reinterpret_cast<attrpair *>(record + front);
	copy->eighths = eighths_of(size, arena);
	if (lies_apart(pair, info))
		move_pointers(copy, info, reinterpret_cast<char *>(copy) - reinterpret_cast<const char *>(pair));
	return copy;
}

} // namespace

Made make_lists(attrlist *list, const Key &key, uint8_t type, attrlist *const *from, size_t count)
{
	if (list->level >= ATTRLIST_DEPTH_MAX && count > 0)
		return {nullptr, EINVAL};
	attrpair *pair = make_empty_lists(list, key, type, count);
	if (pair == nullptr)
		return {nullptr, ENOMEM};
	attrlist *lists = lists_of(pair, info_of(type));
	for (size_t i = 0; from != nullptr && i < count; i++) {
		if (int error = copy_pairs(&lists[i], from[i])) {
			release_pair(root_of(list), pair);
			return {nullptr, error};
		}
	}
	return {pair, 0};
}

Made copy_pair(attrlist *list, const attrpair *pair)
{
	TypeInfo info = info_of(pair->type);
	if (holds_lists(info)) {
		attrlist *const *lists = info.kind == Kind::List ? &pair->value.list : pair->value.lists;
		return make_lists(
		    list, key_for(list, name_of(pair), pair->name_length), pair->type, lists, pair->count);
	}
	attrpair *copy = copy_record(root_of(list), pair, info);
	return {copy, copy != nullptr ? 0 : ENOMEM};
}

int copy_pairs(attrlist *to, attrlist *from)
{
	if (int error = reserve_index(to, from->count))
		return error;
	for (attrpair *pair = first_of(from); pair != nullptr; pair = after(from, pair)) {
		Made copy = copy_pair(to, pair);
		if (copy.pair == nullptr)
			return copy.error;
		append(to, copy.pair, hash_for(to, name_of(pair), pair->name_length));
	}
	return 0;
}

// The index first: it looks for the next pair by way of the one that goes.
void remove_at(attrlist *list, const Position &position)
{
	if ((list->flags & LIST_INDEXED) != 0)
		erase_from_index(list, position);
	attrpair *&last = last_of(list);
	position.before->next = position.pair->next;
	if (position.pair == last)
		last = position.before == position.pair ? nullptr : position.before;
	list->count--;
	release_pair(root_of(list), position.pair);
}

void release_pair(attrlist *root, attrpair *pair)
{
	TypeInfo info = info_of(pair->type);
	if (holds_lists(info))
		for (uint32_t i = 0; i < pair->count; i++)
			release_pairs(&lists_of(pair, info)[i]);
	char *record = reinterpret_cast<char *>(pair) - front_size(info, pair->count);
	if (Arena *arena = arena_of(root))
		arena_give(arena, record, record_size(pair), pair->eighths == EIGHTHS_LARGE);
}

void release_pairs(attrlist *list)
{
	attrlist *root = root_of(list);
	attrpair *pair = first_of(list);
	for (uint32_t left = list->count; left > 0; left--) {
		attrpair *next = pair->next;
		release_pair(root, pair);
		pair = next;
	}
	// The index's slots lead to pairs that are gone, but giving it back looks at none of them.
	release_index(list);
	list->last = nullptr;
	list->count = 0;
}

} // namespace atl
