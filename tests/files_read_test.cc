// Reading flat files and raw files: which lines become objects, and which of them a search selects.
#include "libostrel_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

#include "line_lists.h"
#include "scratch.h"

static constexpr uint64_t with_props = OSTREL_FLAG_WITH_PROPS;

// What a read of the file gives, as text; the result's text if it fails.
static std::vector<std::string> read(
    const std::string &path, attrlist_t *idlist = nullptr, uint64_t flags = with_props, bool raw = false)
{
	TestDb db(path);
	Objects objects;
	ostrel_error_t result = ostrel_read_objects_from_file_common(
	    raw ? B_TRUE : B_FALSE, db, idlist, flags, objects.out(), objects.out_count());
	if (result != OSTREL_SUCCESS) {
		EXPECT_EQ(*objects.out(), nullptr);
		EXPECT_EQ(objects.count(), 0U);
		return {ostrel_strerror(result)};
	}
	EXPECT_NE(*objects.out(), nullptr);
	std::vector<std::string> shown;
	for (unsigned int i = 0; i < objects.count(); i++)
		shown.push_back(show_object(objects[i]));
	return shown;
}

using Shown = std::vector<std::string>;

TEST(FilesRead, TakesObjectLinesInTheOrderOfTheFile)
{
	Scratch scratch;
	EXPECT_EQ(read(scratch.path("missing")), Shown({"object not found"}));
	EXPECT_EQ(read(scratch.write("empty", "")), Shown());
	EXPECT_EQ(read(scratch.write("none", "# a=1;\n\n  \t# x\n \f\v\r\n#")), Shown());
	EXPECT_EQ(read(scratch.write("db", "b=2;\tx=int32,1;\n\t a=1;# no comment\n#c=3;\nd=4")),
	    Shown({"(b:9[2]) (x:13[1])", "(a:9[1] # no comment:9[]) ()", "(d:9[4]) ()"}));
}

TEST(FilesRead, PassesOverLinesThatDoNotParse)
{
	Scratch scratch;
	std::string text =
	    "a=1;\tx=int32,1;\na=2;\tx=uint8,1;\na=3;\t\r\nobject-db-name=x;\na=4;\tx=boolean,yes;\na=5;\n";
	EXPECT_EQ(read(scratch.write("db", text)), Shown({"(a:9[1]) (x:13[1])", "(a:9[5]) ()"}));
	EXPECT_EQ(read(scratch.write("db", text), nullptr, 0), Shown({"(a:9[1]) (-)", "(a:9[5]) (-)"}));
}

TEST(FilesRead, CountsALineThatIsTooLongAsOneThatDoesNotParse)
{
	Scratch scratch;
	// Pieces of a long line would be objects by themselves.
	std::string pieces;
	while (pieces.size() < 1 << 20)
		pieces += "p=1;";
	EXPECT_EQ(
	    read(scratch.write("db", "a=1;\n" + pieces + "\nb=2;\n" + pieces)), Shown({"(a:9[1]) ()", "(b:9[2]) ()"}));

	std::string longest = "a=" + std::string(2043, 'v') + ";";
	ASSERT_EQ(longest.size(), 2046U);
	EXPECT_EQ(read(scratch.write("db", longest + "\n" + longest + "v\n")).size(), 1U);
	EXPECT_EQ(read(scratch.write("db", longest + "v")).size(), 1U);
	EXPECT_EQ(read(scratch.write("db", longest + "vv")).size(), 0U);
	// White space before an object counts as part of the line.
	EXPECT_EQ(read(scratch.write("db", std::string(2044, ' ') + "a=1\n")).size(), 0U);
}

TEST(FilesRead, SeesALineUpToItsNulByte)
{
	Scratch scratch;
	std::string text("a=1;\tx=int32,1;\0bad\nb=2;\n\0c=3;\nd=4;\te\0=int32,1;\ne=5\0", 52);
	EXPECT_EQ(read(scratch.write("db", text)), Shown({"(a:9[1]) (x:13[1])", "(b:9[2]) ()", "(e:9[5]) ()"}));
	EXPECT_EQ(read(scratch.write("raw", std::string("a\0b\n\0\nc", 7)), nullptr, with_props, true),
	    Shown({"(object-rawline:9[line1]) (object-rawline:9[a])", "(object-rawline:9[line2]) (object-rawline:9[])",
		"(object-rawline:9[line3]) (object-rawline:9[c])"}));
}

