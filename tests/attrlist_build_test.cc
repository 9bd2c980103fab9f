// Lists built at once from drafts are the lists that adding pair by pair makes.
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "alloc_fault.h"
#include "base/guards.h"

static attrtext_t text(const char *bytes)
{
	return {bytes, strlen(bytes)};
}

// The packed form holds names, types, order and values: two lists with the same are the same.
static std::string packed(attrlist_t *list)
{
	char *bytes = nullptr;
	size_t length = 0;
	EXPECT_EQ(attrlist_pack(list, &bytes, &length, ATL_ENCODE_XDR, 0), 0);
	Heap<char> held(bytes);
	return {bytes, length};
}

static AttrList empty_list()
{
	AttrList list;
	if (attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0) != 0)
		abort();
	return list;
}

struct Example {
	std::string long_text = std::string(5000, 'x');
	int32_t int32s[3] = {1, -2, 3};
	uint32_t uint32s[2] = {4, 5};
	int64_t int64s[1] = {-6};
	uint64_t uint64s[2] = {7, 8};
	boolean_t booleans[1] = {B_TRUE};
	attrtext_t texts[6] = {
	    text(""), text("a"), text("1234567"), text("12345678"), text("0123456789abcdefg"), text(long_text.c_str())};
	attrdraft_t inner[2] = {
	    {text("key"), DATA_TYPE_STRING, 1, &texts[2]}, {text("other key"), DATA_TYPE_STRING, 1, &texts[5]}};
	attrdraft_t drafts[11] = {{text("int32"), DATA_TYPE_INT32_ARRAY, 3, int32s},
	    {text("uint32"), DATA_TYPE_UINT32_ARRAY, 2, uint32s}, {text("int64"), DATA_TYPE_INT64_ARRAY, 1, int64s},
	    {text("uint64"), DATA_TYPE_UINT64_ARRAY, 2, uint64s},
	    {text("boolean"), DATA_TYPE_BOOLEAN_ARRAY, 1, booleans}, {text(""), DATA_TYPE_INT32_ARRAY, 0, nullptr},
	    {text("texts"), DATA_TYPE_STRING_ARRAY, 6, texts}, {text("no texts"), DATA_TYPE_STRING_ARRAY, 0, nullptr},
	    {text("text of 8"), DATA_TYPE_STRING, 1, &texts[3]}, {text("inner"), DATA_TYPE_ATTRLIST, 2, inner},
	    {text("nothing"), DATA_TYPE_ATTRLIST, 0, nullptr}};

	AttrList added() const
	{
		AttrList list = empty_list();
		AttrList in = empty_list();
		char *strings[6];
		for (int i = 0; i < 6; i++)
			strings[i] = const_cast<char *>(texts[i].text);
		EXPECT_EQ(attrlist_add_string(in.get(), "key", strings[2]), 0);
		EXPECT_EQ(attrlist_add_string(in.get(), "other key", strings[5]), 0);
		EXPECT_EQ(attrlist_add_int32_array(list.get(), "int32", int32s, 3), 0);
		EXPECT_EQ(attrlist_add_uint32_array(list.get(), "uint32", uint32s, 2), 0);
		EXPECT_EQ(attrlist_add_int64_array(list.get(), "int64", int64s, 1), 0);
		EXPECT_EQ(attrlist_add_uint64_array(list.get(), "uint64", uint64s, 2), 0);
		EXPECT_EQ(attrlist_add_boolean_array(list.get(), "boolean", booleans, 1), 0);
		EXPECT_EQ(attrlist_add_int32_array(list.get(), "", nullptr, 0), 0);
		EXPECT_EQ(attrlist_add_string_array(list.get(), "texts", strings, 6), 0);
		EXPECT_EQ(attrlist_add_string_array(list.get(), "no texts", nullptr, 0), 0);
		EXPECT_EQ(attrlist_add_string(list.get(), "text of 8", strings[3]), 0);
		EXPECT_EQ(attrlist_add_attrlist(list.get(), "inner", in.get()), 0);
		EXPECT_EQ(attrlist_add_attrlist(list.get(), "nothing", empty_list().get()), 0);
		return list;
	}
};

