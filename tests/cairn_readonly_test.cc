// A repository whose store can't be written for a while: updates succeed at once and land later. A second is short here.
#include <atomic>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include "cairn_db.h"
#include "hatch_peer.h"

namespace {
std::atomic<int> seconds_slept;
} // namespace

extern "C" unsigned int sleep(unsigned int)
{
	usleep(20000);
	seconds_slept++;
	return 0;
}

namespace {

using ReadOnly = CairnTest;

TEST_F(ReadOnly, UpdatesSucceedAtOnceAndLandWhenTheStoreCanBeWrittenAgain)
{
	const Scratch place("/dev/shm");
	const MemoryMount store(place);
	if (!store.good)
		GTEST_SKIP() << "needs the privilege to mount";
	// A second after its last update the daemon has nothing open for writing.
	auto set = [&](unsigned long flags) {
		return eventually([&] { return store.set(MS_REMOUNT | flags, nullptr); });
	};
	auto becomes = [&](const char *group, const std::string &expected) {
		return eventually([&] { return get(db, group) == expected; });
	};
	db.reset();
	here.daemon.stop();
	here.daemon.files = store.path;
	here.start();
	ASSERT_EQ(RepositoryClient(here.hatch()).find(), RPY_ERROR_NONE);
	db = open_cairn();
	ASSERT_EQ(put(db, "old:t", "p=1"), OSTREL_SUCCESS);
	ASSERT_EQ(put(db, "moving:t", "p=1"), OSTREL_SUCCESS);

	ASSERT_TRUE(set(MS_RDONLY));
	EXPECT_EQ(put(db, "new/x:t/u", "p=2"), OSTREL_SUCCESS);
	EXPECT_EQ(put(db, "old", "p=2"), OSTREL_SUCCESS);
	EXPECT_EQ(move(db, "moving", "moved:t"), OSTREL_SUCCESS);
	EXPECT_EQ(get(db, "old"), "old:t|p=1;") << "reads go on";
	const int three_of_each = seconds_slept + 9;
	EXPECT_TRUE(eventually([&] { return seconds_slept >= three_of_each; }));
	EXPECT_EQ(get(db, "new"), "? object not found");
	EXPECT_EQ(get(db, "moving"), "moving:t|p=1;");
	ASSERT_TRUE(set(0));
	EXPECT_TRUE(becomes("new/x", "new/x:t/u|p=2;"));
	EXPECT_TRUE(becomes("old", "old:t|p=2;"));
	EXPECT_TRUE(becomes("moved", "moved:t|p=1;"));
	EXPECT_TRUE(becomes("moving", "? object not found"));
	usleep(100000);
	const int slept = seconds_slept;
	usleep(100000);
	EXPECT_EQ(seconds_slept, slept) << "no attempt follows";
	db.reset();
	here.daemon.kill();
}

} // namespace
