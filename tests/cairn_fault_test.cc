// Databases in the repository when something fails: each call to the daemon with each error, and each allocation.
#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <thread>

#include <meridon/hatch.h>

#include "alloc_fault.h"
#include "cairn_db.h"
#include "hatch_peer.h"
#include "rpy/wire.h"
#include "warped_clock.h"

namespace {

// The nth call of this thread from now on gets a bare error for its answer, and those behind it if `all` is set.
struct Trouble {
	int left = 0; // 0: none
	rpy_error_t error = RPY_ERROR_NONE;
	bool all = false;
	bool fired = false;
	int calls = 0;
};
thread_local Trouble trouble;

// Answers what would be a commit, and nothing else, as overtaken by others.
thread_local bool commits_are_stale;

// What the first call of a kind meets: a daemon that stops, while the clock runs as fast as it is looked at; one that is killed
// when it has the call, and followed by another one when that is known; or one that doesn't come to it for a long time, but
// answers others.
enum class By { stop, kill, queue };
struct Stall {
	rpy::Op op = rpy::Op::count_;
	Repository *daemon = nullptr;
	By how = By::stop;
	std::string queued = {};
};
Stall stall;

bool is_call(const hatch_arg_t *arg, rpy::Op which)
{
	uint32_t op = 0;
	if (arg->data_size >= 2 * sizeof(op))
		memcpy(&op, arg->data_ptr + sizeof(op), sizeof(op));
	return op == static_cast<uint32_t>(which);
}

int answer(hatch_arg_t *arg, std::initializer_list<uint32_t> words)
{
	char *end = arg->rbuf;
	for (uint32_t word : words) {
		memcpy(end, &word, sizeof(word));
		end += sizeof(word);
	}
	arg->data_ptr = arg->rbuf;
	arg->data_size = static_cast<size_t>(end - arg->rbuf);
	return 0;
}

} // namespace

extern "C" int __real_hatch_call_bounded(int fd, hatch_arg_t *arg, int seconds, size_t reply_max);
extern "C" int __wrap_hatch_call_bounded(int fd, hatch_arg_t *arg, int seconds, size_t reply_max)
{
	trouble.calls++;
	if (is_call(arg, stall.op)) {
		stall.op = rpy::Op::count_;
		if (stall.how == By::queue) {
			stall.queued.assign(arg->data_ptr, arg->data_size);
			errno = ETIMEDOUT;
			return -1;
		}
		stall.daemon->freeze();
		warp = stall.how == By::stop ? 1 : 0;
		std::jthread killer([] {
			std::this_thread::sleep_for(std::chrono::milliseconds(100)); // goes on after a signal
			if (stall.how == By::kill)
				stall.daemon->kill();
		});
		return __real_hatch_call_bounded(fd, arg, seconds, reply_max);
	}
	if (commits_are_stale && is_call(arg, rpy::Op::commit))
		return answer(arg, {rpy::magic, RPY_ERROR_NONE, 0});
	if (trouble.left == 1) {
		trouble.fired = true;
		trouble.left = trouble.all ? 1 : 0;
		return answer(arg, {rpy::magic, static_cast<uint32_t>(trouble.error)});
	}
	trouble.left -= trouble.left > 0 ? 1 : 0;
	return __real_hatch_call_bounded(fd, arg, seconds, reply_max);
}

extern "C" int __real__rpy_daemon_has_ended(const rpy_handle_t *handle);
extern "C" int __wrap__rpy_daemon_has_ended(const rpy_handle_t *handle)
{
	const int ended = __real__rpy_daemon_has_ended(handle);
	if (ended == 1 && stall.daemon->start(CairnDaemon::hatch_name) != 0)
		ADD_FAILURE() << "no daemon";
	return ended;
}

