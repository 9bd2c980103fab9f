// Making, copying, linking and giving back pairs.
#include "attrlist/list.h"

#include <cstdlib>

namespace atl {

namespace {

// The pairs' values that point into their own record follow it to its new place.
void move_pointers(attrpair *copy, const attrpair *pair, TypeInfo info)
{
	ptrdiff_t distance = reinterpret_cast<char *>(copy) - reinterpret_cast<const char *>(pair);
	copy->value.text += distance;
	if (info.kind != Kind::Texts)
		return;
	for (uint32_t i = 0; i < copy->count; i++)
		copy->value.texts[i] = pair->value.texts[i] + distance;
}

attrpair *copy_flat(attrlist *root, const attrpair *pair, TypeInfo info)
{
	Arena *arena = arena_of(root);
	if (arena == nullptr)
		return nullptr;
	size_t front = front_size(info, pair->count);
	size_t back = back_size(pair, info);
	size_t bytes = front + sizeof(attrpair) + pair->name_length + 1 + back;
	size_t size = rounded(bytes);
	auto *record = static_cast<char *>(arena_take(arena, size));
	if (record == nullptr)
		return nullptr;
	memcpy(record, reinterpret_cast<const char *>(pair) - front, bytes);
	auto *copy = reinterpret_cast<attrpair *>(record + front);
	copy->flags = size > record_max && !arena->exact ? PAIR_LARGE : 0;
	if (front != 0 || (info.kind == Kind::Text && back != 0))
		move_pointers(copy, pair, info);
	return copy;
}

void set_texts(attrpair *pair, char *const *texts, size_t front)
{
	pair->value.texts = reinterpret_cast<char **>(reinterpret_cast<char *>(pair) - front);
	char *at = name_of(pair) + pair->name_length + 1;
	for (uint32_t i = 0; i < pair->count; i++) {
		pair->value.texts[i] = at;
		at = stpcpy(at, texts[i]) + 1;
	}
}

void set_bytes(attrpair *pair, const void *data, size_t bytes, void *apart, bool inside)
{
	void *to = pair->value.bytes;
	if (!inside)
		to = pair->value.data = apart;
	if (bytes > 0)
		memcpy(to, data, bytes);
}

int make_flat(attrlist *root, const Key &key, const Draft &draft, TypeInfo info, attrpair **pairp)
{
	size_t front = front_size(info, draft.count);
	size_t back = info.kind == Kind::Text ? text_size(draft.count) : 0;
	auto *texts = static_cast<char *const *>(draft.data);
	if (info.kind == Kind::Texts)
		for (size_t i = 0; i < draft.count; i++)
			back += strlen(texts[i]) + 1;
	attrpair *pair = take_pair(root, key.name, key.length, draft, front, back);
	if (pair == nullptr)
		return ENOMEM;
	if (info.kind == Kind::Texts)
		set_texts(pair, texts, front);
	else if (info.kind == Kind::Text)
		set_bytes(pair, draft.data, draft.count + 1, name_of(pair) + key.length + 1, back == 0);
	else
		set_bytes(
		    pair, draft.data, draft.count * info.width, reinterpret_cast<char *>(pair) - front, front == 0);
	*pairp = pair;
	return 0;
}

// A pair of nested lists: first all headers, so that it can be given back at any time, then their pairs.
int make_nested(attrlist *list, const Key &key, const Draft &draft, attrlist *const *lists, attrpair **pairp)
{
	if (list->level >= ATTRLIST_DEPTH_MAX && draft.count > 0)
		return EINVAL;
	attrlist *root = root_of(list);
	bool array = draft.type == DATA_TYPE_ATTRLIST_ARRAY;
	size_t front = front_size(info_of(draft.type), draft.count);
	attrpair *pair = take_pair(root, key.name, key.length, draft, front, 0);
	if (pair == nullptr)
		return ENOMEM;
	auto *headers = reinterpret_cast<attrlist *>(reinterpret_cast<char *>(pair) - front);
	for (uint32_t i = 0; i < pair->count; i++)
		start_list(&headers[i], list);
	pair->value.list = headers;
	if (array) {
		pair->value.lists = reinterpret_cast<attrlist **>(headers + pair->count);
		for (uint32_t i = 0; i < pair->count; i++)
			pair->value.lists[i] = &headers[i];
	}
	for (uint32_t i = 0; lists != nullptr && i < pair->count; i++) {
		if (int error = copy_pairs(&headers[i], lists[i])) {
			release_pair(root, pair);
			return error;
		}
	}
	*pairp = pair;
	return 0;
}

} // namespace

Arena *arena_of(attrlist *root)
{
	if (root->arena != nullptr)
		return root->arena;
	auto *arena = static_cast<Arena *>(malloc(sizeof(Arena) + first_room));
	if (arena != nullptr)
		arena_start(arena);
	root->arena = arena;
	return arena;
}

attrpair *take_pair(attrlist *root, const char *name, size_t name_length, Draft draft, size_t front, size_t back)
{
	Arena *arena = arena_of(root);
	if (arena == nullptr)
		return nullptr;
	size_t size = record_size(front, name_length, back);
	auto *record = static_cast<char *>(arena_take(arena, size));
	if (record == nullptr)
		return nullptr;
	auto *pair = reinterpret_cast<attrpair *>(record + front);
	pair->next = nullptr;
	pair->value.data = nullptr;
	pair->count = static_cast<uint32_t>(draft.count);
	pair->name_length = static_cast<uint16_t>(name_length);
	pair->type = draft.type;
	pair->flags = size > record_max && !arena->exact ? PAIR_LARGE : 0;
	memcpy(name_of(pair), name, name_length);
	name_of(pair)[name_length] = '\0';
	return pair;
}

int make_pair(attrlist *list, const Key &key, const Draft &draft, attrpair **pairp)
{
	TypeInfo info = info_of(draft.type);
	if (info.kind == Kind::List || info.kind == Kind::Lists)
		return make_nested(list, key, draft, static_cast<attrlist *const *>(draft.data), pairp);
	return make_flat(root_of(list), key, draft, info, pairp);
}

int copy_pair(attrlist *list, const attrpair *pair, attrpair **copyp)
{
	TypeInfo info = info_of(pair->type);
	if (info.kind == Kind::List || info.kind == Kind::Lists) {
		attrlist *const *lists = info.kind == Kind::List ? &pair->value.list : pair->value.lists;
		return make_nested(
		    list, {name_of(pair), pair->name_length, 0}, {pair->type, nullptr, pair->count}, lists, copyp);
	}
	*copyp = copy_flat(root_of(list), pair, info);
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
		append(to, copy, key_for(to, name_of(copy), copy->name_length).hash);
	}
	return 0;
}

