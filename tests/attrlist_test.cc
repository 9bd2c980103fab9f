// Attribute lists: what a caller of the operations sees.
#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "alloc_fault.h"
#include "base/guards.h"
#include "list_text.h"

namespace {

AttrList make_list()
{
	AttrList list;
	EXPECT_EQ(attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0), 0);
	return list;
}

// One pair of every type, with values that don't fit in a pair, and some that do.
AttrList make_rich_list()
{
	AttrList list = make_list(), inner = make_list();
	attrlist_t *l = list.get();
	boolean_t booleans[] = {B_FALSE, B_TRUE, static_cast<boolean_t>(7)};
	int32_t int32s[] = {-1, INT32_MIN};
	uint32_t uint32s[] = {1, 2, UINT32_MAX};
	int64_t int64s[] = {INT64_MIN};
	uint64_t uint64s[] = {1, UINT64_MAX};
	char one[] = "", two[] = "a text that is longer than a word";
	char *texts[] = {one, two};
	EXPECT_EQ(attrlist_add_string(inner.get(), "inner", "value"), 0);
	attrlist_t *lists[] = {inner.get(), inner.get()};
	EXPECT_EQ(attrlist_add_boolean_value(l, "b", B_TRUE), 0);
	EXPECT_EQ(attrlist_add_int32(l, "i32", -5), 0);
	EXPECT_EQ(attrlist_add_uint32(l, "u32", 5), 0);
	EXPECT_EQ(attrlist_add_int64(l, "i64", INT64_MIN), 0);
	EXPECT_EQ(attrlist_add_uint64(l, "u64", UINT64_MAX), 0);
	EXPECT_EQ(attrlist_add_string(l, "s", "a text that is longer than a word"), 0);
	EXPECT_EQ(attrlist_add_attrlist(l, "l", inner.get()), 0);
	EXPECT_EQ(attrlist_add_boolean_array(l, "bs", booleans, 3), 0);
	EXPECT_EQ(attrlist_add_int32_array(l, "i32s", int32s, 2), 0);
	EXPECT_EQ(attrlist_add_uint32_array(l, "u32s", uint32s, 3), 0);
	EXPECT_EQ(attrlist_add_int64_array(l, "i64s", int64s, 1), 0);
	EXPECT_EQ(attrlist_add_uint64_array(l, "u64s", uint64s, 2), 0);
	EXPECT_EQ(attrlist_add_string_array(l, "ss", texts, 2), 0);
	EXPECT_EQ(attrlist_add_attrlist_array(l, "ls", lists, 2), 0);
	return list;
}

constexpr const char rich_text[] =
    "b:21=1;i32:5=-5;u32:6=5;i64:7=-9223372036854775808;u64:8=18446744073709551615;"
    "s:9='a text that is longer than a word';l:19={inner:9='value';};bs:24=0,1,7;i32s:13=-1,-2147483648;"
    "u32s:14=1,2,4294967295;i64s:15=-9223372036854775808;u64s:16=1,18446744073709551615;"
    "ss:17='','a text that is longer than a word';ls:20={inner:9='value';},{inner:9='value';};";

// A chain of lists, `depth` of them, and the innermost one.
AttrList make_deep(int depth, attrlist_t **innermost)
{
	AttrList list = make_list();
	*innermost = list.get();
	for (int level = 1; level < depth; level++)
		EXPECT_EQ(attrlist_add_new_attrlist(*innermost, "deeper", innermost), 0);
	return list;
}

// ---- Order, names, types ----

TEST(AttrList, EveryTypeComesBackInOrder)
{
	AttrList list = make_rich_list();
	EXPECT_EQ(list_text(list.get()), rich_text);
}

