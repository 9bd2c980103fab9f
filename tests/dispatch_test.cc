// The handle and the dispatcher, over a back end of the test's own that keeps objects in memory and notes what it sees.
// Every case runs twice: as it is, and with all trace points switched on, which must change nothing.
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

#include "libostrel_impl.h"
#include "libostrel_trace.h"
#include "lists.h"

namespace {

enum class Lock { None, Read, Write };

// Which lock somebody holds, found out by a thread that holds none.
Lock lock_of(ostrel_db_t db)
{
	Lock seen = Lock::Write;
	std::thread([&] {
		if (pthread_rwlock_trywrlock(&db->db_lock.raw) == 0)
			seen = Lock::None;
		else if (pthread_rwlock_tryrdlock(&db->db_lock.raw) == 0)
			seen = Lock::Read;
		if (seen != Lock::Write)
			pthread_rwlock_unlock(&db->db_lock.raw);
	}).join();
	return seen;
}

// One call of a slot, as the back end saw it.
struct Call {
	std::string slot;
	Lock lock;
	uint64_t flags;
	std::string idl, second;
	unsigned short event;
	ostrel_error_t result;
};

struct Backend {
	std::vector<AttrList> objects; // what a read finds, whatever it looks for
	bool null_array = false;       // a read of nothing gives no array
	ostrel_error_t result = OSTREL_SUCCESS;
	std::vector<Call> calls;

	Call &note(const char *slot, ostrel_db_t db, uint64_t flags, attrlist_t *idl, attrlist_t *second)
	{
		calls.push_back({slot, lock_of(db), flags, text_of(idl), text_of(second), 0, result});
		return calls.back();
	}
};

Backend *backend_to_open;

Backend &backend_of(ostrel_db_t db)
{
	return *static_cast<Backend *>(ostrel_db_get_priv(db));
}

ostrel_error_t open_slot(ostrel_db_t db)
{
	ostrel_db_set_priv(db, backend_to_open);
	backend_of(db).note("open", db, ostrel_db_get_flags(db), nullptr, nullptr).second = ostrel_db_get_name(db);
	return backend_of(db).result;
}

void close_slot(ostrel_db_t db)
{
	backend_of(db).note("close", db, 0, nullptr, nullptr);
}

ostrel_error_t read_slot(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t ***objs, unsigned int *count)
{
	Backend &backend = backend_of(db);
	backend.note("read", db, flags, idl, nullptr);
	if (backend.result != OSTREL_SUCCESS) {
		*objs = reinterpret_cast<attrlist_t **>(-1); // nobody may look at this
		*count = 1000;
		return backend.result;
	}
	Objects found;
	if (!found.alloc(static_cast<unsigned int>(backend.objects.size())))
		return OSTREL_NO_MEMORY;
	for (unsigned int i = 0; i < found.count(); i++) {
		if (attrlist_dup(backend.objects[i].get(), &found[i], 0) != 0)
			return OSTREL_NO_MEMORY;
	}
	*count = found.count();
	if (backend.null_array)
		*objs = nullptr;
	else
		*objs = found.release();
	return OSTREL_SUCCESS;
}

ostrel_error_t write_slot(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *props)
{
	return backend_of(db).note("write", db, flags, idl, props).result;
}

ostrel_error_t rename_slot(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *newidl)
{
	return backend_of(db).note("rename", db, flags, idl, newidl).result;
}

ostrel_error_t remove_slot(ostrel_db_t db, attrlist_t *idl, uint64_t flags)
{
	return backend_of(db).note("remove", db, flags, idl, nullptr).result;
}

void audit_slot(ostrel_db_t db, unsigned short event, attrlist_t *idl, ostrel_error_t result)
{
	Call &call = backend_of(db).note("audit", db, 0, idl, nullptr);
	call.event = event;
	call.result = result;
}

ostrel_error_t auth_slot(ostrel_db_t db, boolean_t write)
{
	backend_of(db).note(write ? "auth write" : "auth read", db, 0, nullptr, nullptr);
	return OSTREL_EPERM;
}

constexpr struct ostrel_db_cmds all_slots = {
    open_slot, close_slot, read_slot, write_slot, rename_slot, remove_slot, audit_slot, auth_slot};
// Enough to open and to look at the back end; the operations are missing.
constexpr struct ostrel_db_cmds no_slots = {open_slot, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};

class Dispatch : public testing::TestWithParam<bool> {
protected:
	Dispatch() { set_traced(GetParam()); }
	~Dispatch() override
	{
		if (db != nullptr) {
			EXPECT_EQ(lock_of(db), Lock::None) << "a lock was left behind";
			ostrel_db_close(db);
		}
		set_traced(false);
	}
	static void set_traced(bool on)
	{
		for (unsigned short *semaphore : {&ostrel_seterror_semaphore, &ostrel_db__read_semaphore,
			 &ostrel_db__write_semaphore, &ostrel_db__rename_semaphore, &ostrel_db__remove_semaphore,
			 &ostrel_db__walk_semaphore, &ostrel_db__walk__cb_semaphore})
			*const_cast<volatile unsigned short *>(semaphore) = on;
	}
	void open(uint64_t flags = 0, ostrel_db_cmds_t cmds = &all_slots)
	{
		backend_to_open = &backend;
		ASSERT_EQ(ostrel_db_open("some db", 0, cmds, flags, &db), OSTREL_SUCCESS);
		backend.calls.clear();
	}
	void hold(const char *idl, const char *props) { backend.objects.push_back(object_of(idl, props)); }

