// Conversions of property lists, both ways.
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "alloc_fault.h"
#include "base/guards.h"
#include "golden_rows.h"
#include "list_text.h"
#include "log_capture.h"

namespace {

// The descriptors are C's: their texts aren't const.
char *c(const char *text)
{
	return const_cast<char *>(text);
}

ostrel_valdesc_t ab[] = {{c("a"), nullptr, 1}, {c("b"), nullptr, 2}, {nullptr, nullptr, 0}};

std::string joined(size_t count, const char *text, const char *between = ",")
{
	std::string all;
	for (size_t i = 0; i < count; i++)
		all += (i == 0 ? "" : between) + std::string(text);
	return all;
}

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

template <typename T, typename Add>
int add_numbers(attrlist_t *list, const std::vector<std::string> &values, Add add)
{
	std::unique_ptr<T[]> array(new T[values.size()]);
	for (size_t i = 0; i < values.size(); i++)
		array[i] = static_cast<T>(values[i][0] == '-' ? std::stoll(values[i]) : std::stoull(values[i]));
	return add(list, "p", array.get(), static_cast<uint_t>(values.size()));
}

// "s:a|b" as the property p; "-" is a list without it.
AttrList list_of(const std::string &form)
{
	AttrList list;
	EXPECT_EQ(attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0), 0);
	std::vector<std::string> values =
	    form.size() < 2 ? std::vector<std::string>() : split_text(form.substr(2), '|');
	std::vector<char *> texts;
	for (std::string &value : values)
		texts.push_back(value.data());
	const uint_t count = static_cast<uint_t>(values.size());
	int error = 0;
	if (form[0] == 's')
		error = attrlist_add_string_array(list.get(), "p", texts.data(), count);
	else if (form[0] == 't')
		error = attrlist_add_string(list.get(), "p", texts[0]);
	else if (form[0] == 'u')
		error = add_numbers<uint64_t>(list.get(), values, attrlist_add_uint64_array);
	else if (form[0] == 'i')
		error = add_numbers<int64_t>(list.get(), values, attrlist_add_int64_array);
	else if (form[0] == 'b')
		error = add_numbers<boolean_t>(list.get(), values, attrlist_add_boolean_array);
	else
		EXPECT_EQ(form, "-");
	EXPECT_EQ(error, 0);
	return list;
}

// A case of the file: a table of one property, and what the conversion makes of it.
struct Case {
	std::string delimiters, before, after, message;
	std::vector<std::string> names;
	std::vector<ostrel_valdesc_t> values;
	ostrel_propdesc_t descs[2] = {};
	decltype(&ostrel_proplist_convert_to_persist) function = nullptr;

	bool succeeds() const { return message.empty() || message[0] == '~'; }
	int convert(const AttrList &list) const { return function(list.get(), sizeof(*descs), descs); }
};

// "a=1,b=2" as a table, "none" as an empty one.
ostrel_valdesc_t *name_values(const std::string &text, Case &one)
{
	if (text != "none")
		one.names = split_text(text, ',');
	for (std::string &name : one.names) {
		const size_t equals = name.find('=');
		one.values.push_back({name.data(), nullptr, std::stoul(name.substr(equals + 1))});
		name[equals] = '\0';
	}
	one.values.push_back({nullptr, nullptr, 0});
	return one.values.data();
}

// A description as the file has it: "string bitfield a=1,b=2".
void describe(const std::string &text, Case &one)
{
	static const std::map<std::string, uint64_t> flags = {
	    {"delimited", OSTREL_PROP_DELIMITED}, {"bitfield", OSTREL_PROP_BITFIELD}, {"keep", OSTREL_PROP_NO_CONVERT}};
	static const std::map<std::string, uint64_t> types = {{"string", DATA_TYPE_STRING},
	    {"uint64", DATA_TYPE_UINT64}, {"int64", DATA_TYPE_INT64}, {"int32", DATA_TYPE_INT32},
	    {"boolean", DATA_TYPE_BOOLEAN}, {"unknown", DATA_TYPE_UNKNOWN}};
	ostrel_propdesc_t &desc = one.descs[0];
	desc.npd_name = c("p");
	const std::vector<std::string> quoted = split_text(text, '\'');
	if (quoted.size() > 1) {
		one.delimiters = quoted[1];
		desc.npd_delimiters = one.delimiters.data();
	}
	std::istringstream words(quoted[0] + (quoted.size() > 2 ? quoted[2] : ""));
	for (std::string word; words >> word;) {
		if (types.count(word) != 0)
			desc.npd_type = types.at(word);
		else if (flags.count(word) != 0)
			desc.npd_flags |= flags.at(word);
		else
			desc.npd_vals = name_values(word, one);
	}
}

