// The line format in both directions.
#include "libostrel_lines.h"
#include "test_paths.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sstream>
#include <vector>

#include "line_lists.h"
#include "scratch.h"

static std::vector<std::string> tokens_of(std::string text, char delim)
{
	std::vector<std::string> tokens;
	char *next = text.data();
	while (char *token = ostrel_tokenize_by_unescaped_delim(next, delim, &next))
		tokens.emplace_back(token);
	return tokens;
}

TEST(LineTokens, AreSplitAtDelimitersThatNoBackslashHides)
{
	using Tokens = std::vector<std::string>;
	EXPECT_EQ(tokens_of("a;", ';'), Tokens({"a"}));
	EXPECT_EQ(tokens_of(";a", ';'), Tokens({"", "a"}));
	EXPECT_EQ(tokens_of("a;;b", ';'), Tokens({"a", "", "b"}));
	EXPECT_EQ(tokens_of("", ';'), Tokens({""}));
	EXPECT_EQ(tokens_of(";", ';'), Tokens({""}));
	EXPECT_EQ(tokens_of("a\\;b;c", ';'), Tokens({"a\\;b", "c"}));
	EXPECT_EQ(tokens_of("a\\\\;b", ';'), Tokens({"a\\\\", "b"}));
	EXPECT_EQ(tokens_of("a\\x;b", ';'), Tokens({"a\\x", "b"}));
	char *next = nullptr;
	EXPECT_EQ(ostrel_tokenize_by_unescaped_delim(nullptr, ';', &next), nullptr);
}

TEST(LineValues, EscapesComeOffAsTheyWereAdded)
{
	for (const char *value : {"", "a", ",;\\", "\\\\", "a=b\tc", "tail\\", "\xff\x80"}) {
		char escaped[64];
		EXPECT_EQ(value_add_escapes(value, escaped), escaped);
		Heap<char> plain(value_remove_escapes(escaped));
		EXPECT_STREQ(plain.get(), value);
	}
	Heap<char> lone(value_remove_escapes("\\ab\\"));
	EXPECT_STREQ(lone.get(), "ab");
}

TEST(LineValues, WordsAreReadInAnyCaseAndPrintedInLowerCase)
{
	EXPECT_EQ(str2data_type("BooLean"), DATA_TYPE_BOOLEAN_ARRAY);
	EXPECT_EQ(str2data_type("string"), DATA_TYPE_STRING_ARRAY);
	EXPECT_EQ(str2data_type("uint8"), DATA_TYPE_UNKNOWN);
	EXPECT_EQ(str2data_type(""), DATA_TYPE_UNKNOWN);
	EXPECT_STREQ(data_type2str(DATA_TYPE_UINT64), "uint64");
	EXPECT_STREQ(data_type2str(DATA_TYPE_BOOLEAN_VALUE), "boolean");
	EXPECT_STREQ(data_type2str(DATA_TYPE_UINT8_ARRAY), "uint8");
	EXPECT_STREQ(data_type2str(DATA_TYPE_ATTRLIST), "unknown");
}

TEST(LineValues, ArraysGrowBeyondTheirFirstRoomAndHaveTheExactCount)
{
	for (int wanted : {0, 1, 127, 128, 129, 256, 1000}) {
		std::string text;
		for (int i = 0; i < wanted; i++)
			text += std::to_string(i) + ",";
		int32_t *numbers = nullptr;
		char **words = nullptr;
		int count = -1;
		std::string copy = text;
		ASSERT_EQ(
		    ostrel_parse_int32_array(wanted > 0 ? text.data() : nullptr, &numbers, &count), OSTREL_SUCCESS);
		Heap<int32_t> held(numbers);
		ASSERT_NE(numbers, nullptr);
		ASSERT_EQ(count, wanted);
		ASSERT_EQ(
		    ostrel_parse_string_array(wanted > 0 ? copy.data() : nullptr, &words, &count), OSTREL_SUCCESS);
		ASSERT_EQ(count, wanted);
		for (int i = 0; i < wanted; i++) {
			EXPECT_EQ(numbers[i], i);
			EXPECT_EQ(words[i], std::to_string(i));
			free(words[i]);
		}
		free(words);
	}
}

