// The fast roads give what the plain one gives: random and hostile files are read, walked and updated by the library, and
// line by line with the general reader and writer of the format, and both must agree to the byte.
#include "libostrel_files.h"
#include "libostrel_impl.h"

#include <clocale>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <vector>

#include "libostrel_lines.h"
#include "line_lists.h"
#include "scratch.h"

// ---- The plain road ----

// The lines of a file as fgets() would give them, without those that are too long.
static std::vector<std::string> lines_of(const std::string &text)
{
	std::vector<std::string> lines;
	for (size_t at = 0; at < text.size();) {
		size_t newline = text.find('\n', at);
		size_t next = newline == std::string::npos ? text.size() : newline + 1;
		if (next - at <= 2047)
			lines.emplace_back(text, at, (newline == std::string::npos ? next : newline) - at);
		at = next;
	}
	return lines;
}

struct PlainObject {
	AttrList idlist;
	AttrList props;
};

static std::vector<PlainObject> plain_objects(const std::string &text)
{
	std::vector<PlainObject> objects;
	for (std::string line : lines_of(text)) {
		char *begin = line.data();
		while (strchr(" \t\v\f\r", *begin) != nullptr && *begin != '\0')
			begin++;
		if (*begin == '#' || *begin == '\0')
			continue;
		PlainObject object;
		if (ostrel_line2attrlist(begin, object.idlist.out(), object.props.out()) == OSTREL_SUCCESS)
			objects.push_back(std::move(object));
	}
	return objects;
}

static std::string plain_read(ostrel_db_t db, const std::string &text, attrlist_t *search, bool exact)
{
	std::string shown;
	for (const PlainObject &object : plain_objects(text))
		if (ostrel_idlist_match(db, search, object.idlist.get(), exact ? B_TRUE : B_FALSE))
			shown.append("(")
			    .append(show(object.idlist.get()))
			    .append(") (")
			    .append(show(object.props.get()))
			    .append(")\n");
	return shown;
}

// ---- The library's roads ----

static std::string fast_read(ostrel_db_t db, attrlist_t *search, bool exact)
{
	Objects objects;
	uint64_t flags = OSTREL_FLAG_WITH_PROPS | (exact ? OSTREL_FLAG_EXACT_MATCH : 0);
	EXPECT_EQ(ostrel_read_objects_from_file(db, search, flags, objects.out(), objects.out_count()), OSTREL_SUCCESS);
	std::string shown;
	for (unsigned int i = 0; i < objects.count(); i++)
		shown.append(show_object(objects[i])).append("\n");
	return shown;
}

static int show_visited(ostrel_db_t, attrlist_t *idlist, attrlist_t *props, uint64_t, void *arg)
{
	static_cast<std::string *>(arg)
	    ->append("(")
	    .append(show(idlist))
	    .append(") (")
	    .append(show(props))
	    .append(")\n");
	return 0;
}

static std::string walked(ostrel_db_t db, attrlist_t *search, bool exact)
{
	std::string shown;
	EXPECT_EQ(
	    ostrel_db_walk(db, search, exact ? OSTREL_FLAG_EXACT_MATCH : 0, show_visited, nullptr, &shown, nullptr),
	    OSTREL_SUCCESS);
	return shown;
}

// ---- Random files ----

class Generator {
public:
	explicit Generator(unsigned seed) : random_(seed) {}

	size_t below(size_t count) { return random_() % count; }
	bool once_in(size_t count) { return below(count) == 0; }
	template <size_t Count>
	std::string one_of(const char *const (&words)[Count])
	{
		return words[below(Count)];
	}

