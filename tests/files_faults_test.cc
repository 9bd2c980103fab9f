// Flat files when calls fail, memory runs out, the disk is full or the process is killed: the database is the old file or
// the new one, and whole; nothing leaks; a read is all or nothing.
#include "libostrel_files.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <thread>
#include <vector>

#include "alloc_fault.h"
#include "child.h"
#include "line_lists.h"
#include "scratch.h"
#include "syscall_fault.h"

// Hundreds of updates that sync: in memory, if there is a place for it.
static const char *quick_place()
{
	return access("/dev/shm", W_OK | X_OK) == 0 ? "/dev/shm" : "/tmp";
}

// One update, the file before it and the file after it. An empty `before` is a missing file.
struct Update {
	const char *what;
	std::string before;
	std::string after;
	const char *idlist;
	const char *newidlist; // of a rename
	const char *props;     // of a write
};

// The lists of an update, made before anything fails.
struct Call {
	AttrList idlist, newidlist, props;

	explicit Call(const Update &update) : idlist(ids(update.idlist))
	{
		if (update.newidlist != nullptr)
			newidlist = ids(update.newidlist);
		if (update.props != nullptr)
			props = ::props(update.props);
	}
	ostrel_error_t run(ostrel_db_t db)
	{
		return ostrel_update_object_in_file(db, idlist.get(), newidlist.get(), 0, props.get());
	}
};

static std::string many_lines(int count)
{
	std::string text;
	for (int i = 0; i < count; i++)
		text += "n=" + std::to_string(i) + ";\tx=string,some text that fills the line;\n";
	return text;
}

static const std::vector<Update> &updates()
{
	static const std::string many = many_lines(6000); // several blocks, several writes
	static const std::vector<Update> all = {
	    {"first write", "", "a=1;\tx=int32,1;\n", "a=1", nullptr, "x=int32,1"},
	    {"write", "a=1;\t\nB=2;\n", "a=1;\tx=int32,1;\nB=2;\t\n", "a=1", nullptr, "x=int32,1"},
	    {"write to a long file", many, many + "a=1;\tx=int32,1;\n", "a=1", nullptr, "x=int32,1"},
	    {"rename", "a=1;\t\n# c\nb=2;x", "a=1;\t\nc=3;x=;\t\n", "b=2;x=", "c=3;x=", nullptr},
	    {"remove", "a=1;\tx=int32,1;\nb=2;\t\n", "b=2;\t\n", "a=1", nullptr, nullptr},
	};
	return all;
}

class FilesFaults : public testing::Test {
protected:
	Scratch scratch{quick_place()};
	std::string path = scratch.path("db");

	// Looked up once for all: not while opens fail.
	void SetUp() override { (void) getenclaveid(); }

	void start(const Update &update)
	{
		(void) unlink(path.c_str());
		if (!update.before.empty())
			scratch.write("db", update.before);
	}
	// Each update, with each fault at each of its calls, while another one's temporary file lies there.
	int sweep(const std::vector<Fault> &faults, const std::function<void(const Update &, const Round &)> &check)
	{
		TestDb db(path);
		int hits = 0;
		for (const Update &update : updates()) {
			SCOPED_TRACE(update.what);
			const auto begin = [&] {
				start(update);
				scratch.write("db.new", "stale");
				return std::make_unique<Call>(update);
			};
			hits += sweep_faults(
			    faults, begin, [&](auto &call) { return call->run(db); },
			    [&](auto &, const Round &round) { check(update, round); });
		}
		return hits;
	}
	bool is_old(const Update &update)
	{
		return update.before.empty() ? !scratch.has("db") : file_text(path) == update.before;
	}
	bool is_new(const Update &update) { return file_text(path) == update.after; }
};

// The open of a missing file says so itself: ENOENT would only pretend.
static const std::vector<Fault> failures = {
    {FailNth::Open, EACCES, OSTREL_EPERM},
    {FailNth::Open, ENOSPC, OSTREL_NO_MEMORY},
    {FailNth::Read, EIO, OSTREL_FAILURE},
    {FailNth::Read, 0, OSTREL_SUCCESS, 1},
    {FailNth::Read, 0, OSTREL_SUCCESS, 18},
    {FailNth::Write, ENOSPC, OSTREL_NO_MEMORY},
    {FailNth::Write, 0, OSTREL_SUCCESS, 3},
    {FailNth::Fsync, EIO, OSTREL_FAILURE},
    {FailNth::Fchmod, EPERM, OSTREL_EPERM},
    {FailNth::Ftruncate, EIO, OSTREL_FAILURE},
    {FailNth::Stat, ENOMEM, OSTREL_NO_MEMORY},
    {FailNth::Rename, EACCES, OSTREL_EPERM},
    {FailNth::Close, EIO, OSTREL_FAILURE},
};

