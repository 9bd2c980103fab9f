// The line format in both directions.
#include "libostrel_lines.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "line_lists.h"

struct Parsed {
	ostrel_error_t result;
	AttrList idlist;
	AttrList props;
};

static Parsed parse(std::string line)
{
	Parsed parsed;
	line.erase(0, line.find_first_not_of(" \t\v\f\r"));
	parsed.result = ostrel_line2attrlist(line.data(), parsed.idlist.out(), parsed.props.out());
	return parsed;
}

static std::string shown(const Parsed &parsed)
{
	return show_lists(parsed.idlist.get(), parsed.props.get());
}

static ostrel_error_t format(attrlist_t *idlist, attrlist_t *props, std::string *text)
{
	ostrel_line line = {};
	ostrel_error_t result = ostrel_format_object(idlist, props, &line);
	text->assign(line.text, line.length);
	return result;
}

// ---- Golden files ----

TEST(LineGolden, AcceptedLinesAreWrittenAsStatedAndReadBackTheSame)
{
	std::vector<std::string> lines = golden_lines("accepted.db");
	std::vector<std::string> written = golden_lines("accepted.written.db");
	ASSERT_GT(lines.size(), 30U);
	ASSERT_EQ(lines.size(), written.size());
	for (size_t i = 0; i < lines.size(); i++) {
		Parsed once = parse(lines[i]);
		std::string text;
		ASSERT_EQ(once.result, OSTREL_SUCCESS) << lines[i];
		EXPECT_EQ(format(once.idlist.get(), once.props.get(), &text), OSTREL_SUCCESS) << lines[i];
		EXPECT_EQ(text, written[i] + "\n");
		EXPECT_EQ(shown(parse(written[i])), shown(once));
	}
}

TEST(LineGolden, RefusedLinesAreNoObjects)
{
	std::vector<std::string> lines = golden_lines("refused.db");
	ASSERT_GT(lines.size(), 20U);
	lines.pop_back(); // too long: that is for the reader of files to see
	for (const std::string &line : lines) {
		Parsed parsed = parse(line);
		EXPECT_EQ(parsed.result, OSTREL_INVALID_ARG) << line;
		EXPECT_TRUE(!parsed.idlist && !parsed.props);
	}
}

TEST(LineGolden, LinesThatWouldNotComeBackAreNotWritten)
{
	for (const std::string &line : golden_lines("unwritable.db")) {
		Parsed parsed = parse(line);
		std::string text;
		ASSERT_EQ(parsed.result, OSTREL_SUCCESS) << line;
		EXPECT_EQ(format(parsed.idlist.get(), parsed.props.get(), &text), OSTREL_INVALID_ARG) << line;
	}
}

TEST(LineReading, BuildsTheWorkedExample)
{
	EXPECT_EQ(shown(parse("linkname=net0;zone=z1;\tmtu=uint32,1500;on=boolean,true,false;tags=string,a\\,b,c\\;d;"
			      "ctr=int64,-5;big=uint64,-1;small=int32,-7;none=string,;two=string,,x")),
	    "(linkname:9='net0';zone:9='z1';) (mtu:14=1500;on:24=1,0;tags:17='a,b','c;d';ctr:15=-5;"
	    "big:16=18446744073709551615;small:13=-7;none:17=;two:17='','x';)");
}

// ---- Writing ----

TEST(LineWriting, StoresScalarsAsArraysOfOne)
{
	AttrList list = props("");
	ASSERT_EQ(attrlist_add_int32(list.get(), "i", -1), 0);
	ASSERT_EQ(attrlist_add_uint32(list.get(), "u", 4294967295U), 0);
	ASSERT_EQ(attrlist_add_string(list.get(), "s", "a,b"), 0);
	ASSERT_EQ(attrlist_add_boolean_value(list.get(), "b", static_cast<boolean_t>(7)), 0);
	std::string text;
	ASSERT_EQ(format(ids("a=1").get(), list.get(), &text), OSTREL_SUCCESS);
	EXPECT_EQ(text, "a=1;\ti=int32,-1;u=uint32,-1;s=string,a\\,b;b=boolean,true;\n");
}