TEST(AttrListBuild, IsTheListThatAddingMakes)
{
	Example example;
	AttrList built;
	ASSERT_EQ(attrlist_build(built.out(), example.drafts, 11), 0);
	EXPECT_EQ(packed(built.get()), packed(example.added().get()));
	AttrList copy;
	ASSERT_EQ(attrlist_dup(built.get(), copy.out(), 0), 0);
	EXPECT_EQ(packed(copy.get()), packed(built.get()));
	AttrList nothing;
	ASSERT_EQ(attrlist_build(nothing.out(), nullptr, 0), 0);
	EXPECT_EQ(packed(nothing.get()), packed(empty_list().get()));
}

TEST(AttrListBuild, CanBeChangedLikeAnyOther)
{
	Example example;
	AttrList built;
	ASSERT_EQ(attrlist_build(built.out(), example.drafts, 11), 0);
	AttrList added = example.added();
	for (attrlist_t *list : {built.get(), added.get()}) {
		attrlist_t *inner = nullptr;
		ASSERT_EQ(attrlist_lookup_attrlist(list, "inner", &inner), 0);
		EXPECT_EQ(attrlist_remove_all(list, "int32"), 0);
		EXPECT_EQ(attrlist_remove_all(list, "texts"), 0);
		EXPECT_EQ(attrlist_add_string(inner, "key", example.long_text.c_str()), 0);
		for (int i = 0; i < 100; i++)
			EXPECT_EQ(attrlist_add_int64(list, std::to_string(i).c_str(), i), 0);
		EXPECT_EQ(attrlist_remove_all(list, "nothing"), 0);
	}
	EXPECT_EQ(packed(built.get()), packed(added.get()));
	EXPECT_EQ(attrlist_clear(built.get()), 0);
	EXPECT_EQ(packed(built.get()), packed(empty_list().get()));
}

TEST(AttrListBuild, RefusesWhatItCannotMake)
{
	Example example;
	attrlist_t *list = nullptr;
	EXPECT_EQ(attrlist_build(nullptr, example.drafts, 1), EINVAL);
	EXPECT_EQ(attrlist_build(&list, nullptr, 1), EINVAL);
	for (data_type_t type : {DATA_TYPE_UNKNOWN, DATA_TYPE_INT32, DATA_TYPE_ATTRLIST_ARRAY, DATA_TYPE_UINT8_ARRAY,
		 static_cast<data_type_t>(99)}) {
		attrdraft_t bad = {text("x"), type, 1, example.int32s};
		EXPECT_EQ(attrlist_build(&list, &bad, 1), EINVAL) << type;
	}
	std::vector<std::string> names;
	for (int i = 0; i <= ATTRDRAFT_PAIRS_MAX; i++)
		names.push_back(std::to_string(i));
	std::vector<attrdraft_t> many;
	for (const std::string &name : names)
		many.push_back({text(name.c_str()), DATA_TYPE_STRING, 1, &example.texts[1]});
	EXPECT_EQ(attrlist_build(&list, many.data(), ATTRDRAFT_PAIRS_MAX + 1), EINVAL);
	EXPECT_EQ(list, nullptr);
	AttrList most;
	ASSERT_EQ(attrlist_build(most.out(), many.data(), ATTRDRAFT_PAIRS_MAX), 0);
	EXPECT_EQ(attrlist_add_string(most.get(), "31", "b"), 0);
	char *value = nullptr;
	EXPECT_EQ(attrlist_lookup_string(most.get(), "0", &value), 0);
	EXPECT_EQ(attrlist_lookup_string(most.get(), "31", &value), 0);
	EXPECT_STREQ(value, "b");

	std::vector<attrdraft_t> nested(ATTRLIST_DEPTH_MAX);
	for (int i = 0; i < ATTRLIST_DEPTH_MAX; i++)
		nested[i] = {text("in"), DATA_TYPE_ATTRLIST, i > 0 ? 1U : 0U, i > 0 ? &nested[i - 1] : nullptr};
	EXPECT_EQ(attrlist_build(&list, &nested[ATTRLIST_DEPTH_MAX - 1], 1), EINVAL);
	AttrList deepest;
	EXPECT_EQ(attrlist_build(deepest.out(), &nested[ATTRLIST_DEPTH_MAX - 2], 1), 0);
}

TEST(AttrListBuild, TakesOneBlockOrNone)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	Example example;
	int rounds = sweep_allocations([] { return AttrList(); },
	    [&](AttrList &list) { return attrlist_build(list.out(), example.drafts, 11); },
	    [](AttrList &list, int result, bool failed) {
		    EXPECT_EQ(result, failed ? ENOMEM : 0);
		    EXPECT_EQ(list.get() == nullptr, failed);
	    });
	EXPECT_EQ(rounds, 2);
}
