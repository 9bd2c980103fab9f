// Conversions of property lists, both ways. A list is written and shown as one line, in which a letter gives the type of
// each property: s texts, u uint64_t, i int64_t, b booleans, t a single text that is no array.
#include <cerrno>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "alloc_fault.h"
#include "base/guards.h"
#include "log_capture.h"

using Texts = std::vector<std::string>;
using Numbers = std::vector<uint64_t>;

namespace {

// A list and what a conversion left in it.
class List {
public:
	List() { EXPECT_EQ(attrlist_alloc(list_.out(), ATL_UNIQUE_NAME, 0), 0); }

	List texts(const char *name, const Texts &values) &&
	{
		static_cast<List &>(*this).texts(name, values);
		return std::move(*this);
	}
	List numbers(const char *name, const Numbers &values) &&
	{
		static_cast<List &>(*this).numbers(name, values);
		return std::move(*this);
	}
	List &texts(const char *name, const Texts &values) &
	{
		std::vector<char *> array;
		for (const std::string &value : values)
			array.push_back(const_cast<char *>(value.c_str()));
		EXPECT_EQ(attrlist_add_string_array(get(), name, array.data(), static_cast<uint_t>(array.size())), 0);
		return *this;
	}
	List &numbers(const char *name, const Numbers &values) &
	{
		uint_t count = static_cast<uint_t>(values.size());
		EXPECT_EQ(attrlist_add_uint64_array(get(), name, values.data(), count), 0);
		return *this;
	}
	attrlist_t *get() const { return list_.get(); }

	int to_persist(const ostrel_propdesc_t *descs) const
	{
		return ostrel_proplist_convert_to_persist(get(), sizeof(*descs), descs);
	}
	int from_persist(const ostrel_propdesc_t *descs) const
	{
		return ostrel_proplist_convert_from_persist(get(), sizeof(*descs), descs);
	}
	std::string show() const;

private:
	AttrList list_;
};

template <typename T, typename Get>
void show_array(std::ostream &out, attrpair_t *pair, char letter, Get get)
{
	T *array = nullptr;
	uint_t count = 0;
	ASSERT_EQ(get(pair, &array, &count), 0);
	out << attrpair_name(pair) << "=" << letter;
	for (uint_t i = 0; i < count; i++)
		out << (i == 0 ? ":" : "|") << array[i];
	out << ";";
}

std::string List::show() const
{
	std::ostringstream out;
	char *text;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(get(), pair)) != nullptr;) {
		switch (attrpair_type(pair)) {
		case DATA_TYPE_STRING_ARRAY:
			show_array<char *>(out, pair, 's', attrpair_value_string_array);
			break;
		case DATA_TYPE_UINT64_ARRAY:
			show_array<uint64_t>(out, pair, 'u', attrpair_value_uint64_array);
			break;
		case DATA_TYPE_INT64_ARRAY:
			show_array<int64_t>(out, pair, 'i', attrpair_value_int64_array);
			break;
		case DATA_TYPE_BOOLEAN_ARRAY:
			show_array<boolean_t>(out, pair, 'b', attrpair_value_boolean_array);
			break;
		default:
			out << attrpair_name(pair) << "=t:" << (attrpair_value_string(pair, &text) == 0 ? text : "?")
			    << ";";
		}
	}
	return out.str();
}

// The descriptors are C's: their texts aren't const.
char *c(const char *text)
{
	return const_cast<char *>(text);
}

// A table of one property.
struct Table {
	ostrel_propdesc_t descs[2] = {};

	Table(uint64_t type, uint64_t flags, ostrel_valdesc_t *vals = nullptr, const char *delimiters = nullptr)
	{
		descs[0].npd_name = c("p");
		descs[0].npd_type = type;
		descs[0].npd_flags = flags;
		descs[0].npd_vals = vals;
		descs[0].npd_delimiters = c(delimiters);
	}
	operator const ostrel_propdesc_t *() const { return descs; }
};

