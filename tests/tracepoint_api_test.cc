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
		mounted_ = mount("none", scratch_.directory().c_str(), "tracefs", 0, nullptr) == 0;
		if (!mounted_ || access(scratch_.path("uprobe_events").c_str(), W_OK) != 0)
			return std::string("no tracefs with uprobe events: ") + strerror(errno);
		drop_events();
		return "";
	}

	void attach(const std::string &library)
	{
		const std::string command =
		    "python3 " TEST_SOURCE_DIR "/tests/support/sdt2uprobe.py " + library + " ostrel " + group(getpid());
		FILE *pipe = popen(command.c_str(), "r");
		ASSERT_NE(pipe, nullptr);
		char line[1000];
		while (fgets(line, sizeof(line), pipe) != nullptr)
			write("uprobe_events", line);
		ASSERT_EQ(pclose(pipe), 0);
		ASSERT_EQ(mkdir(instance(getpid()).c_str(), 0700), 0) << strerror(errno);
		write("instances/" + group(getpid()) + "/events/" + group(getpid()) + "/enable", "1");
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
		if (!std::exchange(mounted_, false))
			return;
		drop_events();
		if (umount2(scratch_.directory().c_str(), MNT_DETACH) != 0)
			abort(); // what Scratch does at its end isn't for tracefs
	}