namespace {

// What works on a group, with properties or with the group's new place.
struct Operation {
	const char *group, *props, *to;
	ostrel_error_t (*run)(ostrel_db_t db, attrlist_t *group, attrlist_t *props, attrlist_t *to);
};

// An operation's lists, made before anything fails.
struct Lists {
	explicit Lists(const Operation &of) : group(group_of(of.group)), props(props_of(of.props)), to(group_of(of.to))
	{}
	AttrList group, props, to;
};

// What one round of a sweep came to, and what was there before it.
struct Hit {
	int nth;
	rpy_error_t error;
	bool fired;
	ostrel_error_t result;
	std::string before;
};

// With its refresh thread, so that nothing else calls from here, on a service.
class CairnFaults : public testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_TRUE(here.ready);
		db = open_cairn(test_service);
		ASSERT_TRUE(db);
	}
	static void fill(const CairnDb &into)
	{
		for (const char *group : {"a", "new", "moved"})
			(void) drop(into, group);
		ASSERT_EQ(put(into, "a:t", "p=old"), OSTREL_SUCCESS);
		ASSERT_EQ(put(into, "a/b:t/u", "p=1"), OSTREL_SUCCESS);
		ASSERT_EQ(put(into, "m:t", "p=m"), OSTREL_SUCCESS);
	}
	// All that is there, as text.
	std::string all()
	{
		return get(db, "a") + " " + get(db, "m") + " " + walk(db, "*") + walk(db, "*/*") + walk(db, "*/*/*");
	}

	template <typename Errors, typename Check>
	int sweep(const Errors &with, const Operation &operation, Check check);

	CairnDaemon here;
	CairnDb db;
};

// An operation as the dispatcher calls it, without what the dispatcher makes of its result.
ostrel_error_t run(ostrel_db_t db, const Operation &operation, const Lists &lists)
{
	WriteLock lock(db->db_lock);
	return operation.run(db, lists.group.get(), lists.props.get(), lists.to.get());
}

ostrel_error_t read_one(ostrel_db_t db, attrlist_t *group, attrlist_t *, attrlist_t *)
{
	Objects objs;
	ostrel_error_t result =
	    ostrel_read_objects_from_cairn(db, group, OSTREL_FLAG_WITH_PROPS, objs.out(), objs.out_count());
	// A group that has gone meanwhile takes what is below it along, and "nothing there" ends a walk.
	if (trouble.error != RPY_ERROR_NOT_FOUND && trouble.error != RPY_ERROR_DELETED) {
		EXPECT_TRUE(result != OSTREL_SUCCESS || objs.count() == 1) << "a part";
	}
	return result;
}
ostrel_error_t write(ostrel_db_t db, attrlist_t *group, attrlist_t *props, attrlist_t *)
{
	return ostrel_write_object_to_cairn(db, group, 0, props);
}
ostrel_error_t rename(ostrel_db_t db, attrlist_t *group, attrlist_t *, attrlist_t *to)
{
	return ostrel_rename_object_in_cairn(db, group, 0, to);
}
ostrel_error_t remove(ostrel_db_t db, attrlist_t *group, attrlist_t *, attrlist_t *)
{
	return ostrel_remove_object_from_cairn(db, group, 0);
}

constexpr Operation operations[] = {{"a/b", "", "", read_one}, {":*/*", "", "", read_one},
    {"a", "p=new;q=1", "", write}, {"new/x/y:t/u/v", "p=new;q=1", "", write}, {"m", "", "moved:t", rename},
    {"a/b", "", "", remove}};

constexpr rpy_error_t errors[] = {RPY_ERROR_NOT_BOUND, RPY_ERROR_NOT_SET, RPY_ERROR_NOT_FOUND, RPY_ERROR_TYPE_MISMATCH,
    RPY_ERROR_IN_USE, RPY_ERROR_CONNECTION_BROKEN, RPY_ERROR_INVALID_ARGUMENT, RPY_ERROR_NO_MEMORY,
    RPY_ERROR_CONSTRAINT_VIOLATED, RPY_ERROR_EXISTS, RPY_ERROR_NO_SERVER, RPY_ERROR_NO_RESOURCES,
    RPY_ERROR_PERMISSION_DENIED, RPY_ERROR_BACKEND_ACCESS, RPY_ERROR_HANDLE_MISMATCH, RPY_ERROR_HANDLE_DESTROYED,
    RPY_ERROR_VERSION_MISMATCH, RPY_ERROR_BACKEND_READONLY, RPY_ERROR_DELETED, RPY_ERROR_TEMPLATE_INVALID,
    RPY_ERROR_CONFLICT, RPY_ERROR_CALLBACK_FAILED, RPY_ERROR_INTERNAL};

