// Reading flat files and raw files: which lines become objects, and which of them a search selects.
#include "libostrel_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <thread>

#include "line_lists.h"
#include "scratch.h"

static constexpr uint64_t with_props = OSTREL_FLAG_WITH_PROPS;

using Shown = std::vector<std::string>;

// What a read of the file gives, as text; the result's text if it fails.
static Shown read(const std::string &path, attrlist_t *idlist = nullptr, uint64_t flags = with_props, bool raw = false)
{
	TestDb db(path);
	Objects objects;
	ostrel_error_t result = ostrel_read_objects_from_file_common(
	    raw ? B_TRUE : B_FALSE, db, idlist, flags, objects.out(), objects.out_count());
	EXPECT_EQ(*objects.out() == nullptr, result != OSTREL_SUCCESS);
	if (result != OSTREL_SUCCESS) {
		EXPECT_EQ(objects.count(), 0U);
		return {ostrel_strerror(result)};
	}
	Shown shown;
	for (unsigned int i = 0; i < objects.count(); i++)
		shown.push_back(show_object(objects[i]));
	return shown;
}

static Shown read_raw(const std::string &path, attrlist_t *idlist = nullptr)
{
	return read(path, idlist, with_props, true);
}

// What a raw read makes of these lines.
static Shown raw_lines(const Shown &lines)
{
	Shown shown;
	for (const std::string &line : lines)
		shown.push_back("(object-rawline:9='line" + std::to_string(shown.size() + 1) +
				"';) (object-rawline:9='" + line + "';)");
	return shown;
}

TEST(FilesRead, TakesObjectLinesInTheOrderOfTheFile)
{
	Scratch scratch;
	EXPECT_EQ(read(scratch.path("missing")), Shown({"object not found"}));
	EXPECT_EQ(read(scratch.write("empty", "")), Shown());
	EXPECT_EQ(read(scratch.write("none", "# a=1;\n\n  \t# x\n \f\v\r\n#")), Shown());
	EXPECT_EQ(read(scratch.write("db", "a=1;\tx=int32,1;\nbad;\tx=boolean,yes;\nb=2;\n"), nullptr, 0),
	    Shown({"(a:9='1';) (-)", "(b:9='2';) (-)"}));
	EXPECT_EQ(read(scratch.write("db", "b=2;\tx=int32,1;\n\t a=1;# no comment\n#c=3;\nd=4")),
	    Shown({"(b:9='2';) (x:13=1;)", "(a:9='1';# no comment:9='';) ()", "(d:9='4';) ()"}));
}

TEST(FilesRead, TakesTheFileThatTheListNames)
{
	Scratch scratch;
	AttrList named;
	ASSERT_EQ(ostrel_idlist_init(named.out(), scratch.write("other", "o=1;\n").c_str()), OSTREL_SUCCESS);
	EXPECT_EQ(read(scratch.path("missing"), named.get()), Shown({"(o:9='1';) ()"}));
	EXPECT_EQ(read(scratch.path("missing"), named.get(), 0, true), Shown({"(object-rawline:9='line1';) (-)"}));
	Objects objects;
	attrlist_t ***out = objects.out();
	unsigned int *count = objects.out_count();
	EXPECT_EQ(ostrel_read_objects_from_file(nullptr, nullptr, 0, out, count), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_read_objects_from_file(nullptr, named.get(), 0, nullptr, count), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_read_objects_from_rawfile(nullptr, named.get(), 0, out, nullptr), OSTREL_INVALID_ARG);
}

TEST(RawRead, GivesEachLineAsItIsHoweverLong)
{
	Scratch scratch;
	std::string path = scratch.write("raw", std::string("# x\n\n \ta=1;\r\nuntil\0nul\nlast", 27));
	EXPECT_EQ(read_raw(path), raw_lines({"# x", "", " \ta=1;\r", "until", "last"}));
	EXPECT_EQ(read_raw(path, ids("a=1").get()), Shown({"invalid argument"}));
	EXPECT_EQ(read_raw(scratch.path("missing"), ids("a=1").get()), Shown({"invalid argument"}));
	EXPECT_EQ(read_raw(scratch.write("empty", "")), Shown());
	Shown lines;
	std::string text;
	for (size_t length : {5, 2047, 2048, 65535, 65536, 70000, 1 << 20, 3, 200000}) {
		lines.emplace_back(length, static_cast<char>('a' + lines.size()));
		text += lines.back() + "\n";
	}
	EXPECT_EQ(read_raw(scratch.write("raw", text)), raw_lines(lines));
	text.pop_back();
	EXPECT_EQ(read_raw(scratch.write("raw", text)), raw_lines(lines));
}

// ---- What isn't an ordinary file ----

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
		EXPECT_EQ(shown, raw ? raw_lines({"a=1;\tx=int32,7;", "b=2;", "c=3"})
				     : Shown({"(a:9='1';) (x:13=7;)", "(b:9='2';) ()", "(c:9='3';) ()"}));
	}
}

TEST(FilesRead, NeverTakesAReadErrorForTheEnd)
{
	Scratch scratch;
	EXPECT_EQ(read(scratch.directory()), Shown({"failure"}));
	EXPECT_EQ(read_raw(scratch.directory()), Shown({"failure"}));
	EXPECT_EQ(read(scratch.write("file", "") + "/below"), Shown({"object not found"}));
}

TEST(FilesRead, RefusesDevicesThatDoNotEnd)
{
	EXPECT_EQ(read("/dev/null"), Shown());
	EXPECT_EQ(read("/dev/zero"), Shown({"invalid argument"}));
	EXPECT_EQ(read_raw("/dev/zero"), Shown({"invalid argument"}));
}
