// Deferred updates: a store of the test's own asks for retries, and the seconds between them pass at once.
#include <atomic>
#include <csignal>
#include <functional>
#include <malloc.h>
#include <map>
#include <mutex>
#include <pthread.h>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "alloc_fault.h"
#include "hatch_peer.h"
#include "libostrel_impl.h"
#include "lists.h"
#include "log_capture.h"
#include "scratch.h"

namespace {

std::atomic<unsigned int> seconds_slept;
std::atomic<int> sleeps;
std::atomic<bool> hold_sleepers; // a second lasts until this is false

} // namespace

// The library's sleep ends up here.
extern "C" unsigned int sleep(unsigned int seconds)
{
	seconds_slept += seconds;
	sleeps++;
	hold_sleepers.wait(true);
	return 0;
}

namespace {

// What reached the store in one call.
struct Call {
	std::string words; // the operation, its lists and its flags
	pthread_t thread;
	char thread_name[16];
	bool takes_signals;
	int sleeps; // before it
};

struct Store {
	std::mutex mutex;
	std::function<ostrel_error_t(size_t call)> answer;
	std::vector<Call> calls;
	std::atomic<int> audits;
} store;

ostrel_error_t take(const char *op, attrlist_t *idl, uint64_t flags, const std::string &second)
{
	Call call = {op + (" " + text_of(idl)) + second + std::to_string(flags), pthread_self(), "", false, sleeps};
	pthread_getname_np(pthread_self(), call.thread_name, sizeof(call.thread_name));
	sigset_t blocked;
	pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
	call.takes_signals = !sigismember(&blocked, SIGHUP);
	std::lock_guard<std::mutex> lock(store.mutex);
	store.calls.push_back(call);
	return store.answer(store.calls.size() - 1);
}

const struct ostrel_db_cmds store_cmds = {
    .dbc_open = nullptr,
    .dbc_close = nullptr,
    .dbc_read = [](ostrel_db_t, attrlist_t *idl, uint64_t flags, attrlist_t ***,
		    unsigned int *) { return take("read", idl, flags, ""); },
    .dbc_write = [](ostrel_db_t, attrlist_t *idl, uint64_t flags,
		     attrlist_t *props) { return take("write", idl, flags, text_of(props)); },
    .dbc_rename = [](ostrel_db_t, attrlist_t *idl, uint64_t flags,
		      attrlist_t *newidl) { return take("rename", idl, flags, text_of(newidl)); },
    .dbc_remove = [](ostrel_db_t, attrlist_t *idl, uint64_t flags) { return take("remove", idl, flags, "none"); },
    .dbc_audit = [](ostrel_db_t, unsigned short, attrlist_t *, ostrel_error_t) { store.audits++; },
    .dbc_auth = nullptr,
};

int threads_alive()
{
	return static_cast<int>(entries_of("/proc/self/task").size());
}

class Deferred : public testing::Test {
protected:
	// With a sanitizer, the first thread brings one of its own along, which stays.
	static void SetUpTestSuite()
	{
		std::thread([] {}).join();
		usleep(20000);
	}
	void SetUp() override
	{
		store.calls.clear();
		store.audits = 0;
		sleeps = 0;
		seconds_slept = 0;
		threads_ = threads_alive();
		ASSERT_EQ(ostrel_db_open("store", 0, &store_cmds, 0, &db_), OSTREL_SUCCESS);
	}
	void TearDown() override
	{
		finish();
		ostrel_db_close(db_);
	}
	// Waits for the threads' end. Afterwards the test may look at what they wrote: it has taken the locks that they held.
	void finish() const
	{
		ASSERT_TRUE(eventually([&] { return threads_alive() <= threads_; }));
		ostrel_db_wrlock(db_);
		std::lock_guard<std::mutex> lock(store.mutex);
		ostrel_db_unlock(db_);
	}
	// The answers in turn; the last one for ever.
	static void answer(std::vector<ostrel_error_t> results)
	{
		store.answer = [=](size_t call) { return results[std::min(call, results.size() - 1)]; };
	}

	ostrel_db_t db_ = nullptr;
	int threads_ = 0;
	LogCapture log_;
};

// The three operations that can be deferred, as a caller makes them: its lists are gone when the call returns.
struct Operation {
	const char *word, *words;
	ostrel_error_t (*run)(ostrel_db_t db);
};

const Operation operations[] = {
    {"write", "write name=x;prop=value;4",
	[](ostrel_db_t db) { return ostrel_db_write(db, idl_of("name=x").get(), 4, props_of("prop=value").get()); }},
    {"rename", "rename name=x;name=y;4",
	[](ostrel_db_t db) { return ostrel_db_rename(db, idl_of("name=x").get(), 4, idl_of("name=y").get()); }},
    {"remove", "remove name=x;none4", [](ostrel_db_t db) { return ostrel_db_remove(db, idl_of("name=x").get(), 4); }},
};

class EachDeferred : public Deferred, public testing::WithParamInterface<Operation> {};
INSTANTIATE_TEST_SUITE_P(, EachDeferred, testing::ValuesIn(operations),
    [](const testing::TestParamInfo<Operation> &operation) { return operation.param.word; });

} // namespace

