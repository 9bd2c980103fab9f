// The handle and the dispatcher, over a back end of the test's own that keeps objects in memory and notes what it sees.
// Every case runs twice: as it is, and with all trace points switched on, which must change nothing.
#include <gtest/gtest.h>
#include <thread>
#include <vector>

#include "libostrel_impl.h"
#include "libostrel_trace.h"
#include "lists.h"

namespace {

// Which lock of the handle is held, found out by a thread that holds none: "none", "read" or "write".
const char *lock_of(ostrel_db_t db)
{
	const char *seen = "write";
	std::thread([&] {
		if (pthread_rwlock_trywrlock(&db->db_lock.raw) == 0)
			seen = "none";
		else if (pthread_rwlock_tryrdlock(&db->db_lock.raw) == 0)
			seen = "read";
		else
			return;
		pthread_rwlock_unlock(&db->db_lock.raw);
	}).join();
	return seen;
}

using Lines = std::vector<std::string>;

// A call of a slot as the back end saw it: the lock, a number (flags, or an audit's event), and the lists.
std::string line_of(const std::string &slot, const char *lock, uint64_t number, const std::string &lists)
{
	return slot + ", lock " + lock + ", " + std::to_string(number) + ", " + lists;
}

struct Backend {
	std::vector<AttrList> objects; // what a read finds, whatever it looks for
	bool null_array = false;       // a read of nothing gives no array
	ostrel_error_t result = OSTREL_SUCCESS;
	Lines calls;

	ostrel_error_t note(const char *slot, ostrel_db_t db, uint64_t number, attrlist_t *idl, attrlist_t *second)
	{
		calls.push_back(line_of(slot, lock_of(db), number, text_of(idl) + " " + text_of(second)));
		return result;
	}
	void hold(const std::string &idl, const std::string &props) { objects.push_back(object_of(idl, props)); }
	void hold_without_properties(const std::string &idl)
	{
		objects.emplace_back();
		ASSERT_EQ(ostrel_object_create(idl_of(idl).get(), nullptr, objects.back().out()), OSTREL_SUCCESS);
	}
};

Backend *backend_to_open;

Backend &backend_of(ostrel_db_t db)
{
	MutexLock hold(db->db_privlock);
	return *static_cast<Backend *>(ostrel_db_get_priv(db));
}

ostrel_error_t read_slot(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t ***objs, unsigned int *count)
{
	Backend &backend = backend_of(db);
	if (ostrel_error_t result = backend.note("read", db, flags, idl, nullptr)) {
		*objs = reinterpret_cast<attrlist_t **>(-1); // nobody may look at this
		*count = 1000;
		return result;
	}
	Objects found;
	if (!found.alloc(static_cast<unsigned int>(backend.objects.size())))
		return OSTREL_NO_MEMORY;
	for (unsigned int i = 0; i < found.count(); i++) {
		if (attrlist_dup(backend.objects[i].get(), &found[i], 0) != 0)
			return OSTREL_NO_MEMORY;
	}
	*count = found.count();
	*objs = backend.null_array ? nullptr : found.release();
	return OSTREL_SUCCESS;
}

constexpr struct ostrel_db_cmds all_slots = {
    .dbc_open =
	[](ostrel_db_t db) {
		db->db_privlock.lock();
		ostrel_db_set_priv(db, backend_to_open);
		db->db_privlock.unlock();
		return backend_of(db).note(ostrel_db_get_name(db), db, ostrel_db_get_flags(db), nullptr, nullptr);
	},
    .dbc_close = [](ostrel_db_t db) { (void) backend_of(db).note("close", db, 0, nullptr, nullptr); },
    .dbc_read = read_slot,
    .dbc_write = [](ostrel_db_t db, attrlist_t *idl, uint64_t flags,
		     attrlist_t *props) { return backend_of(db).note("write", db, flags, idl, props); },
    .dbc_rename = [](ostrel_db_t db, attrlist_t *idl, uint64_t flags,
		      attrlist_t *newidl) { return backend_of(db).note("rename", db, flags, idl, newidl); },
    .dbc_remove = [](ostrel_db_t db, attrlist_t *idl,
		      uint64_t flags) { return backend_of(db).note("remove", db, flags, idl, nullptr); },
    .dbc_audit =
	[](ostrel_db_t db, unsigned short event, attrlist_t *idl, ostrel_error_t result) {
		const std::string slot = std::string("audit of ") + ostrel_strerror(result);
		(void) backend_of(db).note(slot.c_str(), db, event, idl, nullptr);
	},
    .dbc_auth =
	[](ostrel_db_t db, boolean_t write) {
		(void) backend_of(db).note("auth", db, write, nullptr, nullptr);
		return OSTREL_EPERM;
	},
};

class Dispatch : public testing::TestWithParam<bool> {
protected:
	Dispatch()
	{
		set_traced(GetParam());
		backend_to_open = &backend;
	}
	~Dispatch() override
	{
		close();
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
		ASSERT_EQ(ostrel_db_open("some db", 0, cmds, flags, &db), OSTREL_SUCCESS);
		backend.calls.clear();
	}
	void close()
	{
		if (db != nullptr) {
			EXPECT_STREQ(lock_of(db), "none") << "a lock was left behind";
		}
		ostrel_db_close(std::exchange(db, nullptr));
	}

