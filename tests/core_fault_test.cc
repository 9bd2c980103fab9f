// Memory that runs out in each operation of handle, identifier lists and objects, at each of its allocations: the result
// says so and nothing of the caller's changes, or the operation copes; and nothing is left on the heap.
#include <climits>
#include <gtest/gtest.h>
#include <memory>

#include "alloc_fault.h"
#include "line_lists.h"
#include "scratch.h"

namespace {

// So long that the caller's list grows when what is stored is merged into it.
const std::string stored_ids = "a=" + std::string(1500, 'x'), searched_ids = "a=" + std::string(1500, 'X');

// An open database, and the lists of a caller.
struct Subject {
	TestDb db;
	AttrList idl = idl_of(searched_ids);
	AttrList search = idl_of(searched_ids); // may change
	AttrList props = props_of("p=;gone=");
	AttrList object = object_of("a=1", "p=x");
	AttrList packed; // the object, in a list of objects
	Heap<void> array{malloc(64)};
	AttrList out; // what the operation makes

	explicit Subject(const std::string &path) : db(path)
	{
		attrlist_t *one = object.get();
		EXPECT_EQ(ostrel_object_list_create(&one, 1, packed.out()), OSTREL_SUCCESS);
	}
	void expect_unchanged() const
	{
		EXPECT_EQ(text_of(idl.get()), searched_ids + ";");
		EXPECT_EQ(text_of(props.get()), "p=;gone=;");
		EXPECT_FALSE(out);
	}
};
using SubjectPtr = std::unique_ptr<Subject>;

class CoreFaults : public testing::Test {
protected:
	void SetUp() override
	{
		SKIP_WITHOUT_ALLOC_FAULTS();
		store(1);
	}
	// The values of p are the numbers from 1000 on, in a disorder.
	void store(int objects)
	{
		std::string text;
		for (int i = 0; i < objects; i++)
			text +=
			    stored_ids + ";\tp=string," + std::to_string(1000 + i * 7919 % objects) + ";q=string,y;\n";
		scratch_.write("db", text);
	}
	SubjectPtr make_subject() const { return std::make_unique<Subject>(scratch_.path("db")); }

