// Updates that roll themselves back: every end is that before the apply, or that after it as a confirm said.
#include <atomic>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <set>
#include <sys/mman.h>
#include <sys/syscall.h>

#include <gtest/gtest.h>

#include "child.h"
#include "guard.h"
#include "hatch_peer.h"
#include "libostrelx.h"
#include "line_lists.h"
#include "scratch.h"
#include "syscall_fault.h"
#include "undo.h"

// Lies in shared memory: how many seconds the clock of the deadlines is ahead, in all processes of this test.
static std::atomic<long> *ahead;

extern "C" int clock_gettime(clockid_t id, struct timespec *now) noexcept
{
	const int result = static_cast<int>(syscall(SYS_clock_gettime, id, now, 0, 0, 0, 0));
	if (id == CLOCK_BOOTTIME && ahead != nullptr)
		now->tv_sec += ahead->load();
	return result;
}

namespace {

using TestBatch = Handle<struct ostrelx_batch, ostrelx_batch_free>;

class LiveRollback : public testing::Test {
protected:
	LiveRollback()
	{
		setenv("MERIDON_ROOT", scratch.directory().c_str(), 1);
		setenv("XDG_STATE_HOME", scratch.path("var/lib").c_str(), 1);
		if (ahead == nullptr)
			ahead = static_cast<std::atomic<long> *>(
			    mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
		*ahead = 0;
	}
	~LiveRollback() override
	{
		unsetenv("MERIDON_ROOT");
		unsetenv("XDG_STATE_HOME");
	}

	// A guard in a process of its own, as the service manager would start it: it ends when nothing is pending.
	static std::unique_ptr<Process> guard(unsigned linger = 60)
	{
		return std::make_unique<Process>(
		    [linger] { return static_cast<int>(ostrelx_guard(linger, nullptr, nullptr)); });
	}
	// Has a guard settle all that is due, however long it takes by the clock.
	static void settle(long seconds = 1000)
	{
		*ahead += seconds;
		EXPECT_EQ(ostrelx_guard(0, nullptr, nullptr), OSTREL_SUCCESS);
		*ahead = 0;
	}

	ostrelx_error_t apply(std::string *id = nullptr, unsigned seconds = 100)
	{
		TestDb db(path);
		char name[OSTRELX_APPLY_ID_SIZE] = "";
		const ostrelx_error_t result = ostrelx_apply(db, change().get(), seconds, nullptr, name, nullptr);
		if (id != nullptr)
			*id = name;
		return result;
	}
	// One object is changed, one removed, one made.
	static TestBatch change()
	{
		TestBatch batch;
		EXPECT_EQ(ostrelx_batch_create(batch.out()), OSTREL_SUCCESS);
		EXPECT_EQ(ostrelx_batch_write(batch.get(), ids("n=a").get(), 0, props("x=int32,2;y=string,b").get()),
		    OSTREL_SUCCESS);
		EXPECT_EQ(ostrelx_batch_remove(batch.get(), ids("n=b").get(), 0), OSTREL_SUCCESS);
		EXPECT_EQ(
		    ostrelx_batch_write(batch.get(), ids("n=c").get(), 0, props("x=int32,3").get()), OSTREL_SUCCESS);
		return batch;
	}
	std::string state() const
	{
		// A file's order isn't part of its content: what was removed and made again stands at the end.
		std::set<std::string> lines;
		std::string text = file_text(path);
		for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
			lines.insert(text.substr(at, end - at + 1));
		text.clear();
		for (const std::string &line : lines)
			text += line;
		return text;
	}
	std::vector<std::string> pending() const { return entries_of(scratch.path("var/lib/ostrel/pending")); }
	void reset()
	{
		scratch.write("db", before);
		for (const std::string &name : pending())
			(void) unlink(scratch.path("var/lib/ostrel/pending/" + name).c_str());
	}

	const std::string before = "n=a;\tx=int32,1;z=string,k;\nn=b;\tx=int32,1;\nother=1;\tx=int32,1;\n";
	const std::string after = "n=a;\tx=int32,2;y=string,b;\nn=c;\tx=int32,3;\nother=1;\tx=int32,1;\n";
	Scratch scratch;
	std::string path = scratch.write("db", before);
};

// A kill before any call that changes something, or may: what else there is to die at leaves one of these states.
const std::vector<Fault> kills = {
    {FailNth::Open, 0}, {FailNth::Write, 0}, {FailNth::Fsync, 0}, {FailNth::Rename, 0}, {FailNth::Unlink, 0}};

TEST_F(LiveRollback, WhatNobodyConfirmsGoesBackAndWhatIsConfirmedStays)
{
	std::string id, other;
	auto first = guard();
	ASSERT_EQ(apply(&id), OSTREL_SUCCESS);
	EXPECT_EQ(state(), after);
	EXPECT_EQ(pending(), std::vector<std::string>{id});
	struct stat status;
	ASSERT_EQ(stat(scratch.path("var/lib/ostrel/pending/" + id).c_str(), &status), 0);
	EXPECT_EQ(status.st_mode & 07777, 0600U);
	ASSERT_EQ(stat(scratch.path("var/lib/ostrel/pending").c_str(), &status), 0);
	EXPECT_EQ(status.st_mode & 07777, 0700U);
	// Another one on one of its objects is refused, and named.
	EXPECT_EQ(apply(&other), OSTREL_EXISTS);
	EXPECT_EQ(other, id);
	// Put off, beyond the first deadline.
	EXPECT_EQ(ostrelx_confirm_later(id.c_str(), 2000), OSTREL_SUCCESS);
	*ahead = 1000;
	EXPECT_EQ(ostrelx_rollback(id.c_str(), OSTRELX_ROLLBACK_IF_DUE, nullptr, nullptr), OSTREL_NOT_FOUND);
	EXPECT_EQ(state(), after);
	*ahead = 3000;
	EXPECT_EQ(first->wait(), OSTREL_SUCCESS); // nothing is pending any more
	EXPECT_EQ(state(), before);
	EXPECT_EQ(ostrelx_confirm(id.c_str()), OSTREL_NOT_FOUND);
	int64_t when = 0;
	EXPECT_EQ(ostrelx_rolled_back(id.c_str(), &when), OSTREL_SUCCESS);
	EXPECT_NEAR(static_cast<double>(when), static_cast<double>(time(nullptr)), 60);

	auto second = guard();
	ASSERT_EQ(apply(&id), OSTREL_SUCCESS);
	EXPECT_EQ(ostrelx_confirm(id.c_str()), OSTREL_SUCCESS);
	EXPECT_EQ(ostrelx_confirm(id.c_str()), OSTREL_NOT_FOUND);
	second->kill();
	settle();
	EXPECT_EQ(state(), after);
	for (unsigned seconds : {0U, 86401U})
		EXPECT_EQ(apply(nullptr, seconds), OSTREL_INVALID_ARG);
	for (const char *bad : {"", "../pending", "0123456", "0123456G", "01234567.rolling"})
		EXPECT_EQ(ostrelx_confirm(bad), OSTREL_INVALID_ARG);
}

TEST_F(LiveRollback, WithoutAGuardOrWithAFailingCommitNothingIsApplied)
{
	EXPECT_EQ(apply(), OSTREL_NOTSUP);
	EXPECT_EQ(state(), before);
	EXPECT_TRUE(pending().empty());
	auto running = guard();
	TestDb db(path);
	TestBatch batch = change();
	ASSERT_EQ(ostrelx_batch_remove(batch.get(), ids("n=nobody").get(), 0), OSTREL_SUCCESS);
	ASSERT_EQ(ostrelx_batch_expect(batch.get(), ids("n=a").get(), "*"), OSTREL_SUCCESS);
	char id[OSTRELX_APPLY_ID_SIZE];
	int failed = -1;
	EXPECT_EQ(ostrelx_apply(db, batch.get(), 100, nullptr, id, &failed), OSTREL_NOT_FOUND);
	EXPECT_EQ(failed, 4); // as in the caller's batch
	ASSERT_EQ(ostrelx_batch_expect(batch.get(), ids("n=a").get(), ""), OSTREL_SUCCESS);
	EXPECT_EQ(ostrelx_apply(db, batch.get(), 100, nullptr, id, &failed), OSTRELX_CONFLICT);
	EXPECT_EQ(failed, 1);
	EXPECT_EQ(state(), before);
	EXPECT_TRUE(pending().empty());
}

TEST_F(LiveRollback, AKillAtAnyCallOfApplyConfirmOrGuardLeavesOneOfTheTwoEnds)
{
	// Of the apply: whatever it came to, nobody has confirmed it.
	auto running = guard();
	int hits = sweep_faults(
	    kills, [&] { return reset(), 0; }, [&](int) { return static_cast<int>(apply()); },
	    [&](int, const Round &round) {
		    EXPECT_TRUE(state() == before || state() == after);
		    EXPECT_TRUE(round.hit || round.result == OSTREL_SUCCESS || round.result == OSTREL_NOTSUP);
		    running->kill();
		    settle();
		    EXPECT_EQ(state(), before);
		    EXPECT_TRUE(pending().empty());
		    running = guard();
	    });
	EXPECT_GT(hits, 20);

	// Of the confirm: it stands if it was said to, and else as the record says.
	std::string id;
	auto applied = [&] {
		reset();
		EXPECT_EQ(apply(&id), OSTREL_SUCCESS);
		return 0;
	};
	hits = sweep_faults(
	    kills, applied, [&](int) { return static_cast<int>(ostrelx_confirm(id.c_str())); },
	    [&](int, const Round &round) {
		    const bool is_confirmed = pending().empty();
		    EXPECT_TRUE(round.hit || is_confirmed);
		    running->kill();
		    settle();
		    EXPECT_EQ(state(), is_confirmed ? after : before);
		    running = guard();
	    });
	EXPECT_GT(hits, 2);

	// Of the guard: the next one comes to the end.
	running = nullptr;
	hits = sweep_faults(
	    kills,
	    [&] {
		    auto first = guard();
		    applied();
		    first->kill();
		    return 0;
	    },
	    [&](int) {
		    *ahead = 1000;
		    return static_cast<int>(ostrelx_guard(0, nullptr, nullptr));
	    },
	    [&](int, const Round &round) {
		    EXPECT_TRUE(state() == before || state() == after);
		    EXPECT_TRUE(round.hit || state() == before);
		    settle();
		    EXPECT_EQ(state(), before);
		    EXPECT_TRUE(pending().empty());
	    });
	EXPECT_GT(hits, 20);
}

TEST_F(LiveRollback, AfterABootItGoesBackWhateverIsLeftOfItsTime)
{
	for (bool is_rolling : {false, true}) {
		reset();
		auto first = guard();
		std::string id;
		ASSERT_EQ(apply(&id, 86400), OSTREL_SUCCESS);
		first->kill();
		// The same record as another boot would find it.
		const std::string file = scratch.path("var/lib/ostrel/pending/" + id);
		{
			UndoRecord record, old;
			Fd fd(open(file.c_str(), O_RDWR | O_CLOEXEC));
			ASSERT_EQ(record.read(fd.get()), OSTREL_SUCCESS);
			UndoHead head = record.head;
			head.boot = "00000000-0000-0000-0000-000000000000";
			ASSERT_EQ(old.make(record.state, head, record.objects), OSTREL_SUCCESS);
			ASSERT_EQ(ftruncate(fd.get(), 0), 0);
			ASSERT_EQ(lseek(fd.get(), 0, SEEK_SET), 0);
			ASSERT_EQ(old.write(fd.get()), OSTREL_SUCCESS);
		}
		if (is_rolling) {
			ASSERT_EQ(rename(file.c_str(), (file + ".rolling").c_str()), 0);
		}
		auto note_state = [](const ostrelx_pending_t *one, void *arg) {
			*static_cast<int *>(arg) = one->state;
			return 0;
		};
		int seen = 0;
		EXPECT_EQ(ostrelx_pending(note_state, &seen), OSTREL_SUCCESS);
		EXPECT_EQ(seen, is_rolling ? OSTRELX_PENDING_ROLLING : OSTRELX_PENDING_OTHER_BOOT);
		EXPECT_EQ(
		    ostrelx_rollback(id.c_str(), OSTRELX_ROLLBACK_IF_DUE | OSTRELX_ROLLBACK_FORCE, nullptr, nullptr),
		    OSTREL_SUCCESS);
		EXPECT_EQ(state(), before);
		EXPECT_TRUE(pending().empty());
	}
}

TEST_F(LiveRollback, OfConfirmAndExpiryExactlyOneWins)
{
	// The guard is let loose at about the moment of the confirm.
	int confirmed = 0;
	constexpr int rounds = 300;
	for (int round = 0; round < rounds; round++) {
		reset();
		auto running = guard();
		std::string id;
		ASSERT_EQ(apply(&id), OSTREL_SUCCESS);
		running->kill();
		auto late = std::make_unique<Process>([] {
			*ahead = 1000;
			return static_cast<int>(ostrelx_guard(0, nullptr, nullptr));
		});
		usleep(static_cast<useconds_t>(round % 30) * 100);
		const ostrelx_error_t result = ostrelx_confirm(id.c_str());
		EXPECT_EQ(late->wait(), OSTREL_SUCCESS);
		*ahead = 0;
		ASSERT_TRUE(result == OSTREL_SUCCESS || result == OSTREL_NOT_FOUND) << result;
		ASSERT_EQ(state(), result == OSTREL_SUCCESS ? after : before);
		confirmed += result == OSTREL_SUCCESS ? 1 : 0;
	}
	EXPECT_GT(confirmed, 0);
	EXPECT_LT(confirmed, rounds);
}

TEST_F(LiveRollback, OthersChangesStayAndThoseOfTheApplyGoBack)
{
	const struct {
		const char *id, *others; // what others write meanwhile; "-": they remove it
		const char *line;        // of the object after the guard; "" none
		const char *kept, *overruled;
	} cases[] = {
	    {"n=a", "x=int32,2;y=string,b;q=int32,9", "n=a;\tx=int32,1;z=string,k;q=int32,9;\n", "q", ""},
	    {"n=a", "x=int32,7;y=string,b", "n=a;\tx=int32,1;z=string,k;\n", "", "x"},
	    {"n=a", "x=int32,1;z=string,k", "n=a;\tx=int32,1;z=string,k;\n", "", ""}, // taken back by hand
	    {"n=a", "x=int64,2;y=string,b", "n=a;\tx=int32,1;z=string,k;\n", "", ""}, // the same values
	    {"n=a", "-", "n=a;\tx=int32,1;z=string,k;\n", "", "xy"},
	    {"n=b", "x=int32,5", "n=b;\tx=int32,5;\n", "x", ""},
	    {"n=c", "x=int32,3;q=int32,9", "n=c;\tq=int32,9;\n", "q", ""},
	    {"n=c", "x=int32,8", "", "", "x"},
	    {"n=c", "-", "", "", ""},
	};
	struct Told {
		std::string kept, overruled;
	};
	auto note = [](const ostrelx_undone_t *undone, void *arg) {
		auto *told = static_cast<Told *>(arg);
		for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(undone->kept, pair)) != nullptr;)
			told->kept += attrpair_name(pair);
		for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(undone->overruled, pair)) != nullptr;)
			told->overruled += attrpair_name(pair);
	};
	for (const auto &one : cases) {
		SCOPED_TRACE(std::string(one.id) + " " + one.others);
		reset();
		auto running = guard();
		std::string id;
		ASSERT_EQ(apply(&id), OSTREL_SUCCESS);
		running->kill();
		TestDb db(path);
		ASSERT_EQ(std::string(one.others) == "-"
			      ? ostrel_db_remove(db, ids(one.id).get(), 0)
			      : ostrel_db_write(db, ids(one.id).get(), 0, props(one.others).get()),
		    OSTREL_SUCCESS);
		const std::string between = state();
		// By hand it stops where others changed what the apply had changed, and changes nothing.
		const bool is_conflict = one.overruled[0] != '\0' || std::string(one.id) == "n=b";
		if (is_conflict) {
			EXPECT_EQ(ostrelx_rollback(id.c_str(), 0, nullptr, nullptr), OSTRELX_CONFLICT);
			EXPECT_EQ(pending(), std::vector<std::string>{id});
		}
		Told told;
		EXPECT_EQ(ostrelx_rollback(id.c_str(), OSTRELX_ROLLBACK_PLAN | OSTRELX_ROLLBACK_FORCE, note, &told),
		    OSTREL_SUCCESS);
		EXPECT_EQ(told.kept, one.kept);
		EXPECT_EQ(told.overruled, one.overruled);
		EXPECT_EQ(state(), between);
		EXPECT_EQ(ostrelx_rollback(id.c_str(), is_conflict ? OSTRELX_ROLLBACK_FORCE : 0, nullptr, nullptr),
		    OSTREL_SUCCESS);
		EXPECT_TRUE(pending().empty());
		// All other objects are as before.
		std::string expected;
		std::set<std::string> lines = {"other=1;\tx=int32,1;\n", one.line};
		if (std::string(one.id) != "n=a")
			lines.insert("n=a;\tx=int32,1;z=string,k;\n");
		if (std::string(one.id) != "n=b")
			lines.insert("n=b;\tx=int32,1;\n");
		for (const std::string &line : lines)
			expected += line;
		EXPECT_EQ(state(), expected);
	}
}

