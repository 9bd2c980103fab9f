// The snapshot "running" of an instance: when it is taken, and what ends the thread that takes it. The wall clock is the
// test's, and a pass comes each few milliseconds.
#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <thread>

#include "cairn_steps.h"
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

class Refresh : public CairnStepsTest {
protected:
	void SetUp() override
	{
		CairnTest::SetUp();
		ASSERT_EQ(client.bind(here.hatch()), RPY_ERROR_NONE);
		verbs["clock"] = [](Text seconds, Text) { return wall_clock += atoi(seconds.c_str()), text_of(true); };
		verbs["wait"] = [](Text, Text) { return usleep(some_passes), text_of(true); };
		verbs["running"] = [this](Text, Text) { return running(); };
		verbs["becomes"] = [this](Text value, Text) { return text_of(becomes(value)); };
		verbs["forget"] = [this](Text, Text) { return text_of(forget_running()); };
		verbs["close"] = [this](Text, Text) { return db.reset(), text_of(true); };
		verbs["stop-passes"] = [this](
					   Text, Text) { return ostrel_stop_refresh(resources_of(db)), text_of(true); };
		verbs["restart"] = [this](Text, Text) {
			here.restart();
			return text_of(client.bind(here.hatch()) == RPY_ERROR_NONE);
		};
		verbs["refreshed"] = [this](Text, Text) {
			const time_t last = resources_of(db)->nsr_last_refresh;
			return last == 0 ? "never" : last == wall_clock ? "now" : "before";
		};
		verbs["pending"] = [this](Text, Text) { return resources_of(db)->nsr_last_tx != 0 ? "yes" : "no"; };
		verbs["thread"] = [this](
				      Text, Text) { return resources_of(db)->nsr_refresh_thread != 0 ? "yes" : "no"; };
	}
	// What the group "g" of the snapshot holds as "p"; "none" without a snapshot.
	std::string running()
	{
		Snap snapshot(rpy_snapshot_create(client.handle));
		if (rpy_instance_get_snapshot(client.instance, "running", snapshot.get()) != 0)
			return "none";
		Pg pg = client.group();
		if (rpy_snapshot_get_pg(snapshot.get(), "g", pg.get()) != 0)
			return "no-group";
		Contents contents = client.contents(pg.get());
		return contents["p"].empty() ? "no value" : contents["p"][0];
	}
	bool forget_running()
	{
		Snap snapshot(rpy_snapshot_create(client.handle));
		return rpy_instance_get_snapshot(client.instance, "running", snapshot.get()) == 0 &&
		       _rpy_snapshot_delete(snapshot.get()) == 0;
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

const bool steps = register_steps<Refresh>("Refresh", "refresh.txt");

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
	std::vector<std::unique_ptr<RpyOperation>> readers; // as if so many threads were reading: the child has its own
	for (int i = 0; i < OSTREL_RPY_MAX_READERS; i++) {
		readers.push_back(std::make_unique<RpyOperation>(db.get()));
		ASSERT_EQ(readers.back()->begin_read(nullptr), OSTREL_SUCCESS);
	}
	EXPECT_EQ(in_forked([&] {
		const bool is_written = put(db, "g", "p=child") == OSTREL_SUCCESS;
		const bool is_read = get(db, "g") == "g:t|p=child;";
		db.reset();
		return is_written && is_read;
	}),
	    0);
	readers.clear();
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

// A pass replaces a broken connection with the lock held, and the new daemon takes its time.
TEST_F(Refresh, AForkedChildWaitsForNoLockThatItsParentsThreadHeldAndReplacesConnections)
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
		bool is_good = get(db, "g") == "g:t|p=1;";
		for (const char *value : {"p=2", "p=3"}) {
			here.restart();
			is_good = is_good && put(db, "g", value) == OSTREL_SUCCESS;
			is_good = is_good && resources_of(db)->nsr_refresh_thread != 0; // the child's own
			usleep(some_passes);
		}
		db.reset();
		return is_good;
	}),
	    0);
	here.daemon.go_on();
	if (const pid_t last = server_of(here.hatch()); last > 0)
		(void) kill(last, SIGKILL); // the child's
}

// Passes run beside them all the time.
TEST_F(Refresh, ManyThreadsOnOneHandleSeeWholeObjects)
{
	constexpr int objects = 8, rounds = 20;
	auto name = [](int i) { return "g" + std::to_string(i % objects); };
	for (int i = 0; i < objects; i++)
		ASSERT_EQ(put(db, name(i) + ":t", "a=0;b=0"), OSTREL_SUCCESS);
	std::atomic<int> bad{0};
	auto in_threads = [&](int count, auto body) {
		std::vector<std::jthread> threads;
		for (int t = 0; t < count; t++)
			threads.emplace_back([&, t, body] {
				for (int i = 0; i < rounds; i++)
					bad += body(t, i) ? 0 : 1;
			});
		return threads;
	};
	std::jthread ticking([](const std::stop_token &stop) {
		for (; !stop.stop_requested(); usleep(3000))
			wall_clock += 3;
	});
	auto readers = in_threads(40, [&](int t, int i) {
		const std::string found = get(db, name(t + i)), a = found.substr(found.find('|') + 3);
		const std::string value = a.substr(0, a.find(';'));
		return found == name(t + i) + ":t|a=" + value + ";b=" + value + ";";
	});
	auto walkers =
	    in_threads(2, [&](int, int) { return walk(db, "t").size() == static_cast<size_t>(objects * 5); });
	CairnDb other = open_cairn(); // whose commits overtake the others'
	auto writers = in_threads(4, [&](int t, int i) {
		const std::string value = std::to_string(t * rounds + i);
		return put(t % 2 == 0 ? db : other, name(i), "a=" + value + ";b=" + value) == OSTREL_SUCCESS &&
		       put(db, "s:t;object-db-name=net/link", "p=1") == OSTREL_SUCCESS;
	});
	readers.clear();
	walkers.clear();
	writers.clear();
	ticking = {};
	EXPECT_EQ(bad, 0);
	EXPECT_TRUE(eventually([&] { return resources_of(db)->nsr_refcnt == 1U; }));
	EXPECT_EQ(get(db, "s;object-db-name=net/link"), "s:t|p=1;");
	EXPECT_EQ(get(db, "s"), "? object not found") << "no update went to another level";
}

} // namespace