TEST_F(FilesFaults, AnyFailedCallOfAnUpdateLeavesAWholeFile)
{
	const int hits = sweep(failures, [&](const Update &update, const Round &round) {
		if (round.result == OSTREL_SUCCESS) {
			// What is only read may be closed as it likes, and a directory that can't be opened for reading is
			// synced another way.
			EXPECT_TRUE(!round.hit || round.fault->result == OSTREL_SUCCESS || round.is(FailNth::Close) ||
				    round.is(FailNth::Open));
			EXPECT_TRUE(is_new(update));
		} else {
			EXPECT_EQ(round.result, round.fault->result);
			// Only the directory's sync comes after the rename.
			const bool stands = round.is(FailNth::Fsync) && round.nth == 2;
			EXPECT_TRUE(stands ? is_new(update) : is_old(update));
		}
	});
	EXPECT_GT(hits, 100);
}

TEST_F(FilesFaults, AKillAtAnyCallLeavesAWholeFileThatCanBeUpdated)
{
	const std::vector<Fault> kills = {{FailNth::Open, 0}, {FailNth::Read, 0}, {FailNth::Write, 0},
	    {FailNth::Fsync, 0}, {FailNth::Fchmod, 0}, {FailNth::Ftruncate, 0}, {FailNth::Stat, 0},
	    {FailNth::Rename, 0}, {FailNth::Close, 0}};
	TestDb db(path);
	const int hits = sweep(kills, [&](const Update &update, const Round &round) {
		EXPECT_TRUE(is_new(update) || (round.hit && is_old(update)));
		EXPECT_EQ(round.result, OSTREL_SUCCESS);
		EXPECT_EQ(ostrel_db_write(db, ids("after=1").get(), 0, props("").get()), OSTREL_SUCCESS);
	});
	EXPECT_GT(hits, 50);
}

// Some file systems have nothing to sync in a directory, and say so.
TEST_F(FilesFaults, ADirectoryThatCannotBeSyncedIsNoFailure)
{
	const Update &update = updates()[1];
	for (int error : {EINVAL, ENOTSUP, EINTR}) {
		for (bool destroys : {false, true}) {
			start(update);
			TestDb db(path);
			Call write(update);
			const int sync = destroys ? 1 : 2; // after that of the new file
			FailNth armed(FailNth::Fsync, sync, error);
			EXPECT_EQ(destroys ? ostrel_destroy_db_file(path.c_str(), 0) : write.run(db), OSTREL_SUCCESS);
			armed.stop();
			EXPECT_EQ(armed.calls(), error == EINTR ? sync + 1 : sync) << "interrupted, it is asked again";
			EXPECT_TRUE(destroys ? !scratch.has("db") : is_new(update)) << strerror(error);
		}
	}
}

TEST_F(FilesFaults, AShortWriteThatCantBeContinuedFailsTheUpdate)
{
	for (const Update &update : updates()) {
		start(update);
		TestDb db(path);
		FailNth shortened(FailNth::Write, 1, FailNth::Short, 3);
		FailNth full(FailNth::Write, 2, ENOSPC);
		EXPECT_EQ(Call(update).run(db), OSTREL_NO_MEMORY);
		EXPECT_TRUE(is_old(update)) << update.what;
	}
}

// A daemon that closed its standard streams, and something in it that writes to them all the same.
TEST_F(FilesFaults, MessagesOfAProcessWithoutStandardStreamsStayOutOfTheFile)
{
	const int status = in_child([&] {
		for (int fd = 0; fd < 3; fd++)
			(void) close(fd);
		std::atomic<bool> done = false;
		std::thread talker([&] {
			for (int fd = 0; !done; fd = (fd + 1) % 3)
				(void) syscall(SYS_write, fd, "n=noise;\n", 9); // a sanitizer minds write()
		});
		bool good = true;
		{
			TestDb db(path);
			AttrList one = ids("n=1"), written = props("x=int32,1");
			for (int i = 0; i < 400; i++)
				good = good && ostrel_db_write(db, one.get(), 0, written.get()) == OSTREL_SUCCESS;
		}
		done = true;
		talker.join();
		return good ? 0 : 1;
	});
	EXPECT_EQ(status, 0);
	EXPECT_EQ(file_text(path), "n=1;\tx=int32,1;\n");
}

