// The packed form: bytes that hold a list, for another process on this machine. docs/formats/packed-list.md describes it.
//
// Packing and unpacking go twice over their input: once to measure (and, for bytes from a stranger, to prove every one of
// them), once to write. So each result is one block, and nothing is allocated for bytes that aren't in order.
#ifndef MERIDON_ATTRLIST_PACKED_H
#define MERIDON_ATTRLIST_PACKED_H

#include <endian.h>

#include "attrlist/list.h"

namespace atl {

// What packed bytes begin with: a mark, the version of the form, the mode of all lists in it.
inline constexpr char packed_start[8] = {'A', 'T', 'L', 'P', 1, ATL_UNIQUE_NAME, 0, 0};

// In front of each pair. All numbers are little-endian.
struct PairHeader {
	uint32_t count;
	uint16_t name_length;
	uint8_t type;
	uint8_t zero;
};
static_assert(sizeof(PairHeader) == 8, "a packed pair begins with 8 bytes");

// Copies numbers from this machine's order to the packed one, or back.
inline void copy_numbers(void *to, const void *from, size_t count, size_t width)
{
#if __BYTE_ORDER == __LITTLE_ENDIAN
	copy_bytes(to, from, count * width);
#else
	for (size_t i = 0; i < count * width; i++)
		static_cast<char *>(to)[i] = static_cast<const char *>(from)[i / width * width + width - 1 - i % width];
#endif
}

} // namespace atl

#endif