TEST_F(CairnFaults, ResultsOfTheRepositoryAreMapped)
{
	const std::pair<int, ostrel_error_t> mapped[] = {{1000, OSTREL_SUCCESS}, {1003, OSTREL_NOT_FOUND},
	    {1006, OSTREL_FAILURE}, {1007, OSTREL_INVALID_ARG}, {1008, OSTREL_NO_MEMORY}, {1010, OSTREL_EXISTS},
	    {1011, OSTREL_FAILURE}, {1012, OSTREL_FAILURE}, {1013, OSTREL_EPERM}, {1014, OSTREL_EPERM},
	    {1018, OSTREL_NEEDS_RETRY}, {1019, OSTREL_FAILURE}, {1101, OSTREL_FAILURE}, {0, OSTREL_FAILURE},
	    {1100, OSTREL_FAILURE}, {-1, OSTREL_FAILURE}};
	for (const auto &[number, result] : mapped)
		EXPECT_EQ(rpy_error_to_ostrel_error(static_cast<rpy_error_t>(number)), result) << number;
}

// Runs an operation with each of these errors for its first call, its second, and so on, until it runs through.
template <typename Errors, typename Check>
int CairnFaults::sweep(const Errors &with, const Operation &operation, Check check)
{
	int hits = 0;
	for (rpy_error_t error : with) {
		for (int nth = 1;; nth++) {
			SCOPED_TRACE("call " + std::to_string(nth) + ", error " + std::to_string(error));
			fill(db);
			const std::string before = all();
			const Lists lists(operation);
			trouble = {nth, error, false, false, 0};
			const ostrel_error_t result = run(db.get(), operation, lists);
			const bool fired = std::exchange(trouble, {}).fired;
			EXPECT_EQ(resources_of(db)->nsr_refcnt, 1U);
			EXPECT_TRUE(fired || result == OSTREL_SUCCESS);
			check(Hit{nth, error, fired, result, before});
			hits += fired ? 1 : 0;
			if (!fired || HasFailure())
				break;
		}
	}
	return hits;
}

TEST_F(CairnFaults, EachFailedCallGivesItsErrorAndLeavesTheDatabaseUsable)
{
	int hits = 0;
	for (const auto &operation : operations) {
		SCOPED_TRACE(std::string("of ") + operation.group + " " + operation.props + operation.to);
		hits += sweep(errors, operation, [&](const Hit &hit) {
			if (operation.run == rename && hit.result == OSTREL_SUCCESS) {
				EXPECT_EQ(get(db, "moved"), "moved:t|p=m;");
				EXPECT_EQ(get(db, "m"), "? object not found");
			}
			if (!hit.fired)
				return;
			// The first is the test of the connection, which all but a broken one pass; a name that isn't
			// found is looked for once more, and made by a write.
			const bool may_pass =
			    hit.nth == 1 || hit.error == RPY_ERROR_NOT_FOUND || hit.error == RPY_ERROR_DELETED;
			EXPECT_TRUE(hit.result == rpy_error_to_ostrel_error(hit.error) ||
				    (may_pass && hit.result == OSTREL_SUCCESS) ||
				    (hit.error == RPY_ERROR_NOT_FOUND && hit.result == OSTREL_EXISTS))
			    << ostrel_strerror(hit.result);
			if (hit.result != OSTREL_SUCCESS) {
				// The deepest group of a failed transaction goes, those made above it stay.
				EXPECT_EQ(get(db, "new/x/y")[0], '?');
				(void) drop(db, "new");
				EXPECT_EQ(all(), hit.before);
			}
		});
	}
	EXPECT_GT(hits, 300);
}

// Taking the new object back would take along what is below it, the old one first of all.
TEST_F(CairnFaults, ARenameWhoseRemoveFailsLosesNothingBelowTheNewName)
{
	sweep(std::array{RPY_ERROR_NO_MEMORY}, {"a/b", "", "a:t", rename}, [&](const Hit &hit) {
		EXPECT_EQ(hit.result, hit.fired ? OSTREL_NO_MEMORY : OSTREL_SUCCESS);
		EXPECT_EQ(get(db, hit.fired ? "a/b" : "a"), hit.fired ? "a/b:t/u|p=1;" : "a:t|p=1;");
	});
}

