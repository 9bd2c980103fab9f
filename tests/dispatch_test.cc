// The handle and the dispatcher, over a back end of the test's own that keeps objects in memory and notes what it sees.
// Every case runs twice: as it is, and with all trace points switched on, which must change nothing.
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <thread>
#include <vector>

#include "libostrel_impl.h"
#include "libostrel_trace.h"
#include "lists.h"
#include "test_paths.h"

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

std::string shown(attrlist_t *list)
{
	return list == nullptr ? "-" : text_of(list);
}

struct Backend {
	std::vector<AttrList> objects; // what a read finds, whatever it looks for
	bool null_array = false;       // a read of nothing gives no array
	ostrel_error_t result = OSTREL_SUCCESS;
	Lines
	    calls; // of slots, and of a walk's callback: the lock, a number (flags, or an audit's event), and the lists

	ostrel_error_t note(const std::string &slot, ostrel_db_t db, uint64_t number, attrlist_t *idl = nullptr,
	    attrlist_t *second = nullptr)
	{
		std::ostringstream line;
		line << slot << " lock " << lock_of(db) << " 0x" << std::hex << number;
		for (attrlist_t *list : {idl, second})
			line << (list == nullptr ? "" : " " + text_of(list));
		calls.push_back(line.str());
		return result;
	}
	void hold(const std::string &idl, const std::string &props)
	{
		const AttrList of_object = props == "-" ? AttrList() : props_of(props);
		objects.emplace_back();
		ASSERT_EQ(
		    ostrel_object_create(idl_of(idl).get(), of_object.get(), objects.back().out()), OSTREL_SUCCESS);
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
	if (ostrel_error_t result = backend.note("read", db, flags, idl)) {
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
	*objs = backend.null_array && found.count() == 0 ? nullptr : found.release();
	return OSTREL_SUCCESS;
}

constexpr struct ostrel_db_cmds all_slots = {
    .dbc_open =
	[](ostrel_db_t db) {
		db->db_privlock.lock();
		ostrel_db_set_priv(db, backend_to_open);
		db->db_privlock.unlock();
		return backend_of(db).note(ostrel_db_get_name(db), db, ostrel_db_get_flags(db));
	},
    .dbc_close = [](ostrel_db_t db) { (void) backend_of(db).note("close", db, 0); },
    .dbc_read = read_slot,
    .dbc_write = [](ostrel_db_t db, attrlist_t *idl, uint64_t flags,
		     attrlist_t *props) { return backend_of(db).note("write", db, flags, idl, props); },
    .dbc_rename = [](ostrel_db_t db, attrlist_t *idl, uint64_t flags,
		      attrlist_t *newidl) { return backend_of(db).note("rename", db, flags, idl, newidl); },
    .dbc_remove = [](ostrel_db_t db, attrlist_t *idl,
		      uint64_t flags) { return backend_of(db).note("remove", db, flags, idl); },
    .dbc_audit =
	[](ostrel_db_t db, unsigned short event, attrlist_t *idl, ostrel_error_t result) {
		(void) backend_of(db).note(std::string("audit of ") + ostrel_strerror(result), db, event, idl);
	},
    .dbc_auth =
	[](ostrel_db_t db, boolean_t write) {
		(void) backend_of(db).note("auth", db, write);
		return OSTREL_EPERM;
	},
};

// A walk's callback, which changes the lists that it is given. `arg` counts down to the visit that halts.
int visit(ostrel_db_t db, attrlist_t *idl, attrlist_t *props, uint64_t flags, void *arg)
{
	(void) backend_of(db).note("visit", db, flags, idl, props);
	EXPECT_EQ(ostrel_idlist_add(idl, "b", std::string(5000, 'f').c_str()), OSTREL_SUCCESS);
	EXPECT_EQ(attrlist_remove_all(props, "p"), 0);
	return --*static_cast<int *>(arg) == 0 ? 7 : 0;
}

int by_identifiers(attrlist_t **a, attrlist_t **b)
{
	attrlist_t *left = nullptr, *right = nullptr, *props;
	EXPECT_EQ(ostrel_object_look(*a, &left, &props), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_object_look(*b, &right, &props), OSTREL_SUCCESS);
	return text_of(left).compare(text_of(right));
}

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

	// Carries out a command of the script, and gives what it did.
	Lines run(const std::string &command)
	{
		std::istringstream words(command);
		std::string name, ids, second;
		uint64_t number = 0;
		words >> name >> std::hex >> number >> ids >> second;
		if (name == "open") {
			close();
			backend = {};
			open(number);
		} else if (name == "hold") {
			backend.hold(ids, second);
		} else if (name == "null-array") {
			backend.null_array = true;
		} else if (name == "result") {
			backend.result = static_cast<ostrel_error_t>(number);
		} else {
			return call(name, number, ids == "-" ? AttrList() : idl_of(ids), second);
		}
		return {};
	}

	Lines call(const std::string &name, uint64_t flags, const AttrList &idl, const std::string &second)
	{
		const AttrList other = idl_of(second), untouched = idl_of("");
		attrlist_t *props = untouched.get();
		int countdown = atoi(second.c_str()), returned = 42;
		ostrel_error_t result = OSTREL_FAILURE;
		if (name == "read" || name == "find")
			result = ostrel_db_read(db, idl.get(), flags, name == "read" ? &props : nullptr);
		else if (name == "write")
			result = ostrel_db_write(db, idl.get(), flags, other.get());
		else if (name == "rename")
			result = ostrel_db_rename(db, idl.get(), flags, other.get());
		else if (name == "remove")
			result = ostrel_db_remove(db, idl.get(), flags);
		else
			result = ostrel_db_walk(db, idl.get(), flags, visit,
			    name == "sorted" ? by_identifiers : nullptr, &countdown, &returned);
		EXPECT_STREQ(lock_of(db), "none") << name;
		const std::string found = props == untouched.get() ? "untouched" : text_of(AttrList(props).get());
		backend.calls.push_back(std::string("= ") + ostrel_strerror(result) + ", " + shown(idl.get()) + " " +
					found + ", " + std::to_string(returned));
		return std::exchange(backend.calls, {});
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
		    backend.calls, (Lines{"a name lock none 0x" + std::to_string(row[1]), "close lock write 0x0"}));
	}
}