ostrel_valdesc_t ab[] = {{c("a"), nullptr, 1}, {c("b"), nullptr, 2}, {nullptr, nullptr, 0}};
ostrel_valdesc_t ab_none[] = {{c("a"), nullptr, 1}, {c("b"), nullptr, 2}, {c("?"), nullptr, 0}, {nullptr, nullptr, 0}};
ostrel_valdesc_t ab_both[] = {{c("a"), nullptr, 1}, {c("b"), nullptr, 2}, {c("ab"), nullptr, 3}, {nullptr, nullptr, 0}};
ostrel_valdesc_t none[] = {{nullptr, nullptr, 0}};

Numbers many(size_t count, uint64_t number)
{
	return Numbers(count, number);
}
Texts many(size_t count, const char *text)
{
	return Texts(count, text);
}

std::string joined(size_t count, const char *text, const char *between = ",")
{
	std::string all;
	for (size_t i = 0; i < count; i++)
		all += (i == 0 ? "" : between) + std::string(text);
	return all;
}

// An array as it is shown.
std::string shown(size_t count, const char *text)
{
	return joined(count, text, "|");
}

struct Converted {
	int result;
	std::string list;
	Texts log;
};

bool operator==(const Converted &a, const Converted &b)
{
	return a.result == b.result && a.list == b.list && a.log == b.log;
}

std::ostream &operator<<(std::ostream &out, const Converted &c)
{
	out << c.result << " " << c.list;
	for (const std::string &line : c.log)
		out << "\n    " << line;
	return out;
}

Converted to_persist(const List &list, const ostrel_propdesc_t *table)
{
	LogCapture log;
	int result = list.to_persist(table);
	return {result, list.show(), log.lines()};
}

Converted from_persist(const List &list, const ostrel_propdesc_t *table)
{
	LogCapture log;
	int result = list.from_persist(table);
	return {result, list.show(), log.lines()};
}

Converted ok(const std::string &list)
{
	return {0, list, {}};
}
Converted fails(const std::string &list, const std::string &message)
{
	return {EINVAL, list, {"7: p: " + message}};
}

} // namespace

// ---- To persistent form ----

TEST(ToPersist, DelimitedTextBecomesItsValues)
{
	const Table table(DATA_TYPE_STRING, OSTREL_PROP_DELIMITED, nullptr, ", ");
	EXPECT_EQ(to_persist(List().texts("p", {"a, b,c"}), table), ok("p=s:a|b|c;"));
	EXPECT_EQ(to_persist(List().texts("p", {"alone"}), table), ok("p=s:alone;"));
	EXPECT_EQ(to_persist(List().texts("p", {" ,, "}), table), ok("p=s: ,, ;")) << "no value in it: unchanged";
	EXPECT_EQ(to_persist(List().texts("p", {""}), table), ok("p=s:;"));
	EXPECT_EQ(to_persist(List().texts("p", {"a,b", "c"}), table), ok("p=s:a,b|c;")) << "two texts aren't split";
}

TEST(ToPersist, DelimitedTextOfTwoMembersFallsToTheNextRules)
{
	const Table table(DATA_TYPE_UINT64, OSTREL_PROP_DELIMITED, nullptr, ",");
	EXPECT_EQ(to_persist(List().texts("p", {"1", "2"}), table), ok("p=u:1|2;"));
	EXPECT_EQ(to_persist(List().texts("p", {"1,2"}), table), ok("p=s:1|2;"));
}

