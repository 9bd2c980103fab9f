// The size of a pair with texts, and the arena that pairs are cut from.
#include "attrlist/pair.h"

#include <cstdlib>

namespace atl {

size_t long_record_size(const attrpair *pair)
{
	TypeInfo info = info_of(pair->type);
	size_t back = info.kind == Kind::Text ? text_size(pair->count) : 0;
	if (info.kind == Kind::Texts && pair->count > 0) {
		// The texts lie one after the other, after the name.
		const char *last = pair->value.texts[pair->count - 1];
		back = static_cast<size_t>(last - name_of(pair)) + strlen(last) - pair->name_length;
	}
	return record_size(front_size(info, pair->count), pair->name_length, back);
}

Arena *make_arena(attrlist *root)
{
	auto *arena = static_cast<Arena *>(malloc(sizeof(Arena) + first_room));
	root->arena = arena;
	if (arena == nullptr)
		return nullptr;
	arena_start(arena);
	arena->run = nullptr; // there are records in the list's own block already
	return arena;
}

} // namespace atl
