// The fast path gives what the general one gives: random and hostile files are read, walked and updated by the library, and by a
// model that reads and writes line by line with the format's own functions. Both must agree to the byte.
#include "libostrel_files.h"

#include <algorithm>
#include <clocale>
#include <cstring>
#include <gtest/gtest.h>
#include <random>

#include "libostrel_lines.h"
#include "line_lists.h"
#include "scratch.h"

// ---- The model ----

struct ModelObject {
	AttrList idlist;
	AttrList props;
};

static std::vector<ModelObject> model_objects(const std::string &text)
{
	std::vector<ModelObject> objects;
	for (size_t at = 0, next; at < text.size(); at = next) {
		next = std::min(text.find('\n', at), text.size() - 1) + 1;
		if (next - at > 2047)
			continue;
		std::string line = text.substr(at, next - at);
		if (line.back() == '\n')
			line.pop_back();
		char *begin = line.data() + strspn(line.c_str(), " \t\v\f\r");
		ModelObject object;
		if (*begin != '#' && *begin != '\0' &&
		    ostrel_line2attrlist(begin, object.idlist.out(), object.props.out()) == OSTREL_SUCCESS)
			objects.push_back(std::move(object));
	}
	return objects;
}

static std::string model_read(ostrel_db_t db, const std::string &text, attrlist_t *search, bool exact)
{
	std::string shown;
	for (const ModelObject &object : model_objects(text))
		if (ostrel_idlist_match(db, search, object.idlist.get(), exact ? B_TRUE : B_FALSE))
			shown += show_lists(object.idlist.get(), object.props.get()) + "\n";
	return shown;
}

// The update as a sequence of single steps; ostrel_write_objects_to_file() writes the new file.
static ostrel_error_t model_update(
    ostrel_db_t db, const std::string &path, attrlist_t *idlist, attrlist_t *newidlist, attrlist_t *props)
{
	Objects objects;
	std::vector<ModelObject> old = model_objects(file_text(path));
	EXPECT_TRUE(objects.alloc(static_cast<unsigned int>(old.size()) + 1));
	bool matched = false;
	ostrel_error_t result = OSTREL_SUCCESS;
	for (unsigned int i = 0; i < old.size(); i++) {
		attrlist_t *stored = old[i].idlist.get();
		bool match = ostrel_idlist_match(db, idlist, stored, B_TRUE) != B_FALSE;
		matched |= match;
		if (!match)
			result = ostrel_object_create(stored, old[i].props.get(), &objects[i]);
		else if (newidlist != nullptr)
			result = ostrel_object_create(newidlist, old[i].props.get(), &objects[i]);
		else if (props != nullptr)
			result = ostrel_object_create(stored, props, &objects[i]);
		EXPECT_EQ(result, OSTREL_SUCCESS);
	}
	if (!matched && props == nullptr)
		return OSTREL_NOT_FOUND;
	if (!matched)
		result = ostrel_object_create(idlist, props, &objects[objects.count() - 1]);
	EXPECT_EQ(result, OSTREL_SUCCESS);
	return ostrel_write_objects_to_file(db, path.c_str(), &objects[0], objects.count());
}

// ---- The library ----

static std::string read(ostrel_db_t db, attrlist_t *search, bool exact)
{
	Objects objects;
	uint64_t flags = OSTREL_FLAG_WITH_PROPS | (exact ? OSTREL_FLAG_EXACT_MATCH : 0);
	EXPECT_EQ(ostrel_read_objects_from_file(db, search, flags, objects.out(), objects.out_count()), OSTREL_SUCCESS);
	std::string shown;
	for (unsigned int i = 0; i < objects.count(); i++)
		shown += show_object(objects[i]) + "\n";
	return shown;
}

static int show_visited(ostrel_db_t, attrlist_t *idlist, attrlist_t *props, uint64_t, void *shown)
{
	*static_cast<std::string *>(shown) += show_lists(idlist, props) + "\n";
	return 0;
}

static std::string walk(ostrel_db_t db, attrlist_t *search, bool exact)
{
	std::string shown;
	uint64_t flags = exact ? OSTREL_FLAG_EXACT_MATCH : 0;
	EXPECT_EQ(ostrel_db_walk(db, search, flags, show_visited, nullptr, &shown, nullptr), OSTREL_SUCCESS);
	return shown;
}

// ---- Random files ----

class Generator {
public:
	explicit Generator(unsigned seed) : random_(seed) {}

	size_t below(size_t count) { return random_() % count; }
	bool once_in(size_t count) { return below(count) == 0; }

	std::string file(size_t lines)
	{
		std::string text;
		for (; lines > 0; lines--)
			text += (once_in(400) ? std::string(2030 + below(40), 'x') + "=1;" : line()) + "\n";
		if (once_in(3) && !text.empty())
			text.pop_back();
		return text;
	}
	std::string search() { return one_of(searches_); }

private:
	std::string one_of(const std::vector<std::string> &texts) { return texts[below(texts.size())]; }