	Scratch scratch_;
};

const std::string long_name(5000, 'n');

// Operations that succeed, or lack memory and change nothing, and how many allocations each makes at least: none may pass
// by making none at all.
const struct {
	const char *what;
	int allocations;
	ostrel_error_t (*run)(Subject &s);
	bool copes = false; // it may succeed though one of them fails
} operations[] = {
    {"list of identifiers", 1, [](Subject &s) { return ostrel_idlist_init(s.out.out(), long_name.c_str()); }},
    {"identifier", 1, [](Subject &s) { return ostrel_idlist_add(s.idl.get(), "b", long_name.c_str()); }},
    {"enclave's id", 0, [](Subject &s) { return ostrel_idlist_add_enclaveid(s.idl.get(), 5); }}, // may fit as it is
    {"object", 1, [](Subject &s) { return ostrel_object_create(s.idl.get(), s.props.get(), s.out.out()); }},
    {"lists of an object", 1,
	[](Subject &s) {
		AttrList props;
		const ostrel_error_t result = ostrel_object_get(s.object.get(), s.out.out(), props.out());
		EXPECT_EQ(static_cast<bool>(props), result == OSTREL_SUCCESS);
		return result;
	}},
    {"list of objects", 1,
	[](Subject &s) {
		attrlist_t *objs[] = {s.object.get(), s.object.get()};
		return ostrel_object_list_create(objs, 2, s.out.out());
	}},
    {"objects of a list", 2,
	[](Subject &s) {
		Objects objs;
		return ostrel_object_list_get_objects(s.packed.get(), objs.out(), objs.out_count());
	}},
    {"open", 1,
	[](Subject &) {
		ostrel_db_t db = nullptr;
		const ostrel_error_t result = ostrel_db_open("x", 0, ostrel_files_db_cmds, 0, &db);
		EXPECT_EQ(db != nullptr, result == OSTREL_SUCCESS);
		ostrel_db_close(db);
		return result;
	}},
    {"named properties", 4,
	[](Subject &s) {
		attrlist_t *props = s.props.get();
		return ostrel_db_get_object_props(s.db, s.search.get(), 0, &props);
	},
	true},
    {"growing array", 1,
	[](Subject &s) {
		void *buf = s.array.release();
		int count = 64;
		const ostrel_error_t result = grow_buf(&buf, &count, 1);
		EXPECT_EQ(count, result == OSTREL_SUCCESS ? 128 : 64);
		s.array.reset(buf);
		return result;
	}},
};

TEST_F(CoreFaults, AnOperationSucceedsOrChangesNothing)
{
	for (const auto &operation : operations) {
		SCOPED_TRACE(operation.what);
		const int rounds = sweep_allocations([&] { return make_subject(); },
		    [&](SubjectPtr &subject) { return operation.run(*subject); },
		    [&](const SubjectPtr &subject, ostrel_error_t result, bool failed) {
			    const bool lacks_memory = failed && !(operation.copes && result == OSTREL_SUCCESS);
			    EXPECT_EQ(result, lacks_memory ? OSTREL_NO_MEMORY : OSTREL_SUCCESS);
			    if (result != OSTREL_SUCCESS)
				    subject->expect_unchanged();
		    });
		EXPECT_GT(rounds, operation.allocations);
	}
}

TEST_F(CoreFaults, AReadFailsWholeOrLacksAnIdentifierAtMost)
{
	int incomplete = 0;
	sweep_allocations([&] { return make_subject(); },
	    [](SubjectPtr &s) { return ostrel_db_read(s->db, s->idl.get(), 0, s->out.out()); },
	    [&](const SubjectPtr &s, ostrel_error_t result, bool failed) {
		    if (result != OSTREL_SUCCESS) {
			    EXPECT_TRUE(failed);
			    EXPECT_EQ(result, OSTREL_NO_MEMORY);
			    s->expect_unchanged();
			    return;
		    }
		    EXPECT_EQ(text_of(s->out.get()), "p=1000;q=y;");
		    const bool whole = text_of(s->idl.get()) == stored_ids + ";";
		    EXPECT_TRUE(whole || failed);
		    incomplete += !whole;
	    });
	EXPECT_GT(incomplete, 0) << "no round failed in the merge";
}

// What a walk came to: the visits, whether they were in order, and whether each began with less on the heap than the one
// before it.
struct Visits {
	int seen = 0;
	bool in_order = true, shrinking = true;
	long bytes = LONG_MAX;
};

int number_of(attrlist_t *props)
{
	char *value = nullptr;
	EXPECT_EQ(ostrel_atl_get_one_string(props, "p", &value), 0);
	return atoi(value);
}

int visit(ostrel_db_t, attrlist_t *, attrlist_t *props, uint64_t, void *arg)
{
	auto *visits = static_cast<Visits *>(arg);
	visits->in_order &= number_of(props) == 1000 + visits->seen++;
	visits->shrinking &= heap_use().bytes < std::exchange(visits->bytes, heap_use().bytes);
	return 0;
}

int by_number(attrlist_t **a, attrlist_t **b)
{
	attrlist_t *idl, *left, *right;
	EXPECT_EQ(ostrel_object_look(*a, &idl, &left), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_object_look(*b, &idl, &right), OSTREL_SUCCESS);
	return number_of(left) - number_of(right);
}

// Sorted, so that all objects are read before the first callback; each is given back after its own.
TEST_F(CoreFaults, AWalkFailsBeforeItsFirstCallbackOrVisitsAllInOrder)
{
	constexpr int objects = 150; // so many that sorting them asks for memory
	store(objects);
	Visits visits;
	sweep_allocations([&] { return make_subject(); },
	    [&](SubjectPtr &s) {
		    visits = {};
		    return ostrel_db_walk(s->db, s->idl.get(), 0, visit, by_number, &visits, nullptr);
	    },
	    [&](const SubjectPtr &s, ostrel_error_t result, bool failed) {
		    EXPECT_EQ(visits.seen, result == OSTREL_SUCCESS ? objects : 0);
		    EXPECT_TRUE(visits.in_order && visits.shrinking);
		    EXPECT_TRUE(result == OSTREL_SUCCESS || (failed && result == OSTREL_NO_MEMORY));
		    s->expect_unchanged();
	    });
}

} // namespace
