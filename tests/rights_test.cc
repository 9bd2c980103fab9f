// Rights: how a line is read, which file counts, and who is judged.
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <pwd.h>
#include <string>
#include <sys/stat.h>

#include "base/guards.h"
#include "golden_rows.h"
#include "golden_script.h"
#include "peercred/peercred.h"
#include "rights/rights.h"
#include "scratch.h"

namespace {

class Alice final : public rights::Holder {
public:
	bool is_user(std::string_view name) override { return name == "alice"; }
	bool in_group(std::string_view name) override { return name == "netadm"; }
};

TEST(RightsFile, EachLineGrantsWhatItSaysOrNothingAndNoneSpoilsTheNext)
{
	for (const GoldenRow &row : golden_rows("rights.txt")) {
		Alice alice;
		EXPECT_EQ(rights::grants(row[2], row[1], alice), row[0] == "yes") << row.line;
		EXPECT_EQ(rights::grants(row[2] + "\n", row[1], alice), row[0] == "yes") << row.line;
		EXPECT_TRUE(rights::grants(row[2] + "\nalice: " + row[1] + "\n", row[1], alice))
		    << "the next line is lost after: " << row.line;
	}
}

class RightsCheck : public testing::Test {
protected:
	void SetUp() override
	{
		if (daemon_ == nullptr)
			GTEST_SKIP() << "no user but root here";
		ASSERT_EQ(setenv("MERIDON_ROOT", scratch_.directory().c_str(), 1), 0);
		ASSERT_TRUE(std::filesystem::create_directories(scratch_.path("etc/meridon")));
	}
	void TearDown() override { (void) unsetenv("MERIDON_ROOT"); }
	static int check(const std::string &right, const std::string &name, uid_t uid)
	{
		Handle<peercred_t, peercred_free> cred(peercred_make({1, uid, 0}));
		return chkrightattr_peercred(right.c_str(), name.c_str(), cred.get());
	}
	void play()
	{
		GoldenScript script(scratch_.directory());
		script.set("root", scratch_.directory());
		script.set("daemon", std::to_string(uid_));
		script.add("check", [](auto &args) {
			return std::to_string(check(args[0], args[1], static_cast<uid_t>(std::stoul(args[2]))));
		});
		script.play("rights_checks.txt");
	}

	const Scratch scratch_;
	const struct passwd *const daemon_ = getpwnam("daemon");
	const uid_t uid_ = daemon_ == nullptr ? 0 : daemon_->pw_uid;
};

static const bool registered = register_parts<RightsCheck>("rights_checks.txt");

TEST_F(RightsCheck, UnclearQuestionsAreANo)
{
	play();
	Handle<peercred_t, peercred_free> cred(peercred_make({1, uid_, 0}));
	EXPECT_EQ(chkrightattr_peercred(nullptr, "daemon", cred.get()), 0);
	EXPECT_EQ(chkrightattr_peercred("x", nullptr, cred.get()), 0);
	EXPECT_EQ(chkrightattr_peercred("x", "daemon", nullptr), 0);
}

TEST_F(RightsCheck, AFileThatOthersCouldHaveWrittenDoesNotCount)
{
	play();
	const std::string path = scratch_.path("etc/meridon/rights"), text = "daemon: ostrel.write\n";
	ASSERT_EQ(unlink(path.c_str()), 0);
	scratch_.write("etc/meridon/rights", text + std::string(1U << 20, '#'));
	EXPECT_EQ(check("ostrel.write", "daemon", uid_), 0) << "a file above the limit counts";
	scratch_.write("etc/meridon/rights", text);
	EXPECT_EQ(check("ostrel.write", "daemon", uid_), 1);
	if (geteuid() == 0) {
		ASSERT_EQ(chown(path.c_str(), uid_, 0), 0);
		EXPECT_EQ(check("ostrel.write", "daemon", uid_), 0) << "it is the user's";
	}
}

TEST(Peercred, GivesItsIdsAndNamesNoneWithoutACredential)
{
	Handle<peercred_t, peercred_free> cred(peercred_make({77, 3'000'000'000U, 4'000'000'000U}));
	EXPECT_EQ(peercred_getruid(cred.get()), 3'000'000'000U);
	EXPECT_EQ(peercred_getrgid(cred.get()), 4'000'000'000U);
	EXPECT_EQ(peercred_getpid(cred.get()), 77);
	errno = 0;
	EXPECT_EQ(peercred_getruid(nullptr), static_cast<uid_t>(-1));
	EXPECT_EQ(errno, EINVAL);
	EXPECT_EQ(peercred_getrgid(nullptr), static_cast<gid_t>(-1));
	EXPECT_EQ(peercred_getpid(nullptr), -1);
	peercred_free(nullptr);
}

} // namespace
