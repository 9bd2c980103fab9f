// Several writers of one flat file, each with its own object, which also try what is refused: whatever ends them, none loses an
// update, and none fails because of another.
#include <array>
#include <atomic>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <thread>

#include "hatch_peer.h"
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

// Where a writer finds the file; every other one uses the second.
struct Address {
	std::string path;
	enclaveid_t enclave;
};
using Addresses = std::array<Address, 2>;

std::string file_with(int value)
{
	std::string text; // more than a read takes at once, so that a mixture of two versions shows
	for (int i = 0; i < 3000; i++)
		text += "other=" + std::to_string(i) + ";\tx=string,some text;\n";
	for (int i = 0; i < writers; i++)
		text += "w=" + std::to_string(i) + ";\tx=int32," + std::to_string(value) + ";\n";
	return text;
}

int stored(ostrel_db_t db, attrlist_t *id)
{
	AttrList found;
	int32_t value = -1;
	if (ostrel_db_read(db, id, 0, found.out()) == OSTREL_SUCCESS)
		(void) ostrel_atl_get_one_int32(found.get(), "x", &value); // stays -1
	return value;
}

// What is stored counts: a kill may come before the last update is.
void count_up(Progress *progress, ostrel_db_t db, int writer, int updates)
{
	AttrList id = ids("w=" + std::to_string(writer));
	AttrList refused = props_of("s=two\nlines");
	for (int value; (value = stored(db, id.get())) < updates;) {
		progress->wrong += value != progress->done[writer] && value != progress->begun[writer];
		progress->done[writer] = value;
		int next = progress->begun[writer] = value + 1;
		AttrList counted = props("x=int32," + std::to_string(next));
		progress->wrong += ostrel_db_write(db, id.get(), 0, refused.get()) != OSTREL_INVALID_ARG;
		progress->wrong += ostrel_db_write(db, id.get(), 0, counted.get()) != OSTREL_SUCCESS;
		progress->done[writer] = next;
	}
}

// All writers count to `updates`, though `kills` times one of them is killed and begins again.
void run_writers(const Addresses &addresses, int updates, int kills)
{
	void *memory = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
	ASSERT_NE(memory, MAP_FAILED);
	Progress *progress = static_cast<Progress *>(memory);
	auto start = [&](int writer) {
		return Process([&] {
			const Address &address = addresses[static_cast<size_t>(writer) % 2];
			count_up(progress, TestDb(address.path, 0, address.enclave), writer, updates);
			return 0;
		});
	};
	std::vector<Process> running;
	for (int i = 0; i < writers; i++)
		running.push_back(start(i));
	for (int i = 0; i < kills; i++) {
		(void) usleep(static_cast<useconds_t>(500 + 7919 * i % 3000));
		running[static_cast<size_t>(i % writers)].kill();
		running[static_cast<size_t>(i % writers)] = start(i % writers);
	}
	for (Process &each : running)
		EXPECT_EQ(each.wait(), 0);
	EXPECT_EQ(progress->wrong, 0);
	(void) munmap(memory, sizeof(Progress));
}

} // namespace

TEST(FilesWriters, NoUpdateIsLostHoweverItsWriterEnds)
{
	Scratch scratch;
	std::string path = scratch.write("db", file_with(0));
	run_writers({{{path, 0}, {path, 0}}}, 40, 30);
	EXPECT_EQ(file_text(path), file_with(40));
}

TEST(FilesWriters, UpdatesThroughAnEnclaveTakeTurnsWithOthers)
{
	SKIP_WITHOUT_ENCLAVES();
	TestEnclave enclave(fullest_enclave());
	enclave.write("/db", file_with(0));
	run_writers({{{"/db", enclave.id()}, {enclave.host_path("/db"), 0}}}, 12, 12);
	EXPECT_EQ(enclave.read("/db"), file_with(12));
}

// Two handles of one process wait for the lock. What they decided is decided again on the file that is there then.
TEST(FilesWriters, WhatIsHeldIsWaitedForAndReadAgain)
{
	Scratch scratch;
	std::string path = scratch.write("db", "a=1;\t\nb=1;\t\n");
	Fd held(open((path + ".new").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
	struct flock lock = {};
	lock.l_type = F_WRLCK;
	ASSERT_EQ(fcntl(held.get(), F_OFD_SETLK, &lock), 0);
	std::thread writer(
	    [&] { EXPECT_EQ(ostrel_db_write(TestDb(path), ids("c=1").get(), 0, props("").get()), OSTREL_SUCCESS); });
	std::thread remover([&] { EXPECT_EQ(ostrel_db_remove(TestDb(path), ids("a=1").get(), 0), OSTREL_NOT_FOUND); });
	(void) usleep(20000); // enough for them to have read the old file; if not, they have less to do
	EXPECT_EQ(file_text(path), "a=1;\t\nb=1;\t\n");
	EXPECT_EQ(::write(held.get(), "b=1;\t\n", 6), 6);
	EXPECT_EQ(rename((path + ".new").c_str(), path.c_str()), 0);
	held.reset();
	writer.join();
	remover.join();
	EXPECT_EQ(file_text(path), "b=1;\t\nc=1;\t\n");
	EXPECT_FALSE(scratch.has("db.new"));
}
