// What the daemon makes of a file that others left to it.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <list>
#include <map>
#include <set>
#include <sqlite3.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <thread>

#include "alloc_fault.h"
#include "child.h"
#include "fake_store.h"
#include "hatch_peer.h"
#include "repository.h"
#include "store.h"
#include "store_conformance.h"
#include "syscall_fault.h"
#include "test_paths.h"

namespace {

using namespace repository;

// A store in a file. It lies in memory, so that nothing waits for a disk.
struct SqliteEngine {
	~SqliteEngine() { (void) set_readonly(false); }

	std::string file() const { return place.path("repository.db"); }
	std::unique_ptr<Store> make() const { return make_sqlite_store(file(), held.get()); }
	// A descriptor that was open for writing stays open. Writes to it fail half-way through a commit.
	bool set_readonly(bool value) const
	{
		if (geteuid() != 0)
			return chmod(file().c_str(), value ? 0400 : 0600) == 0;
		int flags = 0;
		if (ioctl(held.get(), FS_IOC_GETFLAGS, &flags) != 0)
			return false;
		flags = value ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
		return ioctl(held.get(), FS_IOC_SETFLAGS, &flags) == 0;
	}

	const Scratch place{"/dev/shm"};
	const Fd held{open(file().c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600)};
};
INSTANTIATE_TYPED_TEST_SUITE_P(ConfigdSqlite, StoreConformance, SqliteEngine);

struct FakeEngine {
	std::unique_ptr<Store> make() const { return std::make_unique<FakeStore>(disk); }
	bool set_readonly(bool value) const
	{
		disk->readonly = value;
		return true;
	}