TEST(FilesRead, LosesNothingAtTheEdgesOfItsBlocks)
{
	Scratch scratch;
	for (size_t edge : {65530U, 65535U, 65536U, 65537U, 131072U}) {
		std::string text = "#";
		text.resize(edge - 4, '-'); // a comment that is too long to be kept
		text += "\na=1;\tx=int32,7;\n";
		while (text.size() < 3 * 65536)
			text += "b=" + std::to_string(text.size()) + ";\n";
		Shown shown = read(scratch.write("db", text));
		ASSERT_GT(shown.size(), 100U);
		EXPECT_EQ(shown.front(), "(a:9[1]) (x:13[7])") << edge;
		size_t lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
		EXPECT_EQ(shown.size(), lines - 1) << edge;
	}
}

TEST(FilesRead, SelectsExactlyOrBySubset)
{
	Scratch scratch;
	std::string path = scratch.write("db", "a=x;b=y;\na=X;\nb=y;a=;\nc=z;\n");
	EXPECT_EQ(read(path, ids("a=x").get()), Shown({"(a:9[x] b:9[y]) ()", "(a:9[X]) ()"}));
	EXPECT_EQ(read(path, ids("a=").get()).size(), 3U);
	EXPECT_EQ(read(path, ids("").get()).size(), 4U);
	uint64_t exact = with_props | OSTREL_FLAG_EXACT_MATCH;
	EXPECT_EQ(read(path, ids("a=x").get(), exact), Shown({"(a:9[X]) ()"}));
	EXPECT_EQ(read(path, ids("b=Y;a=x").get(), exact), Shown({"(a:9[x] b:9[y]) ()"}));
	EXPECT_EQ(read(path, ids("a=;b=y").get(), exact), Shown({"(b:9[y] a:9[]) ()"}));
	EXPECT_EQ(read(path, ids("").get(), exact), Shown());
	AttrList elsewhere = ids("a=x");
	ASSERT_EQ(ostrel_idlist_add_enclaveid(elsewhere.get(), 0), OSTREL_SUCCESS);
	EXPECT_EQ(read(path, elsewhere.get()), Shown());
}

TEST(FilesRead, ComparesWithCaseIfTheHandleSaysSo)
{
	Scratch scratch;
	std::string path = scratch.write("db", "a=x;\na=X;\n");
	TestDb db(path, OSTREL_DB_CASE_SENSITIVE);
	AttrList wanted = ids("a=X");
	AttrList found;
	ASSERT_EQ(ostrel_db_read(db, wanted.get(), 0, found.out()), OSTREL_SUCCESS);
	TestDb loose(path);
	EXPECT_EQ(ostrel_db_read(loose, wanted.get(), 0, found.out()), OSTREL_INVALID_ARG);
}

TEST(FilesRead, TakesTheFileThatTheListNames)
{
	Scratch scratch;
	std::string other = scratch.write("other", "o=1;\n");
	AttrList named;
	ASSERT_EQ(ostrel_idlist_init(named.out(), other.c_str()), OSTREL_SUCCESS);
	EXPECT_EQ(read(scratch.path("missing"), named.get()), Shown({"(o:9[1]) ()"}));
	EXPECT_EQ(read(scratch.path("missing"), named.get(), 0, true), Shown({"(object-rawline:9[line1]) (-)"}));
	Objects objects;
	EXPECT_EQ(
	    ostrel_read_objects_from_file(nullptr, nullptr, 0, objects.out(), objects.out_count()), OSTREL_INVALID_ARG);
	EXPECT_EQ(
	    ostrel_read_objects_from_file(nullptr, named.get(), 0, nullptr, objects.out_count()), OSTREL_INVALID_ARG);
	EXPECT_EQ(
	    ostrel_read_objects_from_rawfile(nullptr, named.get(), 0, objects.out(), nullptr), OSTREL_INVALID_ARG);
}

TEST(FilesRead, GrowsItsArrayWithTheObjectsSelected)
{
	Scratch scratch;
	std::string text;
	for (int i = 0; i < 300; i++)
		text += "n=" + std::to_string(i) + ";k=" + std::to_string(i % 2) + ";\n";
	std::string path = scratch.write("db", text);
	EXPECT_EQ(read(path).size(), 300U);
	Shown odd = read(path, ids("k=1").get());
	ASSERT_EQ(odd.size(), 150U);
	EXPECT_EQ(odd[128], "(n:9[257] k:9[1]) ()");
}