	std::string line()
	{
		if (once_in(4))
			return one_of(unusual_[below(std::size(unusual_))]);
		std::string line = one_of({"", "", "", "", " ", "\t", " \t\v", "\f\r"}) + one_of(usual_);
		for (size_t changes = once_in(6) ? 1 + below(3) : 0; changes > 0 && !line.empty(); changes--)
			mutate(&line);
		if (once_in(8) && !line.empty())
			line.pop_back();
		return line;
	}
	void mutate(std::string *line)
	{
		static constexpr char bytes[] = {
		    ';', '=', ',', '\\', '\t', '\0', ' ', 'X', '0', '-', '\xff', '\x01', '\r'};
		size_t at = below(line->size());
		if (once_in(3))
			line->erase(at, 1);
		else if (once_in(2))
			line->insert(at, 1, bytes[below(sizeof(bytes))]);
		else
			(*line)[at] = bytes[below(sizeof(bytes))];
	}
	std::mt19937 random_;
	using Texts = std::vector<std::string>;
	inline static const Texts usual_ = golden_lines("usual.db"), searches_ = golden_lines("searches.txt");
	inline static const Texts unusual_[] = {
	    golden_lines("accepted.db"), golden_lines("refused.db"), golden_lines("passed-over.db")};
};

// ---- Comparisons ----

static void expect_agreement(ostrel_db_t db, const std::string &text, attrlist_t *search)
{
	for (bool exact : {false, true}) {
		std::string expected = model_read(db, text, search, exact);
		EXPECT_EQ(read(db, search, exact), expected) << list_text(search);
		EXPECT_EQ(walk(db, search, exact), expected) << list_text(search);
	}
}

// What random files hardly hold: lines of about the longest length or far beyond it, and objects at the edges of blocks.
static std::vector<std::string> texts_at_limits()
{
	const std::string longest = "b=" + std::string(2043, 'v') + ";";
	std::string pieces; // which would be objects by themselves
	while (pieces.size() < 1 << 20)
		pieces += "id=1;";
	std::vector<std::string> texts = {longest + "\n" + longest + "v\n", longest + "v", longest + "vv",
	    std::string(2044, ' ') + "b=1\n", "id=7;\n" + pieces + "\nid=2;\n" + pieces};
	for (size_t edge : {65530U, 65535U, 65536U, 65537U, 131072U}) {
		// After a comment that is too long to be kept.
		std::string text = "#" + std::string(edge - 5, '-') + "\nid=7;\tx=int32,7;\n";
		while (text.size() < 3 * 65536)
			text += "id=" + std::to_string(text.size()) + ";\n";
		texts.push_back(text);
	}
	return texts;
}

TEST(FilesPaths, ReadsAndWalksAgreeWithTheGeneralReader)
{
	const std::vector<std::string> limits = texts_at_limits();
	Scratch scratch;
	for (unsigned seed = 0; seed < 150; seed++) {
		Generator generator(seed);
		std::string text = generator.file(seed % 10 == 0 ? 1500 : 1 + generator.below(200));
		if (seed < limits.size())
			text = limits[seed];
		std::string path = scratch.write("db", text);
		std::vector<ModelObject> objects = model_objects(text);
		for (uint64_t flags : {uint64_t{0}, uint64_t{OSTREL_DB_CASE_SENSITIVE}}) {
			TestDb db(path, flags);
			EXPECT_EQ(walk(db, nullptr, false), model_read(db, text, ids("").get(), false));
			for (int i = 0; i < 3; i++)
				expect_agreement(db, text, ids(generator.search()).get());
			for (int i = 0; i < 2 && !objects.empty(); i++)
				expect_agreement(db, text, objects[generator.below(objects.size())].idlist.get());
			ASSERT_FALSE(HasFailure()) << seed;
		}
	}
}

// Letters that a locale pairs in its own way are found as its own comparison finds them.
TEST(FilesPaths, FollowTheLocalesComparison)
{
	static constexpr char name[] = "tr_TR.ISO-8859-9";
	Scratch scratch;
	std::string command = std::string("localedef -i tr_TR -f ISO-8859-9 '") + scratch.path(name) + "' 2>/dev/null";
	[[maybe_unused]] int code = system(command.c_str()); // fails on warnings, too: only the locale counts
	setenv("LOCPATH", scratch.directory().c_str(), 1);
	const char *found = setlocale(LC_CTYPE, name);
	unsetenv("LOCPATH");
	if (found == nullptr)
		GTEST_SKIP() << "no locale with letters of its own can be made: the package locales isn't installed";
	std::string text = "id=\xdd;\t\nid=I;\t\nid=i;\t\nid=\xfd;\t\nid=\xc4x;\t\nid=\xe4X;\t\n";
	TestDb db(scratch.write("db", text));
	for (const char *search : {"id=i", "id=I", "id=\xfd", "id=\xdd", "id=\xe4x"})
		expect_agreement(db, text, ids(search).get());
	(void) setlocale(LC_CTYPE, "C");
}

TEST(FilesPaths, UpdatesAgreeWithTheGeneralReaderAndWriter)
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
		AttrList idlist = ids(generator.search());
		AttrList newidlist = seed % 3 == 1 ? ids("n=ew;id=7") : AttrList();
		AttrList written = seed % 3 == 0 ? props("n=int32,1;s=string,a\\,b") : AttrList();
		ostrel_error_t result =
		    ostrel_update_object_in_file(db, idlist.get(), newidlist.get(), 0, written.get());
		EXPECT_EQ(result, model_update(db, model, idlist.get(), newidlist.get(), written.get()));
		EXPECT_EQ(file_text(path), file_text(model));
		refused += result == OSTREL_INVALID_ARG;
		done += result == OSTREL_SUCCESS;
		ASSERT_FALSE(HasFailure()) << seed;
	}
	EXPECT_GT(refused, 5);
	EXPECT_GT(done, 100);
}
