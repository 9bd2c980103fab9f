// The packed form: what comes back, and what is refused.
#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "base/guards.h"

namespace {

TEST(PackedList, ComesBackWithItsNestedLists)
{
	AttrList inner, list, back;
	ASSERT_EQ(attrlist_alloc(inner.out(), ATL_UNIQUE_NAME, 0), 0);
	ASSERT_EQ(attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0), 0);
	ASSERT_EQ(attrlist_add_string(inner.get(), "text", "a text of some length"), 0);
	attrlist_t *both[] = {inner.get(), inner.get()};
	ASSERT_EQ(attrlist_add_attrlist_array(list.get(), "lists", both, 2), 0);
	Heap<char> bytes;
	size_t size = 0;
	ASSERT_EQ(attrlist_pack(list.get(), bytes.out(), &size, ATL_ENCODE_XDR, 0), 0);
	ASSERT_EQ(attrlist_unpack(bytes.get(), size, back.out(), 0), 0);
	attrlist_t **lists = nullptr;
	uint_t count = 0;
	ASSERT_EQ(attrlist_lookup_attrlist_array(back.get(), "lists", &lists, &count), 0);
	ASSERT_EQ(count, 2U);
	char *text = nullptr;
	ASSERT_EQ(attrlist_lookup_string(lists[1], "text", &text), 0);
	EXPECT_STREQ(text, "a text of some length");
	for (size_t cut = 0; cut < size; cut++)
		EXPECT_EQ(attrlist_unpack(bytes.get(), cut, back.out(), 0), EINVAL) << cut;
}

} // namespace
