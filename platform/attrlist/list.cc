// Making, copying, linking and giving back pairs.
#include <cstdlib>

#include "attrlist/list.h"

namespace atl {

namespace {

attrpair *take_pair(attrlist *root, const Key &key, const Draft &draft, size_t front, size_t back)
{
	Arena *arena = arena_of(root);
	if (arena == nullptr)
		return nullptr;
	size_t size = record_size(front, key.length, back);
	auto *record = static_cast<char *>(arena_take(arena, size));
	if (record == nullptr)
		return nullptr;
	auto *pair = reinterpret_cast<attrpair *>(record + front);
	pair->value.data = record;
	pair->count = static_cast<uint32_t>(draft.count);
	pair->type = draft.type;
	pair->eighths = eighths_of(size, arena);
	put_name(pair, key);
	return pair;
}

attrpair *make_numbers(attrlist *root, const Key &key, const Draft &draft, TypeInfo info)
{
	size_t front = front_size(info, draft.count);
	attrpair *pair = take_pair(root, key, draft, front, 0);
	if (pair != nullptr)
		copy_bytes(front != 0 ? pair->value.data : pair->value.bytes, draft.data, draft.count * info.width);
	return pair;
}

attrpair *make_text(attrlist *root, const Key &key, const Draft &draft)
{
	size_t back = text_size(draft.count);
	attrpair *pair = take_pair(root, key, draft, 0, back);
	if (pair == nullptr)
		return nullptr;
	if (back != 0)
		pair->value.text = name_of(pair) + key.length + 1;
	copy_bytes(back != 0 ? pair->value.text : pair->value.bytes, draft.data, draft.count + 1);
	return pair;
}

attrpair *make_texts(attrlist *root, const Key &key, const Draft &draft)
{
	auto *texts = static_cast<char *const *>(draft.data);
	size_t back = 0;
	for (size_t i = 0; i < draft.count; i++)
		back += strlen(texts[i]) + 1;
	attrpair *pair = take_pair(root, key, draft, draft.count * sizeof(char *), back);
	if (pair == nullptr)
		return nullptr;
	char *at = name_of(pair) + key.length + 1;
	for (size_t i = 0; i < draft.count; i++) {
		size_t size = strlen(texts[i]) + 1;
		pair->value.texts[i] = at;
		copy_bytes(at, texts[i], size);
		at += size;
	}
	return pair;
}

// A pair of nested lists, still empty, so that it can be given back at any time.
attrpair *make_empty_lists(attrlist *list, const Key &key, const Draft &draft, TypeInfo info)
{
	attrpair *pair = take_pair(root_of(list), key, draft, front_size(info, draft.count), 0);
	if (pair == nullptr)
		return nullptr;
	attrlist *lists = pair->value.list;
	if (info.kind == Kind::Lists)
		pair->value.lists = reinterpret_cast<attrlist **>(lists + pair->count);
	for (uint32_t i = 0; i < pair->count; i++) {
		start_list(&lists[i], list);
		if (info.kind == Kind::Lists)
			pair->value.lists[i] = &lists[i];
	}
	return pair;
}

int make_lists(attrlist *list, const Key &key, const Draft &draft, attrpair **pairp)
{
	if (list->level >= ATTRLIST_DEPTH_MAX && draft.count > 0)
		return EINVAL;
	TypeInfo info = info_of(draft.type);
	attrpair *pair = make_empty_lists(list, key, draft, info);
	if (pair == nullptr)
		return ENOMEM;
	auto *from = static_cast<attrlist *const *>(draft.data);
	for (uint32_t i = 0; from != nullptr && i < pair->count; i++) {
		if (int error = copy_pairs(&lists_of(pair, info)[i], from[i])) {
			release_pair(root_of(list), pair);
			return error;
		}
	}
	*pairp = pair;
	return 0;
}

// Pointers into their own record follow it to its new place.
void move_pointers(attrpair *copy, TypeInfo info, ptrdiff_t distance)
{
	copy->value.text += distance;
	for (uint32_t i = 0; info.kind == Kind::Texts && i < copy->count; i++)
		copy->value.texts[i] += distance;
}

// A pair without nested lists is copied as the record that it is.
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

size_t pair_memory(const attrpair *pair)
{
	size_t size = record_size(pair);
	TypeInfo info = info_of(pair->type);
	if (holds_lists(info))
		for (uint32_t i = 0; i < pair->count; i++)
			size += memory_size(&lists_of(pair, info)[i]);
	return size;
}

} // namespace

size_t long_record_size(const attrpair *pair)
{
	TypeInfo info = info_of(pair->type);
	size_t back = info.kind == Kind::Text ? text_size(pair->count) : 0;
	if (info.kind == Kind::Texts && pair->count > 0) {
		// The texts lie one behind the other, after the name.
		const char *last = pair->value.texts[pair->count - 1];
		back = static_cast<size_t>(last - name_of(pair)) + strlen(last) - pair->name_length;
	}
	return record_size(front_size(info, pair->count), pair->name_length, back);
}

Arena *make_arena(attrlist *root)
{
	auto *arena = static_cast<Arena *>(malloc(sizeof(Arena) + first_room));
	if (arena != nullptr)
		arena_start(arena);
	root->arena = arena;
	return arena;
}

int make_pair(attrlist *list, const Key &key, const Draft &draft, attrpair **pairp)
{
	attrlist *root = root_of(list);
	TypeInfo info = info_of(draft.type);
	switch (info.kind) {
	case Kind::Scalar:
	case Kind::Numbers:
		*pairp = make_numbers(root, key, draft, info);
		break;
	case Kind::Text:
		*pairp = make_text(root, key, draft);
		break;
	case Kind::Texts:
		*pairp = make_texts(root, key, draft);
		break;
	default:
		return make_lists(list, key, draft, pairp);
	}
	return *pairp != nullptr ? 0 : ENOMEM;
}

int copy_pair(attrlist *list, const attrpair *pair, attrpair **copyp)
{
	TypeInfo info = info_of(pair->type);
	if (holds_lists(info)) {
		attrlist *const *lists = info.kind == Kind::List ? &pair->value.list : pair->value.lists;
		return make_lists(
		    list, key_for(list, name_of(pair), pair->name_length), {pair->type, lists, pair->count}, copyp);
	}
	*copyp = copy_record(root_of(list), pair, info);
	return *copyp != nullptr ? 0 : ENOMEM;
}

int copy_pairs(attrlist *to, attrlist *from)
{
	if (int error = reserve_index(to, from->count))
		return error;
	for (attrpair *pair = first_of(from); pair != nullptr; pair = after(from, pair)) {
		attrpair *copy;
		if (int error = copy_pair(to, pair, &copy))
			return error;
		append(to, copy, hash_for(to, name_of(copy), copy->name_length));
	}
	return 0;
}

void remove_at(attrlist *list, const Place &place)
{
	if ((list->flags & LIST_INDEXED) != 0)
		erase_from_index(list, place);
	attrpair *&last = last_of(list);
	place.before->next = place.pair->next;
	if (place.pair == last)
		last = place.before == place.pair ? nullptr : place.before;
	list->count--;
	release_pair(root_of(list), place.pair);
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
	release_index(list);
	list->last = nullptr;
	list->count = 0;
}

size_t memory_size(attrlist *list)
{
	size_t size = index_size(list->count);
	for (const attrpair *pair = first_of(list); pair != nullptr; pair = after(list, pair))
		size += pair_memory(pair);
	return size;
}

attrlist *open_exact(size_t size, Arena *arena)
{
	auto *root = static_cast<attrlist *>(malloc(sizeof(attrlist) + size));
	if (root == nullptr)
		return nullptr;
	char *room = reinterpret_cast<char *>(root + 1);
	*arena = {room, room + size, nullptr, nullptr, nullptr, 0, true};
	*root = {};
	root->level = 1;
	root->arena = arena;
	return root;
}

void close_exact(attrlist *root)
{
	root->arena = nullptr;
}

} // namespace atl
