// Objects, object lists, properties of one value, the text for traces, and the small helpers.
#include <cerrno>
#include <climits>
#include <gtest/gtest.h>

#include "libostrel_impl.h"
#include "lists.h"

namespace {

TEST(Object, IsMadeOfCopiesAndTakenApartIntoCopies)
{
	AttrList idl = idl_of("a=x"), props = props_of("p=1;q=2"), object, idl_back, props_back, half;
	ASSERT_EQ(ostrel_object_create(idl.get(), props.get(), object.out()), OSTREL_SUCCESS);
	ASSERT_EQ(ostrel_idlist_add(idl.get(), "a", "changed"), OSTREL_SUCCESS);
	ASSERT_EQ(ostrel_object_get(object.get(), idl_back.out(), props_back.out()), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_object_get(object.get(), half.out(), nullptr), OSTREL_SUCCESS);
	object.reset();
	EXPECT_EQ(text_of(idl_back.get()) + text_of(props_back.get()), "a=x;p=1;q=2;");
	EXPECT_EQ(text_of(half.get()), "a=x;");
	EXPECT_EQ(ostrel_object_get(object_of("a=x", "").get(), nullptr, half.out()), OSTREL_SUCCESS);
	EXPECT_EQ(text_of(half.get()), "");
}

TEST(Object, WithoutBothHalvesIsRefusedWhicheverIsWanted)
{
	AttrList list = idl_of("a=x"), object;
	attrlist_t *made = list.get(), *idl = list.get(), *props = list.get();
	EXPECT_EQ(ostrel_object_create(nullptr, list.get(), &made), OSTREL_INVALID_ARG);
	EXPECT_EQ(made, list.get());
	EXPECT_EQ(ostrel_object_create(list.get(), list.get(), nullptr), OSTREL_INVALID_ARG);
	ASSERT_EQ(ostrel_object_create(list.get(), nullptr, object.out()), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_object_get(object.get(), &idl, nullptr), OSTREL_NOT_FOUND);
	EXPECT_EQ(idl, nullptr);
	EXPECT_EQ(ostrel_object_get(object.get(), nullptr, &props), OSTREL_NOT_FOUND);
	EXPECT_EQ(props, list.get());
	EXPECT_EQ(ostrel_object_get(list.get(), &idl, &props), OSTREL_NOT_FOUND);
	EXPECT_EQ(ostrel_object_get(nullptr, &idl, &props), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_object_get(object.get(), nullptr, nullptr), OSTREL_INVALID_ARG);
}

// The count that a list states has no say.
TEST(ObjectList, GivesBackWhatWasPackedWhateverItsCountSays)
{
	AttrList first = object_of("a=1", "p=x"), second = object_of("a=2", "p=y"), list;
	attrlist_t *objs[] = {first.get(), second.get()}, *idl, *props;
	ASSERT_EQ(ostrel_object_list_create(objs, 2, list.out()), OSTREL_SUCCESS);
	first.reset();
	uint64_t stated = 0;
	ASSERT_EQ(attrlist_lookup_uint64(list.get(), "object-count", &stated), 0);
	EXPECT_EQ(stated, 2U);
	ASSERT_EQ(attrlist_add_uint64(list.get(), "object-count", UINT64_MAX), 0);

	unsigned int count = 99;
	EXPECT_EQ(ostrel_object_list_get_objects(list.get(), nullptr, &count), OSTREL_SUCCESS);
	EXPECT_EQ(count, 2U);
	Objects back;
	ASSERT_EQ(ostrel_object_list_get_objects(list.get(), back.out(), back.out_count()), OSTREL_SUCCESS);
	list.reset();
	ASSERT_EQ(back.count(), 2U);
	for (unsigned int i = 0; i < 2; i++) {
		ASSERT_EQ(ostrel_object_look(back[i], &idl, &props), OSTREL_SUCCESS);
		EXPECT_EQ(text_of(idl) + text_of(props), i == 0 ? "a=1;p=x;" : "a=2;p=y;");
	}
}

TEST(ObjectList, OfNothingIsAnArrayThatCanBeFreed)
{
	AttrList list, none = idl_of("");
	ASSERT_EQ(ostrel_object_list_create(nullptr, 0, list.out()), OSTREL_SUCCESS);
	Objects back;
	ASSERT_EQ(ostrel_object_list_get_objects(list.get(), back.out(), back.out_count()), OSTREL_SUCCESS);
	EXPECT_EQ(back.count(), 0U);
	EXPECT_NE(*back.out(), nullptr);

	attrlist_t **unset = nullptr;
	unsigned int count;
	EXPECT_EQ(ostrel_object_list_get_objects(list.get(), &unset, nullptr), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_object_list_get_objects(none.get(), &unset, &count), OSTREL_NOT_FOUND);
	EXPECT_EQ(unset, nullptr);
}

// ---- Properties of one value, the same for each type ----

#define ONE_VALUE(suite, ctype, word, array_type, sample)                                                              \
	struct suite {                                                                                                 \
		using Value = ctype;                                                                                   \
		static constexpr auto add = ostrel_atl_add_one_##word;                                                 \
		static constexpr auto from_list = ostrel_atl_get_one_##word;                                           \
		static constexpr auto from_pair = ostrel_atp_get_one_##word;                                           \
		static constexpr auto add_array = attrlist_add_##word##_array;                                         \
		static constexpr data_type_t type = array_type;                                                        \
		static ctype value() { return sample; }                                                                \
	}
ONE_VALUE(Boolean, boolean_t, boolean, DATA_TYPE_BOOLEAN_ARRAY, B_TRUE);
ONE_VALUE(Int32, int32_t, int32, DATA_TYPE_INT32_ARRAY, INT32_MIN);
ONE_VALUE(Int64, int64_t, int64, DATA_TYPE_INT64_ARRAY, INT64_MIN);
ONE_VALUE(Uint32, uint32_t, uint32, DATA_TYPE_UINT32_ARRAY, UINT32_MAX);
ONE_VALUE(Uint64, uint64_t, uint64, DATA_TYPE_UINT64_ARRAY, UINT64_MAX);
ONE_VALUE(String, char *, string, DATA_TYPE_STRING_ARRAY, const_cast<char *>("text"));

template <typename T>
class OneValueTest : public testing::Test {};
using OneValueTypes = testing::Types<Boolean, Int32, Int64, Uint32, Uint64, String>;
TYPED_TEST_SUITE(OneValueTest, OneValueTypes);

TYPED_TEST(OneValueTest, ComesBackFromListAndPairInItsArrayForm)
{
	using One = TypeParam;
	AttrList list = idl_of("k=replaced");
	ASSERT_EQ(One::add(list.get(), "k", One::value()), 0);
	attrpair_t *pair;
	ASSERT_EQ(attrlist_lookup_attrpair(list.get(), "k", &pair), 0);
	EXPECT_EQ(attrpair_type(pair), One::type);
	for (bool from_pair : {false, true}) {
		typename One::Value value{};
		EXPECT_EQ(from_pair ? One::from_pair(pair, &value) : One::from_list(list.get(), "k", &value), 0);
		if constexpr (std::is_pointer_v<typename One::Value>)
			EXPECT_STREQ(value, One::value());
		else
			EXPECT_EQ(value, One::value());
	}
	EXPECT_EQ(One::from_list(list.get(), "k", nullptr), EINVAL);
	EXPECT_EQ(One::from_pair(pair, nullptr), EINVAL);
}

TYPED_TEST(OneValueTest, IsRefusedUnlessThereIsExactlyOneOfTheType)
{
	using One = TypeParam;
	AttrList list = idl_of("scalar=text");
	typename One::Value two[] = {One::value(), One::value()}, value{};
	ASSERT_EQ(One::add_array(list.get(), "none", nullptr, 0), 0);
	ASSERT_EQ(One::add_array(list.get(), "two", two, 2), 0);
	ASSERT_EQ(attrlist_add_attrlist_array(list.get(), "lists", nullptr, 0), 0);
	const struct {
		const char *name;
		int list_error, pair_error;
	} rows[] = {{"none", ENOENT, ENOENT}, {"two", EINVAL, EINVAL}, {"scalar", ENOENT, EINVAL},
	    {"lists", ENOENT, EINVAL}, {"absent", ENOENT, EINVAL}};
	for (const auto &row : rows) {
		attrpair_t *pair = nullptr;
		(void) attrlist_lookup_attrpair(list.get(), row.name, &pair);
		EXPECT_EQ(One::from_list(list.get(), row.name, &value), row.list_error) << row.name;
		EXPECT_EQ(One::from_pair(pair, &value), row.pair_error) << row.name;
		EXPECT_EQ(value, typename One::Value{}) << row.name;
	}
	EXPECT_EQ(One::from_list(nullptr, "absent", &value), EINVAL);
	EXPECT_EQ(One::add(nullptr, "k", One::value()), EINVAL);
	EXPECT_EQ(One::add(list.get(), nullptr, One::value()), EINVAL);
}

// ---- Text for traces ----

std::string trace_text(attrlist_t *list, size_t len)
{
	std::string buf(len + 1, '!');
	EXPECT_EQ(ostrel_atl2str(list, buf.data(), len), buf.data());
	EXPECT_EQ(buf[len], '!');
	return buf.c_str();
}

TEST(TraceText, ShowsFourTypesWithTheirValuesAndTheRestByName)
{
	AttrList list = props_of("s=one");
	int64_t ints[] = {INT64_MIN, 0, 7};
	uint64_t uints[] = {UINT64_MAX};
	boolean_t booleans[] = {B_TRUE, B_FALSE, static_cast<boolean_t>(5)};
	char *strings[] = {const_cast<char *>("a,b"), const_cast<char *>("")};
	ASSERT_EQ(attrlist_add_int64_array(list.get(), "i", ints, 3), 0);
	ASSERT_EQ(attrlist_add_uint64_array(list.get(), "u", uints, 1), 0);
	ASSERT_EQ(attrlist_add_boolean_array(list.get(), "b", booleans, 3), 0);
	ASSERT_EQ(attrlist_add_string_array(list.get(), "t", strings, 2), 0);
	ASSERT_EQ(ostrel_atl_add_one_int32(list.get(), "n", 1), 0);
	ASSERT_EQ(attrlist_add_string(list.get(), "scalar", "x"), 0);
	ASSERT_EQ(attrlist_add_int64_array(list.get(), "e", nullptr, 0), 0);
	const std::string whole = "s=one;i=-9223372036854775808,0,7;u=18446744073709551615;b=true,false,true;t=a,b,;n=;"
				  "scalar=;e=;";
	for (size_t len = 1; len <= whole.size() + 1; len++)
		ASSERT_EQ(trace_text(list.get(), len), whole.substr(0, len - 1));
	EXPECT_EQ(trace_text(nullptr, 8), "");
	char untouched = '!';
	EXPECT_EQ(ostrel_atl2str(list.get(), &untouched, 0), &untouched);
	EXPECT_EQ(untouched, '!');

	const std::string longest(511, 'x');
	EXPECT_EQ(trace_text(props_of("a=" + longest + "cut;b=y").get(), 2000), "a=" + longest + ";b=y;");
}

// ---- Helpers ----

TEST(GrowBuf, DoublesAndKeepsWhatIsThere)
{
	int count = 128;
	void *buf = calloc(128, sizeof(int));
	ASSERT_NE(buf, nullptr);
	static_cast<int *>(buf)[127] = 42;
	EXPECT_EQ(grow_buf(&buf, &count, sizeof(int)), OSTREL_SUCCESS);
	EXPECT_EQ(count, 256);
	EXPECT_EQ(static_cast<int *>(buf)[127], 42);
	static_cast<int *>(buf)[255] = 1;
	void *const old = buf;
	for (int bad : {INT_MAX / 2 + 1, INT_MAX, INT_MAX / 2, 0}) {
		count = bad;
		EXPECT_EQ(grow_buf(&buf, &count, SIZE_MAX / 4), bad == 0 ? OSTREL_INVALID_ARG : OSTREL_NO_MEMORY);
		EXPECT_EQ(count, bad);
		EXPECT_EQ(buf, old);
	}
	free(buf);
}

TEST(AddEntryVal, NeedsThePairAndAList)
{
	AttrList list = props_of("p=1");
	EXPECT_EQ(atl_add_entry_val(list.get(), "absent", list.get()), OSTREL_NOT_FOUND);
	EXPECT_EQ(atl_add_entry_val(nullptr, "p", list.get()), OSTREL_INVALID_ARG);
}

} // namespace