void signal_often(int flags)
{
	struct sigaction action = {};
	action.sa_handler = [](int) {};
	action.sa_flags = flags;
	const itimerval often = {{0, 3000}, {0, 3000}};
	ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
	ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
}
void signal_no_more()
{
	const itimerval never = {};
	(void) setitimer(ITIMER_REAL, &never, nullptr);
	warp = 0;
}

// A daemon that stalls for longer than it is waited for carries out late what it was asked for.
class CairnStalls : public CairnFaults {
protected:
	void SetUp() override
	{
		CairnFaults::SetUp();
		fill(db);
		signal_often(SA_RESTART); // so that the clock is looked at
	}
	void TearDown() override { signal_no_more(); }

	// The result of what meets the stall, when the daemon is well again.
	template <typename Operation>
	ostrel_error_t at(rpy::Op op, By how, Operation operation)
	{
		stall = {op, &here.daemon, how};
		ostrel_error_t result = operation();
		EXPECT_EQ(stall.op, rpy::Op::count_);
		warp = 0;
		here.daemon.go_on();
		if (how == By::queue) {
			EXPECT_EQ(call(open_hatch(here.hatch()).get(), stall.queued).error, 0);
		}
		return result;
	}
};

TEST_F(CairnStalls, WhatAFailedWriteHasMadeIsTakenBackWhenItComesAbout)
{
	for (rpy::Op op : {rpy::Op::add_group, rpy::Op::commit}) {
		EXPECT_EQ(at(op, By::stop, [&] { return put(db, "new:t", "p=1"); }), OSTREL_FAILURE);
		EXPECT_TRUE(eventually([&] { return get(db, "new") == "? object not found"; }));
		usleep(100'000); // nothing comes after that
		EXPECT_EQ(get(db, "new"), "? object not found");
		EXPECT_EQ(put(db, "new:t", "p=2"), OSTREL_SUCCESS);
		EXPECT_EQ(drop(db, "new"), OSTREL_SUCCESS);
	}
}

TEST_F(CairnStalls, ARenameWhoseRemoveComesLateLosesNothing)
{
	for (By how : {By::stop, By::queue}) {
		EXPECT_EQ(at(rpy::Op::delete_group, how, [&] { return move(db, "m", "moved:t"); }), OSTREL_FAILURE);
		EXPECT_TRUE(eventually([&] { return get(db, "m") == "? object not found"; }));
		EXPECT_EQ(get(db, "moved"), "moved:t|p=m;");
		fill(db);
	}
}

// Nobody is left to carry it out: one that is there stays, and the other goes.
TEST_F(CairnStalls, ARenameWhoseDaemonEndsKeepsTheOldObject)
{
	EXPECT_EQ(at(rpy::Op::delete_group, By::kill, [&] { return move(db, "m", "moved:t"); }), OSTREL_FAILURE);
	EXPECT_EQ(get(db, "m"), "m:t|p=m;");
	EXPECT_EQ(get(db, "moved"), "? object not found");
}

class CairnSignals : public CairnFaults, public testing::WithParamInterface<int> {};

TEST_P(CairnSignals, NoneMakesAnUpdateFail)
{
	constexpr int stops = -1;
	const pid_t self = getpid();
	Process stopper([=] {
		while (GetParam() == stops && usleep(3000) == 0 && kill(self, SIGSTOP) == 0)
			(void) kill(self, SIGCONT);
		return 0;
	});
	if (GetParam() != stops)
		signal_often(GetParam());
	for (int i = 0; i < 100; i++) {
		ASSERT_EQ(put(db, "new:t", "p=1"), OSTREL_SUCCESS) << i;
		ASSERT_EQ(put(db, "new", "p=2"), OSTREL_SUCCESS) << i;
		ASSERT_EQ(move(db, "new", "moved:t"), OSTREL_SUCCESS) << i;
		ASSERT_EQ(get(db, "moved"), "moved:t|p=2;") << i;
		ASSERT_EQ(drop(db, "moved"), OSTREL_SUCCESS) << i;
	}
	signal_no_more();
}

INSTANTIATE_TEST_SUITE_P(Cairn, CairnSignals, testing::Values(0, SA_RESTART, -1));

TEST_F(CairnFaults, FewCallsAreMade)
{
	for (int i = 0; i < 2000; i++)
		ASSERT_EQ(put(db, "g" + std::to_string(i) + ":t", "p=1"), OSTREL_SUCCESS);
	auto calls = [](auto operation) {
		trouble = {};
		operation();
		return trouble.calls;
	};
	EXPECT_EQ(calls([&] { EXPECT_EQ(get(db, "g7"), "g7:t|p=1;"); }), 1);
	EXPECT_EQ(calls([&] { EXPECT_EQ(get(db, "none"), "? object not found"); }), 2);
	EXPECT_EQ(calls([&] { EXPECT_EQ(get(db, "G7"), "g7:t|p=1;"); }), 2);
	EXPECT_EQ(calls([&] { EXPECT_EQ(put(db, "g7", "p=2"), OSTREL_SUCCESS); }), 2);
	EXPECT_EQ(calls([&] { EXPECT_EQ(walk(db, "none"), ""); }), 1);
}

TEST_F(CairnFaults, ACommitThatIsOvertakenAllTheTimeWaitsAndDoesntSpin)
{
	fill(db);
	auto seconds = [](clockid_t clock) {
		struct timespec now;
		(void) clock_gettime(clock, &now);
		return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
	};
	trouble = {50, RPY_ERROR_INTERNAL, true, false, 0}; // the end of it
	commits_are_stale = true;
	const double worked = seconds(CLOCK_THREAD_CPUTIME_ID), begun = seconds(CLOCK_MONOTONIC);
	EXPECT_EQ(put(db, "a", "p=new"), OSTREL_FAILURE);
	EXPECT_LT(seconds(CLOCK_THREAD_CPUTIME_ID) - worked, (seconds(CLOCK_MONOTONIC) - begun) / 10)
	    << "most of the time it sleeps";
	commits_are_stale = false;
	trouble = {};
	EXPECT_EQ(get(db, "a"), "a:t|p=old;");
}

TEST_F(CairnFaults, AnyFailedAllocationFailsOneOperationAndLeaksNothing)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	fill(db); // what is made once is made
	struct Opened {
		CairnDb db;
		Lists lists;
	};
	auto is_sound = [](ostrel_error_t result, bool failed) {
		return result == OSTREL_SUCCESS || (failed && (result == OSTREL_NO_MEMORY || result == OSTREL_FAILURE));
	};
	ostrel_db_close(open_cairn(test_service).release()); // drops this thread's connection, as each round does
	int rounds = sweep_allocations([] { return 0; },
	    [](int &) {
		    ostrel_db_t opened = nullptr;
		    ostrel_error_t result = ostrel_db_open(test_service, 0, ostrel_cairn_db_cmds, 0, &opened);
		    ostrel_db_close(opened);
		    return result;
	    },
	    [&](int &, ostrel_error_t result, bool failed) { EXPECT_TRUE(is_sound(result, failed)) << result; });
	EXPECT_GT(rounds, 25) << "the client's objects";
	for (const Operation &operation : operations) {
		rounds = sweep_allocations(
		    [&] {
			    Opened opened{open_cairn(test_service), Lists(operation)};
			    fill(opened.db); // whose work keeps what it found last
			    return opened;
		    },
		    [&](Opened &opened) { return run(opened.db.get(), operation, opened.lists); },
		    [&](Opened &opened, ostrel_error_t result, bool failed) {
			    EXPECT_TRUE(is_sound(result, failed)) << operation.group << ": " << ostrel_strerror(result);
			    EXPECT_EQ(resources_of(opened.db)->nsr_refcnt, 1U);
			    EXPECT_EQ(put(opened.db, "after:t", "p=1"), OSTREL_SUCCESS);
		    });
		EXPECT_GT(rounds, 2);
	}
}

} // namespace
