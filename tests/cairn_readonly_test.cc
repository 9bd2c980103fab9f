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

// The store lies on a file system of the test's own.
class ReadOnly : public CairnTest {
protected:
	void SetUp() override
	{
		if (!store.good)
			GTEST_SKIP() << "needs the privilege to mount";
		here.daemon.stop();
		here.daemon.files = store.path;
		here.start();
		RepositoryClient maker(here.hatch());
		ASSERT_EQ(maker.find(), RPY_ERROR_NONE);
		CairnTest::SetUp();
		ASSERT_EQ(put(db, "old:t", "p=1"), OSTREL_SUCCESS);
		ASSERT_EQ(put(db, "moving:t", "p=1"), OSTREL_SUCCESS);
	}
	void TearDown() override
	{
		db.reset();
		here.daemon.kill();
	}
	// A second after its last update the daemon has nothing open for writing.
	bool set_readonly(bool value)
	{
		const unsigned long flags = MS_REMOUNT | (value ? MS_RDONLY : 0);
		return eventually([&] { return store.set(flags, nullptr); });
	}
	bool becomes(const std::string &group, const std::string &expected)
	{
		return eventually([&] { return get(db, group) == expected; });
	}
	static bool passes(int seconds)
	{
		const int end = seconds_slept + seconds;
		return eventually([&] { return seconds_slept >= end; });
	}

	Scratch place{"/dev/shm"};
	MemoryMount store{place};
};

TEST_F(ReadOnly, UpdatesSucceedAtOnceAndLandWhenTheStoreCanBeWrittenAgain)
{
	ASSERT_TRUE(set_readonly(true));
	EXPECT_EQ(put(db, "new/x:t/u", "p=2"), OSTREL_SUCCESS);
	EXPECT_EQ(put(db, "old", "p=2"), OSTREL_SUCCESS);
	EXPECT_EQ(move(db, "moving", "moved:t"), OSTREL_SUCCESS);
	EXPECT_EQ(get(db, "old"), "old:t|p=1;") << "reads go on";
	EXPECT_TRUE(passes(9)) << "three of each";
	EXPECT_EQ(get(db, "new"), "? object not found");
	EXPECT_EQ(get(db, "moving"), "moving:t|p=1;");
	ASSERT_TRUE(set_readonly(false));
	EXPECT_TRUE(becomes("new/x", "new/x:t/u|p=2;"));
	EXPECT_TRUE(becomes("old", "old:t|p=2;"));
	EXPECT_TRUE(becomes("moved", "moved:t|p=1;"));
	EXPECT_TRUE(becomes("moving", "? object not found"));
	usleep(100000);
	const int slept = seconds_slept;
	usleep(100000);
	EXPECT_EQ(seconds_slept, slept) << "no attempt follows";
}

} // namespace
