// Several writers of one flat file, each with its own object, beside others that write what is refused: whatever ends them,
// none loses an update, and none fails for another's sake.
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include "line_lists.h"
#include "scratch.h"
#include "test_enclave.h"

namespace {

constexpr int writers = 6;

// Shared by all processes. An update between `begun` and `done` may have landed or not when its writer was killed.
struct Progress {
	std::atomic<int> begun[writers];
	std::atomic<int> done[writers];
	std::atomic<int> wrong;
};

class FilesWriters : public testing::Test {
protected:
	using Open = std::function<ostrel_db_t(int writer)>;

	void SetUp() override
	{
		void *memory =
		    mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
		ASSERT_NE(memory, MAP_FAILED);
		progress = static_cast<Progress *>(memory);
	}
	void TearDown() override { (void) munmap(progress, sizeof(Progress)); }

	static int stored(ostrel_db_t db, attrlist_t *id)
	{
		attrlist_t *found = nullptr;
		int32_t value = 0;
		ostrel_error_t result = ostrel_db_read(db, id, 0, &found);
		AttrList owned(found);
		if (result == OSTREL_SUCCESS)
			result = ostrel_errno2error(ostrel_atl_get_one_int32(found, "x", &value));
		return result == OSTREL_SUCCESS || result == OSTREL_NOT_FOUND ? value : -1;
	}

	void count_up(ostrel_db_t db, int writer, int updates)
	{
		AttrList id = ids("w=" + std::to_string(writer));
		AttrList split;
		if (attrlist_alloc(split.out(), ATL_UNIQUE_NAME, 0) != 0 ||
		    attrlist_add_string(split.get(), "s", "two\nlines") != 0)
			_exit(1);
		// What is stored counts: a kill may come before the last one is.
		for (int value; (value = stored(db, id.get())) < updates;) {
			if (value != progress->done[writer] && value != progress->begun[writer])
				progress->wrong++;
			progress->done[writer] = value;
			int next = progress->begun[writer] = value + 1;
			if (ostrel_db_write(db, id.get(), 0, split.get()) != OSTREL_INVALID_ARG)
				progress->wrong++;
			if (ostrel_db_write(db, id.get(), 0, props("x=int32," + std::to_string(next)).get()) !=
			    OSTREL_SUCCESS)
				progress->wrong++;
			progress->done[writer] = next;
		}
	}

	pid_t start(const Open &open, int writer, int updates)
	{
		pid_t child = fork();
		if (child != 0)
			return child;
		ostrel_db_t db = open(writer);
		count_up(db, writer, updates);
		_exit(0);
	}

	// All writers go to the end, though `kills` times one of them is killed.
	void run(const Open &open, int updates, int kills)
	{
		pid_t child[writers];
		for (int i = 0; i < writers; i++)
			child[i] = start(open, i, updates);
		for (int i = 0; i < kills; i++) {
			(void) usleep(static_cast<useconds_t>(500 + 7919 * i % 3000));
			(void) kill(child[i % writers], SIGKILL);
			ASSERT_EQ(waitpid(child[i % writers], nullptr, 0), child[i % writers]);
			child[i % writers] = start(open, i % writers, updates);
		}
		for (pid_t each : child) {
			int status = -1;
			ASSERT_EQ(waitpid(each, &status, 0), each);
			EXPECT_EQ(status, 0);
		}
		EXPECT_EQ(progress->wrong, 0);
	}

	static std::string expected(const std::string &others, int updates)
	{
		std::string text = others;
		for (int i = 0; i < writers; i++)
			text += "w=" + std::to_string(i) + ";\tx=int32," + std::to_string(updates) + ";\n";
		return text;
	}

	Progress *progress = nullptr;
};

std::string bystanders(const std::string &with)
{
	std::string text;
	for (int i = 0; i < 100; i++)
		text += "other=" + std::to_string(i) + ";\tx=string,some text;\n";
	return text + with;
}

} // namespace

TEST_F(FilesWriters, NoUpdateIsLostHoweverItsWriterEnds)
{
	Scratch scratch;
	std::string path = scratch.write("db", bystanders(expected("", 0)));
	run(
	    [&](int) {
		    ostrel_db_t db = nullptr;
		    return ostrel_db_open(path.c_str(), 0, ostrel_files_db_cmds, 0, &db) == OSTREL_SUCCESS ? db
													   : nullptr;
	    },
	    40, 30);
	EXPECT_EQ(file_text(path), bystanders(expected("", 40)));
}

// One half of the writers reach the file through its enclave.
TEST_F(FilesWriters, UpdatesThroughAnEnclaveTakeTurnsWithOthers)
{
	SKIP_WITHOUT_ENCLAVES();
	TestEnclave enclave(fullest_enclave());
	enclave.write("/db", bystanders(expected("", 0)));
	run(
	    [&](int writer) {
		    ostrel_db_t db = nullptr;
		    std::string path = writer % 2 == 0 ? "/db" : enclave.host_path("/db");
		    enclaveid_t id = writer % 2 == 0 ? enclave.id() : 0;
		    return ostrel_db_open(path.c_str(), id, ostrel_files_db_cmds, 0, &db) == OSTREL_SUCCESS ? db
													    : nullptr;
	    },
	    12, 12);
	EXPECT_EQ(enclave.read("/db"), bystanders(expected("", 12)));
}

// An update that was planned before another one is planned anew: two handles of one process, too, and a removal of all.
TEST_F(FilesWriters, WhatIsHeldIsWaitedForAndReadAgain)
{
	Scratch scratch;
	std::string path = scratch.write("db", "a=1;\t\nb=1;\t\n");
	int held = open((path + ".new").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
	struct flock lock = {};
	lock.l_type = F_WRLCK;
	ASSERT_EQ(fcntl(held, F_OFD_SETLK, &lock), 0);
	struct Waiting {
		ostrel_error_t (*update)(ostrel_db_t db);
		ostrel_error_t result;
	};
	static constexpr Waiting waiting[] = {
	    {[](ostrel_db_t db) { return ostrel_db_write(db, ids("c=1").get(), 0, props("").get()); }, OSTREL_SUCCESS},
	    {[](ostrel_db_t db) { return ostrel_db_remove(db, ids("a=1").get(), 0); }, OSTREL_NOT_FOUND},
	};
	std::vector<pid_t> children;
	for (const Waiting &each : waiting) {
		pid_t child = fork();
		if (child == 0) {
			(void) close(held);
			_exit(each.update(TestDb(path)) == each.result ? 0 : 1);
		}
		children.push_back(child);
	}
	(void) usleep(20000); // enough for them to have read the old file; if not, they have less to do
	EXPECT_EQ(file_text(path), "a=1;\t\nb=1;\t\n");
	ASSERT_EQ(::write(held, "b=1;\t\n", 6), 6);
	ASSERT_EQ(rename((path + ".new").c_str(), path.c_str()), 0);
	(void) close(held);
	for (pid_t child : children) {
		int status = -1;
		ASSERT_EQ(waitpid(child, &status, 0), child);
		EXPECT_EQ(status, 0);
	}
	EXPECT_EQ(file_text(path), "b=1;\t\nc=1;\t\n");
	EXPECT_FALSE(scratch.has("db.new"));
}