	// A line that the writer could have left.
	std::string tidy_line()
	{
		std::string line = "id=" + std::to_string(below(30)) + ";";
		if (once_in(2))
			line += "zone=" + one_of({"alpha", "Beta", "z-9"}) + ";";
		line += "\t";
		for (size_t i = below(5); i > 0; i--)
			line += "p" + std::to_string(i) + "=" + tidy_values() + ";";
		return line;
	}
	std::string line()
	{
		switch (below(8)) {
		case 0:
			return one_of({"", "# c", " # a=1;", "\t", "\r", ";", "=", "\t\t;", "#a=1;\t\\", "\x01"});
		case 1:
			return odd_line();
		case 2:
			return mutated(tidy_line());
		case 3:
			return one_of({" ", "\t", " \t\v", "\f\r"}) + tidy_line();
		case 4: {
			std::string line = tidy_line();
			line.pop_back();
			return line;
		}
		default:
			return tidy_line();
		}
	}
	std::string file(size_t lines)
	{
		std::string text;
		for (; lines > 0; lines--) {
			text += once_in(400) ? std::string(2030 + below(40), 'x') + "=1;" : line();
			text += "\n";
		}
		if (once_in(3) && !text.empty())
			text.pop_back();
		return text;
	}
	std::string search()
	{
		static constexpr const char *const searches[] = {"id=7", "ID=7", "id=", "id=7;zone=alpha", "zone=BETA",
		    "zone=Beta;id=3", "zone=", "zone=z-9;id=12", "zone=alpha;id=", "id=99", "b=a\\\\b", "=", "b=\xe4",
		    "object-pgname=x", "id=1;zone=alpha;c=", "zone=Z-9", "b=x,y", "zone=alph"};
		return one_of(searches);
	}

private:
	std::string tidy_values()
	{
		static constexpr const char *const all[] = {"int32,1", "int32", "int32,-5,0,2147483647,-2147483648",
		    "uint32,-1", "uint32,4711", "int64,5123456789012", "int64,-9223372036854775808", "uint64,-1,1",
		    "boolean,true", "boolean,false,true", "string,plain", "string,a\\,b,c\\;d", "string,\\\\,,x",
		    "string,a=b\tc", "string", "string,lan\\,site7,role123"};
		return one_of(all);
	}
	std::string odd_line()
	{
		static constexpr const char *const all[] = {"a", "a=", "a=1;;b=2", "a=1\tx=int32,1", "a=1;a=2;\t",
		    "a=b=c;\tx=string,p=q", "b=a\\\\b;\t", "a=x\\;y;\tp=int32,1;", "a\\=b=c;\tx=int32;",
		    "a=x\\\ty;\tq=int32;", "a=1;\tx=int32,;y=string,,;z=int64,,5;",
		    "a=1;\tx=int32, 7,+8,007,-0,abc,12x,;", "a=1;\tx=uint32,4294967295;",
		    "a=1;\tx=int64,99999999999999999999,9223372036854775808;", "a=1;\tx=BOOLEAN,True;",
		    "a=1;\tx=boolean,yes;", "a=1;\tx=boolean,truE,alse,xalse,tru;", "a=1;\tx=uint8,1;", "a=1;\tx=int32",
		    "a=1;\tx=", "a=1;\tx", "a=1;\tx=int32,1;x=string,b;", "a=1;\tx=string,a\\;", "a=1;\tx=string,a\\",
		    "a=1;\tx=string,\\a\\=\\\t;", "object-db-name=x;\t", "a=1;object-id-string=y;\t",
		    "object-pgname=X;\tp=int32,1;", "b=\xc4;\t", "b=\xe4;\t", "a=1;\r", "a=1;\tp=int32,1;\r",
		    "a=1;\tp=int32,1; ", "=;\t=int32,1;", "=v;\t", "a=1;\t\tq=int32,1;", "a=1;\tn,m=int32,1;",
		    "b=x,y;\t", "a,b=1;\t", "a=1;\tx=strings,a;", "a=1;\tx=string=,a;", "a=1;\tx=int64,-;y=int32,-1-;",
		    "a=1;\tx=string,\x01\x02;", "a\x03=1;\t", "a=1;\tx=int32,2147483648;"};
		return one_of(all);
	}
	std::string mutated(std::string line)
	{
		static constexpr char bytes[] = {
		    ';', '=', ',', '\\', '\t', '\0', ' ', 'X', '0', '-', '\xff', '\x01', '\r'};
		for (size_t i = 1 + below(3); i > 0 && !line.empty(); i--) {
			size_t at = below(line.size());
			if (once_in(3))
				line.erase(at, 1);
			else if (once_in(2))
				line.insert(at, 1, bytes[below(sizeof(bytes))]);
			else
				line[at] = bytes[below(sizeof(bytes))];
		}
		return line;
	}

	std::mt19937 random_;
};

TEST(FilesRoads, ReadsAndWalksAgreeWithTheGeneralReader)
{
	Scratch scratch;
	for (unsigned seed = 0; seed < 150; seed++) {
		Generator generator(seed);
		std::string text = generator.file(seed % 10 == 0 ? 3000 : generator.below(200));
		std::string path = scratch.write("db", text);
		for (uint64_t flags : {uint64_t{0}, uint64_t{OSTREL_DB_CASE_SENSITIVE}}) {
			TestDb db(path, flags);
			EXPECT_EQ(walked(db, nullptr, false), plain_read(db, text, ids("").get(), false)) << seed;
			for (int i = 0; i < 4; i++) {
				std::string search = generator.search();
				AttrList list = ids(search);
				for (bool exact : {false, true}) {
					std::string expected = plain_read(db, text, list.get(), exact);
					EXPECT_EQ(fast_read(db, list.get(), exact), expected) << seed << " " << search;
					EXPECT_EQ(walked(db, list.get(), exact), expected) << seed << " " << search;
				}
			}
			ASSERT_FALSE(HasFailure());
		}
	}
}