TEST(ToPersist, DelimitedTextHoldsTo128ValuesAnd511Bytes)
{
	const Table table(DATA_TYPE_STRING, OSTREL_PROP_DELIMITED, nullptr, ",");
	EXPECT_EQ(to_persist(List().texts("p", {joined(128, "ab")}), table), ok("p=s:" + shown(128, "ab") + ";"));
	std::string text = joined(129, "ab");
	EXPECT_EQ(to_persist(List().texts("p", {text}), table),
	    fails("p=s:" + text + ";", "could not convert " + text + " to persistent type: too many delimited values"));
	EXPECT_EQ(to_persist(List().texts("p", {std::string(510, 'x') + ",yz"}), table),
	    ok("p=s:" + std::string(510, 'x') + ";"));
	EXPECT_EQ(
	    to_persist(List().texts("p", {std::string(600, 'x')}), table), ok("p=s:" + std::string(511, 'x') + ";"));
}

TEST(ToPersist, TextsBecomeValuesOfTheStoredType)
{
	const Table boolean(DATA_TYPE_BOOLEAN, 0), int64(DATA_TYPE_INT64, 0), uint64(DATA_TYPE_UINT64, 0);
	EXPECT_EQ(to_persist(List().texts("p", {"TRUE", "False", "2", "0x0"}), boolean), ok("p=b:1|0|2|0;"));
	EXPECT_EQ(to_persist(List().texts("p", {"0x10", "010", "-9223372036854775808"}), int64),
	    ok("p=i:16|8|-9223372036854775808;"));
	EXPECT_EQ(to_persist(List().texts("p", {"18446744073709551615"}), uint64), ok("p=u:18446744073709551615;"));
	EXPECT_EQ(to_persist(List().texts("p", {}), int64), ok("p=i;"));
	EXPECT_EQ(to_persist(List().texts("p", many(128, "7")), int64), ok("p=i:" + shown(128, "7") + ";"));
}

TEST(ToPersist, TextThatIsNoValueIsRefusedAndThePropertyStays)
{
	const Table boolean(DATA_TYPE_BOOLEAN, 0), int64(DATA_TYPE_INT64, 0), uint64(DATA_TYPE_UINT64, 0);
	EXPECT_EQ(to_persist(List().texts("p", {"1", "yes"}), boolean),
	    fails("p=s:1|yes;", "could not convert yes to persistent type boolean"));
	EXPECT_EQ(to_persist(List().texts("p", {"12abc"}), int64),
	    fails("p=s:12abc;", "could not convert 12abc to persistent type int64"));
	EXPECT_EQ(to_persist(List().texts("p", {"9223372036854775808"}), int64),
	    fails("p=s:9223372036854775808;", "could not convert 9223372036854775808 to persistent type int64"));
	EXPECT_EQ(to_persist(List().texts("p", {"18446744073709551616"}), uint64),
	    fails("p=s:18446744073709551616;", "could not convert 18446744073709551616 to persistent type uint64"));
	EXPECT_EQ(to_persist(List().texts("p", many(129, "7")), int64),
	    fails("p=s:" + shown(129, "7") + ";", "could not convert to persistent type: too many values"));
	const Table strange(DATA_TYPE_INT32, 0);
	EXPECT_EQ(to_persist(List().texts("p", {"1", "2"}), strange),
	    fails("p=s:1|2;", "could not add 2 unknown to proplist"));
}

TEST(ToPersist, NumbersBecomeTheirNames)
{
	const Table table(DATA_TYPE_STRING, 0, ab_none);
	EXPECT_EQ(to_persist(List().numbers("p", {2, 1, 2}), table), ok("p=s:b|a|b;"));
	EXPECT_EQ(to_persist(List().numbers("p", {1, 0}), table), ok("p=s:a;")) << "? leaves no trace beside a name";
	EXPECT_EQ(to_persist(List().numbers("p", {0}), table), ok("")) << "nothing but ? has no stored form";
	EXPECT_EQ(to_persist(List().numbers("p", {}), table), ok("p=u;"));
	EXPECT_EQ(to_persist(List().numbers("p", {1, 3}), table), fails("p=u:1|3;", "could not convert value 3"));
	EXPECT_EQ(to_persist(List().numbers("p", many(128, 1)), table), ok("p=s:" + shown(128, "a") + ";"));
	EXPECT_EQ(to_persist(List().numbers("p", many(129, 1)), table),
	    fails("p=u:" + shown(129, "1") + ";", "could not convert to persistent type: too many values"));
	const Table empty(DATA_TYPE_STRING, 0, none);
	EXPECT_EQ(to_persist(List().numbers("p", {1}), empty), fails("p=u:1;", "could not convert value 1"));
}

