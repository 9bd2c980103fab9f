// The static trace points as somebody sees them who attaches from outside: kernel uprobes on the built library, through
// tracefs, while this process makes calls on a file database. Needs root and tracefs; elsewhere it is skipped.
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <vector>

#include "lists.h"
#include "scratch.h"
#include "test_paths.h"

namespace {

// One hit: the probe, and its arguments as words: aN the number, sN the text behind it.
struct Hit {
	std::string probe;
	std::map<std::string, std::string> words;
	const std::string &operator[](const char *word) { return words[word]; }
};

// What the kernel shows for the text behind a NULL pointer.
const std::string no_text = "(fault)";

// tracefs, mounted for this process at a place of its own: whether and where the machine has it doesn't matter. Events and
// the instance that collects their hits carry this process's id, so that tests beside this one aren't disturbed.
class Tracefs {
public:
	~Tracefs() { close(); }

	// An empty text, or why there is no tracing here.
	std::string open()
	{
		if (geteuid() != 0)
			return "needs root";
		if (mkdtemp(root_.data()) == nullptr)
			return "no temporary directory";
		made_ = true;
		if (mount("none", root_.c_str(), "tracefs", 0, nullptr) != 0)
			return std::string("tracefs can't be mounted: ") + strerror(errno);
		mounted_ = true;
		if (access((root_ + "/uprobe_events").c_str(), W_OK) != 0)
			return "this kernel has no uprobe events";
		drop_dead_ones();
		return "";
	}

	void attach(const std::string &library)
	{
		const std::string command =
		    "python3 " TEST_SOURCE_DIR "/tests/support/sdt2uprobe.py " + library + " ostrel " + group(getpid());
		FILE *pipe = popen(command.c_str(), "r");
		ASSERT_NE(pipe, nullptr);
		char line[1000];
		int lines = 0;
		for (; fgets(line, sizeof(line), pipe) != nullptr; lines++)
			write("/uprobe_events", line);
		ASSERT_EQ(pclose(pipe), 0);
		ASSERT_GT(lines, 0);
		ASSERT_EQ(mkdir(instance(getpid()).c_str(), 0700), 0) << strerror(errno);
		write("/instances/" + group(getpid()) + "/events/" + group(getpid()) + "/enable", "1");
	}

	// The hits of this process since the last call, in order.
	std::vector<Hit> hits()
	{
		std::vector<Hit> found;
		std::ifstream trace(instance(getpid()) + "/trace");
		const std::string pid = "-" + std::to_string(getpid()) + " ";
		for (std::string line; std::getline(trace, line);) {
			const size_t colon = line.find(": ", line.find("]"));
			if (line[0] != '#' && line.find(pid) != std::string::npos && colon != std::string::npos)
				found.push_back(parse(line.substr(colon + 2)));
		}
		std::ofstream(instance(getpid()) + "/trace", std::ios::trunc);
		return found;
	}

	void close()
	{
		if (mounted_) {
			drop(getpid());
			EXPECT_EQ(umount(root_.c_str()), 0) << strerror(errno);
		}
		if (made_)
			rmdir(root_.c_str());
		mounted_ = made_ = false;
	}

private:
	static std::string group(pid_t pid) { return "ostrel_test_" + std::to_string(pid); }
	std::string instance(pid_t pid) const { return root_ + "/instances/" + group(pid); }

