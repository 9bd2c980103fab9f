// Flat files when calls fail, memory runs out, the disk is full or the process is killed: the database is the old file or
// the new one, and whole; nothing leaks; a read is all or nothing.
#include "libostrel_files.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

#include "alloc_fault.h"
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
class Call {
public:
	explicit Call(const Update &update) : idlist_(ids(update.idlist))
	{
		if (update.newidlist != nullptr)
			newidlist_ = ids(update.newidlist);
		if (update.props != nullptr)
			props_ = props(update.props);
	}
	ostrel_error_t run(ostrel_db_t db)
	{
		return ostrel_update_object_in_file(db, idlist_.get(), newidlist_.get(), 0, props_.get());
	}

private:
	AttrList idlist_;
	AttrList newidlist_;
	AttrList props_;
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
	    {"rename", "a=1;\t\n# c\nb=2;x", "a=1;\t\nc=3;x=;\t\n", "b=2;x", "c=3;x=", nullptr},
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
	bool is_old(const Update &update)
	{
		return update.before.empty() ? !scratch.has("db") : file_text(path) == update.before;
	}
	bool is_new(const Update &update) { return file_text(path) == update.after; }
};

struct CallFault {
	const char *call_name;
	FailNth::Call call;
	int error;
	ostrel_error_t result;
};

// The open of a missing file says so itself: ENOENT would only pretend.
static constexpr CallFault call_faults[] = {
    {"open", FailNth::Open, EACCES, OSTREL_EPERM},
    {"open", FailNth::Open, EMFILE, OSTREL_FAILURE},
    {"open", FailNth::Open, ENOSPC, OSTREL_NO_MEMORY},
    {"read", FailNth::Read, EIO, OSTREL_FAILURE},
    {"write", FailNth::Write, ENOSPC, OSTREL_NO_MEMORY},
    {"write", FailNth::Write, EIO, OSTREL_FAILURE},
    {"write", FailNth::Write, EDQUOT, OSTREL_FAILURE},
    {"fsync", FailNth::Fsync, EIO, OSTREL_FAILURE},
    {"fsync", FailNth::Fsync, ENOSPC, OSTREL_NO_MEMORY},
    {"fchmod", FailNth::Fchmod, EPERM, OSTREL_EPERM},
    {"ftruncate", FailNth::Ftruncate, EIO, OSTREL_FAILURE},
    {"stat", FailNth::Stat, ENOMEM, OSTREL_NO_MEMORY},
    {"rename", FailNth::Rename, EACCES, OSTREL_EPERM},
    {"rename", FailNth::Rename, ENOSPC, OSTREL_NO_MEMORY},
    {"rename", FailNth::Rename, EROFS, OSTREL_FAILURE},
    {"close", FailNth::Close, EIO, OSTREL_FAILURE},
};

TEST_F(FilesFaults, AnyFailedCallOfAnUpdateLeavesAWholeFile)
{
	int fired = 0;
	for (const Update &update : updates()) {
		for (const CallFault &fault : call_faults) {
			for (int nth = 1;; nth++) {
				start(update);
				scratch.write("db.new", "stale");
				TestDb db(path);
				int descriptors = open_descriptors();
				bool hit = false;
				ostrel_error_t result = OSTREL_SUCCESS;
				{
					FailNth armed(fault.call, nth, fault.error);
					result = Call(update).run(db);
					hit = armed.fired();
				}
				fired += hit;
				SCOPED_TRACE(
				    std::string(update.what) + ", " + fault.call_name + " " + std::to_string(nth));
				EXPECT_EQ(open_descriptors(), descriptors);
				if (result == OSTREL_SUCCESS) {
					// What is only read may be closed as it likes, and a directory that can't
					// be opened for reading is synced another way.
					EXPECT_TRUE(
					    !hit || fault.call == FailNth::Close || fault.call == FailNth::Open);
					EXPECT_TRUE(is_new(update));
				} else {
					EXPECT_EQ(result, fault.result);
					// Only the directory's sync comes after the rename.
					bool stands = fault.call == FailNth::Fsync && nth == 2;
					EXPECT_TRUE(stands ? is_new(update) : is_old(update));
				}
				if (!hit || HasFailure())
					break;
			}
		}
	}
	EXPECT_GT(fired, 100);
}