TEST(ToPersist, NumbersWithoutATableBecomeDecimalTexts)
{
	const Table text(DATA_TYPE_STRING, 0), number(DATA_TYPE_UINT64, 0);
	EXPECT_EQ(to_persist(List().numbers("p", {5, UINT64_MAX}), text), ok("p=s:5|18446744073709551615;"));
	EXPECT_EQ(to_persist(List().numbers("p", many(128, UINT64_MAX)), text).result, 0);
	EXPECT_EQ(to_persist(List().numbers("p", {5}), number), ok("p=u:5;"));
	EXPECT_EQ(to_persist(List().numbers("p", many(129, 5)), number).result, EINVAL);
}

TEST(ToPersist, BitfieldTakesTheNamesOfAllItsBits)
{
	const Table table(DATA_TYPE_STRING, OSTREL_PROP_BITFIELD, ab);
	EXPECT_EQ(to_persist(List().numbers("p", {3}), table), ok("p=s:a|b;"));
	EXPECT_EQ(to_persist(List().numbers("p", {4}), table), fails("p=u:4;", "could not convert bitfield 4"));
	EXPECT_EQ(to_persist(List().numbers("p", {0}), table), ok("p=u:0;")) << "0 without an entry stays";
	EXPECT_EQ(to_persist(List().numbers("p", {1, 3}), table), ok("p=s:a|a|b;")) << "all bits of the first";
	EXPECT_EQ(to_persist(List().numbers("p", {1, 2}), table), fails("p=u:1|2;", "could not convert bitfield 2"));
	const Table wide(DATA_TYPE_STRING, OSTREL_PROP_BITFIELD, ab_both);
	EXPECT_EQ(to_persist(List().numbers("p", {3}), wide), ok("p=s:a|b|ab;"));
	EXPECT_EQ(to_persist(List().numbers("p", {1}), wide), fails("p=u:1;", "could not convert bitfield 1"));
	const Table zero(DATA_TYPE_STRING, OSTREL_PROP_BITFIELD, ab_none);
	EXPECT_EQ(to_persist(List().numbers("p", {0}), zero), ok(""));
}

TEST(ToPersist, BitfieldWithMoreNamesThanRoomIsRefused)
{
	std::vector<ostrel_valdesc_t> vals(129, {c("again"), nullptr, 1});
	vals.push_back({nullptr, nullptr, 0});
	const Table table(DATA_TYPE_STRING, OSTREL_PROP_BITFIELD, vals.data());
	EXPECT_EQ(to_persist(List().numbers("p", {1}), table),
	    fails("p=u:1;", "could not convert to persistent type: too many values"));
	const Table fits(DATA_TYPE_STRING, OSTREL_PROP_BITFIELD, vals.data() + 1);
	EXPECT_EQ(to_persist(List().numbers("p", {1}), fits), ok("p=s:" + shown(128, "again") + ";"));
}

