// The memory of a list: one arena for an outermost list and all that lies in it.
//
// Records are cut from chunks and never move. A record that is given back waits in the free list of its size, so a value
// that is replaced again and again doesn't grow the list. Freeing the list frees the chunks, without a look at the pairs.
#ifndef MERIDON_ATTRLIST_ARENA_H
#define MERIDON_ATTRLIST_ARENA_H

#include <cstddef>
#include <cstdint>

namespace atl {

// Records above this have a block of the heap for themselves, which goes back to the heap with them.
inline constexpr size_t record_max = 4096;
// The room that comes with a new arena, in the same block of the heap.
inline constexpr size_t first_room = 176;

struct Chunk {
	Chunk *next;
	size_t size;
};

struct Large {
	Large *next;
	Large *previous;
};

struct FreeRecord {
	FreeRecord *next;
};

// One free list for each size of a record.
inline constexpr size_t size_classes = 64;
struct FreeLists {
	FreeRecord *of_class[size_classes];
};

struct Arena {
	char *at;
	char *end;
	Chunk *chunks; // the newest first
	Large *large;
	FreeLists *free_lists; // made when the first record is given back
	char *run;             // where the records begin, if all of them lie in one run up to `at`; else NULL
	uint32_t next_chunk;
	bool exact; // the room was measured beforehand and takes large records too
};

// The size that a record of so many bytes takes: steps of 8 up to 256, then 8 steps to each doubling.
inline size_t rounded(size_t size)
{
	if (size <= 256 || size > record_max)
		return (size + 7) & ~size_t{7};
	size_t step = size_t{1} << (60 - __builtin_clzl(size - 1));
	return (size + step - 1) & ~(step - 1);
}

// Sets up the arena that lies in front of first_room bytes.
void arena_start(Arena *arena);
// Sets up an arena for records that were measured, which are all it ever gives.
void arena_start_exact(Arena *arena, char *room, size_t size);
// Whether the bytes from `run` to `at` are all records, and nothing but records.
inline bool arena_is_run(const Arena *arena)
{
	return arena->run != nullptr && arena->large == nullptr && arena->free_lists == nullptr;
}
// Takes a record, `size` being rounded; NULL without memory. Above record_max it is large, but in an exact arena.
void *arena_take_slowly(Arena *arena, size_t size);
inline void *arena_take(Arena *arena, size_t size)
{
	if (arena->free_lists != nullptr || size > static_cast<size_t>(arena->end - arena->at))
		return arena_take_slowly(arena, size);
	if (size > record_max && !arena->exact)
		return arena_take_slowly(arena, size);
	void *record = arena->at;
	arena->at += size;
	return record;
}
// Gives a record back. `large` is what the record was when it was taken.
void arena_give(Arena *arena, void *record, size_t size, bool large);
// Forgets all records and keeps the largest chunk.
void arena_reset(Arena *arena);
// Frees all chunks, but not the arena itself.
void arena_end(Arena *arena);

} // namespace atl

#endif
