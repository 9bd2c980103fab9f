// The arena of a list: chunks, free lists by size, and large records apart.
#include "attrlist/arena.h"

#include <cstdlib>
#include <cstring>

namespace atl {

namespace {

constexpr uint32_t chunk_first = 496;
constexpr uint32_t chunk_last = 65520;

// The free list of a rounded size: 32 of the steps of 8, then 8 for each of the four doublings.
size_t class_of(size_t size)
{
	if (size <= 256)
		return size / 8 - 1;
	size_t top = 63 - static_cast<size_t>(__builtin_clzl(size - 1));
	return 32 + (top - 8) * 8 + (((size - 1) >> (top - 3)) & 7);
}

void *take_large(Arena *arena, size_t size)
{
	auto *large = static_cast<Large *>(malloc(sizeof(Large) + size));
	if (large == nullptr)
		return nullptr;
	*large = {arena->large, nullptr};
	if (arena->large != nullptr)
		arena->large->previous = large;
	arena->large = large;
	return large + 1;
}

void give_large(Arena *arena, void *record)
{
	Large *large = static_cast<Large *>(record) - 1;
	if (large->previous != nullptr)
		large->previous->next = large->next;
	else
		arena->large = large->next;
	if (large->next != nullptr)
		large->next->previous = large->previous;
	free(large);
}

void use(Arena *arena, Chunk *chunk)
{
	arena->at = reinterpret_cast<char *>(chunk + 1);
	arena->end = arena->at + chunk->size;
}

bool add_chunk(Arena *arena, size_t size)
{
	size_t room = size > arena->next_chunk ? size : arena->next_chunk;
	auto *chunk = static_cast<Chunk *>(malloc(sizeof(Chunk) + room));
	if (chunk == nullptr)
		return false;
	*chunk = {arena->chunks, room};
	arena->chunks = chunk;
	bool first = arena->run == arena->at;
	use(arena, chunk);
	arena->run = first ? arena->at : nullptr;
	if (room < chunk_last)
		arena->next_chunk = static_cast<uint32_t>(room) * 2 + 16;
	return true;
}

void free_chunks(Chunk *chunk)
{
	while (chunk != nullptr) {
		Chunk *next = chunk->next;
		free(chunk);
		chunk = next;
	}
}

void free_large(Arena *arena)
{
	while (arena->large != nullptr) {
		Large *next = arena->large->next;
		free(arena->large);
		arena->large = next;
	}
}

} // namespace

void arena_start(Arena *arena)
{
	char *room = reinterpret_cast<char *>(arena + 1);
	*arena = {room, room + first_room, nullptr, nullptr, nullptr, room, chunk_first, false};
}

void arena_start_exact(Arena *arena, char *room, size_t size)
{
	*arena = {room, room + size, nullptr, nullptr, nullptr, nullptr, 0, true};
}

void *arena_take_slowly(Arena *arena, size_t size)
{
	if (size > record_max && !arena->exact)
		return take_large(arena, size);
	if (arena->free_lists != nullptr) {
		FreeRecord **list = &arena->free_lists->of_class[class_of(size)];
		if (FreeRecord *record = *list) {
			*list = record->next;
			return record;
		}
	}
	if (size > static_cast<size_t>(arena->end - arena->at) && !add_chunk(arena, size))
		return nullptr;
	void *record = arena->at;
	arena->at += size;
	return record;
}

void arena_give(Arena *arena, void *record, size_t size, bool large)
{
	if (large) {
		give_large(arena, record);
		return;
	}
	// A large record in a block of exact size isn't taken twice; it goes with the list.
	if (size > record_max)
		return;
	if (arena->free_lists == nullptr) {
		auto *lists = static_cast<FreeLists *>(arena_take_slowly(arena, sizeof(FreeLists)));
		if (lists == nullptr)
			return; // the record goes with the list
		memset(lists, 0, sizeof(*lists));
		arena->free_lists = lists;
	}
	FreeRecord **list = &arena->free_lists->of_class[class_of(size)];
	auto *given = static_cast<FreeRecord *>(record);
	given->next = *list;
	*list = given;
}

void arena_reset(Arena *arena)
{
	free_large(arena);
	arena->free_lists = nullptr;
	if (arena->chunks == nullptr) {
		arena->at = reinterpret_cast<char *>(arena + 1);
	} else {
		// The newest chunk is the largest one.
		free_chunks(arena->chunks->next);
		arena->chunks->next = nullptr;
		use(arena, arena->chunks);
	}
	arena->run = arena->at;
}

void arena_end(Arena *arena)
{
	free_large(arena);
	free_chunks(arena->chunks);
}

} // namespace atl