	void write(const std::string &file, const std::string &text)
	{
		Fd fd(::open((root_ + file).c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
		EXPECT_TRUE(fd) << file << ": " << strerror(errno);
		EXPECT_EQ(::write(fd.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()))
		    << file << " refused " << text << ": " << strerror(errno);
	}

	void drop(pid_t pid)
	{
		rmdir(instance(pid).c_str()); // which disables the events
		std::ifstream definitions(root_ + "/uprobe_events");
		std::vector<std::string> mine;
		for (std::string line; std::getline(definitions, line);) {
			if (line.rfind("p:" + group(pid) + "/", 0) == 0)
				mine.push_back("-" + line.substr(1, line.find(' ') - 1));
		}
		for (const std::string &definition : mine)
			write("/uprobe_events", definition);
	}

	// A test that was killed leaves its definitions behind.
	void drop_dead_ones()
	{
		std::ifstream definitions(root_ + "/uprobe_events");
		for (std::string line; std::getline(definitions, line);) {
			const pid_t pid = line.rfind("p:ostrel_test_", 0) == 0 ? atoi(line.c_str() + 14) : 0;
			if (pid > 0 && kill(pid, 0) != 0 && errno == ESRCH)
				drop(pid);
		}
	}

	// "db__read: (0x7f...) a0=0 a1=94... s1="text" ..."
	static Hit parse(const std::string &text)
	{
		Hit hit;
		hit.probe = text.substr(0, text.find(':'));
		for (size_t at = text.find(" a0="); at < text.size();) {
			const size_t equals = text.find('=', at);
			const bool quoted = text[equals + 1] == '"';
			const size_t start = equals + (quoted ? 2 : 1);
			const size_t end = std::min(text.find(quoted ? '"' : ' ', start), text.size());
			hit.words[text.substr(at + 1, equals - at - 1)] = text.substr(start, end - start);
			at = end + (quoted ? 1 : 0);
		}
		return hit;
	}

	std::string root_ = testing::TempDir() + "ostrel-tracefs-XXXXXX";
	bool made_ = false;
	bool mounted_ = false;
};

class Tracepoints : public testing::Test {
protected:
	void SetUp() override
	{
		const std::string trouble = tracefs_.open();
		if (!trouble.empty())
			GTEST_SKIP() << "trace points can't be watched here: " << trouble;
		ASSERT_NO_FATAL_FAILURE(tracefs_.attach(TEST_BINARY_DIR "/common/libostrel.so.1"));
		open(path_);
	}
	void TearDown() override
	{
		ostrel_db_close(db_);
		tracefs_.close();
	}
	void open(const std::string &path, ostrel_db_cmds_t cmds = ostrel_files_db_cmds)
	{
		ostrel_db_close(db_);
		ASSERT_EQ(ostrel_db_open(path.c_str(), 0, cmds, 0, &db_), OSTREL_SUCCESS);
		name_ = path;
		tracefs_.hits();
	}
	// The one hit of `probe` since the last look. Reports of failures are passed over.
	Hit the_hit(const std::string &probe)
	{
		std::vector<Hit> found;
		for (const Hit &hit : tracefs_.hits()) {
			if (hit.probe != "seterror")
				found.push_back(hit);
		}
		EXPECT_EQ(found.size(), 1U) << probe;
		if (found.size() != 1)
			return {};
		EXPECT_EQ(found[0].probe, probe);
		EXPECT_EQ(found[0]["s1"], name_);
		return found[0];
	}
	// The fifth argument is the text of the result, and NULL with a success.
	void expect(Hit hit, ostrel_error_t result, const std::string &third, const std::string &fourth)
	{
		EXPECT_EQ(hit["a0"], std::to_string(result));
		EXPECT_EQ(hit["s2"], third);
		EXPECT_EQ(hit["a3"] == "0" ? no_text : hit["s3"], fourth);
		EXPECT_EQ(hit["a4"] == "0" ? no_text : hit["s4"],
		    result == OSTREL_SUCCESS ? no_text : ostrel_strerror(result));
	}

	Tracefs tracefs_;
	Scratch scratch_;
	std::string path_ = scratch_.path("some.db"), name_;
	ostrel_db_t db_ = nullptr;
};

TEST_F(Tracepoints, UpdatesShowResultNameIdentifiersAndWhatWasGiven)
{
	AttrList a1 = idl_of("a=1");
	AttrList a2 = idl_of("a=2;b=x");
	AttrList props = props_of("p=x;q=y");
	EXPECT_EQ(ostrel_db_write(db_, a1.get(), 0, props.get()), OSTREL_SUCCESS);
	expect(the_hit("db__write"), OSTREL_SUCCESS, "a=1;", "p=x;q=y;");
	EXPECT_EQ(ostrel_db_rename(db_, a1.get(), 0, a2.get()), OSTREL_SUCCESS);
	expect(the_hit("db__rename"), OSTREL_SUCCESS, "a=1;", "a=2;b=x;");
	EXPECT_EQ(ostrel_db_rename(db_, a1.get(), 0, a2.get()), OSTREL_NOT_FOUND);
	expect(the_hit("db__rename"), OSTREL_NOT_FOUND, "a=1;", "a=2;b=x;");
	EXPECT_EQ(ostrel_db_remove(db_, a1.get(), 0), OSTREL_NOT_FOUND);
	expect(the_hit("db__remove"), OSTREL_NOT_FOUND, "a=1;", no_text);
	EXPECT_EQ(ostrel_db_remove(db_, a2.get(), 0), OSTREL_SUCCESS);
	expect(the_hit("db__remove"), OSTREL_SUCCESS, "a=2;b=x;", no_text);

	open(scratch_.path("missing/some.db"));
	EXPECT_EQ(ostrel_db_write(db_, a1.get(), 0, props.get()), OSTREL_NOT_FOUND);
	expect(the_hit("db__write"), OSTREL_NOT_FOUND, "a=1;", "p=x;q=y;");
}

TEST_F(Tracepoints, ARefusedUpdateIsSeenUnlessItIsARemove)
{
	open(path_, ostrel_rawfiles_db_cmds);
	AttrList idl = idl_of("a=1");
	EXPECT_EQ(ostrel_db_write(db_, idl.get(), 0, idl.get()), OSTREL_INVALID_ARG);
	expect(the_hit("db__write"), OSTREL_INVALID_ARG, "a=1;", "a=;");
	EXPECT_EQ(ostrel_db_rename(db_, idl.get(), 0, nullptr), OSTREL_INVALID_ARG);
	expect(the_hit("db__rename"), OSTREL_INVALID_ARG, "a=1;", "");
	EXPECT_EQ(ostrel_db_remove(db_, idl.get(), 0), OSTREL_INVALID_ARG);
	const std::vector<Hit> hits = tracefs_.hits();
	ASSERT_EQ(hits.size(), 1U);
	EXPECT_EQ(hits[0].probe, "seterror");
}

// A missing file, and one without objects, are reported; a search in one that has some isn't.
TEST_F(Tracepoints, AnUpdateOfNothingIsReportedUnlessItSearched)
{
	for (const char *text : {"", "# no object\n", "b=1;\t\n"}) {
		if (*text != '\0')
			std::ofstream(path_) << text;
		EXPECT_EQ(ostrel_db_remove(db_, idl_of("a=1").get(), 0), OSTREL_NOT_FOUND);
		EXPECT_EQ(ostrel_db_rename(db_, idl_of("a=1").get(), 0, idl_of("a=2").get()), OSTREL_NOT_FOUND);
		int reported = 0;
		for (const Hit &hit : tracefs_.hits())
			reported += hit.probe == "seterror";
		EXPECT_EQ(reported, *text == 'b' ? 0 : 2) << text;
	}
}

TEST_F(Tracepoints, ReadsShowWhatTheyFound)
{
	ASSERT_EQ(ostrel_db_write(db_, idl_of("a=1;b=x").get(), 0, props_of("p=x").get()), OSTREL_SUCCESS);
	tracefs_.hits();
	AttrList idl = idl_of("a=1;b=X");
	AttrList found;
	EXPECT_EQ(ostrel_db_read(db_, idl.get(), 0, found.out()), OSTREL_SUCCESS);
	expect(the_hit("db__read"), OSTREL_SUCCESS, "a=1;b=x;", "p=x;"); // merged by then
	EXPECT_EQ(ostrel_db_read(db_, idl.get(), 0, nullptr), OSTREL_SUCCESS);
	expect(the_hit("db__read"), OSTREL_SUCCESS, "a=1;b=x;", "");
	EXPECT_EQ(ostrel_db_read(db_, idl_of("a=2").get(), 0, found.out()), OSTREL_NOT_FOUND);
	expect(the_hit("db__read"), OSTREL_NOT_FOUND, "a=2;", no_text);
}

TEST_F(Tracepoints, AWalkShowsItselfAndEachCallback)
{
	for (const char *id : {"a=1", "a=2", "a=3"})
		ASSERT_EQ(ostrel_db_write(db_, idl_of(id).get(), 0, props_of("p=x").get()), OSTREL_SUCCESS);
	tracefs_.hits();
	int visits = 0;
	auto visit = [](ostrel_db_t, attrlist_t *, attrlist_t *, uint64_t, void *arg) {
		return ++*static_cast<int *>(arg) == 2 ? -7 : 0;
	};
	AttrList search = idl_of("a=");
	EXPECT_EQ(ostrel_db_walk(db_, search.get(), 0, visit, nullptr, &visits, nullptr), OSTREL_WALK_HALTED);
	std::vector<Hit> hits = tracefs_.hits();
	ASSERT_EQ(hits.size(), 3U);
	for (size_t i = 0; i < 2; i++) {
		EXPECT_EQ(hits[i].probe, "db__walk__cb");
		EXPECT_EQ(hits[i]["a0"], i == 0 ? "0" : "-7");
		EXPECT_EQ(hits[i]["s1"], path_);
		EXPECT_EQ(hits[i]["s2"], i == 0 ? "a=1;" : "a=2;");
		EXPECT_EQ(hits[i]["s3"], "p=x;");
		EXPECT_EQ(hits[i]["a4"], std::to_string(reinterpret_cast<uintptr_t>(&visits)));
	}
	EXPECT_EQ(hits[2].probe, "db__walk");
	EXPECT_EQ(hits[2]["s1"], path_);
	expect(hits[2], OSTREL_WALK_HALTED, "a=;", no_text);
}

TEST_F(Tracepoints, AFailureIsReportedWithItsPlaceAndASuccessIsNot)
{
	EXPECT_EQ(ostrel_db_write(db_, idl_of("a=1").get(), 0, props_of("p=x").get()), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_check_auth(db_, B_TRUE), OSTREL_SUCCESS);
	for (const Hit &hit : tracefs_.hits())
		EXPECT_NE(hit.probe, "seterror");

	ostrel_db_t refused;
	EXPECT_EQ(ostrel_db_open(nullptr, 0, ostrel_files_db_cmds, 0, &refused), OSTREL_INVALID_ARG);
	std::vector<Hit> hits = tracefs_.hits();
	ASSERT_EQ(hits.size(), 1U);
	EXPECT_EQ(hits[0].probe, "seterror");
	EXPECT_EQ(hits[0]["a0"], std::to_string(OSTREL_INVALID_ARG));
	EXPECT_EQ(hits[0]["s1"], "libostrel.cc");
	// The line is that of the report itself.
	std::ifstream source(TEST_SOURCE_DIR "/common/libostrel.cc");
	std::string line;
	for (int i = 0; i < atoi(hits[0]["a2"].c_str()); i++)
		std::getline(source, line);
	EXPECT_NE(line.find("SETERROR(OSTREL_INVALID_ARG)"), std::string::npos) << line;
}

TEST_F(Tracepoints, AMessageIsSeenAlsoWhenNoOutputTakesIt)
{
	ASSERT_EQ(unsetenv("OSTREL_LOG"), 0);
	ostrel_log(3, "%d %s", 42, "words");
	std::vector<Hit> hits = tracefs_.hits();
	ASSERT_EQ(hits.size(), 1U);
	EXPECT_EQ(hits[0].probe, "log");
	EXPECT_EQ(hits[0]["a0"], "3");
	EXPECT_EQ(hits[0]["s1"], "42 words");
}

} // namespace
