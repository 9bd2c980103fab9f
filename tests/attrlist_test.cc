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

TEST(AttrList, RemoveWantsTheTypeAndRemoveAllDoesNot)
{
	AttrList list = make_list();
	ASSERT_EQ(attrlist_add_int64(list.get(), "enclave", 1), 0);
	EXPECT_EQ(attrlist_remove(list.get(), "enclave", DATA_TYPE_STRING), ENOENT);
	EXPECT_NE(attrlist_exists(list.get(), "enclave"), 0);
	EXPECT_EQ(attrlist_remove_all(list.get(), "enclave"), 0);
	EXPECT_EQ(attrlist_remove_all(list.get(), "enclave"), ENOENT);
	EXPECT_EQ(attrlist_next_attrpair(list.get(), nullptr), nullptr);
	ASSERT_EQ(attrlist_add_int64(list.get(), "enclave", 2), 0);
	EXPECT_EQ(attrlist_remove(list.get(), "enclave", DATA_TYPE_INT64), 0);
	EXPECT_EQ(list_text(list.get()), "");
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

// Every call that changes or makes a list, on lists that are short, long, copied and nested.
struct Call {
	const char *name;
	int (*run)(attrlist_t *list, attrlist_t *other);
};

int dup_and_free(attrlist_t *list, attrlist_t *)
{
	AttrList copy;
	return attrlist_dup(list, copy.out(), 0);
}

int pack_and_unpack(attrlist_t *list, attrlist_t *)
{
	Heap<char> bytes;
	AttrList copy;
	size_t size = 0;
	if (int error = attrlist_pack(list, bytes.out(), &size, ATL_ENCODE_XDR, 0))
		return error;
	return attrlist_unpack(bytes.get(), size, copy.out(), 0);
}

constexpr uint64_t many_numbers[1000] = {1};
const char *const long_text = rich_text; // longer than what is left of any block

const Call calls[] = {
    {"alloc",
	[](attrlist_t *, attrlist_t *) {
		AttrList list;
		return attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0);
	}},
    {"dup", dup_and_free},
    {"pack", pack_and_unpack},
    {"add_string", [](attrlist_t *l, attrlist_t *) { return attrlist_add_string(l, "s", long_text); }},
    {"add_int32", [](attrlist_t *l, attrlist_t *) { return attrlist_add_int32(l, "a new name", 1); }},
    {"add_numbers",
	[](attrlist_t *l, attrlist_t *) { return attrlist_add_uint64_array(l, "u64s", many_numbers, 1000); }},
    {"add_attrlist", [](attrlist_t *l, attrlist_t *other) { return attrlist_add_attrlist(l, "l", other); }},
    {"add_itself", [](attrlist_t *l, attrlist_t *) { return attrlist_add_attrlist(l, "me", l); }},
    {"add_attrlists",
	[](attrlist_t *l, attrlist_t *other) {
		attrlist_t *lists[] = {other, l};
		return attrlist_add_attrlist_array(l, "ls", lists, 2);
	}},
    {"add_attrpair",
	[](attrlist_t *l, attrlist_t *other) {
		return attrlist_add_attrpair(l, attrlist_next_attrpair(other, nullptr));
	}},
    {"merge", [](attrlist_t *l, attrlist_t *other) { return attrlist_merge(l, other, ATL_UNIQUE_NAME_TYPE); }},
};

// Lists on which the calls are tried, and another one from which is added: 0 short, 1 long, 2 a copy, 3 nested.
struct Subject {
	AttrList list;
	AttrList other;
	attrlist_t *at = nullptr;
	std::string before;
};