TEST(RawRead, GivesEachLineAsItIs)
{
	Scratch scratch;
	std::string path = scratch.write("raw", "# x\n\n \ta=1;\r\nlast");
	EXPECT_EQ(read(path, nullptr, with_props, true), Shown({"(object-rawline:9[line1]) (object-rawline:9[# x])",
							     "(object-rawline:9[line2]) (object-rawline:9[])",
							     "(object-rawline:9[line3]) (object-rawline:9[ \ta=1;\r])",
							     "(object-rawline:9[line4]) (object-rawline:9[last])"}));
	EXPECT_EQ(read(path, ids("a=1").get(), with_props, true), Shown({"invalid argument"}));
	EXPECT_EQ(read(scratch.path("missing"), ids("a=1").get(), with_props, true), Shown({"invalid argument"}));
	EXPECT_EQ(read(scratch.write("empty", ""), nullptr, with_props, true), Shown());
}

TEST(RawRead, HandsOutALineWholeHoweverLong)
{
	Scratch scratch;
	std::string text;
	Shown expected;
	size_t lengths[] = {5, 2047, 2048, 65535, 65536, 70000, 1 << 20, 3, 200000};
	for (size_t i = 0; i < std::size(lengths); i++) {
		std::string line(lengths[i], static_cast<char>('a' + i));
		text += line + "\n";
		expected.push_back(
		    "(object-rawline:9[line" + std::to_string(i + 1) + "]) (object-rawline:9[" + line + "])");
	}
	EXPECT_EQ(read(scratch.write("raw", text), nullptr, with_props, true), expected);
	text.pop_back();
	EXPECT_EQ(read(scratch.write("raw", text), nullptr, with_props, true), expected);
}

// ---- What isn't a plain file ----

TEST(FilesRead, WaitsForAFifoAndTakesItsPieces)
{
	Scratch scratch;
	std::string path = scratch.path("fifo");
	ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
	for (bool raw : {false, true}) {
		std::thread writer([&] {
			Fd fifo(open(path.c_str(), O_WRONLY));
			for (const char *piece : {"a=", "1;\tx=in", "t32,7;\n", "b=2;\nc", "=3"}) {
				EXPECT_GT(write(fifo.get(), piece, strlen(piece)), 0);
				usleep(2000);
			}
		});
		Shown shown = read(path, nullptr, with_props, raw);
		writer.join();
		EXPECT_EQ(shown.size(), 3U);
		EXPECT_EQ(shown.front(),
		    raw ? "(object-rawline:9[line1]) (object-rawline:9[a=1;\tx=int32,7;])" : "(a:9[1]) (x:13[7])");
	}
}

TEST(FilesRead, NeverTakesAReadErrorForTheEnd)
{
	Scratch scratch;
	EXPECT_EQ(read(scratch.directory()), Shown({"failure"}));
	EXPECT_EQ(read(scratch.directory(), nullptr, 0, true), Shown({"failure"}));
	EXPECT_EQ(read(scratch.write("file", "") + "/below"), Shown({"object not found"}));
	ASSERT_EQ(symlink("nowhere", scratch.path("dangling").c_str()), 0);
	EXPECT_EQ(read(scratch.path("dangling")), Shown({"object not found"}));
}

TEST(FilesRead, RefusesDevicesThatDoNotEnd)
{
	EXPECT_EQ(read("/dev/null"), Shown());
	EXPECT_EQ(read("/dev/zero"), Shown({"invalid argument"}));
	EXPECT_EQ(read("/dev/zero", nullptr, 0, true), Shown({"invalid argument"}));
}

TEST(FilesRead, FollowsAFileThatShrinksWhileItIsRead)
{
	Scratch scratch;
	std::string text;
	for (int i = 0; i < 200000; i++)
		text += "n=" + std::to_string(i) + ";\tx=int32," + std::to_string(i) + ";\n";
	std::string path = scratch.write("db", text);
	std::thread cutter([&] { EXPECT_EQ(truncate(path.c_str(), 70000), 0); });
	Shown shown = read(path);
	cutter.join();
	EXPECT_GT(shown.size(), 0U);
	EXPECT_LE(shown.size(), 200000U);
	for (size_t i = 0; i + 1 < shown.size(); i += 1000)
		EXPECT_EQ(shown[i], "(n:9[" + std::to_string(i) + "]) (x:13[" + std::to_string(i) + "])");
}