	Backend backend;
	ostrel_db_t db = nullptr;
};

INSTANTIATE_TEST_SUITE_P(
    Traced, Dispatch, testing::Bool(), [](const auto &instance) { return instance.param ? "Traced" : "Quiet"; });

// ---- Open, close, the handle ----

TEST_P(Dispatch, ANameOf1023BytesOpensAndOneMoreIsRefused)
{
	const std::string longest(OSTREL_DB_NAME_MAX, 'n');
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
	for (const auto &row : kept) {
		backend.calls.clear();
		ASSERT_EQ(ostrel_db_open("a name", 0, &all_slots, row[0], &db), OSTREL_SUCCESS);
		close();
		EXPECT_EQ(
		    backend.calls, (Lines{line_of("a name", "none", row[1], " "), line_of("close", "write", 0, " ")}));
	}
}

TEST_P(Dispatch, AFailedOpenSlotEndsTheOpen)
{
	backend.result = OSTREL_NEEDS_RETRY;
	EXPECT_EQ(ostrel_db_open("x", 0, &all_slots, 0, &db), OSTREL_NEEDS_RETRY);
	EXPECT_EQ(db, nullptr);
	EXPECT_EQ(backend.calls, Lines{line_of("x", "none", 0, " ")}) << "what never opened isn't closed";
}

TEST_P(Dispatch, EmptySlotsRefuseOperationsAndNothingElse)
{
	const struct ostrel_db_cmds no_slots = {};
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
	EXPECT_STREQ(ostrel_db_get_read_auth(db), "");
	close(); // while its table lives
	ostrel_db_close(nullptr);
}

TEST_P(Dispatch, AuthorizationIsAskedOfTheBackEndWithoutALock)
{
	open();
	EXPECT_EQ(ostrel_db_check_auth(db, B_TRUE), OSTREL_EPERM);
	EXPECT_EQ(ostrel_db_check_auth(db, B_FALSE), OSTREL_EPERM);
	EXPECT_EQ(backend.calls, (Lines{line_of("auth", "none", 1, " "), line_of("auth", "none", 0, " ")}));
}

// ---- Read ----

TEST_P(Dispatch, AReadIsExactUnderTheReadLockAndGivesPropertiesAndStoredIdentifiers)
{
	open(OSTREL_FLAG_TEMPORARY);
	backend.hold("a=stored;b=2", "p=x;q=y");
	AttrList idl = idl_of("object-db-name=elsewhere;a=STORED");
	AttrList props;
	ASSERT_EQ(ostrel_db_read(db, idl.get(), 0x100, props.out()), OSTREL_SUCCESS);
	EXPECT_EQ(backend.calls, Lines{line_of("read", "read", 0x107, "object-db-name=elsewhere;a=STORED; ")});
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
		EXPECT_STREQ(lock_of(db), "none") << what;
	};
	for (bool null_array : {false, true}) {
		backend.null_array = null_array;
		expect(OSTREL_NOT_FOUND, "no object");
	}
	backend.null_array = false;
	backend.hold_without_properties("a=a");
	expect(OSTREL_NOT_FOUND, "an object without properties");
	backend.hold("a=a", "p=y");
	expect(OSTREL_INVALID_ARG, "two objects");
	for (ostrel_error_t result : {OSTREL_FAILURE, OSTREL_NEEDS_RETRY, OSTREL_WALK_HALTED}) {
		backend.result = result;
		expect(result, "a back end that fails");
	}
}

