// Pairs of numbers and texts, made in the arena of an outermost list. NULL is no memory.
#ifndef MERIDON_ATTRLIST_MAKE_H
#define MERIDON_ATTRLIST_MAKE_H

#include "attrlist/pair.h"

namespace atl {

inline attrpair *take_pair(attrlist *root, const Key &key, uint8_t type, size_t count, size_t front, size_t back)
{
	Arena *arena = arena_of(root);
	if (arena == nullptr)
		return nullptr;
	size_t size = record_size(front, key.length, back);
	void *record = arena_take(arena, size);
	if (record == nullptr)
		return nullptr;
	return start_pair(record, front, key, type, count, eighths_of(size, arena));
}

// Scalars too, as arrays of one; what fits lies in the pair.
inline attrpair *make_numbers(attrlist *root, const Key &key, uint8_t type, const void *numbers, size_t count)
{
	TypeInfo info = info_of(type);
	size_t front = front_size(info, count);
	attrpair *pair = take_pair(root, key, type, count, front, 0);
	if (pair == nullptr)
		return nullptr;
	copy_padded(front != 0 ? pair->value.data : pair->value.bytes, numbers, count * info.width);
	return pair;
}

inline attrpair *make_text(attrlist *root, const Key &key, const char *text, size_t length)
{
	size_t back = text_size(length);
	attrpair *pair = take_pair(root, key, DATA_TYPE_STRING, length, 0, back);
	if (pair == nullptr)
		return nullptr;
	if (back == 0) {
		copy_padded(pair->value.bytes, text, length + 1);
		return pair;
	}
	pair->value.text = name_of(pair) + key.length + 1;
	copy_bytes(pair->value.text, text, length + 1);
	return pair;
}

inline attrpair *make_texts(attrlist *root, const Key &key, char *const *texts, size_t count)
{
	size_t back = 0;
	for (size_t i = 0; i < count; i++)
		back += strlen(texts[i]) + 1;
	attrpair *pair = take_pair(root, key, DATA_TYPE_STRING_ARRAY, count, count * sizeof(char *), back);
	if (pair == nullptr)
		return nullptr;
	char *at = name_of(pair) + key.length + 1;
	for (size_t i = 0; i < count; i++) {
		size_t size = strlen(texts[i]) + 1;
		pair->value.texts[i] = at;
		copy_bytes(at, texts[i], size);
		at += size;
	}
	return pair;
}

} // namespace atl

#endif