TEST(LineWriting, PrintsNameAndWordBeforeItRefusesAType)
{
	AttrList scalar = props("x=int32,1");
	ASSERT_EQ(attrlist_add_int64(scalar.get(), "big", 1), 0);
	std::string text;
	EXPECT_EQ(format(ids("a=1").get(), scalar.get(), &text), OSTREL_INVALID_ARG);
	EXPECT_EQ(text, "a=1;\tx=int32,1;big=int64");
	AttrList nested = props("");
	ASSERT_EQ(attrlist_add_attrlist(nested.get(), "in", scalar.get()), 0);
	EXPECT_EQ(format(ids("a=1").get(), nested.get(), &text), OSTREL_INVALID_ARG);
	EXPECT_EQ(text, "a=1;\tin=unknown");
	EXPECT_STREQ(data_type2str(DATA_TYPE_UINT8_ARRAY), "uint8");
}

TEST(LineWriting, RefusesWhatWouldReadBackAsAnotherObject)
{
	auto result_of = [](const char *name, const char *value, const char *property, const char *text) {
		AttrList idlist = ids("");
		AttrList list = props("");
		std::string line;
		EXPECT_EQ(ostrel_idlist_add(idlist.get(), name, value), OSTREL_SUCCESS);
		EXPECT_EQ(attrlist_add_string(list.get(), property, text), 0);
		return format(idlist.get(), list.get(), &line);
	};
	for (const char *name : {" n", "\tn", "#n", "n\nm", "n\tm", "n;m", "n=m", "n\\", "n\\\\\\"})
		EXPECT_EQ(result_of(name, "v", "p", "t"), OSTREL_INVALID_ARG) << name;
	for (const char *value : {"v\nw", "v\tw", "v;w", "v\\", "v\\\\;", "\\\\\\"})
		EXPECT_EQ(result_of("n", value, "p", "t"), OSTREL_INVALID_ARG) << value;
	for (const char *property : {"p\n", "p;q", "p=q", "p\\", "\\\\="})
		EXPECT_EQ(result_of("n", "v", property, "t"), OSTREL_INVALID_ARG) << property;
	EXPECT_EQ(result_of("n", "v", "p", "t\nu"), OSTREL_INVALID_ARG);
	EXPECT_EQ(result_of("n", "v", "p", std::string(3000, 't').c_str()), OSTREL_INVALID_ARG);
	EXPECT_EQ(result_of("n", "v", "p", "t"), OSTREL_SUCCESS);
}

TEST(LineWriting, NeedsAnIdentifierThatIsAText)
{
	std::string text;
	AttrList list = props("x=int32,1");
	AttrList idlist;
	ASSERT_EQ(ostrel_idlist_init(idlist.out(), "file"), OSTREL_SUCCESS);
	EXPECT_EQ(format(idlist.get(), list.get(), &text), OSTREL_INVALID_ARG);
	ASSERT_EQ(ostrel_idlist_add(idlist.get(), "a", "1"), OSTREL_SUCCESS);
	EXPECT_EQ(format(idlist.get(), list.get(), &text), OSTREL_SUCCESS);
	EXPECT_EQ(text, "a=1;\tx=int32,1;\n");
	ASSERT_EQ(ostrel_idlist_add_enclaveid(idlist.get(), 3), OSTREL_SUCCESS);
	EXPECT_EQ(format(idlist.get(), list.get(), &text), OSTREL_INVALID_ARG);
}

TEST(LineWriting, SeesThatTheStreamFails)
{
	AttrList list = props("x=int32,1");
	char text[32] = "";
	Stream memory(fmemopen(text, sizeof(text), "w"));
	EXPECT_EQ(ostrel_attrlist2line(memory.get(), "a=1;", list.get()), OSTREL_SUCCESS);
	EXPECT_STREQ(text, "a=1;\tx=int32,1;\n");
	Stream full(fopen("/dev/full", "w"));
	EXPECT_EQ(ostrel_attrlist2line(full.get(), "a=1;", list.get()), ostrel_errno2error(ENOSPC));
}
