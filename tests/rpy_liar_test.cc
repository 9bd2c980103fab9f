// A daemon that lies to the repository's client: what it says is an error, and nothing waits for it for ever.
#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

#include "lying_daemon.h"
#include "repository.h"
#include "warped_clock.h"

namespace {

class RpyLiar : public testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_TRUE(liar.serve(place.path("hatch")));
		ASSERT_EQ(client.bind(place.path("hatch")), RPY_ERROR_NONE);
	}
	void TearDown() override { warp = 0; }

	Scratch place;
	LyingDaemon liar;
	RepositoryClient client;
};

TEST_F(RpyLiar, SharedRepliesThatAreNotSoundAreErrorsAndNeverGroupsOfOtherThreads)
{
	for (Lie lie : {Lie::none, Lie::bad_error, Lie::no_replies, Lie::too_long_a_reply, Lie::garbage}) {
		liar.lie = lie;
		std::atomic<int> failed{0}, wrong{0};
		std::vector<std::jthread> threads;
		for (int i = 0; i < 24; i++)
			threads.emplace_back([&, name = "g" + std::to_string(i)] {
				for (int round = 0; round < 5; round++) {
					Pg pg = client.group();
					char found[RPY_NAME_MAX] = "";
					if (rpy_instance_get_pg(client.instance, name.c_str(), pg.get()) == 0)
						wrong +=
						    rpy_pg_get_name(pg.get(), found, sizeof(found)) > 0 && name == found
							? 0
							: 1;
					else
						(rpy_error() == RPY_ERROR_INTERNAL ? failed : wrong)++;
				}
			});
		threads.clear();
		EXPECT_EQ(wrong, 0) << static_cast<int>(lie);
		EXPECT_EQ(failed > 0, lie == Lie::too_long_a_reply || lie == Lie::garbage) << static_cast<int>(lie);
	}
}

TEST_F(RpyLiar, AListingComesToAnEndThoughMoreAlwaysFollows)
{
	Iter groups(rpy_iter_create(client.handle));
	liar.lie = Lie::empty_pages;
	EXPECT_EQ(rpy_iter_instance_pgs(groups.get(), client.instance), -1);
	EXPECT_EQ(rpy_error(), RPY_ERROR_INTERNAL);
	liar.lie = Lie::endless_pages;
	warp = 1;
	EXPECT_EQ(rpy_iter_instance_pgs(groups.get(), client.instance), -1);
	EXPECT_EQ(rpy_error(), RPY_ERROR_CONNECTION_BROKEN);
}

// Each signal interrupts the wait, which goes on to the same end.
TEST_F(RpyLiar, SignalsMakeACallTakeNoLonger)
{
	struct sigaction action = {}, before;
	action.sa_handler = [](int) {};
	ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
	const itimerval often = {{0, 5000}, {0, 5000}}, never = {};
	liar.lie = Lie::slow;
	warp = 10;
	ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
	Pg pg = client.group();
	EXPECT_EQ(rpy_instance_get_pg(client.instance, "g", pg.get()), -1);
	EXPECT_EQ(rpy_error(), RPY_ERROR_CONNECTION_BROKEN);
	ASSERT_EQ(setitimer(ITIMER_REAL, &never, nullptr), 0);
	ASSERT_EQ(sigaction(SIGALRM, &before, nullptr), 0);
}

} // namespace