void put_pair(attrlist *list, const Key &key, attrpair *pair)
{
	if (Place old = find(list, key); old.pair != nullptr)
		remove_at(list, old);
	append(list, pair, key.hash);
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
	size_t front = front_size(info, pair->count);
	char *record = reinterpret_cast<char *>(pair) - front;
	if (info.kind == Kind::List || info.kind == Kind::Lists)
		for (uint32_t i = 0; i < pair->count; i++)
			release_pairs(reinterpret_cast<attrlist *>(record) + i);
	size_t size = record_size(front, pair->name_length, back_size(pair, info));
	if (Arena *arena = arena_of(root))
		arena_give(arena, record, size, (pair->flags & PAIR_LARGE) != 0);
}

void release_pairs(attrlist *list)
{
	attrlist *root = root_of(list);
	attrpair *last = last_of(list);
	attrpair *pair = first_of(list);
	for (uint32_t left = list->count; left > 0; left--) {
		attrpair *next = pair == last ? nullptr : pair->next;
		release_pair(root, pair);
		pair = next;
	}
	if ((list->flags & LIST_INDEXED) != 0) {
		Index *index = list->index;
		size_t size = rounded(sizeof(Index) + (index->mask + 1) * sizeof(Slot));
		if (Arena *arena = arena_of(root))
			arena_give(arena, index, size, index->large);
	}
	list->flags &= static_cast<uint8_t>(~LIST_INDEXED);
	list->last = nullptr;
	list->count = 0;
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