TEST(ToPersist, WhatNoRuleNamesStays)
{
	const Table text(DATA_TYPE_STRING, 0, ab), left(DATA_TYPE_UNKNOWN, OSTREL_PROP_DELIMITED, ab, ",");
	const Table never(DATA_TYPE_UINT64, OSTREL_PROP_NO_CONVERT | OSTREL_PROP_DELIMITED, ab, ",");
	EXPECT_EQ(to_persist(List().texts("p", {"1", "a"}), text), ok("p=s:1|a;"));
	EXPECT_EQ(to_persist(List().texts("p", {"1,2"}), left), ok("p=s:1,2;"));
	EXPECT_EQ(to_persist(List().numbers("p", {99}), never), ok("p=u:99;"));
	EXPECT_EQ(to_persist(List().texts("q", {"no number"}), Table(DATA_TYPE_UINT64, 0)), ok("q=s:no number;"));
	List single;
	ASSERT_EQ(attrlist_add_string(single.get(), "p", "7"), 0);
	EXPECT_EQ(to_persist(single, Table(DATA_TYPE_UINT64, 0)), ok("p=t:7;"));
}

// ---- From persistent form ----

TEST(FromPersist, MembersAreJoinedWithTheWholeDelimiter)
{
	const Table comma(DATA_TYPE_STRING, OSTREL_PROP_DELIMITED, ab, ",");
	const Table wide(DATA_TYPE_STRING, OSTREL_PROP_DELIMITED, nullptr, ", ");
	EXPECT_EQ(from_persist(List().texts("p", {"a", "b", "c"}), comma), ok("p=s:a,b,c;"));
	EXPECT_EQ(from_persist(List().texts("p", {"a", "b", "c"}), wide), ok("p=s:a, b, c;"));
	EXPECT_EQ(from_persist(List().texts("p", {"one"}), wide), ok("p=s:one;"));
	List empty;
	EXPECT_EQ(from_persist(empty.texts("p", {}), wide), ok("p=s:;"));
	char *text = nullptr;
	EXPECT_EQ(ostrel_atl_get_one_string(empty.get(), "p", &text), 0) << "one empty text, not an array of none";
}

TEST(FromPersist, JoinedTextOf511BytesFitsAndOneMoreStays)
{
	const Table table(DATA_TYPE_STRING, OSTREL_PROP_DELIMITED, nullptr, ",");
	std::string half(255, 'x'), more(256, 'y');
	EXPECT_EQ(from_persist(List().texts("p", {half, half}), table), ok("p=s:" + half + "," + half + ";"));
	for (const Texts &texts : {Texts{half, more}, Texts{std::string(512, 'z')}, Texts{std::string(511, 'z'), ""}}) {
		List list;
		Converted left = from_persist(list.texts("p", texts), table);
		EXPECT_EQ(left.result, 0);
		EXPECT_EQ(left.list, List().texts("p", texts).show());
		EXPECT_EQ(left.log, Texts{"7: p: could not convert from persistent type: delimited value too long"});
	}
}

TEST(FromPersist, NamesBecomeTheirNumbersInAnyCase)
{
	const Table numbers(DATA_TYPE_STRING, 0, ab_both), bits(DATA_TYPE_STRING, OSTREL_PROP_BITFIELD, ab_both);
	EXPECT_EQ(from_persist(List().texts("p", {"A", "b", "Ab"}), numbers), ok("p=u:1|2|3;"));
	EXPECT_EQ(from_persist(List().texts("p", {"A", "b"}), bits), ok("p=u:3;"));
	EXPECT_EQ(from_persist(List().texts("p", {}), numbers), ok("p=u;"));
	EXPECT_EQ(from_persist(List().texts("p", {}), bits), ok("p=u:0;"));
	EXPECT_EQ(from_persist(List().texts("p", {"a", "c"}), numbers),
	    fails("p=s:a|c;", "could not convert value string c to valid value"));
	EXPECT_EQ(from_persist(List().texts("p", {"c"}), bits),
	    fails("p=s:c;", "could not convert value string c to valid value"));
}