// Some file systems have nothing to sync in a directory, and say so.
TEST_F(FilesFaults, ADirectoryThatCannotBeSyncedIsNoFailure)
{
	for (int error : {EINVAL, ENOTSUP, EINTR}) {
		SCOPED_TRACE(strerror(error));
		for (const Update &update : updates()) {
			start(update);
			TestDb db(path);
			FailNth armed(FailNth::Fsync, 2, error);
			EXPECT_EQ(Call(update).run(db), OSTREL_SUCCESS) << update.what;
			armed.stop();
			EXPECT_TRUE(armed.fired());
			EXPECT_EQ(armed.calls(), error == EINTR ? 3 : 2); // interrupted, it is asked again
			EXPECT_TRUE(is_new(update));
		}
		FailNth armed(FailNth::Fsync, 1, error);
		EXPECT_EQ(ostrel_destroy_db_file(path.c_str(), 0), OSTREL_SUCCESS);
		EXPECT_TRUE(armed.fired());
		EXPECT_FALSE(scratch.has("db"));
	}
}

// A daemon that closed its standard streams, and something in it that writes to them all the same.
TEST_F(FilesFaults, MessagesOfAProcessWithoutStandardStreamsStayOutOfTheFile)
{
	std::string expected;
	for (int i = 0; i < 20; i++)
		expected += "n=" + std::to_string(i) + ";\tx=int32,1;\n";
	pid_t child = fork();
	if (child == 0) {
		for (int fd = 0; fd < 3; fd++)
			(void) close(fd);
		std::atomic<bool> done = false;
		std::thread talker([&] {
			while (!done)
				for (int fd = 0; fd < 3; fd++)
					(void) syscall(SYS_write, fd, "n=noise;\n", 9); // a sanitizer minds write()
		});
		bool good = true;
		{
			TestDb db(path);
			for (int i = 0; i < 400; i++)
				good = good && ostrel_db_write(db, ids("n=" + std::to_string(i % 20)).get(), 0,
						   props("x=int32,1").get()) == OSTREL_SUCCESS;
		}
		done = true;
		talker.join();
		_exit(good ? 0 : 1);
	}
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
	EXPECT_EQ(file_text(path), expected);
}

TEST_F(FilesFaults, ShortWritesAreContinued)
{
	for (const Update &update : updates()) {
		for (int nth = 1; nth <= 4; nth++) {
			start(update);
			TestDb db(path);
			FailNth shortened(FailNth::Write, nth, FailNth::Short, 3);
			EXPECT_EQ(Call(update).run(db), OSTREL_SUCCESS);
			EXPECT_TRUE(is_new(update)) << update.what << " " << nth;
		}
		start(update);
		TestDb db(path);
		FailNth shortened(FailNth::Write, 1, FailNth::Short, 3);
		FailNth full(FailNth::Write, 2, ENOSPC);
		EXPECT_EQ(Call(update).run(db), OSTREL_NO_MEMORY);
		EXPECT_TRUE(is_old(update)) << update.what;
	}
}

TEST_F(FilesFaults, AKillAtAnyCallLeavesAWholeFileThatCanBeUpdated)
{
	static constexpr FailNth::Call calls[] = {FailNth::Open, FailNth::Read, FailNth::Write, FailNth::Fsync,
	    FailNth::Fchmod, FailNth::Ftruncate, FailNth::Stat, FailNth::Rename, FailNth::Close};
	int kills = 0;
	for (const Update &update : updates()) {
		for (FailNth::Call call : calls) {
			for (int nth = 1;; nth++) {
				start(update);
				TestDb db(path);
				pid_t child = fork();
				if (child == 0) {
					FailNth fatal(call, nth, FailNth::Kill);
					_exit(Call(update).run(db));
				}
				int status = 0;
				ASSERT_EQ(waitpid(child, &status, 0), child);
				SCOPED_TRACE(
				    std::string(update.what) + " " + std::to_string(call) + " " + std::to_string(nth));
				if (WIFEXITED(status)) {
					EXPECT_EQ(status, 0);
					EXPECT_TRUE(is_new(update));
					break;
				}
				ASSERT_EQ(WTERMSIG(status), SIGKILL);
				kills++;
				EXPECT_TRUE(is_old(update) || is_new(update));
				EXPECT_EQ(
				    ostrel_db_write(db, ids("after=1").get(), 0, props("").get()), OSTREL_SUCCESS);
				ASSERT_FALSE(HasFailure());
			}
		}
	}
	EXPECT_GT(kills, 50);
}