	Backend backend;
	ostrel_db_t db = nullptr;
};

INSTANTIATE_TEST_SUITE_P(
    Traced, Dispatch, testing::Bool(), [](const auto &instance) { return instance.param ? "Traced" : "Quiet"; });

// ---- Open, close, the handle ----

TEST_P(Dispatch, ANameOf1023BytesOpensAndOneMoreIsRefused)
{
	const std::string longest(OSTREL_DB_NAME_MAX, 'n');
	backend_to_open = &backend;
	ASSERT_EQ(ostrel_db_open(longest.c_str(), -5, &all_slots, 0, &db), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_get_name(db), longest);
	EXPECT_EQ(ostrel_db_get_enclaveid(db), -5);
	EXPECT_EQ(ostrel_db_get_cmds(db), &all_slots);
	ostrel_db_t refused = db;
	EXPECT_EQ(ostrel_db_open((longest + "n").c_str(), 0, &all_slots, 0, &refused), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_db_open(nullptr, 0, &all_slots, 0, &refused), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_db_open("x", 0, nullptr, 0, &refused), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_db_open("x", 0, &all_slots, 0, nullptr), OSTREL_INVALID_ARG);
	EXPECT_EQ(refused, db);
	EXPECT_EQ(backend.calls.size(), 1U) << "a refused open must not reach the back end";
}

TEST_P(Dispatch, AnOpenKeepsTwoFlagsAndShowsACompleteHandle)
{
	const uint64_t kept[][2] = {{0x1, 0}, {0x2, 2}, {0x4, 4}, {0xFFFF, 6}, {~0ULL, 6}};
	backend_to_open = &backend;
	for (const auto &row : kept) {
		backend.calls.clear();
		ASSERT_EQ(ostrel_db_open("a name", 0, &all_slots, row[0], &db), OSTREL_SUCCESS);
		EXPECT_EQ(ostrel_db_get_flags(db), row[1]);
		ASSERT_EQ(backend.calls.size(), 1U);
		EXPECT_EQ(backend.calls[0].flags, row[1]);
		EXPECT_EQ(backend.calls[0].second, "a name");
		EXPECT_EQ(backend.calls[0].lock, Lock::None);
		ostrel_db_close(db);
		EXPECT_EQ(backend.calls.back().slot, "close");
		EXPECT_EQ(backend.calls.back().lock, Lock::Write);
	}
	db = nullptr;
}

TEST_P(Dispatch, AFailedOpenSlotEndsTheOpen)
{
	backend_to_open = &backend;
	for (ostrel_error_t result : {OSTREL_NOT_FOUND, OSTREL_NEEDS_RETRY}) {
		backend.result = result;
		EXPECT_EQ(ostrel_db_open("x", 0, &all_slots, 0, &db), result);
		EXPECT_EQ(db, nullptr);
	}
	for (const Call &call : backend.calls)
		EXPECT_EQ(call.slot, "open") << "what never opened isn't closed";
}

TEST_P(Dispatch, EmptySlotsRefuseOperationsAndNothingElse)
{
	open(0, &no_slots);
	AttrList idl = idl_of("a=1");
	attrlist_t *found = idl.get();
	auto nothing = [](ostrel_db_t, attrlist_t *, attrlist_t *, uint64_t, void *) { return 0; };
	for (ostrel_db_t handle : {db, static_cast<ostrel_db_t>(nullptr)}) {
		EXPECT_EQ(ostrel_db_read(handle, idl.get(), 0, &found), OSTREL_INVALID_ARG);
		EXPECT_EQ(ostrel_db_write(handle, idl.get(), 0, idl.get()), OSTREL_INVALID_ARG);
		EXPECT_EQ(ostrel_db_rename(handle, idl.get(), 0, idl.get()), OSTREL_INVALID_ARG);
		EXPECT_EQ(ostrel_db_remove(handle, idl.get(), 0), OSTREL_INVALID_ARG);
		EXPECT_EQ(ostrel_db_walk(handle, idl.get(), 0, nothing, nullptr, nullptr, nullptr), OSTREL_INVALID_ARG);
		EXPECT_EQ(ostrel_db_get_object_props(handle, idl.get(), 0, &found), OSTREL_INVALID_ARG);
		EXPECT_EQ(ostrel_db_check_auth(handle, B_TRUE), OSTREL_SUCCESS);
	}
	EXPECT_EQ(found, idl.get());
	EXPECT_TRUE(backend.calls.empty());

	const struct ostrel_db_cmds nothing_at_all = {};
	ostrel_db_t bare;
	ASSERT_EQ(ostrel_db_open("x", 0, &nothing_at_all, 0, &bare), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_get_priv(bare), nullptr);
	EXPECT_STREQ(ostrel_db_get_read_auth(bare), "");
	ostrel_db_close(bare);
	ostrel_db_close(nullptr);
}

TEST_P(Dispatch, AuthorizationIsAskedOfTheBackEndWithoutALock)
{
	open();
	EXPECT_EQ(ostrel_db_check_auth(db, B_TRUE), OSTREL_EPERM);
	EXPECT_EQ(ostrel_db_check_auth(db, B_FALSE), OSTREL_EPERM);
	ASSERT_EQ(backend.calls.size(), 2U);
	EXPECT_EQ(backend.calls[0].slot, "auth write");
	EXPECT_EQ(backend.calls[1].slot, "auth read");
	EXPECT_EQ(backend.calls[1].lock, Lock::None);
}

// ---- Read ----

TEST_P(Dispatch, AReadIsExactWithPropertiesAndUnderTheReadLock)
{
	open(OSTREL_FLAG_TEMPORARY);
	hold("a=1", "p=x");
	AttrList props;
	EXPECT_EQ(ostrel_db_read(db, idl_of("a=1").get(), 0x100, props.out()), OSTREL_SUCCESS);
	ASSERT_EQ(backend.calls.size(), 1U);
	EXPECT_EQ(backend.calls[0].flags, 0x107U);
	EXPECT_EQ(backend.calls[0].lock, Lock::Read);
	EXPECT_EQ(backend.calls[0].idl, "a=1;");
}

TEST_P(Dispatch, AReadGivesThePropertiesAndEveryStoredIdentifier)
{
	open();
	hold("a=stored;b=2", "p=x;q=y");
	AttrList idl = idl_of("object-db-name=elsewhere;a=STORED");
	AttrList props;
	ASSERT_EQ(ostrel_db_read(db, idl.get(), 0, props.out()), OSTREL_SUCCESS);
	EXPECT_EQ(text_of(props.get()), "p=x;q=y;");
	EXPECT_EQ(text_of(idl.get()), "object-db-name=elsewhere;a=stored;b=2;");

	AttrList only_idl = idl_of("a=STORED");
	EXPECT_EQ(ostrel_db_read(db, only_idl.get(), 0, nullptr), OSTREL_SUCCESS);
	EXPECT_EQ(text_of(only_idl.get()), "a=stored;b=2;");
	EXPECT_EQ(ostrel_db_read(db, nullptr, 0, props.out()), OSTREL_SUCCESS) << "nowhere to merge into";
	EXPECT_EQ(text_of(props.get()), "p=x;q=y;");
}

TEST_P(Dispatch, AReadOfAnythingButOneWholeObjectLeavesTheCallersListsAlone)
{
	open();
	AttrList idl = idl_of("a=A");
	attrlist_t *props = idl.get();
	auto expect = [&](ostrel_error_t expected, const char *what) {
		EXPECT_EQ(ostrel_db_read(db, idl.get(), 0, &props), expected) << what;
		EXPECT_EQ(text_of(idl.get()), "a=A;") << what;
		EXPECT_EQ(props, idl.get()) << what;
		EXPECT_EQ(lock_of(db), Lock::None) << what;
	};
	expect(OSTREL_NOT_FOUND, "no object");
	backend.null_array = true;
	expect(OSTREL_NOT_FOUND, "no object and no array");
	backend.null_array = false;
	hold("a=a", "p=x");
	hold("a=a", "p=y");
	expect(OSTREL_INVALID_ARG, "two objects");
	backend.objects.clear();
	backend.objects.emplace_back();
	ASSERT_EQ(ostrel_object_create(idl_of("a=a").get(), nullptr, backend.objects[0].out()), OSTREL_SUCCESS);
	expect(OSTREL_NOT_FOUND, "an object without properties");
	for (ostrel_error_t result : {OSTREL_FAILURE, OSTREL_NEEDS_RETRY, OSTREL_WALK_HALTED}) {
		backend.result = result;
		expect(result, "a back end that fails");
	}
}

TEST_P(Dispatch, NamedPropertiesAreFilledInAndTheMissingOnesDropped)
{
	open();
	hold("a=1", "p=x;q=y;r=z");
	int64_t number[] = {5};
	AttrList object_props = props_of("p=x;q=y;r=z");
	ASSERT_EQ(attrlist_add_int64_array(object_props.get(), "n", number, 1), 0);
	backend.objects.clear();
	backend.objects.emplace_back();
	ASSERT_EQ(
	    ostrel_object_create(idl_of("a=1").get(), object_props.get(), backend.objects[0].out()), OSTREL_SUCCESS);

	AttrList wanted = idl_of("q=;gone=;n=;p=");
	ASSERT_EQ(attrlist_add_int64(wanted.get(), "also-gone", 1), 0);
	attrlist_t *props = wanted.get();
	ASSERT_EQ(ostrel_db_get_object_props(db, idl_of("a=1").get(), 0, &props), OSTREL_SUCCESS);
	EXPECT_EQ(props, wanted.get());
	EXPECT_EQ(text_of(props), "q=y;n=<" + std::to_string(DATA_TYPE_INT64_ARRAY) + ">;p=x;");

	backend.objects.clear();
	EXPECT_EQ(ostrel_db_get_object_props(db, idl_of("a=1").get(), 0, &props), OSTREL_NOT_FOUND);
	EXPECT_EQ(text_of(props).substr(0, 4), "q=y;");
	attrlist_t *none = nullptr;
	EXPECT_EQ(ostrel_db_get_object_props(db, idl_of("a=1").get(), 0, &none), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_db_get_object_props(db, idl_of("a=1").get(), 0, nullptr), OSTREL_INVALID_ARG);
}

// ---- Write, rename, remove ----

struct UpdateKind {
	const char *slot;
	unsigned short event;
	ostrel_error_t (*call)(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *second);
};
const UpdateKind update_kinds[] = {
    {"write", 134, [](auto db, auto idl, auto flags, auto second) { return ostrel_db_write(db, idl, flags, second); }},
    {"rename", 134,
	[](auto db, auto idl, auto flags, auto second) { return ostrel_db_rename(db, idl, flags, second); }},
    {"remove", 135, [](auto db, auto idl, auto flags, auto) { return ostrel_db_remove(db, idl, flags); }},
};

TEST_P(Dispatch, AnUpdateAndItsAuditRunUnderOneWriteLockWithTheCallersFlags)
{
	open(OSTREL_DB_CASE_SENSITIVE | OSTREL_FLAG_TEMPORARY);
	for (const UpdateKind &kind : update_kinds) {
		for (ostrel_error_t result : {OSTREL_SUCCESS, OSTREL_NOT_FOUND}) {
			backend.calls.clear();
			backend.result = result;
			EXPECT_EQ(kind.call(db, idl_of("a=1").get(), 0x101, props_of("p=x").get()), result);
			ASSERT_EQ(backend.calls.size(), 2U);
			const Call &update = backend.calls[0];
			const Call &audit = backend.calls[1];
			EXPECT_EQ(update.slot, kind.slot);
			EXPECT_EQ(update.flags, 0x101U);
			EXPECT_EQ(update.idl, "a=1;");
			EXPECT_EQ(update.second, kind.event == 134 ? "p=x;" : "");
			EXPECT_EQ(audit.slot, "audit");
			EXPECT_EQ(audit.event, kind.event);
			EXPECT_EQ(audit.idl, "a=1;");
			EXPECT_EQ(audit.result, result);
			EXPECT_EQ(update.lock, Lock::Write);
			EXPECT_EQ(audit.lock, Lock::Write);
			EXPECT_EQ(lock_of(db), Lock::None);
		}
	}
}

ostrel_error_t reading_rename_slot(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *newidl)
    REQUIRES(db->db_lock)
{
	AttrList props;
	ostrel_db_unlock(db);
	ostrel_error_t result = ostrel_db_read(db, idl, flags, props.out());
	ostrel_db_wrlock(db);
	return result != OSTREL_SUCCESS ? result : rename_slot(db, newidl, flags, props.get());
}

TEST_P(Dispatch, AnUpdateSlotMayGiveUpTheLockToRead)
{
	struct ostrel_db_cmds cmds = all_slots;
	cmds.dbc_rename = reading_rename_slot;
	cmds.dbc_audit = nullptr;
	open(0, &cmds);
	hold("a=1", "p=x");
	EXPECT_EQ(ostrel_db_rename(db, idl_of("a=1").get(), 0, idl_of("a=2").get()), OSTREL_SUCCESS);
	ASSERT_EQ(backend.calls.size(), 2U);
	EXPECT_EQ(backend.calls[0].lock, Lock::Read);
	EXPECT_EQ(backend.calls[1].idl + backend.calls[1].second, "a=2;p=x;");
	EXPECT_EQ(backend.calls[1].lock, Lock::Write);
	ostrel_db_close(std::exchange(db, nullptr)); // while its table lives
}

// ---- Walk ----

struct Visits {
	std::vector<std::string> seen;
	std::vector<uint64_t> flags;
	size_t halt_at = 0; // the visit that returns 7; 0: none
	static int visit(ostrel_db_t db, attrlist_t *idl, attrlist_t *props, uint64_t flags, void *arg)
	{
		Visits &visits = *static_cast<Visits *>(arg);
		EXPECT_EQ(lock_of(db), Lock::None);
		visits.seen.push_back(text_of(idl) + text_of(props));
		visits.flags.push_back(flags);
		return visits.seen.size() == visits.halt_at ? 7 : 0;
	}
	std::string order() const
	{
		std::string all;
		for (const std::string &one : seen)
			all += one + " ";
		return all;
	}
};

int by_identifiers(attrlist_t **a, attrlist_t **b)
{
	AttrList left;
	AttrList right;
	EXPECT_EQ(ostrel_object_get(*a, left.out(), nullptr), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_object_get(*b, right.out(), nullptr), OSTREL_SUCCESS);
	return text_of(left.get()).compare(text_of(right.get()));
}

TEST_P(Dispatch, AWalkVisitsInTheBackEndsOrderOrSorted)
{
	open(OSTREL_DB_CASE_SENSITIVE | OSTREL_FLAG_TEMPORARY);
	for (const char *id : {"a=2", "a=3", "a=1"})
		hold(id, "p=x");
	Visits plain;
	int returned = 42;
	EXPECT_EQ(ostrel_db_walk(db, idl_of("s=").get(), 0, Visits::visit, nullptr, &plain, &returned), OSTREL_SUCCESS);
	EXPECT_EQ(plain.order(), "a=2;p=x; a=3;p=x; a=1;p=x; ");
	Visits sorted;
	EXPECT_EQ(
	    ostrel_db_walk(db, nullptr, 0x101, Visits::visit, by_identifiers, &sorted, &returned), OSTREL_SUCCESS);
	EXPECT_EQ(sorted.order(), "a=1;p=x; a=2;p=x; a=3;p=x; ");
	EXPECT_EQ(returned, 42);

	// The back end is told to give properties; the callback sees what the caller said. The handle's flags play no part.
	ASSERT_EQ(backend.calls.size(), 2U);
	EXPECT_EQ(backend.calls[0].flags, 0x2U);
	EXPECT_EQ(backend.calls[1].flags, 0x103U);
	EXPECT_EQ(backend.calls[0].idl, "s=;");
	EXPECT_EQ(backend.calls[0].lock, Lock::None);
	EXPECT_EQ(plain.flags, (std::vector<uint64_t>{0, 0, 0}));
	EXPECT_EQ(sorted.flags, (std::vector<uint64_t>{0x101, 0x101, 0x101}));
}

TEST_P(Dispatch, AWalkHaltsAtTheFirstCallbackThatSaysSo)
{
	open();
	for (const char *id : {"a=1", "a=2", "a=3", "a=4"})
		hold(id, "p=x");
	int returned = 42;
	for (int *cbret : {&returned, static_cast<int *>(nullptr)}) {
		Visits visits;
		visits.halt_at = 3;
		EXPECT_EQ(ostrel_db_walk(db, nullptr, 0, Visits::visit, nullptr, &visits, cbret), OSTREL_WALK_HALTED);
		EXPECT_EQ(visits.seen.size(), 3U);
	}
	EXPECT_EQ(returned, 7);
}

TEST_P(Dispatch, AWalkOverNothingSucceedsAndAFailedOneEndsWhereItFails)
{
	open();
	Visits visits;
	int returned = 42;
	auto expect = [&](ostrel_error_t expected, ostrel_walkcb_t *cb = Visits::visit) {
		EXPECT_EQ(ostrel_db_walk(db, nullptr, 0, cb, nullptr, &visits, &returned), expected);
	};
	expect(OSTREL_SUCCESS);
	backend.null_array = true;
	expect(OSTREL_SUCCESS);
	backend.null_array = false;
	backend.result = OSTREL_NEEDS_RETRY;
	expect(OSTREL_NEEDS_RETRY);
	EXPECT_TRUE(visits.seen.empty());
	backend.result = OSTREL_SUCCESS;
	backend.calls.clear();
	expect(OSTREL_INVALID_ARG, nullptr);
	EXPECT_TRUE(backend.calls.empty());

	hold("a=1", "p=x");
	backend.objects.emplace_back();
	ASSERT_EQ(ostrel_object_create(idl_of("a=2").get(), nullptr, backend.objects[1].out()), OSTREL_SUCCESS);
	hold("a=3", "p=x");
	expect(OSTREL_NOT_FOUND);
	EXPECT_EQ(visits.order(), "a=1;p=x; ");
	EXPECT_EQ(returned, 42);
}

TEST_P(Dispatch, AWalksCallbackMayUpdateTheDatabaseAndChangeItsLists)
{
	open();
	hold("a=1", "p=x");
	hold("a=2", "p=x");
	auto change = [](ostrel_db_t handle, attrlist_t *idl, attrlist_t *props, uint64_t, void *) {
		const std::string filler(5000, 'f');
		EXPECT_EQ(ostrel_idlist_add(idl, "b", filler.c_str()), OSTREL_SUCCESS);
		EXPECT_EQ(attrlist_remove_all(props, "p"), 0);
		for (int i = 0; i < 100; i++)
			EXPECT_EQ(ostrel_atl_add_one_string(props, ("q" + std::to_string(i)).c_str(), "y"), 0);
		EXPECT_EQ(text_of(idl), text_of(idl).substr(0, 4) + "b=" + filler + ";");
		return static_cast<int>(ostrel_db_write(handle, idl, 0, props));
	};
	EXPECT_EQ(ostrel_db_walk(db, nullptr, 0, change, nullptr, nullptr, nullptr), OSTREL_SUCCESS);
	ASSERT_EQ(backend.calls.size(), 5U);
	EXPECT_EQ(backend.calls[3].slot, "write");
	EXPECT_EQ(backend.calls[3].idl.substr(0, 6), "a=2;b=");
	EXPECT_EQ(backend.calls[3].second.substr(0, 10), "q0=y;q1=y;");
}

// ---- Threads ----

// Two numbers that only the dispatcher's lock keeps equal.
struct Pair {
	long left = 0, right = 0;
};
Pair *shared_pair;

TEST(DispatchThreads, UpdatesExcludeReadsAndOneAnother)
{
	struct ostrel_db_cmds cmds = {};
	cmds.dbc_write = [](ostrel_db_t, attrlist_t *, uint64_t, attrlist_t *) {
		shared_pair->left++;
		std::this_thread::yield();
		shared_pair->right++;
		return OSTREL_SUCCESS;
	};
	cmds.dbc_read = [](ostrel_db_t, attrlist_t *, uint64_t, attrlist_t ***objs, unsigned int *count) {
		*objs = nullptr;
		*count = 0;
		return shared_pair->left == shared_pair->right ? OSTREL_SUCCESS : OSTREL_FAILURE;
	};
	Pair pair;
	shared_pair = &pair;
	ostrel_db_t db;
	ASSERT_EQ(ostrel_db_open("x", 0, &cmds, 0, &db), OSTREL_SUCCESS);
	constexpr int rounds = 2000;
	std::atomic<int> torn = 0;
	std::vector<std::thread> threads;
	for (int i = 0; i < 4; i++) {
		threads.emplace_back([&, i] {
			for (int round = 0; round < rounds; round++) {
				if (i % 2 == 0)
					EXPECT_EQ(ostrel_db_write(db, nullptr, 0, nullptr), OSTREL_SUCCESS);
				else if (ostrel_db_read(db, nullptr, 0, nullptr) != OSTREL_NOT_FOUND)
					torn++;
			}
		});
	}
	for (std::thread &thread : threads)
		thread.join();
	ostrel_db_close(db);
	EXPECT_EQ(torn, 0);
	EXPECT_EQ(pair.left, 2 * rounds);
	EXPECT_EQ(pair.right, 2 * rounds);
}

} // namespace
