// What the daemon makes of a file that others left to it.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <set>
#include <sqlite3.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <thread>

#include "alloc_fault.h"
#include "hatch_peer.h"
#include "repository.h"
#include "store.h"
#include "syscall_fault.h"
#include "test_paths.h"

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

constexpr const char *half_an_update =
    "pragma journal_mode=truncate; pragma synchronous=extra; pragma cache_size=1; begin immediate;"
    "update nodes set name = name || 'half'; delete from versions;";

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
	ASSERT_NO_FATAL_FAILURE(run_on(daemon.file(), half_an_update, true));
	ASSERT_GT(std::filesystem::file_size(daemon.file() + "-journal"), 0U);
	ASSERT_TRUE(set_readonly(true));
	auto entries = entries_of("/dev/shm");
	const std::set<std::string> before(entries.begin(), entries.end());
	std::string said;
	ASSERT_EQ(daemon.start("hatch", &said), 0) << said;
	ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
	EXPECT_EQ(client.read("g7"), (Contents{{"v", {"7"}}}));
	EXPECT_EQ(client.add("more"), RPY_ERROR_BACKEND_READONLY);
	EXPECT_TRUE(eventually([&] { // those of other tests go soon, too
		entries = entries_of("/dev/shm");
		return std::none_of(entries.begin(), entries.end(), [&](const std::string &entry) {
			return entry.starts_with("cairn.configd-") && before.count(entry) == 0;
		});
	}));
	ASSERT_TRUE(set_readonly(false));
	EXPECT_EQ(client.add("more"), RPY_ERROR_NONE);
	daemon.stop();
	ASSERT_EQ(daemon.start(), 0);
	ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
	EXPECT_EQ(client.read("g7"), (Contents{{"v", {"7"}}}));
}

// SQLite's own locks are ones that a reader can take. A living writer's journal isn't rolled back, and a lock for reading
// mustn't pass for one.
TEST_F(ConfigdStore, ALockOfAStrangersStopsNoUpdateAndHidesNoJournal)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "skipped: acting as other users needs root";
	ASSERT_NO_FATAL_FAILURE(fill());
	for (Stranger::Lock lock : {Stranger::Lock::process, Stranger::Lock::open_file}) {
		Stranger stranger(daemon.file(), lock);
		ASSERT_NE(stranger.pid, 0);
		EXPECT_EQ(client.write("g7", {{"v", {"8"}}}), 1);
		EXPECT_EQ(client.write("g7", {{"v", {"7"}}}), 1);
	}
	daemon.stop();
	ASSERT_NO_FATAL_FAILURE(run_on(daemon.file(), half_an_update, true));
	Stranger stranger(daemon.file(), Stranger::Lock::process);
	std::string said;
	ASSERT_EQ(daemon.start("hatch", &said), 0) << said;
	ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
	EXPECT_EQ(client.read("g7"), (Contents{{"v", {"7"}}}));
}

// As an operator's tool would hold it. Each of the updates waits for it, one after another.
TEST_F(ConfigdStore, ALockOfRootsIsHeededAndKeepsNoDaemonFromEnding)
{
	ASSERT_NO_FATAL_FAILURE(fill());
	Handle<sqlite3, sqlite3_close_v2> tool;
	ASSERT_EQ(sqlite3_open(daemon.file().c_str(), tool.out()), SQLITE_OK);
	ASSERT_EQ(sqlite3_exec(tool.get(), "begin immediate", nullptr, nullptr, nullptr), SQLITE_OK);
	std::atomic<int> added{0};
	std::vector<std::thread> threads;
	for (int i = 0; i < 30; i++)
		threads.emplace_back([&, i] {
			RepositoryClient other(daemon.hatch());
			added += other.add("more" + std::to_string(i)) == RPY_ERROR_NONE ? 1 : 0;
		});
	sleep(1);
	const pid_t pid = daemon.pid();
	ASSERT_EQ(kill(pid, SIGTERM), 0);
	for (int i = 0; i < 60 && !is_gone(pid); i++)
		sleep(1);
	EXPECT_TRUE(is_gone(pid));
	daemon.kill();
	for (std::thread &thread : threads)
		thread.join();
	EXPECT_EQ(added, 0);
	tool.reset();
	ASSERT_EQ(daemon.start(), 0);
}

