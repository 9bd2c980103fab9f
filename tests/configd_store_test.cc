// What the daemon makes of a file that others left to it.
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include "repository.h"

namespace {

// Runs statements on a file in a process of their own, which is killed where it stands if `end` doesn't let it go on.
void run_on(const std::string &file, const std::string &text, bool killed = false)
{
	pid_t child = fork();
	if (child == 0) {
		sqlite3 *database;
		bool good = sqlite3_open(file.c_str(), &database) == SQLITE_OK &&
			    sqlite3_exec(database, text.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
		if (killed && good)
			(void) raise(SIGKILL);
		_exit(good && sqlite3_close(database) == SQLITE_OK ? 0 : 1);
	}
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	ASSERT_TRUE(killed ? WIFSIGNALED(status) : status == 0);
}

class ConfigdStore : public testing::Test {
protected:
	void TearDown() override
	{
		daemon.kill();
		if (mounted)
			(void) umount2(daemon.files.c_str(), MNT_DETACH);
	}
	void mount_in_memory()
	{
		daemon.files = daemon.place.path("mount");
		mounted = mkdir(daemon.files.c_str(), 0755) == 0 &&
			  mount("none", daemon.files.c_str(), "tmpfs", 0, "size=16m") == 0;
	}
	bool set_readonly(bool value)
	{
		return mount("none", daemon.files.c_str(), "tmpfs", MS_REMOUNT | (value ? MS_RDONLY : 0), nullptr) == 0;
	}
	// Starts the daemon on a file with 50 groups in it, and binds anew.
	void fill()
	{
		ASSERT_EQ(daemon.start(), 0);
		ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
		for (int i = 0; i < 50; i++)
			ASSERT_EQ(client.add("g" + std::to_string(i)), RPY_ERROR_NONE);
		ASSERT_EQ(client.write("g7", {{"v", {"7"}}}), 1);
	}

	Repository daemon;
	RepositoryClient client;
	bool mounted = false;
};

TEST_F(ConfigdStore, AnUpdateCutShortIsTakenBackWhereNothingCanBeWritten)
{
	mount_in_memory();
	if (!mounted)
		GTEST_SKIP() << "skipped: mounting needs root";
	ASSERT_NO_FATAL_FAILURE(fill());
	daemon.stop();
	ASSERT_NO_FATAL_FAILURE(run_on(daemon.file(),
	    "pragma journal_mode=truncate; pragma synchronous=extra; pragma cache_size=1; begin immediate;"
	    "update nodes set name = name || 'half'; delete from versions;",
	    true));
	ASSERT_GT(std::filesystem::file_size(daemon.file() + "-journal"), 0U);
	ASSERT_TRUE(set_readonly(true));
	std::string said;
	ASSERT_EQ(daemon.start("hatch", &said), 0) << said;
	ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
	EXPECT_EQ(client.read("g7"), (Contents{{"v", {"7"}}}));
	EXPECT_EQ(client.add("more"), RPY_ERROR_BACKEND_READONLY);
	for (const auto &entry : std::filesystem::directory_iterator("/dev/shm"))
		EXPECT_NE(entry.path().filename().string().rfind("cairn.configd-", 0), 0U) << entry;
	ASSERT_TRUE(set_readonly(false));
	EXPECT_EQ(client.add("more"), RPY_ERROR_NONE);
	daemon.stop();
	ASSERT_EQ(daemon.start(), 0);
	ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
	EXPECT_EQ(client.read("g7"), (Contents{{"v", {"7"}}}));
}

} // namespace