TEST_P(Dispatch, NamedPropertiesAreFilledInAndTheMissingOnesDropped)
{
	open();
	backend.hold("a=1", "p=x;q=y;r=z");
	int64_t number[] = {5};
	attrlist_t *stored = nullptr;
	ASSERT_EQ(attrlist_lookup_attrlist(backend.objects[0].get(), OSTREL_OBJECT_PROPS, &stored), 0);
	ASSERT_EQ(attrlist_add_int64_array(stored, "n", number, 1), 0);

	AttrList wanted = idl_of("q=;gone=;n=;p=");
	ASSERT_EQ(attrlist_add_int64(wanted.get(), "also-gone", 1), 0);
	attrlist_t *props = wanted.get();
	ASSERT_EQ(ostrel_db_get_object_props(db, idl_of("a=1").get(), 0, &props), OSTREL_SUCCESS);
	EXPECT_EQ(props, wanted.get());
	const std::string filled = "q=y;n=<" + std::to_string(DATA_TYPE_INT64_ARRAY) + ">;p=x;";
	EXPECT_EQ(text_of(props), filled);

	backend.objects.clear();
	EXPECT_EQ(ostrel_db_get_object_props(db, idl_of("a=1").get(), 0, &props), OSTREL_NOT_FOUND);
	EXPECT_EQ(text_of(props), filled);
	attrlist_t *none = nullptr;
	EXPECT_EQ(ostrel_db_get_object_props(db, idl_of("a=1").get(), 0, &none), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_db_get_object_props(db, idl_of("a=1").get(), 0, nullptr), OSTREL_INVALID_ARG);
}

// ---- Write, rename, remove ----

TEST_P(Dispatch, AnUpdateAndItsAuditRunUnderOneWriteLockWithTheCallersFlags)
{
	open(OSTREL_DB_CASE_SENSITIVE | OSTREL_FLAG_TEMPORARY);
	AttrList idl = idl_of("a=1"), second = idl_of("p=x");
	for (ostrel_error_t result : {OSTREL_SUCCESS, OSTREL_NOT_FOUND}) {
		backend.calls.clear();
		backend.result = result;
		EXPECT_EQ(ostrel_db_write(db, idl.get(), 0x101, second.get()), result);
		EXPECT_EQ(ostrel_db_rename(db, idl.get(), 0x101, second.get()), result);
		EXPECT_EQ(ostrel_db_remove(db, idl.get(), 0x101), result);
		const std::string audit = std::string("audit of ") + ostrel_strerror(result);
		EXPECT_EQ(backend.calls,
		    (Lines{line_of("write", "write", 0x101, "a=1; p=x;"), line_of(audit, "write", 134, "a=1; "),
			line_of("rename", "write", 0x101, "a=1; p=x;"), line_of(audit, "write", 134, "a=1; "),
			line_of("remove", "write", 0x101, "a=1; "), line_of(audit, "write", 135, "a=1; ")}));
		EXPECT_STREQ(lock_of(db), "none");
	}
}

// ---- Walk ----