private:
	static std::string group(pid_t pid) { return "ostrel_test_" + std::to_string(pid); }
	std::string instance(pid_t pid) const { return scratch_.path("instances/" + group(pid)); }

	void write(const std::string &file, const std::string &text)
	{
		Fd fd(::open(scratch_.path(file).c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
		EXPECT_EQ(::write(fd.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()))
		    << file << " refused " << text << ": " << strerror(errno);
	}

	// Those of this process, and those that a killed test has left.
	void drop_events()
	{
		std::istringstream definitions(file_text(scratch_.path("uprobe_events")));
		for (std::string line; std::getline(definitions, line);) {
			const pid_t pid = line.rfind("p:ostrel_test_", 0) == 0 ? atoi(line.c_str() + 14) : 0;
			if (pid != getpid() && (pid <= 0 || kill(pid, 0) == 0 || errno != ESRCH))
				continue;
			rmdir(instance(pid).c_str()); // which disables the events
			write("uprobe_events", "-" + line.substr(1, line.find(' ') - 1));
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

	Scratch scratch_;
	bool mounted_ = false;
};

using Lines = std::vector<std::string>;

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
	}
	// The hits since the last look: the result as a number, the third and fourth argument, and the result's text; "-" is a
	// NULL. Of a callback's hit the last one is its argument.
	Lines seen()
	{
		Lines lines;
		for (Hit &hit : tracefs_.hits()) {
			auto text = [&](const char *arg, const char *word) {
				return hit[arg] == "0" ? "-" : hit[word];
			};
			std::string line = hit.probe + " " + hit["a0"];
			if (hit.probe == "seterror" || hit.probe == "log") {
				lines.push_back(line + " " + hit["s1"]);
				continue;
			}
			EXPECT_EQ(hit["s1"], name_);
			line += " " + text("a2", "s2") + " " + text("a3", "s3") + " ";
			lines.push_back(line + (hit.probe == "db__walk__cb" ? hit["a4"] : text("a4", "s4")));
		}
		return lines;
	}
	// The same without the reports of failures.
	Lines operations()
	{
		Lines lines = seen();
		std::erase_if(lines, [](const std::string &line) { return line.rfind("seterror", 0) == 0; });
		return lines;
	}

	Tracefs tracefs_;
	Scratch scratch_;
	std::string path_ = scratch_.path("some.db"), name_;
	ostrel_db_t db_ = nullptr;
};

TEST_F(Tracepoints, UpdatesShowResultNameIdentifiersAndWhatWasGiven)
{
	AttrList a1 = idl_of("a=1"), a2 = idl_of("a=2;b=x"), props = props_of("p=x;q=y");
	EXPECT_EQ(ostrel_db_write(db_, a1.get(), 0, props.get()), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_rename(db_, a1.get(), 0, a2.get()), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_rename(db_, a1.get(), 0, a2.get()), OSTREL_NOT_FOUND);
	EXPECT_EQ(ostrel_db_remove(db_, a2.get(), 0), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_remove(db_, a2.get(), 0), OSTREL_NOT_FOUND);
	EXPECT_EQ(operations(), (Lines{"db__write 0 a=1; p=x;q=y; -", "db__rename 0 a=1; a=2;b=x; -",
				    "db__rename 4 a=1; a=2;b=x; object not found", "db__remove 0 a=2;b=x; - -",
				    "db__remove 4 a=2;b=x; - object not found"}));
	open(scratch_.path("missing/some.db"));
	EXPECT_EQ(ostrel_db_write(db_, a1.get(), 0, props.get()), OSTREL_NOT_FOUND);
	EXPECT_EQ(operations(), Lines{"db__write 4 a=1; p=x;q=y; object not found"});

	// A refused one is seen unless it is a remove.
	open(path_, ostrel_rawfiles_db_cmds);
	EXPECT_EQ(ostrel_db_write(db_, a1.get(), 0, a1.get()), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_db_rename(db_, a1.get(), 0, nullptr), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_db_remove(db_, a1.get(), 0), OSTREL_INVALID_ARG);
	const std::string report = "seterror 2 libostrel_attempt.cc";
	EXPECT_EQ(seen(), (Lines{report, "db__write 2 a=1; a=; invalid argument", report,
			      "db__rename 2 a=1;  invalid argument", report}));
}

// A missing file, and one without objects, are reported; a search in one that has some isn't.
TEST_F(Tracepoints, AnUpdateOfNothingIsReportedUnlessItSearched)
{
	for (const char *text : {"", "# no object\n", "b=1;\t\n"}) {
		if (*text != '\0')
			std::ofstream(path_) << text;
		EXPECT_EQ(ostrel_db_remove(db_, idl_of("a=1").get(), 0), OSTREL_NOT_FOUND);
		EXPECT_EQ(ostrel_db_rename(db_, idl_of("a=1").get(), 0, idl_of("a=2").get()), OSTREL_NOT_FOUND);
		EXPECT_EQ(seen().size(), *text == 'b' ? 2U : 4U) << text;
	}
}

TEST_F(Tracepoints, ReadsShowWhatTheyFound)
{
	std::ofstream(path_) << "a=1;b=x;\tp=string,x;\n";
	AttrList idl = idl_of("a=1;b=X"), found;
	EXPECT_EQ(ostrel_db_read(db_, idl.get(), 0, found.out()), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_read(db_, idl.get(), 0, nullptr), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_read(db_, idl_of("a=2").get(), 0, found.out()), OSTREL_NOT_FOUND);
	EXPECT_EQ(seen(), (Lines{"db__read 0 a=1;b=x; p=x; -", // merged by then
			      "db__read 0 a=1;b=x;  -", "db__read 4 a=2; - object not found"}));
}

TEST_F(Tracepoints, AWalkShowsItselfAndEachCallback)
{
	std::ofstream(path_) << "a=1;\tp=string,x;\na=2;\tp=string,x;\na=3;\tp=string,x;\n";
	int visits = 0;
	auto visit = [](ostrel_db_t, attrlist_t *, attrlist_t *, uint64_t, void *arg) {
		return ++*static_cast<int *>(arg) == 2 ? -7 : 0;
	};
	EXPECT_EQ(ostrel_db_walk(db_, idl_of("a=").get(), 0, visit, nullptr, &visits, nullptr), OSTREL_WALK_HALTED);
	const std::string arg = std::to_string(reinterpret_cast<uintptr_t>(&visits));
	EXPECT_EQ(seen(), (Lines{"db__walk__cb 0 a=1; p=x; " + arg, "db__walk__cb -7 a=2; p=x; " + arg,
			      "db__walk 5 a=; - callback function halted walk"}));
}

TEST_F(Tracepoints, AFailureIsReportedWithItsPlaceAndASuccessIsNot)
{
	EXPECT_EQ(ostrel_db_write(db_, idl_of("a=1").get(), 0, props_of("p=x").get()), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_check_auth(db_, B_TRUE), OSTREL_SUCCESS);
	EXPECT_EQ(seen(), Lines{"db__write 0 a=1; p=x; -"});
	ostrel_db_t refused;
	EXPECT_EQ(ostrel_db_open(nullptr, 0, ostrel_files_db_cmds, 0, &refused), OSTREL_INVALID_ARG);
	std::vector<Hit> hits = tracefs_.hits();
	ASSERT_EQ(hits.size(), 1U);
	EXPECT_EQ(hits[0].probe + hits[0]["a0"] + hits[0]["s1"], "seterror2libostrel.cc");
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
	EXPECT_EQ(seen(), Lines{"log 3 42 words"});
}

} // namespace