TEST(FilesRoads, EveryObjectIsFoundByItsOwnIdentifiers)
{
	Scratch scratch;
	Generator generator(4711);
	std::string text = generator.file(1500);
	TestDb db(scratch.write("db", text));
	std::vector<PlainObject> objects = plain_objects(text);
	ASSERT_GT(objects.size(), 800U);
	for (size_t i = 0; i < objects.size(); i += 7) {
		attrlist_t *search = objects[i].idlist.get();
		EXPECT_EQ(fast_read(db, search, true), plain_read(db, text, search, true)) << show(search);
	}
}

// Letters that a locale pairs in its own way are found as its own comparison finds them.
TEST(FilesRoads, FollowTheLocalesComparison)
{
	Scratch scratch;
	const std::string command =
	    "localedef -i tr_TR -f ISO-8859-9 '" + scratch.path("tr_TR.ISO-8859-9") + "' 2>/dev/null";
	[[maybe_unused]] int code =
	    system(command.c_str()); // it also fails on mere warnings: what counts is whether the locale can be had
	setenv("LOCPATH", scratch.path("").c_str(), 1);
	const char *found = setlocale(LC_CTYPE, "tr_TR.ISO-8859-9");
	unsetenv("LOCPATH");
	if (found == nullptr)
		GTEST_SKIP() << "no locale with letters of its own can be made: the package locales isn't installed";
	std::string text = "id=\xdd;\t\nid=I;\t\nid=i;\t\nid=\xfd;\t\nid=\xc4x;\t\nid=\xe4X;\t\n";
	TestDb db(scratch.write("db", text));
	for (const char *search : {"id=i", "id=I", "id=\xfd", "id=\xdd", "id=\xe4x"}) {
		AttrList list = ids(search);
		EXPECT_EQ(fast_read(db, list.get(), true), plain_read(db, text, list.get(), true))
		    << found << " " << search;
	}
	(void) setlocale(LC_CTYPE, "C");
}

// ---- Updates ----

enum class Kind { Write, Rename, Remove };

// The update as a sequence of plain steps; the text of the new file is written by ostrel_write_objects_to_file().
static ostrel_error_t plain_update(
    ostrel_db_t db, const std::string &to, const std::string &text, Kind kind, attrlist_t *idlist, attrlist_t *other)
{
	std::vector<PlainObject> plain = plain_objects(text);
	std::vector<attrlist_t *> objects;
	bool matched = false;
	ostrel_error_t result = OSTREL_SUCCESS;
	for (const PlainObject &object : plain) {
		bool match = ostrel_idlist_match(db, idlist, object.idlist.get(), B_TRUE) != B_FALSE;
		matched |= match;
		attrlist_t *made = nullptr;
		attrlist_t *ids = match && kind == Kind::Rename ? other : object.idlist.get();
		attrlist_t *props = match && kind == Kind::Write ? other : object.props.get();
		if (!match || kind != Kind::Remove) {
			EXPECT_EQ(ostrel_object_create(ids, props, &made), OSTREL_SUCCESS);
		}
		objects.push_back(made);
	}
	if (!matched && kind != Kind::Write)
		result = OSTREL_NOT_FOUND;
	if (!matched && kind == Kind::Write) {
		objects.push_back(nullptr);
		EXPECT_EQ(ostrel_object_create(idlist, other, &objects.back()), OSTREL_SUCCESS);
	}
	if (result == OSTREL_SUCCESS)
		result =
		    ostrel_write_objects_to_file(db, to.c_str(), objects.data(), static_cast<uint_t>(objects.size()));
	for (attrlist_t *object : objects)
		attrlist_free(object);
	return result;
}

TEST(FilesRoads, UpdatesAgreeWithTheGeneralReaderAndWriter)
{
	Scratch scratch(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
	int refused = 0;
	int done = 0;
	for (unsigned seed = 1000; seed < 1600; seed++) {
		Generator generator(seed);
		std::string text = generator.file(seed % 50 == 0 ? 3000 : generator.below(30));
		std::string path = scratch.write("db", text);
		std::string model = scratch.write("model", text);
		TestDb db(path, seed % 2 == 0 ? 0 : OSTREL_DB_CASE_SENSITIVE);
		Kind kind = static_cast<Kind>(seed % 3);
		AttrList idlist = ids(generator.search());
		AttrList other = kind == Kind::Write ? props("n=int32,1;s=string,a\\,b") : ids("n=ew;id=7");
		ostrel_error_t expected = plain_update(db, model, text, kind, idlist.get(), other.get());
		ostrel_error_t result = ostrel_update_object_in_file(db, idlist.get(),
		    kind == Kind::Rename ? other.get() : nullptr, 0, kind == Kind::Write ? other.get() : nullptr);
		EXPECT_EQ(result, expected) << seed;
		EXPECT_EQ(file_text(path), file_text(model)) << seed;
		refused += result == OSTREL_INVALID_ARG;
		done += result == OSTREL_SUCCESS;
		ASSERT_FALSE(HasFailure()) << seed;
	}
	EXPECT_GT(refused, 5);
	EXPECT_GT(done, 100);
}