TEST_F(ConfigdStore, WhatCanBeNoJournalIsRefusedAtOnce)
{
	ASSERT_NO_FATAL_FAILURE(fill());
	const std::string journal = daemon.file() + "-journal";
	const std::function<int()> odd[] = {[&] { return mkfifo(journal.c_str(), 0600); },
	    [&] { return mknod(journal.c_str(), S_IFCHR | 0600, makedev(1, 5)); },
	    [&] { return symlink("elsewhere", journal.c_str()); },
	    [&] { return link(daemon.file().c_str(), journal.c_str()); }};
	for (const auto &make : odd) {
		(void) unlink(journal.c_str());
		if (make() != 0)
			continue; // a device needs root
		EXPECT_EQ(client.add("more"), RPY_ERROR_INTERNAL);
		daemon.stop();
		std::string said;
		EXPECT_EQ(daemon.start("hatch", &said), EINVAL);
		EXPECT_NE(said.find(journal + ": not a regular file"), said.npos) << said;
		ASSERT_EQ(unlink(journal.c_str()), 0);
		ASSERT_EQ(daemon.start("hatch", &said), 0) << said;
		ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
	}
	EXPECT_EQ(client.read("g7"), (Contents{{"v", {"7"}}}));
}

// Its connection was opened for writing a moment ago.
TEST_F(ConfigdStore, AFileMadeReadOnlyRightAfterAnUpdateIsSeenToBe)
{
	ASSERT_NO_FATAL_FAILURE(fill());
	auto refuses = [this](const char *why) {
		EXPECT_EQ(client.add("more"), RPY_ERROR_BACKEND_READONLY) << why;
		EXPECT_EQ(client.read("g7"), (Contents{{"v", {"7"}}})) << why;
		EXPECT_EQ(server_of(daemon.hatch()), daemon.pid()) << why;
	};
	const std::string place = daemon.directory();
	if (mount(place.c_str(), place.c_str(), nullptr, MS_BIND, nullptr) != 0)
		GTEST_SKIP() << "skipped: mounting needs root";
	EXPECT_EQ(mount("none", place.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
	refuses("a read-only mount");
	EXPECT_EQ(umount2(place.c_str(), MNT_DETACH), 0);
	EXPECT_EQ(client.add("a"), RPY_ERROR_NONE);

	Fd file(open(daemon.file().c_str(), O_RDONLY | O_CLOEXEC));
	int flags = 0;
	if (ioctl(file.get(), FS_IOC_GETFLAGS, &flags) != 0)
		return; // this file system has none
	int immutable = flags | FS_IMMUTABLE_FL;
	ASSERT_EQ(ioctl(file.get(), FS_IOC_SETFLAGS, &immutable), 0);
	refuses("an immutable file");
	ASSERT_EQ(ioctl(file.get(), FS_IOC_SETFLAGS, &flags), 0);
	EXPECT_EQ(client.add("b"), RPY_ERROR_NONE);
}

TEST_F(ConfigdStore, NothingOfTheFilesOwnRunsInTheDaemon)
{
	ASSERT_NO_FATAL_FAILURE(fill());
	daemon.stop();
	std::string said;
	for (const char *addition : {"trigger t after insert on nodes begin delete from nodes where name = 'g7'; end",
		 "view v as select 1", "index i on nodes(length(name))"}) {
		const std::string words = addition;
		ASSERT_NO_FATAL_FAILURE(run_on(daemon.file(), "create " + words));
		EXPECT_EQ(daemon.start("hatch", &said), EIO) << addition;
		EXPECT_NE(said.find("not a repository"), said.npos) << said;
		const std::string name = words.substr(0, words.find(' ', words.find(' ') + 1));
		ASSERT_NO_FATAL_FAILURE(run_on(daemon.file(), "drop " + name));
	}
	// A name that SQLite keeps for itself makes nothing its own.
	ASSERT_NO_FATAL_FAILURE(run_on(daemon.file(), "create index evil on nodes(length(name))"));
	const std::string as_internal = "update sqlite_schema set name = 'sqlite_evil', sql = replace(sql, 'evil', "
					"'sqlite_evil') where name = 'evil'";
	ASSERT_NO_FATAL_FAILURE(run_on(daemon.file(), "pragma writable_schema = on; " + as_internal));
	EXPECT_EQ(daemon.start("hatch", &said), EIO);
	ASSERT_NO_FATAL_FAILURE(
	    run_on(daemon.file(), "pragma writable_schema = on; delete from sqlite_schema where name = 'sqlite_evil'"));
	ASSERT_NO_FATAL_FAILURE(run_on(daemon.file(), "analyze; vacuum")); // as an operator may
	EXPECT_EQ(daemon.start("hatch", &said), 0) << said;
}

TEST_F(ConfigdStore, AnOperatorSeesAndGetsTheFileThatIsServed)
{
	ASSERT_NO_FATAL_FAILURE(fill());
	void *bytes = nullptr;
	size_t size = 0;
	const std::string aside = daemon.place.path("aside");
	ASSERT_EQ(rename(daemon.file().c_str(), aside.c_str()), 0);
	ASSERT_NO_FATAL_FAILURE(run_on(daemon.file(), "create table evil(x)"));
	EXPECT_EQ(_rpy_backup(client.handle, &bytes, &size), -1);
	ASSERT_EQ(rename(aside.c_str(), daemon.file().c_str()), 0);
	ASSERT_EQ(_rpy_backup(client.handle, &bytes, &size), 0);
	free(bytes);

	ASSERT_EQ(truncate(daemon.file().c_str(), static_cast<off_t>(size) / 2), 0);
	char *findings = nullptr;
	ASSERT_EQ(_rpy_verify(client.handle, &findings), 0);
	EXPECT_STRNE(findings, "");
	free(findings);
}

TEST_F(ConfigdStore, WhatTakesTheStoreForLongIsForOperators)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "skipped: acting as other users needs root";
	ASSERT_NO_FATAL_FAILURE(fill());
	ASSERT_EQ(chmod(daemon.place.directory().c_str(), 0755), 0);
	pid_t child = fork();
	if (child == 0) {
		if (setgroups(0, nullptr) != 0 || setresuid(1234, 1234, 1234) != 0)
			_exit(255);
		RepositoryClient other(daemon.hatch());
		char *findings = nullptr;
		void *bytes = nullptr;
		size_t size = 0;
		const bool reads = other.read("g7") == Contents{{"v", {"7"}}};
		const bool verify_denied =
		    _rpy_verify(other.handle, &findings) == -1 && rpy_error() == RPY_ERROR_PERMISSION_DENIED;
		const bool backup_denied =
		    _rpy_backup(other.handle, &bytes, &size) == -1 && rpy_error() == RPY_ERROR_PERMISSION_DENIED;
		_exit((reads ? 1 : 0) + (verify_denied ? 2 : 0) + (backup_denied ? 4 : 0));
	}
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST_F(ConfigdStore, LimitsOfItsStarterAreErrorsAndNoEnd)
{
	SKIP_WITHOUT_ALLOC_FAULTS(); // sanitizers take far more of the address space
	ASSERT_NO_FATAL_FAILURE(fill());
	daemon.stop();
	auto start = [&](const std::string &limit, std::string *said) {
		return run_program({"/bin/sh", "-c",
				       "ulimit " + limit + "; exec " TEST_BINARY_DIR "/repository/cairn.configd -d " +
					   daemon.hatch() + " -r " + daemon.file()},
		    {}, said);
	};
	std::string said;
	ASSERT_EQ(start("-f 100", &said), 0) << said; // of 512 or 1024 bytes
	ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
	auto values = [](size_t count) { return std::vector<std::string>(count, std::string(20000, 'x')); };
	EXPECT_EQ(client.write("g7", {{"w", values(8)}}), -1);
	EXPECT_EQ(rpy_error(), RPY_ERROR_NO_RESOURCES);
	EXPECT_EQ(client.read("g7"), (Contents{{"v", {"7"}}}));
	ASSERT_EQ(daemon.start(), 0);
	daemon.stop();

	ASSERT_EQ(daemon.start(), 0);
	ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
	for (int i = 0; i < 20; i++)
		ASSERT_EQ(client.write("g" + std::to_string(i), {{"w", values(100)}}), 1);
	daemon.stop();
	EXPECT_EQ(start("-v 40000", &said), ENOMEM) << said;
	EXPECT_NE(said.find("memory"), said.npos) << said;
}

// SQLite syncs the directory when it makes a journal, and takes no notice if that fails.
TEST_F(ConfigdStore, AFailingSyncOfTheDirectoryIsNoSuccess)
{
	const std::string file = daemon.file();
	Fd held(open(file.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600));
	auto store = repository::make_sqlite_store(file, held.get());
	repository::Store::Loader loader = {
	    [](uint64_t, std::string_view) {}, [](const repository::Row &) { return true; }};
	uint64_t next = 0;
	ASSERT_FALSE(store->open(loader, &next));
	repository::Rows rows = {{repository::Row::What::put_node, 2, 1, 0, 0, "service", "", {}}};
	ASSERT_EQ(unlink((file + "-journal").c_str()), 0);
	FailNth fault(FailNth::Fsync, 1, EIO);
	EXPECT_NE(store->commit(rows, 3).error, RPY_ERROR_NONE);
	fault.stop();
	EXPECT_TRUE(fault.fired());
	EXPECT_EQ(store->commit(rows, 3).error, RPY_ERROR_NONE);
}

} // namespace