// ---- Golden files ----

static std::vector<std::string> golden(const char *name)
{
	std::istringstream file(file_text(std::string(TEST_SOURCE_DIR "/tests/golden/lines/") + name));
	std::vector<std::string> lines;
	for (std::string line; std::getline(file, line);)
		lines.push_back(line);
	return lines;
}

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

static ostrel_error_t write_line(attrlist_t *idlist, attrlist_t *props, std::string *text)
{
	char idstr[OSTREL_IDSTR_SIZE];
	if (ostrel_error_t bad = ostrel_check_identifiers(idlist))
		return bad;
	if (ostrel_error_t bad = ostrel_idlist2idstr(idlist, idstr))
		return bad;
	char *printed = nullptr;
	size_t length = 0;
	Stream stream(open_memstream(&printed, &length));
	ostrel_error_t result = ostrel_attrlist2line(stream.get(), idstr, props);
	stream.reset();
	text->assign(printed, length);
	free(printed);
	return result;
}

TEST(LineGolden, AcceptedLinesAreWrittenAsStatedAndReadBackTheSame)
{
	std::vector<std::string> lines = golden("accepted.db");
	std::vector<std::string> written = golden("accepted.written.db");
	ASSERT_GT(lines.size(), 30U);
	ASSERT_EQ(lines.size(), written.size());
	for (size_t i = 0; i < lines.size(); i++) {
		Parsed once = parse(lines[i]);
		ASSERT_EQ(once.result, OSTREL_SUCCESS) << lines[i];
		std::string text;
		EXPECT_EQ(write_line(once.idlist.get(), once.props.get(), &text), OSTREL_SUCCESS) << lines[i];
		EXPECT_EQ(text, written[i] + "\n");
		Parsed again = parse(written[i]);
		ASSERT_EQ(again.result, OSTREL_SUCCESS) << lines[i];
		EXPECT_EQ(show(again.idlist.get()), show(once.idlist.get()));
		EXPECT_EQ(show(again.props.get()), show(once.props.get()));
	}
}

TEST(LineGolden, RefusedLinesAreNoObjects)
{
	std::vector<std::string> lines = golden("refused.db");
	ASSERT_GT(lines.size(), 20U);
	lines.pop_back(); // too long: that is the reader's to see
	for (const std::string &line : lines) {
		Parsed parsed = parse(line);
		EXPECT_EQ(parsed.result, OSTREL_INVALID_ARG) << line;
		EXPECT_EQ(parsed.idlist.get(), nullptr);
		EXPECT_EQ(parsed.props.get(), nullptr);
	}
}

TEST(LineGolden, LinesThatWouldNotComeBackAreNotWritten)
{
	for (const std::string &line : golden("unwritable.db")) {
		Parsed parsed = parse(line);
		ASSERT_EQ(parsed.result, OSTREL_SUCCESS) << line;
		std::string text;
		EXPECT_EQ(write_line(parsed.idlist.get(), parsed.props.get(), &text), OSTREL_INVALID_ARG) << line;
	}
}

// ---- Reading ----

TEST(LineReading, BuildsTheWorkedExample)
{
	Parsed parsed = parse("linkname=net0;zone=z1;\tmtu=uint32,1500;on=boolean,true,false;tags=string,a\\,b,c\\;d;"
			      "ctr=int64,-5;big=uint64,-1;small=int32,-7");
	ASSERT_EQ(parsed.result, OSTREL_SUCCESS);
	EXPECT_EQ(show(parsed.idlist.get()), "linkname:9[net0] zone:9[z1]");
	EXPECT_EQ(show(parsed.props.get()), "mtu:14[1500] on:24[1|0] tags:17[a,b|c;d] ctr:15[-5] "
					    "big:16[18446744073709551615] small:13[-7]");
}