TEST_F(FilesFaults, AReadThatFailsHandsOutNothing)
{
	scratch.write("db", many_lines(6000));
	TestDb db(path);
	for (boolean_t raw : {B_FALSE, B_TRUE}) {
		sweep_faults(
		    failures, [] { return std::make_unique<Objects>(); },
		    [&](auto &objects) {
			    return ostrel_read_objects_from_file_common(
				raw, db, nullptr, OSTREL_FLAG_WITH_PROPS, objects->out(), objects->out_count());
		    },
		    [&](auto &objects, const Round &round) {
			    const bool fails = round.hit && round.fault->result != 0 && !round.is(FailNth::Close);
			    EXPECT_EQ(round.result, fails ? round.fault->result : 0);
			    EXPECT_EQ(*objects->out() == nullptr, fails);
			    EXPECT_EQ(objects->count(), fails ? 0U : 6000U);
		    });
	}
}

// ---- Memory ----

TEST_F(FilesFaults, AnUpdateWithoutMemoryLeavesTheOldFile)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	for (const Update &update : updates()) {
		if (update.before.size() > 10000)
			continue; // a round for each object
		TestDb db(path);
		int rounds = sweep_allocations(
		    [&] {
			    start(update);
			    return std::make_unique<Call>(update);
		    },
		    [&](std::unique_ptr<Call> &call) { return call->run(db); },
		    [&](std::unique_ptr<Call> &, ostrel_error_t result, bool failed) {
			    if (result == OSTREL_SUCCESS)
				    EXPECT_TRUE(is_new(update)) << update.what;
			    else
				    EXPECT_TRUE(failed && result == OSTREL_NO_MEMORY && is_old(update)) << update.what;
		    });
		EXPECT_GT(rounds, 3) << update.what;
	}
}

TEST_F(FilesFaults, AReadWithoutMemoryHandsOutNothing)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	std::string long_line(300000, 'v');
	scratch.write("db",
	    "a=1;\tx=int32,1;y=string,p\\,q;\n odd=1;\tX=BOOLEAN,true\na=2;\n" + long_line + "\n" + many_lines(150));
	TestDb db(path);
	const struct {
		boolean_t raw;
		const char *search;
		unsigned int objects;
	} reads[] = {{B_FALSE, "", 153}, {B_FALSE, "a=1", 1}, {B_TRUE, "", 154}};
	for (const auto &read : reads) {
		AttrList idlist = ids(read.search);
		sweep_allocations([] { return std::make_unique<Objects>(); },
		    [&](std::unique_ptr<Objects> &objects) {
			    return ostrel_read_objects_from_file_common(read.raw, db, idlist.get(),
				OSTREL_FLAG_WITH_PROPS, objects->out(), objects->out_count());
		    },
		    [&](std::unique_ptr<Objects> &objects, ostrel_error_t result, bool failed) {
			    EXPECT_EQ(result, failed ? OSTREL_NO_MEMORY : OSTREL_SUCCESS);
			    EXPECT_EQ(objects->count(), failed ? 0 : read.objects) << read.search;
			    EXPECT_EQ(*objects->out() == nullptr, failed);
		    });
	}
}

// ---- A full disk ----

TEST_F(FilesFaults, AFullDiskFailsTheUpdateAndKeepsTheFile)
{
	SKIP_UNLESS_ROOT();
	EXPECT_EQ(in_child([&] {
		if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
		    mount("tmpfs", scratch.directory().c_str(), "tmpfs", 0, "size=64k,nr_inodes=8") != 0)
			return 4;
		TestDb db(path);
		const std::string old = many_lines(700); // more than half of the disk
		scratch.write("db", old);
		if (ostrel_db_write(db, ids("a=1").get(), 0, props("x=int32,1").get()) != OSTREL_NO_MEMORY)
			return 1;
		if (file_text(path) != old)
			return 2;
		scratch.write("db", many_lines(10));
		return ostrel_db_remove(db, ids("n=3").get(), 0) == OSTREL_SUCCESS ? 0 : 3;
	}),
	    0);
}

TEST_F(FilesFaults, MissingRightsAreSaidSoAndADirectoryThatMayBeWrittenAloneTakesUpdates)
{
	SKIP_UNLESS_ROOT();
	const struct {
		mode_t mode;
		ostrel_error_t result;
	} directories[] = {{0755, OSTREL_EPERM}, {0333, OSTREL_SUCCESS}};
	for (const auto &directory : directories) {
		scratch.write("db", "a=1;\t\n");
		ASSERT_EQ(chmod(scratch.directory().c_str(), directory.mode), 0);
		EXPECT_EQ(as_user(65534,
			      [&] {
				      TestDb db(path);
				      const bool written =
					  ostrel_db_write(db, ids("b=2").get(), 0, props("").get()) == directory.result;
				      return written && ostrel_db_remove(db, nullptr, 0) == directory.result ? 0 : 1;
			      }),
		    0);
		EXPECT_EQ(file_text(path), directory.result == OSTREL_EPERM ? "a=1;\t\n" : "");
		EXPECT_FALSE(scratch.has("db.new"));
	}
}
