// Attribute lists: what a caller of the operations sees.
#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "alloc_fault.h"
#include "base/guards.h"

namespace {

AttrList make_list()
{
	AttrList list;
	EXPECT_EQ(attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0), 0);
	return list;
}

std::vector<std::string> names(attrlist_t *list)
{
	std::vector<std::string> found;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(list, pair)) != nullptr;)
		found.emplace_back(attrpair_name(pair));
	return found;
}

using Names = std::vector<std::string>;

TEST(AttrList, NewPairReplacesByNameAndTakesTheLastPlace)
{
	AttrList list = make_list();
	ASSERT_EQ(attrlist_add_string(list.get(), "a", "first"), 0);
	ASSERT_EQ(attrlist_add_int64(list.get(), "b", 2), 0);
	ASSERT_EQ(attrlist_add_uint64(list.get(), "a", 3), 0);
	EXPECT_EQ(names(list.get()), (Names{"b", "a"}));
	char *text;
	EXPECT_EQ(attrlist_lookup_string(list.get(), "a", &text), ENOENT);
	uint64_t number = 0;
	EXPECT_EQ(attrlist_lookup_uint64(list.get(), "a", &number), 0);
	EXPECT_EQ(number, 3U);
}

} // namespace
