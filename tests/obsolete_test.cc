// Patterns, and the files that are set aside by them.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <regex.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include <meridon/regcmp.h>

#include "alloc_fault.h"
#include "base/guards.h"
#include "golden_rows.h"
#include "golden_script.h"
#include "libostrel_obsolete.h"
#include "log_capture.h"
#include "scratch.h"

// This C library's regcomp() loses memory, or frees it twice, where its own allocations fail. So faults pass it by here,
// and a failure of it is planned by itself: before the n-th call from now on, for n above 0.
static int regcomp_until_fault;

extern "C" int regcomp(regex_t *compiled, const char *pattern, int flags)
{
	if (regcomp_until_fault > 0 && --regcomp_until_fault == 0)
		return REG_ESPACE;
	AllocFaultPause pause;
	static auto real = reinterpret_cast<decltype(&regcomp)>(dlsym(RTLD_NEXT, "regcomp"));
	return real(compiled, pattern, flags);
}

// ---- Patterns ----

namespace {

using Pattern = Heap<char>;

std::string match(const std::string &pattern, const std::string &subject)
{
	errno = 0;
	Pattern compiled(regcmp(pattern.c_str(), nullptr));
	if (!compiled)
		return errno == EINVAL ? "refused" : "error " + std::to_string(errno);
	const char *end = regex(compiled.get(), subject.c_str());
	return end == nullptr ? "none" : std::string(subject.c_str(), end);
}

} // namespace

TEST(Patterns, AreExtendedExpressionsThatMatchAnywhere)
{
	for (const GoldenRow &row : golden_rows("patterns.txt"))
		EXPECT_EQ(match(row[0], row[1]), row[2]) << row.line;
	EXPECT_EQ(regcmp(nullptr), nullptr);
	EXPECT_EQ(regex(nullptr, "x"), nullptr);
	EXPECT_EQ(regex("x", nullptr), nullptr);
}

TEST(Patterns, ComeInPartsAndGoWithOneFree)
{
	Pattern compiled(regcmp("^net", "[0-9]", "+$", nullptr));
	ASSERT_TRUE(compiled);
	EXPECT_NE(regex(compiled.get(), "net42"), nullptr);
	EXPECT_EQ(regex(compiled.get(), "net42x"), nullptr);
	regcomp_until_fault = 1;
	EXPECT_EQ(regcmp("a", nullptr), nullptr);
	EXPECT_EQ(errno, ENOMEM);
	SKIP_WITHOUT_ALLOC_FAULTS();
	sweep_allocations([] { return 0; }, [](int) { return Pattern(regcmp("(a|b)+[c-e]*", nullptr)); },
	    [](int, const Pattern &made, bool failed) { EXPECT_NE(static_cast<bool>(made), failed); });
}

// ---- Files ----

namespace fs = std::filesystem;
using Names = std::set<std::string>;

namespace {

class Obsolete : public testing::Test {
protected:
	void make(const Names &names) const
	{
		for (const std::string &name : names)
			ASSERT_TRUE(Fd(open((dir_ + "/" + name).c_str(), O_WRONLY | O_CREAT, 0600))) << name;
	}
	Names names() const
	{
		const std::vector<std::string> found = entries_of(dir_);
		return {found.begin(), found.end()};
	}
	// Gives the log's messages in order of their bytes.
	static std::vector<std::string> set_aside(const std::string &dir, const std::string &pattern)
	{
		LogCapture log;
		ostrel_make_files_obsolete(dir.c_str(), pattern.c_str());
		EXPECT_EQ(ostrel_file_regexp, nullptr);
		std::vector<std::string> lines = log.lines();
		std::sort(lines.begin(), lines.end());
		return lines;
	}
	void play() const
	{
		GoldenScript script(dir_);
		script.set("root", dir_);
		script.add("obsolete", [this](auto &args) {
			std::string text;
			for (const std::string &line : set_aside(dir_ + args[1], args[0]))
				text += (text.empty() ? "" : "\n") + line;
			return text.empty() ? "ok" : text;
		});
		script.play("obsolete.txt");
	}

	Scratch scratch_;
	std::string dir_ = scratch_.directory();
};

} // namespace

static const bool registered = register_parts<Obsolete>("obsolete.txt");

// Paths of 1023 bytes fit, the new one included.
TEST_F(Obsolete, PathThatIsTooLongIsLoggedAndSkipped)
{
	while (dir_.size() < 1023 - 200)
		dir_ += "/" + std::string(99, 'd');
	fs::create_directories(dir_);
	size_t room = 1023 - dir_.size() - 1 - strlen(".obsolete");
	std::string fits(room, 'f'), slightly(room + 1, 'g'), far(room + 12, 'h');
	make({fits, slightly, far, "short"});
	std::vector<std::string> log = set_aside(dir_, "^[^.]");
	EXPECT_EQ(names(), (Names{fits + ".obsolete", slightly, far, "short.obsolete"}));
	ASSERT_EQ(log.size(), 2u);
	for (const std::string &line : log) // the message itself is cut at its end
		EXPECT_EQ(line.compare(0, 100, "3: Rename obsolete file " + dir_, 0, 100), 0) << line;
}

TEST_F(Obsolete, SecondCallAtTheSameTimeAborts)
{
	testing::FLAGS_gtest_death_test_style = "threadsafe";
	char busy[] = "pattern of the first";
	EXPECT_DEATH(
	    {
		    ostrel_file_regexp = busy;
		    ostrel_make_files_obsolete(dir_.c_str(), "x");
	    },
	    "ostrel_file_regexp == NULL");
}

// Where memory runs out, each file is either renamed or where it was, and the call ends as if nothing had been.
TEST_F(Obsolete, LosesNoFileAndNoMemoryWhereAllocationsFail)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	auto start_again = [&] {
		for (const std::string &name : names())
			fs::remove(dir_ + "/" + name);
		make({"a1", "a2", "keep"});
		return dir_;
	};
	auto run = [](const std::string &dir) {
		ostrel_make_files_obsolete(dir.c_str(), "^a[12]$");
		return ostrel_file_regexp == nullptr;
	};
	sweep_allocations(start_again, run, [&](const std::string &, bool is_over, bool failed) {
		EXPECT_TRUE(is_over);
		Names found = names();
		EXPECT_TRUE(failed || found == (Names{"a1.obsolete", "a2.obsolete", "keep"}));
		for (const char *name : {"a1", "a2"})
			EXPECT_EQ(found.erase(name) + found.erase(std::string(name) + ".obsolete"), 1U) << name;
		EXPECT_EQ(found, Names{"keep"});
	});
}