struct Visits {
	Lines seen;
	size_t halt_at = 0; // the visit that returns 7; 0: none
	static int visit(ostrel_db_t db, attrlist_t *idl, attrlist_t *props, uint64_t flags, void *arg)
	{
		Visits &visits = *static_cast<Visits *>(arg);
		visits.seen.push_back(line_of("visit", lock_of(db), flags, text_of(idl) + text_of(props)));
		EXPECT_EQ(ostrel_idlist_add(idl, "b", std::string(5000, 'f').c_str()), OSTREL_SUCCESS)
		    << "they are its own";
		EXPECT_EQ(attrlist_remove_all(props, "p"), 0);
		return visits.seen.size() == visits.halt_at ? 7 : 0;
	}
	// What it sees of these objects, which all have the property p=x.
	static Lines of(const Lines &ids, uint64_t flags = 0)
	{
		Lines lines;
		for (const std::string &id : ids)
			lines.push_back(line_of("visit", "none", flags, id + ";p=x;"));
		return lines;
	}
};

int by_identifiers(attrlist_t **a, attrlist_t **b)
{
	attrlist_t *left = nullptr, *right = nullptr, *props;
	EXPECT_EQ(ostrel_object_look(*a, &left, &props), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_object_look(*b, &right, &props), OSTREL_SUCCESS);
	return text_of(left).compare(text_of(right));
}

// The back end is asked for properties; the callback sees the caller's flags. The handle's play no part.
TEST_P(Dispatch, AWalkVisitsInTheBackEndsOrderOrSorted)
{
	open(OSTREL_DB_CASE_SENSITIVE | OSTREL_FLAG_TEMPORARY);
	for (const char *id : {"a=2", "a=3", "a=1"})
		backend.hold(id, "p=x");
	Visits unsorted, sorted;
	int returned = 42;
	EXPECT_EQ(
	    ostrel_db_walk(db, idl_of("s=").get(), 0, Visits::visit, nullptr, &unsorted, &returned), OSTREL_SUCCESS);
	EXPECT_EQ(
	    ostrel_db_walk(db, nullptr, 0x101, Visits::visit, by_identifiers, &sorted, &returned), OSTREL_SUCCESS);
	EXPECT_EQ(unsorted.seen, Visits::of({"a=2", "a=3", "a=1"}));
	EXPECT_EQ(sorted.seen, Visits::of({"a=1", "a=2", "a=3"}, 0x101));
	EXPECT_EQ(returned, 42);
	EXPECT_EQ(backend.calls, (Lines{line_of("read", "none", 2, "s=; "), line_of("read", "none", 0x103, " ")}));
}

TEST_P(Dispatch, AWalkHaltsAtTheFirstCallbackThatSaysSo)
{
	open();
	for (const char *id : {"a=1", "a=2", "a=3"})
		backend.hold(id, "p=x");
	int returned = 42;
	for (int *cbret : {&returned, static_cast<int *>(nullptr)}) {
		Visits visits = {{}, 2};
		EXPECT_EQ(ostrel_db_walk(db, nullptr, 0, Visits::visit, nullptr, &visits, cbret), OSTREL_WALK_HALTED);
		EXPECT_EQ(visits.seen.size(), 2U);
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
	for (bool null_array : {true, false}) {
		backend.null_array = null_array;
		expect(OSTREL_SUCCESS);
	}
	backend.result = OSTREL_NEEDS_RETRY;
	expect(OSTREL_NEEDS_RETRY);
	EXPECT_TRUE(visits.seen.empty());
	backend.result = OSTREL_SUCCESS;
	backend.calls.clear();
	expect(OSTREL_INVALID_ARG, nullptr);
	EXPECT_TRUE(backend.calls.empty());

	backend.hold("a=1", "p=x");
	backend.hold_without_properties("a=2");
	backend.hold("a=3", "p=x");
	expect(OSTREL_NOT_FOUND);
	EXPECT_EQ(visits.seen, Visits::of({"a=1"}));
	EXPECT_EQ(returned, 42);
}

} // namespace
