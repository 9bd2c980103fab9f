// Rights: how a line is read, which file counts, and who is judged.
#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <pwd.h>
#include <string>
#include <sys/stat.h>

#include "base/guards.h"
#include "golden_rows.h"
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

// For a user that every system has, with a group of the same name.
class RightsCheck : public testing::Test {
protected:
	void SetUp() override
	{
		const struct passwd *entry = getpwnam(user_.c_str());
		if (entry == nullptr)
			GTEST_SKIP() << "no user but root here";
		uid_ = entry->pw_uid;
		ASSERT_EQ(setenv("MERIDON_ROOT", scratch_.directory().c_str(), 1), 0);
		ASSERT_EQ(mkdir(scratch_.path("etc").c_str(), 0755), 0);
		ASSERT_EQ(mkdir(scratch_.path("etc/meridon").c_str(), 0755), 0);
	}
	void TearDown() override { (void) unsetenv("MERIDON_ROOT"); }
	std::string write(const std::string &text, mode_t mode = 0644)
	{
		std::string path = scratch_.write("etc/meridon/rights", text);
		EXPECT_EQ(chmod(path.c_str(), mode), 0);
		return path;
	}
	static int check(const char *auth, const std::string &name, uid_t uid)
	{
		Handle<peercred_t, peercred_free> cred(peercred_make({1, uid, 0}));
		return chkrightattr_peercred(auth, name.c_str(), cred.get());
	}
	int check() { return check("ostrel.write", user_, uid_); }

	Scratch scratch_;
	const std::string user_ = "daemon";
	uid_t uid_ = 0;
};

TEST_F(RightsCheck, UserAndGroupLinesCountForTheUserOfTheCredentialAndRootNeedsNone)
{
	EXPECT_EQ(check(), 0);
	EXPECT_EQ(check("ostrel.write", "root", 0), 1);
	write(user_ + ": ostrel.write\n");
	EXPECT_EQ(check(), 1);
	EXPECT_EQ(check("ostrel.read", user_, uid_), 0);
	EXPECT_EQ(check("ostrel.read", "root", 0), 1);
	write("%" + user_ + ": ostrel.*\n"); // the system's users have groups of their names
	EXPECT_EQ(check(), 1);
	for (const char *group : {"%root: ostrel.*\n", "%no-such-group: ostrel.*\n"}) {
		write(group);
		EXPECT_EQ(check(), 0) << group;
	}
}

TEST_F(RightsCheck, ANameThatIsNotTheCredentialsHoldsNothing)
{
	write(user_ + ": ostrel.write\nroot: ostrel.write\nno-such-user: ostrel.write\n%" + user_ + ": ostrel.write\n");
	EXPECT_EQ(check("ostrel.write", user_, uid_ + 12345), 0);
	EXPECT_EQ(check("ostrel.write", "root", uid_), 0);
	EXPECT_EQ(check("ostrel.write", "no-such-user", uid_), 0);
	EXPECT_EQ(check("ostrel.write", user_, 3'000'000'000U), 0);
	EXPECT_EQ(check("ostrel.write", user_, static_cast<uid_t>(-1)), 0);
}

TEST_F(RightsCheck, UnclearQuestionsAreANo)
{
	write(user_ + ": *\n");
	ASSERT_EQ(check(), 1);
	for (const char *auth : {"", "*", "ostrel.*", "a b", "a,b", "a\n"})
		EXPECT_EQ(check(auth, user_, uid_), 0) << auth;
	Handle<peercred_t, peercred_free> cred(peercred_make({1, uid_, 0}));
	EXPECT_EQ(chkrightattr_peercred(nullptr, user_.c_str(), cred.get()), 0);
	EXPECT_EQ(chkrightattr_peercred("x", nullptr, cred.get()), 0);
	EXPECT_EQ(chkrightattr_peercred("x", user_.c_str(), nullptr), 0);
	EXPECT_EQ(check("", "root", 0), 0);
}

TEST_F(RightsCheck, AFileThatOthersCouldHaveWrittenDoesNotCount)
{
	std::string text = user_ + ": ostrel.write\n";
	for (mode_t mode : {0664, 0646, 0622, 0666}) {
		write(text, mode);
		EXPECT_EQ(check(), 0) << std::oct << mode;
	}
	std::string path = write(text, 0600);
	EXPECT_EQ(check(), 1);
	if (geteuid() == 0) {
		ASSERT_EQ(chown(path.c_str(), uid_, 0), 0);
		EXPECT_EQ(check(), 0);
	}
	ASSERT_EQ(unlink(path.c_str()), 0);
	ASSERT_EQ(symlink(scratch_.write("elsewhere", text).c_str(), path.c_str()), 0);
	EXPECT_EQ(check(), 0);
	ASSERT_EQ(unlink(path.c_str()), 0);
	ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
	EXPECT_EQ(check(), 0);
	ASSERT_EQ(unlink(path.c_str()), 0);
	write(text + std::string(1U << 20, '#'));
	EXPECT_EQ(check(), 0) << "a file above the limit counts";
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