TEST(AttrList, LookUpWantsNameAndType)
{
	AttrList list = make_list();
	uint32_t numbers[] = {7};
	ASSERT_EQ(attrlist_add_uint32_array(list.get(), "mtu", numbers, 1), 0);
	int32_t *int32s = nullptr;
	uint32_t one = 1;
	uint_t count = 9;
	EXPECT_EQ(attrlist_lookup_int32_array(list.get(), "mtu", &int32s, &count), ENOENT);
	EXPECT_EQ(attrlist_lookup_uint32(list.get(), "mtu", &one), ENOENT);
	EXPECT_EQ(attrlist_lookup_uint32(list.get(), "mt", &one), ENOENT);
	attrpair_t *pair = nullptr;
	ASSERT_EQ(attrlist_lookup_attrpair(list.get(), "mtu", &pair), 0);
	EXPECT_EQ(attrpair_value_uint32(pair, &one), EINVAL);
	EXPECT_EQ(attrpair_value_int32_array(pair, &int32s, &count), EINVAL);
	// What wasn't found wasn't stored.
	EXPECT_EQ(int32s, nullptr);
	EXPECT_EQ(one, 1U);
	EXPECT_EQ(count, 9U);
}

// Names of all lengths around those at which names are stored and compared in another way.
TEST(AttrList, NamesThatDifferInOneByteAreDifferentNames)
{
	AttrList list = make_list();
	std::vector<std::string> names;
	for (size_t length = 0; length < 40; length++)
		for (size_t changed = 0; changed < length; changed++) {
			names.emplace_back(length, 'a');
			names.back()[changed] = '\xe4';
		}
	for (size_t i = 0; i < names.size(); i++)
		ASSERT_EQ(attrlist_add_uint32(list.get(), names[i].c_str(), static_cast<uint32_t>(i)), 0);
	AttrList few = make_list();
	for (size_t i = 0; i < names.size(); i++) {
		uint32_t value = 0;
		ASSERT_EQ(attrlist_lookup_uint32(list.get(), names[i].c_str(), &value), 0) << names[i];
		ASSERT_EQ(value, i);
		// The same in a list that is searched in a line.
		if (i % 10 == 0) {
			ASSERT_EQ(attrlist_clear(few.get()), 0);
		}
		ASSERT_EQ(attrlist_exists(few.get(), names[i].c_str()), 0) << names[i];
		ASSERT_EQ(attrlist_add_uint32(few.get(), names[i].c_str(), 0), 0);
	}
}

TEST(AttrList, BadArgumentsChangeNothing)
{
	AttrList list = make_list();
	attrlist_t *l = list.get(), *out = nullptr;
	char text[] = "text";
	char *holes[] = {text, nullptr};
	attrlist_t *list_holes[] = {l, nullptr};
	char *bytes = nullptr, *taken = text;
	size_t size = 0;
	int32_t number = 0;
	ASSERT_EQ(attrlist_add_int32(l, "a", 1), 0);
	EXPECT_EQ(attrlist_alloc(&out, ATL_UNIQUE_NAME_TYPE, 0), EINVAL);
	EXPECT_EQ(attrlist_alloc(&out, ATL_UNIQUE_NAME, 1), EINVAL);
	EXPECT_EQ(attrlist_alloc(nullptr, ATL_UNIQUE_NAME, 0), EINVAL);
	EXPECT_EQ(attrlist_dup(nullptr, &out, 0), EINVAL);
	EXPECT_EQ(attrlist_dup(l, nullptr, 0), EINVAL);
	EXPECT_EQ(attrlist_merge(nullptr, l, 0), EINVAL);
	EXPECT_EQ(attrlist_merge(l, nullptr, 0), EINVAL);
	EXPECT_EQ(attrlist_clear(nullptr), EINVAL);
	EXPECT_EQ(attrlist_pack(l, &taken, &size, ATL_ENCODE_XDR, 0), EINVAL);
	EXPECT_EQ(attrlist_pack(l, &bytes, &size, 0, 0), EINVAL);
	EXPECT_EQ(attrlist_pack(l, &bytes, nullptr, ATL_ENCODE_XDR, 0), EINVAL);
	EXPECT_EQ(attrlist_unpack(nullptr, 0, &out, 0), EINVAL);
	EXPECT_EQ(attrlist_add_string(nullptr, "a", "b"), EINVAL);
	EXPECT_EQ(attrlist_add_string(l, nullptr, "b"), EINVAL);
	EXPECT_EQ(attrlist_add_string(l, "a", nullptr), EINVAL);
	EXPECT_EQ(attrlist_add_string_array(l, "a", holes, 2), EINVAL);
	EXPECT_EQ(attrlist_add_string_array(l, "a", nullptr, 1), EINVAL);
	EXPECT_EQ(attrlist_add_uint64_array(l, "a", nullptr, 1), EINVAL);
	EXPECT_EQ(attrlist_add_attrlist(l, "a", nullptr), EINVAL);
	EXPECT_EQ(attrlist_add_attrlist_array(l, "a", list_holes, 2), EINVAL);
	EXPECT_EQ(attrlist_add_new_attrlist(l, "a", nullptr), EINVAL);
	EXPECT_EQ(attrlist_add_attrpair(l, nullptr), EINVAL);
	EXPECT_EQ(attrlist_add_int32_array(l, "a", &number, ATTRLIST_ELEMENTS_MAX + 1U), EINVAL);
	EXPECT_EQ(attrlist_remove(l, nullptr, DATA_TYPE_INT32), EINVAL);
	EXPECT_EQ(attrlist_remove_all(nullptr, "a"), EINVAL);
	EXPECT_EQ(attrlist_lookup_int32(nullptr, "a", &number), EINVAL);
	EXPECT_EQ(attrlist_lookup_int32(l, nullptr, &number), EINVAL);
	EXPECT_EQ(attrlist_lookup_int32(l, "a", nullptr), EINVAL);
	EXPECT_EQ(attrlist_lookup_attrpair(l, "a", nullptr), EINVAL);
	EXPECT_EQ(attrpair_value_int32(nullptr, &number), EINVAL);
	EXPECT_EQ(attrlist_exists(nullptr, "a"), 0);
	EXPECT_EQ(attrlist_next_attrpair(nullptr, nullptr), nullptr);
	EXPECT_EQ(attrpair_name(nullptr), nullptr);
	EXPECT_EQ(attrpair_type(nullptr), DATA_TYPE_UNKNOWN);
	attrlist_free(nullptr);
	EXPECT_EQ(list_text(l), "a:5=1;");
	EXPECT_EQ(out, nullptr);
	EXPECT_EQ(bytes, nullptr);
}