	const std::shared_ptr<FakeDisk> disk = std::make_shared<FakeDisk>();
};
INSTANTIATE_TYPED_TEST_SUITE_P(ConfigdFake, StoreConformance, FakeEngine);

// Runs statements on a file in a process of their own, which may be killed in its transaction.
void run_on(const std::string &file, const std::string &text, bool kills = false)
{
	const int status = in_child([&] {
		sqlite3 *database;
		const bool good = sqlite3_open(file.c_str(), &database) == SQLITE_OK &&
				  sqlite3_exec(database, text.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
		if (kills && good)
			(void) raise(SIGKILL);
		return good && sqlite3_close(database) == SQLITE_OK ? 0 : 1;
	});
	ASSERT_EQ(status, kills ? 1000 + SIGKILL : 0);
}

constexpr const char *half_an_update =
    "pragma journal_mode=truncate; pragma synchronous=extra; pragma cache_size=1; begin immediate;"
    "update nodes set name = name || 'half'; delete from versions;";

class ConfigdStore : public RepositoryTest {
protected:
	// Starts one on a file with 50 groups in it.
	void fill()
	{
		ASSERT_NO_FATAL_FAILURE(start());
		for (int i = 0; i < 50; i++)
			ASSERT_EQ(client.add("g" + std::to_string(i)), RPY_ERROR_NONE);
		ASSERT_EQ(client.write("g7", {{"v", {"7"}}}), 1);
	}
};

// SQLite's own locks are ones that a reader can take. A living writer's journal isn't rolled back, and a lock for reading
// mustn't pass for one.
TEST_F(ConfigdStore, ALockOfAStrangersStopsNoUpdateAndHidesNoJournal)
{
	SKIP_UNLESS_ROOT();
	ASSERT_NO_FATAL_FAILURE(fill());
	auto lock_with = [](int command) {
		return [command](int fd) {
			struct flock bytes = {};
			bytes.l_type = F_RDLCK;
			return fcntl(fd, command, &bytes);
		};
	};
	for (int command : {F_SETLK, F_OFD_SETLK}) {
		StayingChild stranger = lock_as_stranger(daemon.file(), lock_with(command));
		ASSERT_NE(stranger.pid(), 0);
		EXPECT_EQ(client.write("g7", {{"v", {"8"}}}), 1);
		EXPECT_EQ(client.write("g7", {{"v", {"7"}}}), 1);
	}
	daemon.stop();
	ASSERT_NO_FATAL_FAILURE(run_on(daemon.file(), half_an_update, true));
	StayingChild stranger = lock_as_stranger(daemon.file(), lock_with(F_SETLK));
	ASSERT_NO_FATAL_FAILURE(start());
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
	std::vector<std::jthread> threads;
	for (int i = 0; i < 30; i++)
		threads.emplace_back([&, i] {
			RepositoryClient other(daemon.hatch());
			added += other.add("more" + std::to_string(i)) == RPY_ERROR_NONE ? 1 : 0;
		});
	sleep(1);
	const pid_t pid = daemon.pid();
	ASSERT_EQ(kill(pid, SIGTERM), 0);
	EXPECT_TRUE(eventually([pid] { return is_gone(pid); }));
	daemon.kill();
	threads.clear();
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
	int made = 0;
	for (const auto &make : odd) {
		(void) unlink(journal.c_str());
		if (make() != 0)
			continue; // a device needs root
		made++;
		EXPECT_EQ(client.add("more"), RPY_ERROR_INTERNAL);
		daemon.stop();
		EXPECT_EQ(daemon.start("hatch", &said), EINVAL);
		EXPECT_NE(said.find(journal + ": not a regular file"), said.npos) << said;
		ASSERT_EQ(unlink(journal.c_str()), 0);
		ASSERT_NO_FATAL_FAILURE(start());
	}
	EXPECT_GE(made, 3);
	EXPECT_EQ(client.read("g7"), (Contents{{"v", {"7"}}}));
}

TEST_F(ConfigdStore, NothingOfTheFilesOwnRunsInTheDaemon)
{
	ASSERT_NO_FATAL_FAILURE(fill());
	daemon.stop();
	const std::pair<const char *, const char *> additions[] = {
	    {"create trigger t after insert on nodes begin delete from nodes where name = 'g7'; end", "drop trigger t"},
	    {"create view v as select 1", "drop view v"}, {"create index i on nodes(length(name))", "drop index i"},
	    // A name that SQLite keeps for itself makes nothing its own.
	    {"create index evil on nodes(length(name)); pragma writable_schema = on; update sqlite_schema set "
	     "name = 'sqlite_evil', sql = replace(sql, 'evil', 'sqlite_evil') where name = 'evil'",
		"pragma writable_schema = on; delete from sqlite_schema where name = 'sqlite_evil'"}};
	for (auto [make, undo] : additions) {
		ASSERT_NO_FATAL_FAILURE(run_on(daemon.file(), make));
		EXPECT_EQ(daemon.start("hatch", &said), EIO) << make;
		EXPECT_NE(said.find("not a repository"), said.npos) << said;
		ASSERT_NO_FATAL_FAILURE(run_on(daemon.file(), undo));
	}
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

TEST_F(ConfigdStore, LimitsOfItsStarterAreErrorsAndNoEnd)
{
	SKIP_WITHOUT_ALLOC_FAULTS(); // sanitizers take far more of the address space
	ASSERT_NO_FATAL_FAILURE(fill());
	daemon.stop();
	auto start_with = [&](const std::string &limit) {
		return run_program({"/bin/sh", "-c",
				       "ulimit " + limit + "; exec " + daemon_program + " -d " + daemon.hatch() +
					   " -r " + daemon.file()},
		    {}, &said);
	};
	ASSERT_EQ(start_with("-f 100"), 0) << said; // of 512 or 1024 bytes
	ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
	auto values = [](size_t count) { return std::vector<std::string>(count, std::string(20000, 'x')); };
	EXPECT_EQ(client.write("g7", {{"w", values(8)}}), -1);
	EXPECT_EQ(rpy_error(), RPY_ERROR_NO_RESOURCES);
	EXPECT_EQ(client.read("g7"), (Contents{{"v", {"7"}}}));
	ASSERT_EQ(daemon.start(), 0); // tells which process it is
	ASSERT_NO_FATAL_FAILURE(start());
	for (int i = 0; i < 20; i++)
		ASSERT_EQ(client.write("g" + std::to_string(i), {{"w", values(100)}}), 1);
	daemon.stop();
	EXPECT_EQ(start_with("-v 40000"), ENOMEM) << said;
	EXPECT_NE(said.find("memory"), said.npos) << said;
}

// ---- The store without a daemon ----

TEST_F(ConfigdStore, AnUpdateCutShortIsTakenBackWhereNothingCanBeWritten)
{
	const SqliteEngine engine;
	const std::string large = one_property(std::string(100000, 'x'));
	StoreContent expected;
	ASSERT_TRUE(expected.take(first_rows(large), 6));
	auto store = engine.make();
	(void) open_content(store.get());
	ASSERT_EQ(store->commit(first_rows(large), 6).error, RPY_ERROR_NONE);
	store.reset();
	const std::string whole = file_text(engine.file());
	ASSERT_NO_FATAL_FAILURE(run_on(engine.file(), half_an_update, true));
	ASSERT_NE(file_text(engine.file()), whole);
	if (!engine.set_readonly(true))
		GTEST_SKIP() << "skipped: it can't be made read-only here";
	auto copies = [] {
		std::set<std::string> names;
		for (const std::string &entry : entries_of("/dev/shm"))
			if (entry.starts_with("cairn.configd-"))
				names.insert(entry);
		return names;
	};
	const std::set<std::string> before = copies();
	store = engine.make();
	EXPECT_TRUE(open_content(store.get()) == expected);
	EXPECT_TRUE(
	    eventually([&] { return std::ranges::includes(before, copies()); })); // those of other tests go soon, too
	EXPECT_EQ(store->commit({Row::delete_node(5)}, 6).error, RPY_ERROR_BACKEND_READONLY);
	ASSERT_TRUE(engine.set_readonly(false));
	EXPECT_EQ(store->commit({Row::delete_node(5)}, 6).error, RPY_ERROR_NONE);
}

// Calls of a commit that fail, from the nth on.
struct CommitFault {
	FailNth::Call call;
	FailNth::Action action;
	int error;
	int calls;
};
enum Outcome { made, made_without_fault, refused, told_wrongly, unusable, ended = EIO, killed = 1000 + SIGKILL };

// Makes the first commit of a store, and the one that meets the fault, in a process of its own. If that is refused, the
// store is used again. A commit on a connection that isn't warm opens one, and makes the journal.
int commit_with(const CommitFault &fault, int nth, bool warm, const SqliteEngine &engine, const Rows *rows)
{
	return in_child([&]() -> int {
		auto store = engine.make();
		(void) open_content(store.get());
		(void) store->commit(rows[0], 6);
		if (!warm) {
			store.reset();
			(void) unlink((engine.file() + "-journal").c_str());
			(void) open_content((store = engine.make()).get());
		}
		std::list<FailNth> faults;
		for (int i = 0; i < fault.calls; i++)
			faults.emplace_back(fault.call, nth + i, fault.action, fault.error);
		const rpy_error_t error = store->commit(rows[1], 7).error;
		const bool fired = faults.front().fired();
		while (!faults.empty())
			faults.pop_back();
		if (error == RPY_ERROR_NONE)
			return fired ? made : made_without_fault;
		if (fault.call == FailNth::Write && fault.error == ENOSPC && error != RPY_ERROR_NO_RESOURCES)
			return told_wrongly;
		return store->commit(rows[2], 8).error == RPY_ERROR_NONE ? refused : unusable;
	});
}

TEST(ConfigdStoreFaults, AnyFailedCallLeavesTheOldOrTheNewWhole)
{
	const std::string properties = one_property("new");
	const Rows rows[] = {first_rows(properties),
	    {Row::put_version(6, properties), Row::set_version(5, 6), Row::delete_version(4)},
	    {put_node(7, rpy::Parent::group, 3, "after a refusal")}};
	StoreContent old, with_new, with_next;
	ASSERT_TRUE(old.take(rows[0], 6));
	ASSERT_TRUE((with_new = old).take(rows[1], 7));
	ASSERT_TRUE((with_next = old).take(rows[2], 8));
	std::map<int, int> seen, calls;
	auto sweep = [&](const CommitFault &fault, bool warm) {
		for (int nth = 1, outcome = made; outcome != made_without_fault; nth++) {
			SCOPED_TRACE("call " + std::to_string(fault.call) + ", number " + std::to_string(nth) +
				     ", error " + std::to_string(fault.error) + ", " + std::to_string(fault.calls) +
				     " calls");
			const SqliteEngine engine;
			outcome = commit_with(fault, nth, warm, engine, rows);
			const StoreContent left = open_content(engine.make().get());
			const bool may_be_old = outcome == ended || outcome == killed;
			EXPECT_TRUE(left == (outcome == refused ? with_next : with_new) || (may_be_old && left == old));
			EXPECT_NE(outcome, unusable);
			EXPECT_NE(outcome, told_wrongly) << "of a full disk";
			// Without any sync nothing is durable. SQLite itself ignores a failing one of the directory.
			const bool syncs = fault.call == FailNth::Fsync || fault.call == FailNth::Fdatasync;
			EXPECT_FALSE(outcome == made && syncs && fault.calls > 1 && nth == 1);
			seen[outcome]++;
			calls[fault.call] = nth - 1;
		}
	};
	for (FailNth::Call call : {FailNth::Open, FailNth::Read, FailNth::Write, FailNth::Fsync, FailNth::Fdatasync,
		 FailNth::Ftruncate, FailNth::Stat, FailNth::Unlink, FailNth::Close})
		for (bool warm : {false, true}) {
			sweep({call, FailNth::Fail, ENOSPC, 1}, warm);
			sweep({call, FailNth::Fail, EIO, 50}, warm);
			sweep({call, FailNth::Kill, 0, 1}, warm);
		}
	for (Outcome outcome : {made, refused, ended, killed})
		EXPECT_GT(seen[outcome], 5) << outcome;
	EXPECT_GE(calls[FailNth::Fsync] + calls[FailNth::Fdatasync], 3) << "the journal, the file, the journal's end";
}

} // namespace
