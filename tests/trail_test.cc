// The audit trail's interface and the raising of its privilege, for themselves.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include <meridon/elevate.h>
#include <meridon/trail.h>

#include "capabilities.h"
#include "child.h"
#include "kernel_audit.h"

namespace {

// Runs in a child whose status is 1 if an expectation failed there.
int expect_in_child(const std::function<void()> &run)
{
	return in_child([&] {
		run();
		return testing::Test::HasFailure() ? 1 : 0;
	});
}

class Elevate : public testing::Test {
protected:
	void SetUp() override { SKIP_UNLESS_ROOT(); }
};

TEST_F(Elevate, RaisesOnThisThreadAloneAndPutsBack)
{
	EXPECT_EQ(expect_in_child([] {
		keep_audit_write(CapSets::Permitted); // as a program with a file capability begins
		const std::string before = capability_sets();
		std::atomic<int> turn = 0;
		std::string of_other;
		std::thread other([&] {
			turn.wait(0);
			of_other = capability_sets();
		});
		elevate_state_t outer, inner;
		EXPECT_NE(__elevate_if_available("proc_audit", &outer), 0);
		EXPECT_TRUE(has_audit_write());
		turn = 1;
		turn.notify_all();
		other.join();
		EXPECT_EQ(of_other, before);
		EXPECT_NE(__elevate_if_available("proc_audit", &inner), 0);
		__elevate_restore(inner);
		EXPECT_TRUE(has_audit_write()) << "the inner one has raised nothing";
		__elevate_restore(outer);
		EXPECT_EQ(capability_sets(), before);
	}),
	    0);
}

TEST_F(Elevate, LeavesAPrivilegeThatWasInEffectAndRefusesWhatMayNotBeHeld)
{
	elevate_state_t state = 99;
	const std::string full = capability_sets();
	EXPECT_NE(__elevate_if_available("proc_audit", &state), 0);
	EXPECT_EQ(state, 0);
	__elevate_restore(state);
	EXPECT_EQ(capability_sets(), full);
	EXPECT_EQ(__elevate_if_available("proc_everything", &state), 0);
	EXPECT_EQ(__elevate_if_available(nullptr, &state), 0);
	EXPECT_EQ(__elevate_if_available("proc_audit", nullptr), 0);
	EXPECT_EQ(expect_in_child([&] {
		keep_audit_write(CapSets::None);
		const std::string none = capability_sets();
		state = 99;
		EXPECT_EQ(__elevate_if_available("proc_audit", &state), 0);
		EXPECT_EQ(state, 0);
		__elevate_restore(state);
		EXPECT_EQ(capability_sets(), none);
	}),
	    0);
}

// A session with a user, and its data for one event; errors in between fail the test.
struct Session {
	trl_session_data_t *session = nullptr;
	trl_event_data_t *data = nullptr;
	std::string file = "links.db", name = "name=eth0;";

	explicit Session(trl_event_t event = TRL_ostrel_update)
	{
		EXPECT_EQ(trl_start_session(&session, nullptr, 0), 0) << strerror(errno);
		EXPECT_EQ(trl_set_user(session, 1, 2, 3, 4, nullptr, TRL_NEW), 0);
		data = trl_alloc_event(session, event);
		EXPECT_NE(data, nullptr);
		trl_object_t &object = event == TRL_ostrel_remove ? data->trl_ostrel_remove : data->trl_ostrel_update;
		object = {file.data(), name.data()};
	}
	~Session()
	{
		trl_free_event(data);
		EXPECT_EQ(trl_end_session(session), 0);
	}
	int put(int status, int retval) { return trl_put_event(data, status, retval); }
};

class Trail : public testing::Test {
protected:
	void SetUp() override { SKIP_WITHOUT_KERNEL_AUDIT(); }

