// Conversions of property lists, both ways. A list is written and shown as one line, in which a letter gives the type of
// each property: s texts, u uint64_t, i int64_t, b booleans, t a single text that is no array.
#include <cerrno>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "alloc_fault.h"
#include "base/guards.h"
#include "log_capture.h"
#include "scratch.h"
#include "test_paths.h"

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

} // namespace

// ---- Each rule, from a file of cases ----

namespace {

// {3*x} is xxx, {3|x} is x|x|x, {3,x} is x,x,x.
std::string expanded(const std::string &text)
{
	const size_t open = text.find('{'), close = text.find('}', open);
	if (close == std::string::npos)
		return text;
	const size_t sign = text.find_first_not_of("0123456789", open + 1);
	const std::string between = text[sign] == '*' ? "" : text.substr(sign, 1);
	const std::string piece = text.substr(sign + 1, close - sign - 1);
	return text.substr(0, open) + joined(std::stoul(text.substr(open + 1)), piece.c_str(), between.c_str()) +
	       expanded(text.substr(close + 1));
}

std::vector<std::string> parts(const std::string &text, char delimiter)
{
	std::vector<std::string> all;
	std::istringstream in(text);
	for (std::string part; std::getline(in, part, delimiter);)
		all.push_back(part);
	if (text.empty() || text.back() == delimiter)
		all.emplace_back();
	return all;
}

// "s:a|b" as the property p.
List list_of(const std::string &form)
{
	List list;
	const Texts values = form.size() < 2 ? Texts() : parts(form.substr(2), '|');
	Numbers numbers;
	if (form[0] == 's') {
		list.texts("p", values);
	} else if (form[0] == 't') {
		EXPECT_EQ(attrlist_add_string(list.get(), "p", values[0].c_str()), 0);
	} else {
		for (const std::string &value : values)
			numbers.push_back(std::stoull(value));
		list.numbers("p", numbers);
	}
	return list;
}

std::vector<ostrel_valdesc_t> again(size_t count)
{
	std::vector<ostrel_valdesc_t> vals(count, {c("again"), nullptr, 1});
	vals.push_back({nullptr, nullptr, 0});
	return vals;
}

// A description as the file has it: "string bitfield ab".
Table table_of(const std::string &text, std::string *delimiters)
{
	static std::vector<ostrel_valdesc_t> many_again = again(129);
	static ostrel_valdesc_t x2[] = {{c("x"), nullptr, 1}, {c("X"), nullptr, 2}, {nullptr, nullptr, 0}};
	static const std::map<std::string, ostrel_valdesc_t *> values = {{"ab", ab}, {"ab_none", ab_none},
	    {"ab_both", ab_both}, {"none", none}, {"x2", x2}, {"again129", many_again.data()},
	    {"again128", many_again.data() + 1}};
	static const std::map<std::string, uint64_t> flags = {
	    {"delimited", OSTREL_PROP_DELIMITED}, {"bitfield", OSTREL_PROP_BITFIELD}, {"keep", OSTREL_PROP_NO_CONVERT}};
	static const std::map<std::string, uint64_t> types = {{"string", DATA_TYPE_STRING},
	    {"uint64", DATA_TYPE_UINT64}, {"int64", DATA_TYPE_INT64}, {"int32", DATA_TYPE_INT32},
	    {"boolean", DATA_TYPE_BOOLEAN}, {"unknown", DATA_TYPE_UNKNOWN}};
	Table table(0, 0);
	const std::vector<std::string> quoted = parts(text, '\'');
	if (quoted.size() > 1) {
		*delimiters = quoted[1];
		table.descs[0].npd_delimiters = delimiters->data();
	}
	std::istringstream words(quoted[0] + (quoted.size() > 2 ? quoted[2] : ""));
	for (std::string word; words >> word;) {
		if (types.count(word) != 0)
			table.descs[0].npd_type = types.at(word);
		else if (flags.count(word) != 0)
			table.descs[0].npd_flags |= flags.at(word);
		else
			table.descs[0].npd_vals = values.at(word);
	}
	return table;
}

} // namespace

TEST(Conversion, FollowsEachRule)
{
	std::istringstream file(file_text(TEST_SOURCE_DIR "/tests/golden/conversions.txt"));
	int cases = 0;
	for (std::string line; std::getline(file, line);) {
		if (line.empty() || line[0] == '#')
			continue;
		SCOPED_TRACE(line);
		std::vector<std::string> fields = parts(expanded(line), '\t');
		ASSERT_GE(fields.size(), 4U);
		std::string delimiters, message = fields.size() > 4 ? fields[4] : "";
		const Table table = table_of(fields[1], &delimiters);
		const List list = list_of(fields[2]);
		const bool succeeds = message.empty() || message[0] == '~';
		const Converted expected = {succeeds ? 0 : EINVAL, fields[3] == "-" ? "" : "p=" + fields[3] + ";",
		    message.empty() ? Texts() : Texts{"7: p: " + message.substr(succeeds ? 1 : 0)}};
		EXPECT_EQ(fields[0] == "to" ? to_persist(list, table) : from_persist(list, table), expected);
		cases++;
	}
	EXPECT_GT(cases, 70);
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
