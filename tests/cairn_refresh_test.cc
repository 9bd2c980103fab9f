// The snapshot "running" of an instance: when it is taken, and what ends the thread that takes it. The wall clock is the
// test's, and a pass comes each few milliseconds.
#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <thread>

#include "cairn_db.h"
#include "child.h"
#include "hatch_peer.h"

namespace {
std::atomic<time_t> wall_clock{1000};
} // namespace

// The library's clocks end up here. Periods of 5 s begin 4.99 s ago.
extern "C" int clock_gettime(clockid_t id, struct timespec *now) noexcept
{
	if (id == CLOCK_REALTIME) {
		*now = {wall_clock.load(), 0};
		return 0;
	}
	int result = static_cast<int>(syscall(SYS_clock_gettime, id, now, 0, 0, 0, 0));
	if (id == CLOCK_MONOTONIC) {
		now->tv_sec -= now->tv_nsec < 990'000'000 ? 5 : 4;
		now->tv_nsec += now->tv_nsec < 990'000'000 ? 10'000'000 : -990'000'000;
	}
	return result;
}

namespace {

constexpr useconds_t some_passes = 100'000;

class Refresh : public CairnTest {
protected:
	void SetUp() override
	{
		CairnTest::SetUp();
		ASSERT_EQ(client.bind(here.hatch()), RPY_ERROR_NONE);
	}
	// What the group "g" of the snapshot holds as "p"; "none" without a snapshot.
	std::string running()
	{
		Snap snapshot(rpy_snapshot_create(client.handle));
		if (rpy_instance_get_snapshot(client.instance, "running", snapshot.get()) != 0)
			return "none";
		Pg pg = client.group();
		if (rpy_snapshot_get_pg(snapshot.get(), "g", pg.get()) != 0)
			return "no group";
		Contents contents = client.contents(pg.get());
		return contents["p"].empty() ? "no value" : contents["p"][0];
	}
	bool becomes(const std::string &value)
	{
		return eventually([&] { return running() == value; });
	}

	// Runs something in a forked child, which may take some seconds.
	static int in_forked(const std::function<bool()> &body)
	{
		return in_child([&] {
			(void) signal(SIGALRM, SIG_DFL);
			alarm(20);
			return body() ? 0 : 1;
		});
	}