Subject make_subject(int kind)
{
	Subject subject = {make_rich_list(), make_rich_list(), nullptr, ""};
	// Exactly as many as are searched in a line, or as have room in the first index: the next one needs more memory.
	int count = kind == 1 ? 10 : 2;
	for (int i = 0; i < count; i++)
		EXPECT_EQ(attrlist_add_int32(subject.list.get(), ("more" + std::to_string(i)).c_str(), i), 0);
	for (int i = 0; i < 100; i++)
		EXPECT_EQ(attrlist_add_int32(subject.other.get(), ("other" + std::to_string(i)).c_str(), i), 0);
	subject.at = subject.list.get();
	if (kind == 2) {
		AttrList copy;
		EXPECT_EQ(attrlist_dup(subject.list.get(), copy.out(), 0), 0);
		subject.list = std::move(copy);
		subject.at = subject.list.get();
	}
	if (kind == 3) {
		EXPECT_EQ(attrlist_lookup_attrlist(subject.list.get(), "l", &subject.at), 0);
	}
	subject.before = list_text(subject.list.get());
	return subject;
}

// What a call makes of a list when there is memory.
std::string text_after(const Call &call, int kind)
{
	Subject subject = make_subject(kind);
	EXPECT_EQ(call.run(subject.at, subject.other.get()), 0);
	return list_text(subject.list.get());
}

TEST(AttrListMemory, AnyFailedAllocationChangesNothingAndLeaksNothing)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	for (const Call &call : calls) {
		int failures = 0;
		for (int kind = 0; kind < 4; kind++) {
			SCOPED_TRACE(std::string(call.name) + " " + std::to_string(kind));
			std::string after = text_after(call, kind);
			auto operation = [&](Subject &subject) { return call.run(subject.at, subject.other.get()); };
			// Without memory for the books of what is replaced the call succeeds all the same.
			auto check = [&](Subject &subject, int result, bool failed) {
				failures += result == ENOMEM;
				EXPECT_TRUE(result == 0 || (failed && result == ENOMEM)) << result;
				EXPECT_EQ(list_text(subject.list.get()), result == 0 ? after : subject.before);
			};
			sweep_allocations([kind] { return make_subject(kind); }, operation, check);
		}
		EXPECT_GT(failures, 0) << call.name;
	}
}

// A removal never fails, not even when it would like some memory to keep its books.
TEST(AttrListMemory, RemovalNeedsNoMemory)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	for (int kind = 0; kind < 4; kind++) {
		Subject subject = make_subject(kind);
		AllocFault fault(1, AllocFault::After::Fail);
		while (attrpair_t *pair = attrlist_next_attrpair(subject.at, nullptr))
			if (attrlist_remove(subject.at, attrpair_name(pair), attrpair_type(pair)) != 0)
				break;
		fault.stop();
		EXPECT_EQ(list_text(subject.at), "") << kind;
	}
}

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
	for (int i = 0; i < count; i++)
		names.push_back("name" + std::to_string(i * 7919LL % count));
	for (const std::string &name : names)
		ASSERT_EQ(attrlist_add_int32(list.get(), name.c_str(), 1), 0);
	for (const std::string &name : names)
		ASSERT_NE(attrlist_exists(list.get(), name.c_str()), 0);
	ASSERT_EQ(attrlist_merge(merged.get(), list.get(), ATL_UNIQUE_NAME_TYPE), 0);
	ASSERT_EQ(attrlist_merge(merged.get(), list.get(), ATL_UNIQUE_NAME_TYPE), 0);
	Heap<char> bytes;
	size_t size = 0;
	ASSERT_EQ(attrlist_pack(merged.get(), bytes.out(), &size, ATL_ENCODE_XDR, 0), 0);
	ASSERT_EQ(attrlist_unpack(bytes.get(), size, copy.out(), 0), 0);
	int walked = 0;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(copy.get(), pair)) != nullptr; walked++)
		ASSERT_EQ(names[static_cast<size_t>(walked)], attrpair_name(pair));
	EXPECT_EQ(walked, count);
	// From the front, from the back, and in between.
	for (int i = 0; i < count / 2; i++)
		ASSERT_EQ(
		    attrlist_remove_all(copy.get(), names[static_cast<size_t>(i % 2 == 0 ? i : count - i)].c_str()), 0);
	for (const std::string &name : names)
		(void) attrlist_remove_all(copy.get(), name.c_str());
	EXPECT_EQ(list_text(copy.get()), "");
}

} // namespace
