// Bytes from a stranger. What is taken must be exactly what packing writes, in the list and in its copy.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/guards.h"

namespace {

void demand(bool condition)
{
	if (!condition)
		abort();
}

void demand_same(attrlist_t *list, const uint8_t *data, size_t size)
{
	Heap<char> bytes;
	size_t packed = 0;
	demand(attrlist_pack(list, bytes.out(), &packed, ATL_ENCODE_XDR, 0) == 0);
	demand(packed == size && memcmp(bytes.get(), data, size) == 0);
}

// Takes the list apart by removing, which walks through all of its memory.
void empty(attrlist_t *list)
{
	while (attrpair_t *first = attrlist_next_attrpair(list, nullptr)) {
		demand(attrlist_exists(list, attrpair_name(first)) != 0);
		demand(attrlist_remove(list, attrpair_name(first), attrpair_type(first)) == 0);
	}
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	AttrList list;
	int error = attrlist_unpack(reinterpret_cast<const char *>(data), size, list.out(), 0);
	if (error != 0) {
		demand(error == EINVAL && !list);
		return 0;
	}
	demand_same(list.get(), data, size);
	AttrList copy;
	demand(attrlist_dup(list.get(), copy.out(), 0) == 0);
	empty(list.get());
	demand_same(copy.get(), data, size);
	demand(attrlist_merge(list.get(), copy.get(), ATL_UNIQUE_NAME_TYPE) == 0);
	demand_same(list.get(), data, size);
	return 0;
}