	RepositoryClient client;
};

TEST_F(Refresh, ABurstOfUpdatesIsFollowedByASnapshotAfterFiveQuietSeconds)
{
	for (const char *value : {"p=a", "p=b", "p=c"}) {
		ASSERT_EQ(put(db, "g:t", value), OSTREL_SUCCESS);
		usleep(some_passes);
		EXPECT_EQ(running(), "none");
		wall_clock += 2;
	}
	wall_clock += 2;
	usleep(some_passes);
	EXPECT_EQ(running(), "none") << "four seconds";
	wall_clock += 1;
	EXPECT_TRUE(becomes("c"));
	EXPECT_EQ(resources_of(db)->nsr_last_refresh, wall_clock.load());

	ASSERT_EQ(put(db, "g", "p=d"), OSTREL_SUCCESS) << "in the second of the snapshot";
	wall_clock += 5;
	EXPECT_TRUE(becomes("d"));
	ASSERT_EQ(drop(db, "g"), OSTREL_SUCCESS);
	wall_clock += 5;
	EXPECT_TRUE(becomes("no group"));
}

TEST_F(Refresh, ACloseTakesThePendingSnapshotAndNoOther)
{
	ASSERT_EQ(put(db, "g:t", "p=a"), OSTREL_SUCCESS);
	db.reset();
	EXPECT_EQ(running(), "a");
	Snap snapshot(rpy_snapshot_create(client.handle));
	ASSERT_EQ(rpy_instance_get_snapshot(client.instance, "running", snapshot.get()), 0);
	ASSERT_EQ(_rpy_snapshot_delete(snapshot.get()), 0);
	db = open_cairn();
	EXPECT_EQ(get(db, "g"), "g:t|p=a;");
	db.reset();
	EXPECT_EQ(running(), "none");
}

TEST_F(Refresh, UpdatesOfAServiceTakeNoSnapshot)
{
	ASSERT_EQ(put(db, "g:t;object-db-name=net/link", "p=a"), OSTREL_SUCCESS);
	EXPECT_EQ(resources_of(db)->nsr_last_tx, 0);
	ASSERT_EQ(put(db, "g:t", "p=b"), OSTREL_SUCCESS);
	ASSERT_EQ(put(db, "g;object-db-name=net/link", "p=c"), OSTREL_SUCCESS) << "doesn't hide the one before";
	wall_clock += 5;
	EXPECT_TRUE(becomes("b"));

	CairnDb service = open_cairn(test_service);
	EXPECT_EQ(resources_of(service)->nsr_refresh_thread, 0U);
	ASSERT_EQ(put(service, "g;object-db-name=net/link:default", "p=d"), OSTREL_SUCCESS);
	EXPECT_NE(resources_of(service)->nsr_last_tx, 0);
	wall_clock += 5;
	usleep(some_passes);
	service.reset();
	EXPECT_EQ(running(), "b");
}

// They share the flag, which any snapshot resets.
TEST_F(Refresh, ADatabaseThatWaitsGetsItsSnapshotBesideThoseOfAnother)
{
	Handle<rpy_instance_t, rpy_instance_destroy> second(rpy_instance_create(client.handle));
	ASSERT_EQ(rpy_service_add_instance(client.service, "second", second.get()), 0);
	CairnDb other = open_cairn("net/link:second");
	ASSERT_EQ(put(other, "g:t", "p=first"), OSTREL_SUCCESS);
	wall_clock += 3;
	ASSERT_EQ(put(db, "g:t", "p=a"), OSTREL_SUCCESS);
	wall_clock += 2;
	EXPECT_TRUE(eventually([&] { return resources_of(other)->nsr_last_refresh != 0; }));
	usleep(some_passes);
	EXPECT_EQ(running(), "none");
	wall_clock += 3;
	EXPECT_TRUE(becomes("a"));
}

TEST_F(Refresh, ACloseTakesThePendingSnapshotAlsoFromADaemonThatWasRestarted)
{
	ASSERT_EQ(put(db, "g:t", "p=a"), OSTREL_SUCCESS);
	ostrel_stop_refresh(resources_of(db)); // a pass would replace the connection
	here.restart();
	db.reset();
	ASSERT_EQ(client.bind(here.hatch()), RPY_ERROR_NONE);
	EXPECT_EQ(running(), "a");
}

// A pass that finds no daemon is the last of its thread, and the next operation's resources start another one.
TEST_F(Refresh, WhatWaitedOnABrokenConnectionIsTakenOnTheNext)
{
	ASSERT_EQ(put(db, "g:t", "p=a"), OSTREL_SUCCESS);
	here.restart();
	ASSERT_EQ(client.bind(here.hatch()), RPY_ERROR_NONE);
	EXPECT_EQ(get(db, "g"), "g:t|p=a;");
	wall_clock += 5;
	EXPECT_TRUE(becomes("a"));
	ASSERT_EQ(put(db, "g", "p=b"), OSTREL_SUCCESS);
	wall_clock += 5;
	EXPECT_TRUE(becomes("b")) << "the new resources have a thread";
}

TEST_F(Refresh, ACloseWaitsForAPassThatIsUnderWay)
{
	ASSERT_EQ(put(db, "g:t", "p=a"), OSTREL_SUCCESS);
	here.daemon.freeze();
	wall_clock += 5;
	ASSERT_TRUE(eventually([&] { return resources_of(db)->nsr_last_refresh != 0; }));
	std::atomic<bool> closed{false};
	std::jthread closing([&] {
		db.reset();
		closed = true;
	});
	usleep(some_passes);
	EXPECT_FALSE(closed);
	here.daemon.go_on();
	closing.join();
	EXPECT_EQ(running(), "a");
}

TEST_F(Refresh, AForkedChildUsesAndClosesADatabaseThoughTheThreadIsItsParents)
{
	ASSERT_EQ(put(db, "g:t", "p=parent"), OSTREL_SUCCESS);
	EXPECT_EQ(in_forked([&] {
		const bool is_written = put(db, "g", "p=child") == OSTREL_SUCCESS;
		db.reset();
		return is_written;
	}),
	    0);
	EXPECT_EQ(running(), "child");
	EXPECT_EQ(get(db, "g"), "g:t|p=child;");
}

TEST_F(Refresh, AProgramThatForksIntoTheBackgroundGetsItsSnapshots)
{
	StayingChild child([&] {
		const bool is_written = put(db, "g:t", "p=child") == OSTREL_SUCCESS;
		wall_clock += 5;
		return is_written;
	});
	ASSERT_GT(child.pid(), 0);
	EXPECT_TRUE(becomes("child"));
}

TEST_F(Refresh, AForkedChildReplacesBrokenConnectionsAndItsThreadsAsItsParentDoes)
{
	ASSERT_EQ(put(db, "g:t", "p=parent"), OSTREL_SUCCESS);
	EXPECT_EQ(in_forked([&] {
		for (const char *value : {"p=1", "p=2", "p=3"}) {
			here.restart();
			if (put(db, "g", value) != OSTREL_SUCCESS || resources_of(db)->nsr_refresh_thread == 0)
				return false;
			usleep(some_passes);
		}
		db.reset();
		return true;
	}),
	    0);
	if (const pid_t last = server_of(here.hatch()); last > 0)
		(void) kill(last, SIGKILL); // the child's
}

// A pass replaces a broken connection with the lock held, and the new daemon takes its time.
TEST_F(Refresh, AForkedChildWaitsForNoLockThatItsParentsThreadHeld)
{
	ASSERT_EQ(put(db, "g:t", "p=1"), OSTREL_SUCCESS);
	{
		RpyLock lock(db.get()); // no pass finds no daemon at all
		here.restart();
		here.daemon.freeze();
		wall_clock += 10;
	}
	auto is_held = [&] {
		const bool is_free = db->db_privlock.try_lock();
		if (is_free)
			db->db_privlock.unlock();
		return !is_free;
	};
	ASSERT_TRUE(eventually([&] {
		const bool was_held = is_held();
		usleep(some_passes);
		return was_held && is_held();
	}));
	EXPECT_EQ(in_forked([&] {
		here.daemon.go_on();
		const bool reads = get(db, "g") == "g:t|p=1;";
		db.reset();
		return reads;
	}),
	    0);
	here.daemon.go_on();
}

TEST_F(Refresh, AForkedChildHasAPoolOfItsOwn)
{
	ASSERT_EQ(put(db, "g:t", "p=1"), OSTREL_SUCCESS);
	std::vector<std::unique_ptr<RpyOperation>> readers; // as if so many threads were reading
	for (int i = 0; i < OSTREL_RPY_MAX_READERS; i++) {
		readers.push_back(std::make_unique<RpyOperation>(db.get()));
		ASSERT_EQ(readers.back()->begin_read(nullptr), OSTREL_SUCCESS);
	}
	EXPECT_EQ(in_forked([&] { return get(db, "g") == "g:t|p=1;"; }), 0);
}

TEST_F(Refresh, PassesRunBesideUpdatesWalksAndALostDaemon)
{
	std::jthread ticking([](const std::stop_token &stop) {
		for (; !stop.stop_requested(); usleep(3000))
			wall_clock += 3;
	});
	std::jthread walking([&](const std::stop_token &stop) {
		while (!stop.stop_requested())
			(void) walk(db, "*");
	});
	int lost = 0;
	for (int i = 0; i < 300; i++) {
		if (i % 100 == 50)
			here.restart();
		lost += put(db, "g:t", "p=" + std::to_string(i)) != OSTREL_SUCCESS;
		lost += put(db, "s:t;object-db-name=net/link", "p=1") != OSTREL_SUCCESS;
	}
	ticking = {};
	walking = {};
	EXPECT_LE(lost, 3);
	EXPECT_EQ(put(db, "g", "p=end"), OSTREL_SUCCESS);
	wall_clock += 5;
	ASSERT_EQ(client.bind(here.hatch()), RPY_ERROR_NONE);
	EXPECT_TRUE(becomes("end"));
	EXPECT_EQ(get(db, "s"), "? object not found") << "no update went to another level";
}

} // namespace