	static int error_of(int result) { return result == 0 ? 0 : errno; }
};

TEST_F(Trail, TellsOfWrongUse)
{
	trl_session_data_t *session = nullptr;
	EXPECT_EQ(error_of(trl_start_session(nullptr, nullptr, 0)), EINVAL);
	EXPECT_EQ(error_of(trl_start_session(&session, &session, 0)), EINVAL);
	EXPECT_EQ(error_of(trl_start_session(&session, nullptr, 1)), EINVAL);
	EXPECT_EQ(session, nullptr);
	ASSERT_EQ(trl_start_session(&session, nullptr, 0), 0);
	EXPECT_EQ(error_of(trl_set_user(nullptr, 0, 0, 0, 0, nullptr, TRL_NEW)), EINVAL);
	EXPECT_EQ(error_of(trl_set_user(session, 0, 0, 0, 0, nullptr, TRL_NEW + 1)), EINVAL);
	EXPECT_EQ(trl_alloc_event(nullptr, TRL_ostrel_update), nullptr);
	for (trl_event_t event : std::initializer_list<trl_event_t>{0, 133, 136, 65535})
		EXPECT_EQ(trl_alloc_event(session, event), nullptr) << event;
	EXPECT_EQ(error_of(trl_put_event(nullptr, TRL_SUCCESS, 0)), EINVAL);
	trl_event_data_t *data = trl_alloc_event(session, TRL_ostrel_update);
	EXPECT_EQ(error_of(trl_put_event(data, TRL_SUCCESS, 0)), EINVAL) << "nobody did it";
	trl_free_event(data);
	trl_free_event(nullptr);
	EXPECT_EQ(trl_end_session(session), 0);
	EXPECT_EQ(trl_end_session(nullptr), 0);
}

TEST_F(Trail, WritesTheRealIdsAndTheNumbersAsTheyAre)
{
	KernelAudit audit;
	{
		Session session(TRL_ostrel_remove);
		EXPECT_EQ(trl_set_user(session.session, 1, 2, 4'294'967'294U, 3'000'000'000U, nullptr, TRL_NEW), 0);
		session.data->trl_ostrel_remove = {nullptr, nullptr};
		EXPECT_EQ(session.put(-2'147'483'647 - 1, 2'147'483'647), 0);
	}
	const std::vector<AuditRecord> found = audit.records();
	ASSERT_EQ(found.size(), 1U);
	EXPECT_NE(
	    found[0].raw.find("msg='op=ostrel_remove event=135 parent_file=\"\" object_name=\"\" "
			      "subj_uid=4294967294 subj_gid=3000000000 status=-2147483648 retval=2147483647 exe="),
	    std::string::npos)
	    << found[0].raw;
	EXPECT_EQ(found[0]["res"], "failed");
}

TEST_F(Trail, ARecordThatIsTooLongIsRefusedWhole)
{
	KernelAudit audit;
	Session session;
	std::string name(TRL_TEXT_MAX, 'x');
	session.data->trl_ostrel_update = {name.data(), nullptr};
	while (session.put(TRL_SUCCESS, 7) != 0) {
		ASSERT_EQ(errno, EMSGSIZE);
		ASSERT_FALSE(name.empty());
		name.pop_back();
	}
	const std::vector<AuditRecord> found = audit.records();
	ASSERT_EQ(found.size(), 1U);
	EXPECT_EQ(found[0].raw.find(" exe=") - found[0].raw.find("op="), TRL_TEXT_MAX);
	EXPECT_EQ(found[0]["parent_file"], name);
	EXPECT_EQ(found[0]["retval"], "7");
}

// ---- The watcher ----

// What a watcher was told, in order. It is the process's watcher for as long as it lives.
struct Watch {
	using Told = std::tuple<trl_event_t, std::string, std::string, int, int, std::thread::id>;
	std::vector<Told> told;
	std::atomic<bool> held = false, inside = false;

	Watch() { trl_watch(&Watch::take, this); }
	~Watch() { trl_watch(nullptr, nullptr); }
	Watch(const Watch &) = delete;
	Watch &operator=(const Watch &) = delete;

	static void take(void *cookie, trl_event_t event, const trl_object_t *object, int status, int retval)
	{
		auto *watch = static_cast<Watch *>(cookie);
		watch->told.emplace_back(
		    event, object->parent_file, object->object_name, status, retval, std::this_thread::get_id());
		watch->inside = true;
		watch->inside.notify_all();
		watch->held.wait(true);
	}
};

// Where the host may have no audit: what the kernel makes of a record is of no interest here.
TEST(TrailWatch, IsToldOfEachRecordOnTheThreadThatAsks)
{
	std::thread::id other;
	Watch watch;
	(void) Session().put(TRL_SUCCESS, 0);
	std::thread([&] {
		other = std::this_thread::get_id();
		(void) Session(TRL_ostrel_remove).put(TRL_FAILURE, 1003);
	}).join();
	trl_watch(nullptr, nullptr);
	trl_session_data_t *session = nullptr;
	if (trl_start_session(&session, nullptr, 0) == 0) {
		(void) Session().put(TRL_SUCCESS, 0);
		EXPECT_EQ(trl_end_session(session), 0);
	}
	const std::vector<Watch::Told> expected = {
	    {TRL_ostrel_update, "links.db", "name=eth0;", TRL_SUCCESS, 0, std::this_thread::get_id()},
	    {TRL_ostrel_remove, "links.db", "name=eth0;", TRL_FAILURE, 1003, other}};
	EXPECT_EQ(watch.told, expected);
}

TEST(TrailWatch, IsToldWhereThereIsNoWayToTheLog)
{
	EXPECT_EQ(expect_in_child([] {
		const struct rlimit none = {0, 0};
		EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
		trl_session_data_t *session = nullptr;
		EXPECT_NE(trl_start_session(&session, nullptr, 0), 0);
		const int without = errno;
		Watch watch;
		EXPECT_EQ(Session().put(TRL_SUCCESS, 0), -1);
		EXPECT_EQ(errno, without);
		EXPECT_EQ(watch.told.size(), 1U);
	}),
	    0);
}

TEST(TrailWatch, TakingItBackWaitsForACallThatRuns)
{
	Watch watch;
	watch.held = true;
	std::thread record([] { (void) Session().put(TRL_SUCCESS, 0); });
	watch.inside.wait(false);
	EXPECT_EQ(expect_in_child([] { // has no watcher, and waits for none
		alarm(20);
		trl_session_data_t *session = nullptr;
		if (trl_start_session(&session, nullptr, 0) == 0)
			(void) Session().put(TRL_SUCCESS, 0);
		Watch own;
		(void) Session().put(TRL_SUCCESS, 0);
		EXPECT_EQ(own.told.size(), 1U);
	}),
	    0);
	std::atomic<bool> back = false;
	std::thread taker([&] {
		trl_watch(nullptr, nullptr);
		back = true;
	});
	std::this_thread::sleep_for(std::chrono::milliseconds(100));
	EXPECT_FALSE(back);
	watch.held = false;
	watch.held.notify_all();
	taker.join();
	record.join();
	EXPECT_EQ(watch.told.size(), 1U);
}

} // namespace