TEST_F(FilesFaults, AReadThatFailsHandsOutNothing)
{
	std::string text = many_lines(6000);
	scratch.write("db", text);
	TestDb db(path);
	for (bool raw : {false, true}) {
		for (const CallFault &fault : call_faults) {
			for (int nth = 1;; nth++) {
				int descriptors = open_descriptors();
				Objects objects;
				bool hit = false;
				ostrel_error_t result = OSTREL_SUCCESS;
				{
					FailNth armed(fault.call, nth, fault.error);
					result = ostrel_read_objects_from_file_common(raw ? B_TRUE : B_FALSE, db,
					    nullptr, OSTREL_FLAG_WITH_PROPS, objects.out(), objects.out_count());
					hit = armed.fired();
				}
				EXPECT_EQ(open_descriptors(), descriptors);
				if (hit && fault.call != FailNth::Close) {
					EXPECT_EQ(result, fault.result) << fault.call_name << nth;
					EXPECT_EQ(*objects.out(), nullptr);
				} else {
					EXPECT_EQ(result, OSTREL_SUCCESS);
					EXPECT_EQ(objects.count(), 6000U);
				}
				if (!hit || HasFailure())
					break;
			}
		}
	}
}

TEST_F(FilesFaults, ShortReadsLoseNothing)
{
	scratch.write("db", "a=1;\tx=int32,1;\nb=2;\tx=int32,2;\nc=3;\tx=int32,3;");
	TestDb db(path);
	for (int length = 1; length < 50; length++) {
		Objects objects;
		FailNth shortened(FailNth::Read, 1, FailNth::Short, length);
		ASSERT_EQ(ostrel_read_objects_from_file(
			      db, nullptr, OSTREL_FLAG_WITH_PROPS, objects.out(), objects.out_count()),
		    OSTREL_SUCCESS);
		ASSERT_EQ(objects.count(), 3U) << length;
		for (unsigned int i = 0; i < 3; i++)
			EXPECT_EQ(show_object(objects[i]), "(" + std::string(1, static_cast<char>('a' + i)) + ":9[" +
							       std::to_string(i + 1) + "]) (x:13[" +
							       std::to_string(i + 1) + "])");
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
	for (bool raw : {false, true}) {
		for (const char *search : {"", "a=1"}) {
			if (raw && *search != '\0')
				continue;
			AttrList idlist = ids(search);
			sweep_allocations([] { return std::make_unique<Objects>(); },
			    [&](std::unique_ptr<Objects> &objects) {
				    return ostrel_read_objects_from_file_common(raw ? B_TRUE : B_FALSE, db,
					idlist.get(), OSTREL_FLAG_WITH_PROPS, objects->out(), objects->out_count());
			    },
			    [&](std::unique_ptr<Objects> &objects, ostrel_error_t result, bool failed) {
				    unsigned int expected = raw ? 154 : *search != '\0' ? 1 : 153;
				    EXPECT_EQ(result, failed ? OSTREL_NO_MEMORY : OSTREL_SUCCESS);
				    EXPECT_EQ(objects->count(), failed ? 0 : expected);
				    EXPECT_EQ(*objects->out() == nullptr, failed);
			    });
		}
	}
}

// ---- A full disk ----

// Runs the body on a file system of 64 KiB that this test alone sees; false if that may not be made.
static bool on_a_small_disk(const std::string &directory, const std::function<int()> &body, int *status)
{
	pid_t child = fork();
	if (child == 0) {
		if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
		    mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=64k,nr_inodes=8") != 0)
			_exit(77);
		_exit(body());
	}
	EXPECT_EQ(waitpid(child, status, 0), child);
	return *status != 77 << 8;
}

TEST_F(FilesFaults, AFullDiskFailsTheUpdateAndKeepsTheFile)
{
	int status = 0;
	bool ran = on_a_small_disk(
	    scratch.directory(),
	    [&] {
		    TestDb db(path);
		    std::string old = many_lines(700); // more than half of the disk
		    scratch.write("db", old);
		    if (ostrel_db_write(db, ids("a=1").get(), 0, props("x=int32,1").get()) != OSTREL_NO_MEMORY)
			    return 1;
		    if (file_text(path) != old)
			    return 2;
		    scratch.write("db", many_lines(10));
		    return ostrel_db_remove(db, ids("n=3").get(), 0) == OSTREL_SUCCESS ? 0 : 3;
	    },
	    &status);
	if (!ran)
		GTEST_SKIP() << "a mount namespace of its own needs root";
	EXPECT_EQ(status, 0) << "exit status " << WEXITSTATUS(status);
}

TEST_F(FilesFaults, AFileSizeLimitFailsTheUpdateAndKeepsTheFile)
{
	std::string old = many_lines(3000);
	scratch.write("db", old);
	pid_t child = fork();
	if (child == 0) {
		(void) signal(SIGXFSZ, SIG_IGN);
		rlimit small = {4096, 4096};
		TestDb db(path);
		if (setrlimit(RLIMIT_FSIZE, &small) != 0)
			_exit(1);
		_exit(ostrel_db_write(db, ids("a=1").get(), 0, props("").get()) == OSTREL_FAILURE ? 0 : 2);
	}
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
	EXPECT_EQ(file_text(path), old);
}

TEST_F(FilesFaults, ADirectoryThatMayBeWrittenButNotReadTakesUpdates)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "needs another user to be";
	scratch.write("db", "a=1;\t\n");
	ASSERT_EQ(chmod(scratch.directory().c_str(), 0333), 0);
	pid_t child = fork();
	if (child == 0) {
		if (setgid(65534) != 0 || setuid(65534) != 0)
			_exit(1);
		TestDb db(path);
		if (ostrel_db_write(db, ids("b=2").get(), 0, props("").get()) != OSTREL_SUCCESS)
			_exit(2);
		_exit(ostrel_db_remove(db, nullptr, 0) == OSTREL_SUCCESS ? 0 : 3);
	}
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
	ASSERT_EQ(chmod(scratch.directory().c_str(), 0700), 0);
	EXPECT_FALSE(scratch.has("db"));
}