TEST_P(EachDeferred, IsRepeatedOnAThreadWithCopiesOfItsListsAndGivesUpAfter100RetriesASecondApart)
{
	answer({OSTREL_NEEDS_RETRY});
	EXPECT_EQ(GetParam().run(db_), OSTREL_SUCCESS);
	finish();
	ASSERT_EQ(store.calls.size(), 101u);
	EXPECT_TRUE(pthread_equal(store.calls[0].thread, pthread_self()));
	EXPECT_TRUE(store.calls[0].takes_signals);
	for (size_t i = 1; i < store.calls.size(); i++) {
		const Call &call = store.calls[i];
		ASSERT_EQ(call.words, GetParam().words);
		ASSERT_EQ(call.sleeps, static_cast<int>(i) - 1) << "the first time at once";
		ASSERT_STREQ(call.thread_name, "ostrel_update");
		ASSERT_FALSE(call.takes_signals);
		ASSERT_TRUE(pthread_equal(call.thread, store.calls[1].thread)) << "one thread for all attempts";
	}
	EXPECT_FALSE(pthread_equal(store.calls[1].thread, pthread_self()));
	EXPECT_EQ(store.audits, 101);
	EXPECT_EQ(sleeps, 100);
	EXPECT_EQ(seconds_slept, 100u);
	EXPECT_EQ(log_.lines(), std::vector<std::string>{std::string("3: maximum number of retries exceeded for ") +
							 GetParam().word + " operation, giving up"});
}

// Only the library's own mark makes a thread an update thread: the caller's one has the same name.
TEST_F(Deferred, EndsAtAnotherErrorWithoutAMessage)
{
	answer({OSTREL_NEEDS_RETRY, OSTREL_NEEDS_RETRY, OSTREL_EPERM, OSTREL_SUCCESS});
	std::thread([&] {
		pthread_setname_np(pthread_self(), "ostrel_update");
		EXPECT_EQ(operations[2].run(db_), OSTREL_SUCCESS);
	}).join();
	finish();
	EXPECT_EQ(store.calls.size(), 3u);
	EXPECT_EQ(sleeps, 1);
	EXPECT_TRUE(log_.lines().empty());
}

TEST_F(Deferred, IsNeitherAReadNorAWalkNorWhatCantBeTakenOver)
{
	answer({OSTREL_NEEDS_RETRY});
	auto never = [](ostrel_db_t, attrlist_t *, attrlist_t *, uint64_t, void *) { return 0; };
	EXPECT_EQ(ostrel_db_read(db_, idl_of("name=x").get(), 0, nullptr), OSTREL_NEEDS_RETRY);
	EXPECT_EQ(ostrel_db_walk(db_, nullptr, 0, never, nullptr, nullptr, nullptr), OSTREL_NEEDS_RETRY);
	EXPECT_EQ(ostrel_db_remove(db_, nullptr, 0), OSTREL_INVALID_ARG);

	pthread_attr_t usual, huge; // a stack for which there is no room
	ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
	ASSERT_EQ(pthread_getattr_default_np(&huge), 0);
	ASSERT_EQ(pthread_attr_setstacksize(&huge, 1UL << 47), 0);
	ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
	EXPECT_EQ(operations[0].run(db_), OSTREL_FAILURE);
	ASSERT_EQ(pthread_setattr_default_np(&usual), 0);
	finish();
	EXPECT_EQ(store.calls.size(), 4u) << "nothing is tried again";
}

TEST_F(Deferred, ReportsEachAllocationThatFailsAndLeavesNothing)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	answer({OSTREL_SUCCESS});
	AttrList idl = idl_of("name=x"), list = props_of("prop=v");
	for (int nth = 1;; nth++) {
		AllocFault fault(nth);
		ostrel_error_t result = ostrel_create_update_thread(OSTREL_OP_WRITE, db_, idl.get(), 0, list.get());
		fault.stop();
		finish();
		if (!fault.fired()) {
			EXPECT_EQ(result, OSTREL_SUCCESS);
			EXPECT_GT(nth, 3);
			break;
		}
		// The last one is in the making of the thread, and comes as the thread's own failure.
		EXPECT_TRUE(result == OSTREL_NO_MEMORY || result == OSTREL_FAILURE) << result;
	}
	EXPECT_EQ(store.calls.size(), 1u);
}

// ---- Many at once ----

TEST_F(Deferred, ThousandInFlightAllLandAndLeaveNothing)
{
	constexpr int count = 1000;
	std::set<std::string> landed; // guarded by the store's mutex, as the next one
	int landings = 0;
	store.answer = [&](size_t) {
		const std::string words = store.calls.back().words;
		store.calls.clear();
		if (hold_sleepers)
			return OSTREL_NEEDS_RETRY;
		landed.insert(words);
		landings++;
		return OSTREL_SUCCESS;
	};
	size_t bytes = 0;
	for (int round = 0; round < 2; round++) { // the first round fills the caches of the C library
		hold_sleepers = true;
		for (int i = 0; i < count; i++)
			ASSERT_EQ(ostrel_db_remove(db_, idl_of("name=" + std::to_string(i)).get(), 0), OSTREL_SUCCESS);
		EXPECT_EQ(threads_alive(), threads_ + count) << "all are in flight";
		hold_sleepers = false;
		hold_sleepers.notify_all();
		finish();
		EXPECT_EQ(landings, count * (round + 1));
		EXPECT_EQ(landed.size(), static_cast<size_t>(count));
		if (round == 0)
			bytes = mallinfo2().uordblks;
	}
	EXPECT_LT(mallinfo2().uordblks, bytes + count * 16) << "less than a small block for each update";
	EXPECT_TRUE(log_.lines().empty());
}
