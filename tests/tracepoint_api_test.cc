// The static trace points as somebody sees them who attaches from outside: kernel uprobes on the built library, through
// tracefs, while this process makes calls on a file database. Needs root and tracefs; elsewhere it is skipped.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <vector>

#include "lists.h"
#include "scratch.h"
#include "test_paths.h"

namespace {

using Lines = std::vector<std::string>;

class Tracepoints : public testing::Test {
protected:
	void SetUp() override
	{
		const Lines trouble = tracefs("attach", TEST_BINARY_DIR "/common/libostrel.so.1");
		if (!trouble.empty())
			GTEST_SKIP() << "trace points can't be watched here: " << trouble[0];
		open(path_);
	}
	void TearDown() override
	{
		ostrel_db_close(db_);
		tracefs("detach");
		if (HasFailure() && access((place_.path("uprobe_events")).c_str(), F_OK) == 0)
			abort(); // what Scratch does at its end isn't for tracefs
	}
	void open(const std::string &path, ostrel_db_cmds_t cmds = ostrel_files_db_cmds)
	{
		ostrel_db_close(db_);
		ASSERT_EQ(ostrel_db_open(path.c_str(), 0, cmds, 0, &db_), OSTREL_SUCCESS);
		name_ = path;
	}
	// What uprobes.py prints.
	Lines tracefs(const std::string &command, const std::string &library = "") const
	{
		Lines lines;
		char line[1000];
		FILE *pipe = popen(("python3 " TEST_SOURCE_DIR "/tests/support/uprobes.py " + command + " " +
				       place_.directory() + " " + std::to_string(getpid()) + " " + library)
				       .c_str(),
		    "r");
		while (pipe != nullptr && fgets(line, sizeof(line), pipe) != nullptr)
			lines.emplace_back(line, strcspn(line, "\n"));
		EXPECT_EQ(pipe != nullptr ? pclose(pipe) : -1, 0) << command;
		return lines;
	}
	// The hits since the last look, without the database's name, which has to be in each, and without lines of sources.
	Lines seen()
	{
		Lines lines = tracefs("hits");
		for (std::string &line : lines) {
			const bool of_database = line.find("db__") == 0;
			const size_t name = of_database ? line.find(" " + name_ + " ") : line.rfind(' ');
			EXPECT_NE(name, std::string::npos) << line;
			if (of_database)
				line.erase(name, name_.size() + 1);
			else if (line.find("seterror") == 0)
				line.erase(name);
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

	Scratch place_, scratch_;
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
	const Lines hits = tracefs("hits");
	ASSERT_EQ(hits.size(), 1U);
	const std::string report = "seterror 2 libostrel.cc ";
	ASSERT_EQ(hits[0].substr(0, report.size()), report);
	// The line is that of the report itself.
	std::ifstream source(TEST_SOURCE_DIR "/common/libostrel.cc");
	std::string line;
	for (int i = atoi(hits[0].c_str() + report.size()); i > 0; i--)
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