TEST(AttrList, NamesHaveALongestLength)
{
	AttrList list = make_list();
	std::string longest(ATTRLIST_NAME_MAX, 'n'), longer(ATTRLIST_NAME_MAX + 1, 'n');
	EXPECT_EQ(attrlist_add_int32(list.get(), longest.c_str(), 1), 0);
	EXPECT_EQ(attrlist_add_int32(list.get(), longer.c_str(), 2), EINVAL);
	EXPECT_NE(attrlist_exists(list.get(), longest.c_str()), 0);
	EXPECT_EQ(attrlist_exists(list.get(), longer.c_str()), 0);
}

// ---- Nested lists ----

TEST(AttrList, WhatLiesInAListCanBeAddedToIt)
{
	AttrList list = make_list();
	attrlist_t *l = list.get(), *nested = nullptr;
	char *text = nullptr;
	ASSERT_EQ(attrlist_add_string(l, "s", "a text that is longer than a word"), 0);
	ASSERT_EQ(attrlist_lookup_string(l, "s", &text), 0);
	ASSERT_EQ(attrlist_add_string(l, "s", text + 2), 0);
	EXPECT_EQ(list_text(l), "s:9='text that is longer than a word';");
	attrpair_t *pair = attrlist_next_attrpair(l, nullptr);
	ASSERT_EQ(attrlist_add_attrpair(l, pair), 0);
	EXPECT_EQ(list_text(l), "s:9='text that is longer than a word';");
	// A free of a list in a list does nothing. What else lies in it the random runs add to it.
	ASSERT_EQ(attrlist_add_new_attrlist(l, "x", &nested), 0);
	attrlist_free(nested);
	EXPECT_EQ(list_text(l), "s:9='text that is longer than a word';x:19={};");
}