TEST_F(FilesFaults, MissingRightsAreSaidSo)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "needs another user to be";
	scratch.write("db", "a=1;\t\n");
	ASSERT_EQ(chmod(scratch.directory().c_str(), 0755), 0);
	pid_t child = fork();
	if (child == 0) {
		if (setgid(65534) != 0 || setuid(65534) != 0)
			_exit(1);
		TestDb db(path);
		if (ostrel_db_write(db, ids("a=1").get(), 0, props("").get()) != OSTREL_EPERM)
			_exit(2);
		_exit(ostrel_db_remove(db, nullptr, 0) == OSTREL_EPERM ? 0 : 3);
	}
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
	EXPECT_EQ(file_text(path), "a=1;\t\n");
	EXPECT_FALSE(scratch.has("db.new"));
}

// ---- Readers beside a writer ----

// Both objects that an update changes at once, far apart in the file, and the number of lines between them.
static bool sees_one_version(ostrel_db_t db)
{
	Objects objects;
	if (ostrel_read_objects_from_file(db, nullptr, OSTREL_FLAG_WITH_PROPS, objects.out(), objects.out_count()) !=
	    OSTREL_SUCCESS)
		return false;
	if (objects.count() != 1602)
		return false;
	std::string first = show_object(objects[0]);
	std::string last = show_object(objects[objects.count() - 1]);
	return first.substr(first.find(' ')) == last.substr(last.find(' '));
}

TEST_F(FilesFaults, ReadersSeeWholeVersionsWhileAWriterUpdates)
{
	static constexpr int update_count = 1000;
	scratch.write("db", "v=x;\tn=int32,0;\n" + many_lines(1600) + "V=X;\tn=int32,0;\n");
	std::string text = file_text(path);
	text.replace(text.find("V=X"), 3, "v=X");
	scratch.write("db", text);
	TestDb db(path);
	pid_t reader = fork();
	if (reader == 0) {
		for (int i = 0; getppid() != 1 && i < 100000; i++) {
			if (!sees_one_version(db))
				_exit(1);
			if (access(scratch.path("done").c_str(), F_OK) == 0)
				_exit(0);
		}
		_exit(2);
	}
	std::atomic<bool> done = false;
	std::atomic<int> reads = 0;
	std::vector<std::thread> threads;
	for (int i = 0; i < 2; i++)
		threads.emplace_back([&] {
			while (!done) {
				EXPECT_TRUE(sees_one_version(db));
				reads++;
			}
		});
	for (int i = 1; i <= update_count; i++) {
		// Of differing length, so that a mixture of two versions couldn't look whole.
		std::string properties = "n=int32," + std::to_string(i) + ";s=string," + std::string(i % 300U, 's');
		EXPECT_EQ(ostrel_db_write(db, ids("v=x").get(), 0, props(properties).get()), OSTREL_SUCCESS);
	}
	done = true;
	scratch.write("done", "");
	for (std::thread &thread : threads)
		thread.join();
	int status = 0;
	ASSERT_EQ(waitpid(reader, &status, 0), reader);
	EXPECT_EQ(status, 0);
	EXPECT_GT(reads, 10);
}
