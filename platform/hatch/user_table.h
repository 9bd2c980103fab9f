// A hash table of users. Its entries are linked through their own `next`, so that it takes no memory of its own.
#ifndef MERIDON_HATCH_USER_TABLE_H
#define MERIDON_HATCH_USER_TABLE_H

#include <cstddef>
#include <sys/types.h>

namespace hatch {

// An entry has `uid` and `next`.
template <typename Entry, size_t buckets>
struct UserTable {
	Entry *first[buckets];

	// The link that leads to the user's entry, or the one at which a new entry is to be hung.
	Entry **find(uid_t uid)
	{
		Entry **link = &first[uid % buckets];
		while (*link != nullptr && (*link)->uid != uid)
			link = &(*link)->next;
		return link;
	}
};

} // namespace hatch

#endif
