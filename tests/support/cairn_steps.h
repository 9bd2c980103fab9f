// Tests of databases in the repository that are steps in a golden file: tests/golden/cairn.txt says what they look like.
#ifndef TESTS_CAIRN_STEPS_H
#define TESTS_CAIRN_STEPS_H

#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "cairn_db.h"
#include "line_lists.h"
#include "test_paths.h"

class CairnStepsTest : public CairnTest {
protected:
	using Text = const std::string &;

	static std::string text_of(bool is_good) { return is_good ? "no error" : "an error"; }
	static std::string text_of(ostrel_error_t result) { return ostrel_strerror(result); }
	ostrel_error_t open(const char *name, Text how)
	{
		const bool is_exact = how == "exact";
		const auto enclave = static_cast<enclaveid_t>(atoi(how.c_str()));
		db.reset();
		const ostrel_error_t result = ostrel_db_open(
		    name, enclave, ostrel_cairn_db_cmds, is_exact ? OSTREL_DB_CASE_SENSITIVE : 0, db.out());
		EXPECT_EQ(!db, result != OSTREL_SUCCESS);
		return result;
	}

	// What a step does with a group and what more it says, and what comes of it. A fixture may add to them.
	std::map<std::string, std::function<std::string(Text group, Text more)>> verbs = {
	    {"open", [this](Text name, Text how) { return text_of(open(name.c_str(), how)); }},
	    {"stop", [this](Text, Text) { return here.daemon.stop(), text_of(true); }},
	    {"put", [this](Text group, Text more) { return text_of(put(db, group, more)); }},
	    {"put-temporary",
		[this](Text group, Text more) { return text_of(put(db, group, more, OSTREL_FLAG_TEMPORARY)); }},
	    {"put-typed",
		[this](Text group, Text more) {
			return text_of(ostrel_db_write(db.get(), group_of(group).get(), 0, props(more).get()));
		}},
	    {"get", [this](Text group, Text) { return get(db, group); }},
	    {"get-typed", [this](Text group, Text) { return typed(db, group); }},
	    {"drop", [this](Text group, Text) { return text_of(drop(db, group)); }},
	    {"move", [this](Text group, Text to) { return text_of(move(db, group, to)); }},
	    {"walk", [this](Text types, Text) { return walk(db, types); }},
	    {"restart", [this](Text, Text) { return here.restart(), text_of(here.ready); }},
	};
};

template <typename Fixture>
class CairnSteps : public Fixture {
public:
	using Lines = std::map<int, std::string>; // by their numbers
	explicit CairnSteps(Lines its_lines) : lines(std::move(its_lines)) {}

	void TestBody() override
	{
		for (const auto &[number, line] : lines) {
			const size_t arrow = line.find(" ->");
			std::istringstream words(line.substr(0, arrow));
			std::string verb, group, more;
			words >> verb >> group >> more;
			group = group == "''" ? "" : group;
			std::string found = " -> " + this->verbs.at(verb)(group, more);
			found.erase(found.find_last_not_of(' ') + 1);
			EXPECT_EQ(found, arrow == line.npos ? " -> no error" : line.substr(arrow))
			    << number << ": " << line;
		}
	}

private:
	const Lines lines;
};

// Makes each group of steps in a golden file a test of the suite.
template <typename Fixture>
bool register_steps(const char *suite, const char *name)
{
	std::ifstream file(std::string(TEST_SOURCE_DIR "/tests/golden/") + name);
	std::map<std::string, typename CairnSteps<Fixture>::Lines> tests;
	std::string test, line;
	for (int number = 1; std::getline(file, line); number++)
		if (line.starts_with("== "))
			test = line.substr(3);
		else if (!line.empty() && line[0] != '#')
			tests[test][number] = line;
	if (tests.empty())
		abort();
	for (const auto &[its_name, lines] : tests)
		testing::RegisterTest(suite, its_name.c_str(), nullptr, nullptr, __FILE__, __LINE__,
		    [lines = lines]() -> Fixture * { return new CairnSteps<Fixture>(lines); });
	return true;
}

#endif