TEST(LineReading, TellsEmptyValuesFromMissingOnes)
{
	struct Case {
		const char *line, *idlist, *props;
	};
	static constexpr Case cases[] = {
	    {"a=1;\tx=int32;y=int32,;z=int32,,5;", "a:9[1]", "x:13[] y:13[] z:13[0|5]"},
	    {"a=1;\tx=string,;y=string,a,;z=string,,a;", "a:9[1]", "x:17[] y:17[a] z:17[|a]"},
	    {"a;b=;;c", "a:9[] b:9[] :9[] c:9[]", ""},
	    {"a=1;b=2;a=3;\tx=int32,1;x=string,s", "b:9[2] a:9[3]", "x:17[s]"},
	    {"a=1;\r", "a:9[1] \r:9[]", ""},
	};
	for (const Case &c : cases) {
		Parsed parsed = parse(c.line);
		ASSERT_EQ(parsed.result, OSTREL_SUCCESS) << c.line;
		EXPECT_EQ(show(parsed.idlist.get()), c.idlist) << c.line;
		EXPECT_EQ(show(parsed.props.get()), c.props) << c.line;
	}
}

TEST(LineReading, RawLinesAreTakenAsTheyAre)
{
	AttrList idlist;
	AttrList text;
	ASSERT_EQ(ostrel_rawline2attrlist("  # a=1;\tb\\", 4294967295U, idlist.out(), text.out()), OSTREL_SUCCESS);
	EXPECT_EQ(show(idlist.get()), "object-rawline:9[line4294967295]");
	EXPECT_EQ(show(text.get()), "object-rawline:9[  # a=1;\tb\\]");
}

// ---- Writing ----

TEST(LineWriting, StoresScalarsAsArraysOfOne)
{
	AttrList list = props("");
	(void) attrlist_clear(list.get());
	ASSERT_EQ(attrlist_add_int32(list.get(), "i", -1), 0);
	ASSERT_EQ(attrlist_add_uint32(list.get(), "u", 4294967295U), 0);
	ASSERT_EQ(attrlist_add_string(list.get(), "s", "a,b"), 0);
	ASSERT_EQ(attrlist_add_boolean_value(list.get(), "b", static_cast<boolean_t>(7)), 0);
	std::string text;
	ASSERT_EQ(write_line(ids("a=1").get(), list.get(), &text), OSTREL_SUCCESS);
	EXPECT_EQ(text, "a=1;\ti=int32,-1;u=uint32,-1;s=string,a\\,b;b=boolean,true;\n");
}

TEST(LineWriting, PrintsNameAndWordBeforeItRefusesAType)
{
	AttrList scalar64 = props("x=int32,1");
	ASSERT_EQ(attrlist_add_int64(scalar64.get(), "big", 1), 0);
	std::string text;
	EXPECT_EQ(write_line(ids("a=1").get(), scalar64.get(), &text), OSTREL_INVALID_ARG);
	EXPECT_EQ(text, "a=1;\tx=int32,1;big=int64");

	AttrList nested = props("x=int32,1");
	attrlist_t *inner = nullptr;
	ASSERT_EQ(attrlist_add_new_attrlist(nested.get(), "in", &inner), 0);
	EXPECT_EQ(write_line(ids("a=1").get(), nested.get(), &text), OSTREL_INVALID_ARG);
	EXPECT_EQ(text, "a=1;\tx=int32,1;in=unknown");
}

// Adds an identifier and a property with these texts, and tells whether the line is written.
static ostrel_error_t written(
    const std::string &name, const std::string &value, const std::string &property, const std::string &text)
{
	AttrList idlist = ids("");
	AttrList list = props("");
	(void) attrlist_clear(list.get());
	EXPECT_EQ(ostrel_idlist_add(idlist.get(), name.c_str(), value.c_str()), OSTREL_SUCCESS);
	EXPECT_EQ(attrlist_add_string(list.get(), property.c_str(), text.c_str()), 0);
	std::string line;
	ostrel_error_t result = write_line(idlist.get(), list.get(), &line);
	if (result != OSTREL_SUCCESS)
		return result;
	Parsed back = parse(line.substr(0, line.size() - 1));
	EXPECT_EQ(show(back.idlist.get()), show(idlist.get())) << line;
	EXPECT_EQ(show(back.props.get()), property + ":17[" + text + "]") << line;
	return result;
}