TEST(FromPersist, NamesThatRepeatGiveANumberEachButNeverMoreThanFit)
{
	std::vector<ostrel_valdesc_t> vals = {{c("x"), nullptr, 1}, {c("X"), nullptr, 2}, {nullptr, nullptr, 0}};
	const Table table(DATA_TYPE_STRING, 0, vals.data());
	EXPECT_EQ(from_persist(List().texts("p", {"x"}), table), ok("p=u:1|2;"));
	EXPECT_EQ(from_persist(List().texts("p", many(64, "x")), table).result, 0);
	EXPECT_EQ(from_persist(List().texts("p", many(65, "x")), table),
	    fails("p=s:" + shown(65, "x") + ";", "could not convert from persistent type: too many values"));
	const Table bits(DATA_TYPE_STRING, OSTREL_PROP_BITFIELD, vals.data());
	EXPECT_EQ(from_persist(List().texts("p", many(65, "x")), bits), ok("p=u:3;"));
}

TEST(FromPersist, TooManyMembersStayWithAMessageAndTheRestGoesOn)
{
	ostrel_propdesc_t descs[3] = {};
	descs[0].npd_name = c("p");
	descs[0].npd_vals = ab;
	descs[1].npd_name = c("q");
	descs[1].npd_vals = ab;
	List list;
	list.texts("p", many(129, "a")).texts("q", {"b"});
	Converted left = from_persist(list, descs);
	EXPECT_EQ(left.result, 0);
	EXPECT_EQ(left.list, "p=s:" + shown(129, "a") + ";q=u:2;");
	EXPECT_EQ(left.log, Texts{"7: p: could not convert from persistent type: too many values"});
	descs[0].npd_flags = OSTREL_PROP_NO_CONVERT;
	EXPECT_EQ(from_persist(List().texts("p", many(129, "a")), descs), ok("p=s:" + shown(129, "a") + ";"));
}

TEST(FromPersist, WhatIsNoStringArrayOrHasNoTableStays)
{
	const Table table(DATA_TYPE_STRING, 0, ab), plain(DATA_TYPE_STRING, 0);
	EXPECT_EQ(from_persist(List().numbers("p", {7}), table), ok("p=u:7;"));
	EXPECT_EQ(from_persist(List().texts("p", {"7"}), plain), ok("p=s:7;"));
	const Table never(DATA_TYPE_STRING, OSTREL_PROP_NO_CONVERT | OSTREL_PROP_DELIMITED, ab, ",");
	EXPECT_EQ(from_persist(List().texts("p", {"a", "zz"}), never), ok("p=s:a|zz;"));
}

// ---- Both ways ----

TEST(Conversion, RefusesMissingArgumentsWithoutAMessage)
{
	LogCapture log;
	const Table table(DATA_TYPE_STRING, 0);
	List list;
	for (auto convert : {ostrel_proplist_convert_to_persist, ostrel_proplist_convert_from_persist}) {
		EXPECT_EQ(convert(nullptr, sizeof(ostrel_propdesc_t), table.descs), EINVAL);
		EXPECT_EQ(convert(list.get(), 0, table.descs), EINVAL);
		EXPECT_EQ(convert(list.get(), sizeof(ostrel_propdesc_t), nullptr), EINVAL);
		EXPECT_EQ(convert(list.get(), sizeof(ostrel_propdesc_t), table.descs + 1), 0) << "a table of nothing";
	}
	EXPECT_TRUE(log.lines().empty());
}

TEST(Conversion, DelimitedPropertyWithoutDelimitersIsRefused)
{
	const Table table(DATA_TYPE_STRING, OSTREL_PROP_DELIMITED);
	EXPECT_EQ(to_persist(List().texts("p", {"a,b"}), table),
	    fails("p=s:a,b;", "could not convert to persistent type: no delimiters"));
	EXPECT_EQ(from_persist(List().texts("p", {"a", "b"}), table),
	    fails("p=s:a|b;", "could not convert from persistent type: no delimiters"));
}

