// Identifier lists: keys, the match, the text form.
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

#include "line_lists.h"
#include "test_paths.h"

namespace {

TEST(IdentifierList, HoldsTextKeysInOrderOfTheirAdding)
{
	AttrList idl;
	char *value;
	ASSERT_EQ(ostrel_idlist_init(idl.out(), nullptr), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_idlist_add(idl.get(), "a", "1"), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_idlist_add(idl.get(), "b", nullptr), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_idlist_add(idl.get(), "a", "2"), OSTREL_SUCCESS);
	EXPECT_EQ(text_of(idl.get()), "b=;a=2;");
	EXPECT_EQ(ostrel_idlist_get(idl.get(), "b", &value), OSTREL_SUCCESS);
	EXPECT_STREQ(value, "");
	EXPECT_EQ(ostrel_idlist_remove(idl.get(), "b"), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_idlist_remove(idl.get(), "b"), OSTREL_NOT_FOUND);
	EXPECT_EQ(ostrel_idlist_get(idl.get(), "b", &value), OSTREL_NOT_FOUND);
}

TEST(IdentifierList, TheReservedNamesAreOnlySetByInit)
{
	AttrList idl;
	char *name;
	ASSERT_EQ(ostrel_idlist_init(idl.out(), "/etc/some.db"), OSTREL_SUCCESS);
	for (const char *refused : {"object-db-name", "object-id-string", static_cast<const char *>(nullptr)})
		EXPECT_EQ(ostrel_idlist_add(idl.get(), refused, "other"), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_idlist_add(nullptr, "a", "x"), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_idlist_init(nullptr, nullptr), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_idlist_get_db_name(idl.get(), &name), OSTREL_SUCCESS);
	EXPECT_STREQ(name, "/etc/some.db");
	EXPECT_EQ(ostrel_idlist_get_db_name(idl_of("a=1").get(), &name), OSTREL_NOT_FOUND);
	EXPECT_EQ(ostrel_idlist_get_db_name(nullptr, &name), OSTREL_INVALID_ARG);
}

TEST(IdentifierList, TheEnclaveIsANumberOfItsOwn)
{
	AttrList idl = idl_of("");
	enclaveid_t enclave = 77;
	EXPECT_EQ(ostrel_idlist_get_enclaveid(idl.get(), &enclave), OSTREL_NOT_FOUND);
	EXPECT_EQ(ostrel_idlist_get_enclaveid(nullptr, &enclave), OSTREL_INVALID_ARG);
	EXPECT_EQ(enclave, 77);
	for (enclaveid_t id : {0, 5, -1, INT32_MIN, INT32_MAX}) {
		int64_t stored = 0; // with its sign, in 64 bits
		EXPECT_EQ(ostrel_idlist_add_enclaveid(idl.get(), id), OSTREL_SUCCESS);
		EXPECT_EQ(ostrel_idlist_get_enclaveid(idl.get(), &enclave), OSTREL_SUCCESS);
		EXPECT_EQ(enclave, id);
		EXPECT_EQ(attrlist_lookup_int64(idl.get(), "object-db-enclave", &stored), 0);
		EXPECT_EQ(stored, id);
	}
	EXPECT_EQ(ostrel_idlist_remove(idl.get(), "object-db-enclave"), OSTREL_NOT_FOUND);
	EXPECT_EQ(ostrel_idlist_is_empty(idl.get()), B_FALSE);
}

TEST(IdentifierList, IsEmptyWhenNothingInItIdentifies)
{
	EXPECT_EQ(ostrel_idlist_is_empty(nullptr), B_TRUE);
	EXPECT_EQ(ostrel_idlist_is_empty(idl_of("object-db-name=x;object-id-string=y").get()), B_TRUE);
	EXPECT_EQ(ostrel_idlist_is_empty(idl_of("object-db-name=x;a=").get()), B_FALSE);
	EXPECT_EQ(ostrel_idlist_is_empty(idl_of("object-pgname=x").get()), B_FALSE);
}

AttrList list_of(const std::string &word)
{
	return idl_of(word == "-" ? "" : word);
}

TEST(IdentifierMatch, SelectsByTheRule)
{
	TestDb with_case("x", OSTREL_DB_CASE_SENSITIVE);
	std::ifstream file(TEST_SOURCE_DIR "/tests/golden/matches.txt");
	int rows = 0;
	for (std::string line; std::getline(file, line);) {
		if (line.empty() || line[0] == '#')
			continue;
		rows++;
		std::istringstream words(line);
		std::string search, stored, bar, expected, expected_with_case;
		words >> search >> bar >> stored >> bar >> expected >> bar >> expected_with_case;
		for (ostrel_db_t db : {static_cast<ostrel_db_t>(with_case), static_cast<ostrel_db_t>(nullptr)}) {
			const bool differs = db != nullptr && !expected_with_case.empty();
			const std::string &result = differs ? expected_with_case : expected;
			const auto matches = [&](boolean_t exact) {
				return ostrel_idlist_match(db, list_of(search).get(), list_of(stored).get(), exact) ==
				       B_TRUE;
			};
			EXPECT_EQ(matches(B_FALSE), result != "none") << line;
			EXPECT_EQ(matches(B_TRUE), result == "exact") << line;
		}
	}
	EXPECT_GE(rows, 20);
}

TEST(IdentifierMatch, WhatIsNoTextSelectsNothingAndCounts)
{
	AttrList with_enclave = idl_of("a=x"), without = idl_of("a=x"), number = idl_of("");
	ASSERT_EQ(ostrel_idlist_add_enclaveid(with_enclave.get(), 5), OSTREL_SUCCESS);
	ASSERT_EQ(attrlist_add_int64(number.get(), "a", 1), 0);
	// As a search list it selects nothing, not even its equal; as stored identifiers it has one more than the text.
	for (boolean_t exact : {B_FALSE, B_TRUE}) {
		EXPECT_EQ(ostrel_idlist_match(nullptr, with_enclave.get(), with_enclave.get(), exact), B_FALSE);
		EXPECT_NE(ostrel_idlist_match(nullptr, without.get(), with_enclave.get(), exact), exact);
	}
	EXPECT_EQ(ostrel_idlist_match(nullptr, idl_of("a=").get(), number.get(), B_FALSE), B_FALSE);
}

TEST(IdentifierText, IsNamesAndValuesInListOrderUpToAPairThatIsNoText)
{
	char buf[OSTREL_IDSTR_SIZE];
	AttrList idl = idl_of("object-db-name=d;b=1;a=;object-id-string=i");
	ASSERT_EQ(ostrel_idlist_add(idl.get(), "b", "x;y=z"), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_idlist2idstr(idl.get(), buf), OSTREL_SUCCESS);
	EXPECT_STREQ(buf, "a=;b=x;y=z;");
	ASSERT_EQ(ostrel_idlist_add_enclaveid(idl.get(), 5), OSTREL_SUCCESS);
	ASSERT_EQ(ostrel_idlist_add(idl.get(), "c", "y"), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_idlist2idstr(idl.get(), buf), OSTREL_INVALID_ARG);
	EXPECT_STREQ(buf, "a=;b=x;y=z;");
	EXPECT_EQ(ostrel_idlist2idstr(nullptr, buf), OSTREL_SUCCESS);
	EXPECT_STREQ(buf, "");
	EXPECT_EQ(ostrel_idlist2idstr(idl.get(), nullptr), OSTREL_INVALID_ARG);
}

TEST(IdentifierText, Has255BytesAndNoMore)
{
	struct {
		char text[OSTREL_IDSTR_SIZE];
		char guard[8];
	} buf = {{}, "unhurt."};
	for (const char *first : {"", "k=v;"}) {
		const std::string longest = first + ("a=" + std::string(252 - strlen(first), 'x'));
		EXPECT_EQ(ostrel_idlist2idstr(idl_of(longest).get(), buf.text), OSTREL_SUCCESS);
		EXPECT_EQ(buf.text, longest + ";");
		for (size_t more : {1, 100000}) {
			AttrList longer = idl_of(longest + std::string(more, 'x'));
			EXPECT_EQ(ostrel_idlist2idstr(longer.get(), buf.text), OSTREL_INVALID_ARG);
			EXPECT_EQ(buf.text, longest + "x"); // what fitted
		}
	}
	EXPECT_STREQ(buf.guard, "unhurt.");
}

} // namespace