TEST(LineWriting, RefusesWhatWouldReadBackAsAnotherObject)
{
	static const std::string bad_names[] = {"", " n", "\tn", "#n", "n\nm", "n\tm", "n;m", "n=m", "n\\", "n\\\\\\"};
	for (const std::string &name : bad_names)
		EXPECT_EQ(written(name, "v", "p", "t"), name.empty() ? OSTREL_SUCCESS : OSTREL_INVALID_ARG) << name;
	for (const char *value : {"v\nw", "v\tw", "v;w", "v\\", "v\\\\;", "\\\\\\"})
		EXPECT_EQ(written("n", value, "p", "t"), OSTREL_INVALID_ARG) << value;
	for (const char *property : {"p\n", "p;q", "p=q", "p\\", "\\\\="})
		EXPECT_EQ(written("n", "v", property, "t"), OSTREL_INVALID_ARG) << property;
	EXPECT_EQ(written("n", "v", "p", "t\nu"), OSTREL_INVALID_ARG);
}

TEST(LineWriting, TakesEverythingElse)
{
	for (const char *name : {"n", "n#", "n m", "n,m", "n\\m", "n\\\\", "\xc3\xa4"})
		EXPECT_EQ(written(name, "v", "p", "t"), OSTREL_SUCCESS) << name;
	for (const char *value : {"", " v", "v=w", "v,w", "v\\w", "v\\\\", "v\\;w", "v\r", "#"})
		EXPECT_EQ(written("n", value, "p", "t"), OSTREL_SUCCESS) << value;
	for (const char *property : {"", " p", "#", "p,q", "p\tq", "p\\\\", "p\\;q"})
		EXPECT_EQ(written("n", "v", property, "t"), OSTREL_SUCCESS) << property;
	for (const char *text : {" t", "t;u,v\\", "\\", "t\tu\r", "\x01\xff"})
		EXPECT_EQ(written("n", "v", "p", text), OSTREL_SUCCESS) << text;
}

TEST(LineWriting, KeepsToItsLimitsToTheByte)
{
	EXPECT_EQ(written("n", std::string(252, 'v'), "p", "t"), OSTREL_SUCCESS);
	EXPECT_EQ(written("n", std::string(253, 'v'), "p", "t"), OSTREL_INVALID_ARG);
	EXPECT_EQ(written("n", "v", "p", std::string(511, 't')), OSTREL_SUCCESS);
	EXPECT_EQ(written("n", "v", "p", std::string(512, 't')), OSTREL_INVALID_ARG);
	EXPECT_EQ(written("n", "v", "p", std::string(255, ',') + "t"), OSTREL_SUCCESS);
	EXPECT_EQ(written("n", "v", "p", std::string(256, ',')), OSTREL_INVALID_ARG);
	// n=v;<TAB> name =string,t; newline: 5 + 2031 + 10 + 1
	EXPECT_EQ(written("n", "v", std::string(2031, 'p'), "t"), OSTREL_SUCCESS);
	EXPECT_EQ(written("n", "v", std::string(2032, 'p'), "t"), OSTREL_INVALID_ARG);
}

TEST(LineWriting, NeedsAnIdentifierThatIsAText)
{
	std::string text;
	AttrList list = props("x=int32,1");
	EXPECT_EQ(write_line(ids("").get(), list.get(), &text), OSTREL_INVALID_ARG);
	AttrList named;
	ASSERT_EQ(ostrel_idlist_init(named.out(), "file"), OSTREL_SUCCESS);
	EXPECT_EQ(write_line(named.get(), list.get(), &text), OSTREL_INVALID_ARG);
	ASSERT_EQ(ostrel_idlist_add(named.get(), "a", "1"), OSTREL_SUCCESS);
	EXPECT_EQ(write_line(named.get(), list.get(), &text), OSTREL_SUCCESS);
	EXPECT_EQ(text, "a=1;\tx=int32,1;\n");
	ASSERT_EQ(ostrel_idlist_add_enclaveid(named.get(), 3), OSTREL_SUCCESS);
	EXPECT_EQ(write_line(named.get(), list.get(), &text), OSTREL_INVALID_ARG);
}

TEST(LineWriting, SeesThatTheStreamFails)
{
	Stream full(fopen("/dev/full", "w"));
	ASSERT_TRUE(full);
	EXPECT_EQ(ostrel_attrlist2line(full.get(), "a=1;", props("x=int32,1").get()), ostrel_errno2error(ENOSPC));
}