TEST(AttrList, DepthHasALimit)
{
	attrlist_t *innermost = nullptr, *more = nullptr;
	AttrList deepest = make_deep(ATTRLIST_DEPTH_MAX, &innermost);
	AttrList list = make_list(), copy;
	attrlist_t *empty[] = {list.get()};
	EXPECT_EQ(attrlist_add_new_attrlist(innermost, "deeper", &more), EINVAL);
	EXPECT_EQ(attrlist_add_attrlist(innermost, "deeper", list.get()), EINVAL);
	EXPECT_EQ(attrlist_add_attrlist_array(innermost, "deeper", empty, 1), EINVAL);
	EXPECT_EQ(list_text(innermost), "");
	EXPECT_EQ(attrlist_add_attrlist(list.get(), "l", deepest.get()), EINVAL);
	EXPECT_EQ(attrlist_merge(list.get(), deepest.get(), ATL_UNIQUE_NAME_TYPE), 0);
	EXPECT_EQ(attrlist_dup(deepest.get(), copy.out(), 0), 0);
	EXPECT_EQ(list_text(copy.get()), list_text(deepest.get()));
	attrlist_t *second = nullptr;
	ASSERT_EQ(attrlist_lookup_attrlist(deepest.get(), "deeper", &second), 0);
	AttrList other = make_list();
	EXPECT_EQ(attrlist_add_attrlist(other.get(), "l", second), 0);
	EXPECT_EQ(attrlist_merge(second, deepest.get(), ATL_UNIQUE_NAME_TYPE), EINVAL);
	EXPECT_EQ(list_text(copy.get()), list_text(deepest.get()));
}

// ---- Memory and time ----

constexpr uint64_t many_numbers[1000] = {1};

TEST(AttrListMemory, ReplacedValuesAreUsedAgain)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	AttrList list = make_rich_list(), inner = make_rich_list();
	attrlist_t *nested = nullptr;
	ASSERT_EQ(attrlist_lookup_attrlist(list.get(), "l", &nested), 0);
	attrlist_t *copies[] = {inner.get(), inner.get()};
	attrlist_t *innermost = nullptr;
	AttrList deepest = make_deep(ATTRLIST_DEPTH_MAX, &innermost);
	std::string text(3000, 'x');
	long settled = 0;
	for (int round = 0; round < 100000; round++) {
		// Sizes from a few bytes up to a record that lies apart.
		const char *some = text.c_str() + round * 7919L % 3000;
		ASSERT_EQ(attrlist_add_string(list.get(), "s", some), 0);
		ASSERT_EQ(attrlist_add_string(nested, "inner", some), 0);
		ASSERT_EQ(
		    attrlist_add_uint64_array(list.get(), "u64s", many_numbers, static_cast<uint_t>(round % 1000)), 0);
		if (round % 20 == 0) {
			ASSERT_EQ(attrlist_add_attrlist_array(list.get(), "copies", copies, 2), 0);
		}
		// What was made before a failure is used again too.
		if (round % 20 == 0) {
			ASSERT_EQ(attrlist_add_attrlist(list.get(), "too deep", deepest.get()), EINVAL);
		}
		if (round == 20000)
			settled = heap_use().bytes;
	}
	EXPECT_LE(heap_use().bytes, settled + 16384);
}

// With a search in a line each of these would take a minute and more, and all of them the test's time.
TEST(AttrListTime, ManyPairsStayFast)
{
	constexpr int count = 100000;
	AttrList list = make_list(), merged = make_list(), copy;
	std::vector<std::string> names;
	for (int i = 0; i < count; i++) {
		names.push_back("name" + std::to_string(i * 7919LL % count));
		ASSERT_EQ(attrlist_add_int32(list.get(), names.back().c_str(), 1), 0);
	}
	for (int round = 0; round < 2; round++)
		ASSERT_EQ(attrlist_merge(merged.get(), list.get(), ATL_UNIQUE_NAME_TYPE), 0);
	ASSERT_EQ(attrlist_dup(merged.get(), copy.out(), 0), 0);
	attrpair_t *pair = nullptr;
	for (const std::string &name : names) {
		ASSERT_NE(attrlist_exists(copy.get(), name.c_str()), 0);
		pair = attrlist_next_attrpair(copy.get(), pair);
		ASSERT_EQ(name, attrpair_name(pair));
	}
	EXPECT_EQ(attrlist_next_attrpair(copy.get(), pair), nullptr);
	// From the front, from the back, and in between.
	for (int i = 0; i < count / 2; i++)
		ASSERT_EQ(
		    attrlist_remove_all(copy.get(), names[static_cast<size_t>(i % 2 == 0 ? i : count - i)].c_str()), 0);
	for (const std::string &name : names)
		(void) attrlist_remove_all(copy.get(), name.c_str());
	EXPECT_EQ(list_text(copy.get()), "");
}

} // namespace