TEST_F(LiveRollback, AnApplyThatDiedBeforeItsCommitTakesNothingBack)
{
	// Killed at the rename that is its commit, the second one after that of the record; then somebody else writes.
	auto running = guard();
	ASSERT_EQ(in_child([&] {
		FailNth fatal(FailNth::Rename, 2, FailNth::Kill);
		return static_cast<int>(apply());
	}),
	    1000 + SIGKILL);
	ASSERT_EQ(pending().size(), 1U);
	ASSERT_EQ(state(), before);
	TestDb db(path);
	ASSERT_EQ(ostrel_db_write(db, ids("n=a").get(), 0, props("x=int32,50").get()), OSTREL_SUCCESS);
	const std::string theirs = state();
	*ahead = 1000;
	EXPECT_EQ(running->wait(), OSTREL_SUCCESS);
	EXPECT_EQ(state(), theirs);
	EXPECT_TRUE(pending().empty());
}

TEST_F(LiveRollback, WhatStrangersPutInItsPlaceIsRefused)
{
	SKIP_UNLESS_ROOT();
	auto running = guard();
	std::string id;
	ASSERT_EQ(apply(&id), OSTREL_SUCCESS);
	running->kill();
	const std::string directory = scratch.path("var/lib/ostrel/pending");
	const std::string record = directory + "/" + id;
	const std::string text = file_text(record);
	const std::vector<std::function<void()>> plants = {
	    [&] { EXPECT_EQ(chown(record.c_str(), 65534, 65534), 0); },
	    [&] { EXPECT_EQ(chmod(record.c_str(), 0640), 0); },
	    [&] { EXPECT_EQ(link(record.c_str(), scratch.path("second").c_str()), 0); },
	    [&] {
		    EXPECT_EQ(rename(record.c_str(), scratch.path("third").c_str()), 0);
		    EXPECT_EQ(symlink(scratch.path("third").c_str(), record.c_str()), 0);
	    },
	    [&] { EXPECT_EQ(truncate(record.c_str(), 100), 0); },
	    [&] { EXPECT_EQ(mkfifo((directory + "/pipe").c_str(), 0600) + unlink(record.c_str()), 0); },
	};
	for (const auto &plant : plants) {
		(void) unlink(record.c_str());
		scratch.write("var/lib/ostrel/pending/" + id, text);
		ASSERT_EQ(chmod(record.c_str(), 0600), 0);
		scratch.write("db", after);
		plant();
		EXPECT_NE(ostrelx_rollback(id.c_str(), OSTRELX_ROLLBACK_FORCE, nullptr, nullptr), OSTREL_SUCCESS);
		settle();
		EXPECT_EQ(state(), after);
		EXPECT_TRUE(pending().empty()); // set aside: it doesn't hold up the next ones
	}
	// A directory that others can write, or that is a link.
	ASSERT_EQ(chmod(directory.c_str(), 0770), 0);
	EXPECT_EQ(apply(), OSTREL_EPERM);
	ASSERT_EQ(rmdir(directory.c_str()), 0);
	ASSERT_EQ(mkdir(scratch.path("elsewhere").c_str(), 0700), 0);
	ASSERT_EQ(symlink(scratch.path("elsewhere").c_str(), directory.c_str()), 0);
	EXPECT_EQ(apply(), OSTREL_EPERM);
	ASSERT_EQ(unlink(directory.c_str()), 0);
	ASSERT_EQ(chmod(scratch.path("var/lib/ostrel").c_str(), 0777), 0);
	EXPECT_EQ(apply(), OSTREL_EPERM);
	EXPECT_EQ(state(), after);
}

} // namespace
