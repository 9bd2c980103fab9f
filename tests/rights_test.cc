// Rights: how a line is read, which file counts, and who is judged.
#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <pwd.h>
#include <set>
#include <string>
#include <sys/stat.h>

#include "base/guards.h"
#include "peercred/peercred.h"
#include "rights/rights.h"
#include "scratch.h"

namespace {

class Alice final : public rights::Holder {
public:
	bool is_user(std::string_view name) override { return name == "alice"; }
	bool in_group(std::string_view name) override { return name == "netadm"; }
};

bool grants(std::string_view text, std::string_view right)
{
	Alice alice;
	return rights::grants(text, right, alice);
}

TEST(RightsFile, NamesUsersAndGroupsWithExactRights)
{
	EXPECT_TRUE(grants("alice: ostrel.write\n", "ostrel.write"));
	EXPECT_TRUE(grants("# comment\n\nbob: x\n \talice : a , ostrel.write\t\n", "ostrel.write"));
	EXPECT_TRUE(grants("%netadm: ostrel.write", "ostrel.write"));
	EXPECT_TRUE(grants("alice:x # and why\n", "x"));
	EXPECT_FALSE(grants("alice: ostrel.write\n", "ostrel.writer"));
	EXPECT_FALSE(grants("alice: ostrel.write\n", "ostrel"));
	EXPECT_FALSE(grants("Alice: x\n", "x"));
	EXPECT_FALSE(grants("netadm: x\n", "x"));
	EXPECT_FALSE(grants("%alice: x\n", "x"));
	EXPECT_FALSE(grants("alic: x\nalicea: x\n", "x"));
	EXPECT_FALSE(grants("#alice: x\n", "x"));
	EXPECT_FALSE(grants("", "x"));
}

TEST(RightsFile, AWildcardStandsForAnyContinuationAndOnlyAtTheEnd)
{
	EXPECT_TRUE(grants("alice: ostrel.*\n", "ostrel.write"));
	EXPECT_TRUE(grants("alice: ostrel*\n", "ostrel"));
	EXPECT_TRUE(grants("alice: *\n", "anything.at-all"));
	EXPECT_FALSE(grants("alice: ostrel.*\n", "ostrel"));
	EXPECT_FALSE(grants("alice: ostrel.*\n", "other.write"));
	EXPECT_FALSE(grants("alice: *.write\n", "ostrel.write"));
	EXPECT_FALSE(grants("alice: ostrel.*.write\n", "ostrel.a.write"));
	EXPECT_FALSE(grants("alice: **\n", "x"));
	EXPECT_FALSE(grants("*: x\n", "x"));
	EXPECT_FALSE(grants("%*: x\n", "x"));
}

TEST(RightsFile, ALineThatCannotBeReadWholeGrantsNothing)
{
	const std::string bad[] = {"alice x", "alice", "alice:", ": x", "%: x", "%%netadm: x", "alice: x,", "alice: ,x",
	    "alice: x,,y", "alice: x y", "alice: x: y", "al ice: x", "alice, bob: x", "alice: x, what?", "alice: x\r",
	    "alice: x\v", std::string("alice: x\0", 9), std::string("alice\0: x", 9), "alice: x, *y",
	    "alice: x, \xc3\xa9"};
	for (const std::string &line : bad) {
		EXPECT_FALSE(grants(line + "\n", "x")) << line;
		EXPECT_TRUE(grants(line + "\nalice: x\n", "x")) << "the next line is lost behind: " << line;
	}
}

// The first user that isn't root, with one of the user's groups.
struct Somebody {
	std::string name;
	uid_t uid;
	gid_t gid;
};

Somebody somebody()
{
	for (const char *name : {"daemon", "bin", "nobody"}) {
		if (const struct passwd *entry = getpwnam(name))
			return {name, entry->pw_uid, entry->pw_gid};
	}
	return {};
}

class RightsCheck : public testing::Test {
protected:
	void SetUp() override
	{
		if (user_.name.empty())
			GTEST_SKIP() << "no user but root here";
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
	int check() { return check("ostrel.write", user_.name, user_.uid); }

	Scratch scratch_;
	Somebody user_ = somebody();
};

TEST_F(RightsCheck, OnlyRootHoldsRightsWithoutAFile)
{
	EXPECT_EQ(check(), 0);
	EXPECT_EQ(check("ostrel.write", "root", 0), 1);
	write("nobody-at-all: x\n");
	EXPECT_EQ(check("ostrel.write", "root", 0), 1);
}

TEST_F(RightsCheck, UserAndGroupLinesCountForTheUserOfTheCredential)
{
	write(user_.name + ": ostrel.write\n");
	EXPECT_EQ(check(), 1);
	EXPECT_EQ(check("ostrel.read", user_.name, user_.uid), 0);
	write("%" + user_.name + ": ostrel.*\n"); // the system's users have groups of their names
	EXPECT_EQ(check(), 1);
	write("%root: ostrel.*\n");
	EXPECT_EQ(check(), 0);
	write("%no-such-group: ostrel.*\n");
	EXPECT_EQ(check(), 0);
}

TEST_F(RightsCheck, ANameThatIsNotTheCredentialsHoldsNothing)
{
	write(user_.name + ": ostrel.write\nroot: ostrel.write\nno-such-user: ostrel.write\n%" + user_.name +
	      ": ostrel.write\n");
	EXPECT_EQ(check("ostrel.write", user_.name, user_.uid + 12345), 0);
	EXPECT_EQ(check("ostrel.write", "root", user_.uid), 0);
	EXPECT_EQ(check("ostrel.write", "no-such-user", user_.uid), 0);
	EXPECT_EQ(check("ostrel.write", user_.name, 3'000'000'000U), 0);
	EXPECT_EQ(check("ostrel.write", user_.name, static_cast<uid_t>(-1)), 0);
}

TEST_F(RightsCheck, UnclearQuestionsAreANo)
{
	write(user_.name + ": *\n");
	ASSERT_EQ(check(), 1);
	for (const char *auth : {"", "*", "ostrel.*", "a b", "a,b", "a\n"})
		EXPECT_EQ(check(auth, user_.name, user_.uid), 0) << auth;
	Handle<peercred_t, peercred_free> cred(peercred_make({1, user_.uid, 0}));
	EXPECT_EQ(chkrightattr_peercred(nullptr, user_.name.c_str(), cred.get()), 0);
	EXPECT_EQ(chkrightattr_peercred("x", nullptr, cred.get()), 0);
	EXPECT_EQ(chkrightattr_peercred("x", user_.name.c_str(), nullptr), 0);
	EXPECT_EQ(check("", "root", 0), 0);
}

TEST_F(RightsCheck, AFileThatOthersCouldHaveWrittenDoesNotCount)
{
	std::string text = user_.name + ": ostrel.write\n";
	for (mode_t mode : {0664, 0646, 0622, 0666}) {
		write(text, mode);
		EXPECT_EQ(check(), 0) << std::oct << mode;
	}
	std::string path = write(text, 0600);
	EXPECT_EQ(check(), 1);
	if (geteuid() == 0) {
		ASSERT_EQ(chown(path.c_str(), user_.uid, 0), 0);
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