TEST_P(Dispatch, AFailedOpenSlotEndsTheOpen)
{
	backend.result = OSTREL_NEEDS_RETRY;
	EXPECT_EQ(ostrel_db_open("x", 0, &all_slots, 0, &db), OSTREL_NEEDS_RETRY);
	EXPECT_EQ(db, nullptr);
	EXPECT_EQ(backend.calls, Lines{"x lock none 0x0"}) << "what never opened isn't closed";
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
	EXPECT_EQ(backend.calls, (Lines{"auth lock none 0x1", "auth lock none 0x0"}));
}

// ---- Reads, updates, walks ----

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

TEST_P(Dispatch, AWalkNeedsACallbackAndNoPlaceForItsResult)
{
	open();
	backend.hold("a=1", "p=x");
	int countdown = 1;
	EXPECT_EQ(ostrel_db_walk(db, nullptr, 0, nullptr, nullptr, nullptr, nullptr), OSTREL_INVALID_ARG);
	EXPECT_EQ(backend.calls, Lines{});
	EXPECT_EQ(ostrel_db_walk(db, nullptr, 0, visit, nullptr, &countdown, nullptr), OSTREL_WALK_HALTED);
}

TEST_P(Dispatch, EachCommandOfTheScriptDoesWhatIsWrittenBelowIt)
{
	std::ifstream script(TEST_SOURCE_DIR "/tests/golden/dispatch.txt");
	std::string command;
	Lines expected, done;
	int commands = 0;
	for (std::string line; std::getline(script, line);) {
		if (line.empty() || line[0] == '#')
			continue;
		if (line[0] == ' ') {
			expected.push_back(line.substr(2));
			continue;
		}
		EXPECT_EQ(done, expected) << command;
		expected.clear();
		command = line;
		done = run(command);
		commands++;
	}
	EXPECT_EQ(done, expected) << command;
	EXPECT_GT(commands, 40);
}

} // namespace