void for_each_case(const std::function<void(const Case &)> &what)
{
	const std::vector<GoldenRow> rows = golden_rows("conversions.txt");
	EXPECT_GT(rows.size(), 70U);
	for (const GoldenRow &row : rows) {
		SCOPED_TRACE(row.line);
		std::vector<std::string> fields;
		for (const std::string &field : row.fields)
			fields.push_back(expanded(field));
		ASSERT_GE(fields.size(), 4U);
		Case one;
		one.function =
		    fields[0] == "to" ? ostrel_proplist_convert_to_persist : ostrel_proplist_convert_from_persist;
		describe(fields[1], one);
		one.before = fields[2];
		one.after = list_text(list_of(fields[3]).get());
		one.message = fields.size() > 4 ? fields[4] : "";
		what(one);
	}
}

} // namespace

TEST(Conversion, FollowsEachRule)
{
	for_each_case([](const Case &one) {
		LogCapture log;
		const AttrList list = list_of(one.before);
		std::vector<std::string> messages;
		if (!one.message.empty())
			messages = {"7: p: " + one.message.substr(one.succeeds() ? 1 : 0)};
		EXPECT_EQ(one.convert(list), one.succeeds() ? 0 : EINVAL);
		EXPECT_EQ(list_text(list.get()), one.after);
		EXPECT_EQ(log.lines(), messages);
	});
}

// A list may survive a failed allocation by other means; what it can't take in leaves the property as it was.
TEST(Conversion, LeavesThePropertyWhereMemoryRunsOut)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	int ran_out = 0;
	for_each_case([&ran_out](const Case &one) {
		const std::string before = list_text(list_of(one.before).get());
		sweep_allocations([&one] { return list_of(one.before); },
		    [&one](const AttrList &list) { return one.convert(list); },
		    [&](const AttrList &list, int result, bool failed) {
			    const bool out_of_memory = failed && result == ENOMEM;
			    EXPECT_TRUE(out_of_memory || result == (one.succeeds() ? 0 : EINVAL)) << result;
			    EXPECT_EQ(list_text(list.get()), out_of_memory ? before : one.after);
			    ran_out += out_of_memory;
		    });
	});
	EXPECT_GE(ran_out, 10);
}

TEST(Conversion, RefusesMissingArgumentsWithoutAMessage)
{
	LogCapture log;
	ostrel_propdesc_t descs[2] = {};
	descs[0].npd_name = c("p");
	descs[0].npd_type = DATA_TYPE_STRING;
	const AttrList list = list_of("u:1");
	for (auto convert : {ostrel_proplist_convert_to_persist, ostrel_proplist_convert_from_persist}) {
		EXPECT_EQ(convert(nullptr, sizeof(ostrel_propdesc_t), descs), EINVAL);
		EXPECT_EQ(convert(list.get(), 0, descs), EINVAL);
		EXPECT_EQ(convert(list.get(), sizeof(ostrel_propdesc_t), nullptr), EINVAL);
		EXPECT_EQ(convert(list.get(), sizeof(ostrel_propdesc_t), descs + 1), 0) << "a table of nothing";
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
	Entry entries[5] = {};
	const char *names[] = {"first", "missing", "second", "third"};
	AttrList list = list_of("u:1");
	for (int i = 0; i < 4; i++) {
		entries[i].desc.npd_name = c(names[i]);
		entries[i].desc.npd_type = DATA_TYPE_STRING;
		entries[i].desc.npd_vals = ab;
		memset(entries[i].own, 'x', sizeof(entries[i].own));
	}
	const uint64_t numbers[] = {1, 9, 2};
	for (int i = 0; i < 3; i++)
		EXPECT_EQ(attrlist_add_uint64_array(list.get(), names[i == 0 ? 0 : i + 1], &numbers[i], 1), 0);
	EXPECT_EQ(ostrel_proplist_convert_to_persist(list.get(), sizeof(Entry), entries), EINVAL);
	EXPECT_EQ(list_text(list.get()), "p:16=1;second:16=9;third:16=2;first:17='a';");
}

TEST(Conversion, CountsTheNamesOfValues)
{
	EXPECT_EQ(ostrel_valdescs_count(nullptr), 0);
	EXPECT_EQ(ostrel_valdescs_count(ab + 2), 0);
	EXPECT_EQ(ostrel_valdescs_count(ab), 2);
}