// A caller's table, whose entries hold more than the descriptor; the last one is a bare end mark.
TEST(Conversion, StepsOverTheCallersOwnFieldsAndStopsAtTheFirstFailure)
{
	struct Entry {
		ostrel_propdesc_t desc;
		char own[40];
	};
	Entry entries[4] = {};
	const char *names[] = {"first", "second", "third"};
	for (int i = 0; i < 3; i++) {
		entries[i].desc.npd_name = c(names[i]);
		entries[i].desc.npd_type = DATA_TYPE_STRING;
		entries[i].desc.npd_vals = ab;
		memset(entries[i].own, 'x', sizeof(entries[i].own));
	}
	List list;
	list.numbers("first", {1}).numbers("second", {9}).numbers("third", {2});
	EXPECT_EQ(ostrel_proplist_convert_to_persist(list.get(), sizeof(Entry), entries), EINVAL);
	EXPECT_EQ(list.show(), "second=u:9;third=u:2;first=s:a;");
}

TEST(Conversion, ComesBackFromTheStoreAsItWas)
{
	ostrel_propdesc_t descs[4] = {};
	descs[0].npd_name = c("mode");
	descs[1].npd_name = c("flags");
	descs[1].npd_flags = OSTREL_PROP_BITFIELD;
	descs[2].npd_name = c("servers");
	descs[2].npd_flags = OSTREL_PROP_DELIMITED;
	descs[2].npd_delimiters = c(", ");
	for (int i = 0; i < 3; i++)
		descs[i].npd_type = DATA_TYPE_STRING;
	descs[0].npd_vals = descs[1].npd_vals = ab;
	List list;
	list.numbers("mode", {2, 1}).numbers("flags", {3}).texts("servers", {"x,y , z"});
	EXPECT_EQ(to_persist(list, descs), ok("mode=s:b|a;flags=s:a|b;servers=s:x|y|z;"));
	EXPECT_EQ(from_persist(list, descs), ok("mode=u:2|1;flags=u:3;servers=s:x, y, z;"));
}

TEST(Conversion, CountsTheNamesOfValues)
{
	EXPECT_EQ(ostrel_valdescs_count(nullptr), 0);
	EXPECT_EQ(ostrel_valdescs_count(none), 0);
	EXPECT_EQ(ostrel_valdescs_count(ab_both), 3);
}

// A list may survive a failed allocation by other means; what it can't take in leaves the property as it was.
TEST(Conversion, LeavesThePropertyWhereMemoryRunsOut)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	const std::string name(100, 'n');
	ostrel_valdesc_t vals[] = {{c(name.c_str()), nullptr, 1}, {nullptr, nullptr, 0}};
	const Table names(DATA_TYPE_STRING, 0, vals), joins(DATA_TYPE_STRING, OSTREL_PROP_DELIMITED, nullptr, ";");
	const Table values(DATA_TYPE_INT64, 0);
	struct {
		const ostrel_propdesc_t *table;
		List (*make)();
		int (List::*convert)(const ostrel_propdesc_t *) const;
	} conversions[] = {
	    {names, [] { return List().numbers("p", many(128, 1)); }, &List::to_persist},
	    {joins, [] { return List().texts("p", {std::string(200, ';') + "x" + std::string(300, ';')}); },
		&List::to_persist},
	    {values, [] { return List().texts("p", many(128, "1")); }, &List::to_persist},
	    {names, [] { return List().texts("p", many(128, std::string(100, 'n').c_str())); }, &List::from_persist},
	    {joins, [] { return List().texts("p", many(120, "abc")); }, &List::from_persist},
	};
	int ran_out = 0;
	for (const auto &conversion : conversions) {
		const std::string before = conversion.make().show();
		sweep_allocations(
		    conversion.make, [&](const List &list) { return (list.*conversion.convert)(conversion.table); },
		    [&](const List &list, int result, bool failed) {
			    EXPECT_TRUE(result == 0 || (result == ENOMEM && failed)) << result;
			    EXPECT_EQ(list.show() == before, result != 0);
			    ran_out += result == ENOMEM;
		    });
	}
	EXPECT_GT(ran_out, 0);
}
