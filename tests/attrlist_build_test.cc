// Lists built at once from drafts.
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "alloc_fault.h"
#include "base/guards.h"
#include "list_text.h"

static attrtext_t text(const char *bytes)
{
	return {bytes, strlen(bytes)};
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
	const std::string whole = "int32:13=1,-2,3;uint32:14=4,5;int64:15=-6;uint64:16=7,8;boolean:24=1;:13=;"
				  "texts:17='','a','1234567','12345678','0123456789abcdefg','" +
				  long_text +
				  "';no texts:17=;text of 8:9='12345678';inner:19={key:9='1234567';other key:9='" +
				  long_text + "';};nothing:19={};";
};

TEST(AttrListBuild, IsTheListThatItsDraftsDescribe)
{
	Example example;
	AttrList built, copy, nothing;
	ASSERT_EQ(attrlist_build(built.out(), example.drafts, 11), 0);
	EXPECT_EQ(list_text(built.get()), example.whole);
	ASSERT_EQ(attrlist_dup(built.get(), copy.out(), 0), 0);
	EXPECT_EQ(list_text(copy.get()), example.whole);
	ASSERT_EQ(attrlist_build(nothing.out(), nullptr, 0), 0);
	EXPECT_EQ(list_text(nothing.get()), "");
	SKIP_WITHOUT_ALLOC_FAULTS();
	int rounds = sweep_allocations([] { return AttrList(); },
	    [&](AttrList &list) { return attrlist_build(list.out(), example.drafts, 11); },
	    [](AttrList &list, int result, bool failed) {
		    EXPECT_EQ(result, failed ? ENOMEM : 0);
		    EXPECT_EQ(list.get() == nullptr, failed);
	    });
	EXPECT_EQ(rounds, 2) << "it takes one block";
}

TEST(AttrListBuild, CanBeChangedLikeAnyOther)
{
	Example example;
	AttrList built, grown;
	ASSERT_EQ(attrlist_build(built.out(), example.drafts, 11), 0);
	ASSERT_EQ(attrlist_alloc(grown.out(), ATL_UNIQUE_NAME, 0), 0);
	ASSERT_EQ(attrlist_merge(grown.get(), built.get(), ATL_UNIQUE_NAME), 0);
	for (attrlist_t *list : {built.get(), grown.get()}) {
		attrlist_t *inner = nullptr;
		ASSERT_EQ(attrlist_lookup_attrlist(list, "inner", &inner), 0);
		EXPECT_EQ(attrlist_add_string(inner, "key", example.long_text.c_str()), 0);
		for (int i = 0; i < 100; i++)
			EXPECT_EQ(attrlist_add_int64(list, std::to_string(i).c_str(), i), 0);
		for (const char *name : {"int32", "texts", "nothing"})
			EXPECT_EQ(attrlist_remove_all(list, name), 0);
	}
	EXPECT_EQ(list_text(built.get()), list_text(grown.get()));
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
	std::vector<std::string> names(ATTRDRAFT_PAIRS_MAX + 1);
	std::vector<attrdraft_t> many;
	std::string expected;
	for (std::string &name : names) {
		expected += many.size() < ATTRDRAFT_PAIRS_MAX - 1 ? std::to_string(many.size()) + ":9='a';" : "";
		name = std::to_string(many.size());
		many.push_back({text(name.c_str()), DATA_TYPE_STRING, 1, &example.texts[1]});
	}
	EXPECT_EQ(attrlist_build(&list, many.data(), ATTRDRAFT_PAIRS_MAX + 1), EINVAL);
	AttrList most;
	ASSERT_EQ(attrlist_build(most.out(), many.data(), ATTRDRAFT_PAIRS_MAX), 0);
	EXPECT_EQ(attrlist_add_string(most.get(), "31", "b"), 0);
	EXPECT_EQ(list_text(most.get()), expected + "31:9='b';");

	std::vector<attrdraft_t> nested(ATTRLIST_DEPTH_MAX);
	for (int i = 0; i < ATTRLIST_DEPTH_MAX; i++)
		nested[i] = {text("in"), DATA_TYPE_ATTRLIST, i > 0 ? 1U : 0U, i > 0 ? &nested[i - 1] : nullptr};
	EXPECT_EQ(attrlist_build(&list, &nested[ATTRLIST_DEPTH_MAX - 1], 1), EINVAL);
	EXPECT_EQ(list, nullptr);
	AttrList deepest;
	EXPECT_EQ(attrlist_build(deepest.out(), &nested[ATTRLIST_DEPTH_MAX - 2], 1), 0);
}
