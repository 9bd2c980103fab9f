// Memory that runs out in each operation of handle, identifier lists and objects, at each of its allocations: the result
// says so and nothing of the caller's changes, or the operation copes; and nothing is left on the heap.
#include <cerrno>
#include <climits>
#include <gtest/gtest.h>
#include <memory>

#include "alloc_fault.h"
#include "libostrel_impl.h"
#include "lists.h"

namespace {

class CoreFaults : public testing::Test {
protected:
	void SetUp() override { SKIP_WITHOUT_ALLOC_FAULTS(); }
};

// An open database over one list of objects, and the lists of a caller.
struct Subject {
	std::vector<AttrList> objects;
	ostrel_db_t db = nullptr;
	AttrList idl = idl_of("a=A");
	AttrList props = props_of("p=;gone=");
	AttrList packed;           // the first object, in a list of objects
	attrlist_t *out = nullptr; // what the operation makes

	Subject() = default;
	Subject(const Subject &) = delete;
	Subject &operator=(const Subject &) = delete;
	~Subject()
	{
		ostrel_db_close(db);
		attrlist_free(out);
	}
};
using SubjectPtr = std::unique_ptr<Subject>;

ostrel_error_t open_slot(ostrel_db_t db)
{
	Heap<void> priv(malloc(100));
	if (!priv)
		return OSTREL_NO_MEMORY;
	MutexLock hold(db->db_privlock);
	ostrel_db_set_priv(db, priv.release());
	return OSTREL_SUCCESS;
}

void close_slot(ostrel_db_t db)
{
	MutexLock hold(db->db_privlock);
	free(ostrel_db_get_priv(db));
}

Subject *subject_to_read;

ostrel_error_t read_slot(ostrel_db_t, attrlist_t *, uint64_t, attrlist_t ***objs, unsigned int *count)
{
	Objects found;
	if (!found.alloc(static_cast<unsigned int>(subject_to_read->objects.size())))
		return OSTREL_NO_MEMORY;
	for (unsigned int i = 0; i < found.count(); i++) {
		if (attrlist_dup(subject_to_read->objects[i].get(), &found[i], 0) != 0)
			return OSTREL_NO_MEMORY;
	}
	*count = found.count();
	*objs = found.release();
	return OSTREL_SUCCESS;
}

constexpr struct ostrel_db_cmds cmds = {open_slot, close_slot, read_slot, nullptr, nullptr, nullptr, nullptr, nullptr};

SubjectPtr make_subject(int objects)
{
	auto subject = std::make_unique<Subject>();
	// Long enough to grow the caller's list when they are merged into it.
	const std::string many = "a=a;b=" + std::string(3000, 'x') + ";c=3";
	for (int i = 0; i < objects; i++)
		subject->objects.push_back(
		    object_of(many, "p=" + std::to_string(1000 + (i * 7919) % objects) + ";q=y"));
	attrlist_t *first = subject->objects[0].get();
	if (ostrel_object_list_create(&first, 1, subject->packed.out()) != OSTREL_SUCCESS ||
	    ostrel_db_open("x", 0, &cmds, 0, &subject->db) != OSTREL_SUCCESS)
		abort();
	subject_to_read = subject.get();
	return subject;
}

void expect_unchanged(const SubjectPtr &subject)
{
	EXPECT_EQ(text_of(subject->idl.get()), "a=A;");
	EXPECT_EQ(text_of(subject->props.get()), "p=;gone=;");
	EXPECT_EQ(subject->out, nullptr);
}

const std::string long_name(5000, 'n');

// Operations that succeed, or lack memory and change nothing, and how many allocations each makes at least: none may pass
// by making none at all.
const struct {
	const char *what;
	int allocations;
	ostrel_error_t (*run)(Subject &s);
} operations[] = {
    {"list of identifiers", 1, [](Subject &s) { return ostrel_idlist_init(&s.out, long_name.c_str()); }},
    {"identifier", 1, [](Subject &s) { return ostrel_idlist_add(s.idl.get(), "b", long_name.c_str()); }},
    {"enclave's id", 0, [](Subject &s) { return ostrel_idlist_add_enclaveid(s.idl.get(), 5); }}, // may fit as it is
    {"object", 1, [](Subject &s) { return ostrel_object_create(s.idl.get(), s.props.get(), &s.out); }},
    {"properties of an object", 1,
	[](Subject &s) {
		AttrList props;
		const ostrel_error_t result = ostrel_object_get(s.objects[0].get(), nullptr, props.out());
		EXPECT_EQ(static_cast<bool>(props), result == OSTREL_SUCCESS);
		return result;
	}},
    {"both lists of an object", 1,
	[](Subject &s) {
		AttrList props;
		const ostrel_error_t result = ostrel_object_get(s.objects[0].get(), &s.out, props.out());
		EXPECT_EQ(static_cast<bool>(props), result == OSTREL_SUCCESS);
		return result;
	}},
    {"list of objects", 1,
	[](Subject &s) {
		attrlist_t *objs[] = {s.objects[0].get(), s.objects[0].get()};
		return ostrel_object_list_create(objs, 2, &s.out);
	}},
    {"objects of a list", 2,
	[](Subject &s) {
		Objects objs;
		return ostrel_object_list_get_objects(s.packed.get(), objs.out(), objs.out_count());
	}},
    {"open", 2,
	[](Subject &) {
		ostrel_db_t db = nullptr;
		const ostrel_error_t result = ostrel_db_open("x", 0, &cmds, 0, &db);
		EXPECT_EQ(db != nullptr, result == OSTREL_SUCCESS);
		ostrel_db_close(db);
		return result;
	}},
};

TEST_F(CoreFaults, AnOperationSucceedsOrChangesNothing)
{
	for (const auto &operation : operations) {
		SCOPED_TRACE(operation.what);
		const int rounds = sweep_allocations([] { return make_subject(1); },
		    [&](SubjectPtr &subject) { return operation.run(*subject); },
		    [](const SubjectPtr &subject, ostrel_error_t result, bool failed) {
			    EXPECT_EQ(result, failed ? OSTREL_NO_MEMORY : OSTREL_SUCCESS);
			    if (failed)
				    expect_unchanged(subject);
		    });
		EXPECT_GT(rounds, operation.allocations);
	}
}

TEST_F(CoreFaults, AReadFailsWholeOrLacksAnIdentifierAtMost)
{
	int incomplete = 0;
	int rounds = sweep_allocations([] { return make_subject(1); },
	    [](SubjectPtr &s) { return ostrel_db_read(s->db, s->idl.get(), 0, &s->out); },
	    [&](const SubjectPtr &s, ostrel_error_t result, bool failed) {
		    if (result != OSTREL_SUCCESS) {
			    EXPECT_TRUE(failed);
			    EXPECT_EQ(result, OSTREL_NO_MEMORY);
			    expect_unchanged(s);
			    return;
		    }
		    EXPECT_EQ(text_of(s->out), "p=1000;q=y;");
		    const bool whole =
			text_of(s->idl.get()) == text_of(idl_of("a=a;b=" + std::string(3000, 'x') + ";c=3").get());
		    EXPECT_TRUE(whole || failed);
		    incomplete += !whole;
	    });
	EXPECT_GT(rounds, 3);
	EXPECT_GT(incomplete, 0) << "no round failed in the merge";
}

TEST_F(CoreFaults, AWalkFailsBeforeItsFirstCallbackOrVisitsAllInOrder)
{
	struct Visits {
		int seen = 0;
		bool in_order = true;
	};
	static Visits visits;
	auto visit = [](ostrel_db_t, attrlist_t *, attrlist_t *props, uint64_t, void *arg) {
		char *value = nullptr;
		auto *seen = static_cast<Visits *>(arg);
		EXPECT_EQ(ostrel_atl_get_one_string(props, "p", &value), 0);
		seen->in_order &= atoi(value) == 1000 + seen->seen;
		seen->seen++;
		return 0;
	};
	auto by_number = [](attrlist_t **a, attrlist_t **b) {
		auto number = [](attrlist_t *object) {
			attrlist_t *idl;
			attrlist_t *props;
			char *value = nullptr;
			if (ostrel_object_look(object, &idl, &props) == OSTREL_SUCCESS)
				(void) ostrel_atl_get_one_string(props, "p", &value);
			return atoi(value);
		};
		return number(*a) - number(*b);
	};
	constexpr int objects = 150; // so many that sorting them asks for memory
	sweep_allocations([] { return make_subject(objects); },
	    [&](SubjectPtr &s) {
		    visits = {};
		    return ostrel_db_walk(s->db, s->idl.get(), 0, visit, by_number, &visits, nullptr);
	    },
	    [](const SubjectPtr &s, ostrel_error_t result, bool failed) {
		    EXPECT_EQ(visits.seen, result == OSTREL_SUCCESS ? objects : 0);
		    EXPECT_TRUE(visits.in_order);
		    EXPECT_TRUE(result == OSTREL_SUCCESS || (failed && result == OSTREL_NO_MEMORY));
		    expect_unchanged(s);
	    });
}

TEST_F(CoreFaults, AWalkGivesEachObjectBackAfterItsCallback)
{
	SubjectPtr subject = make_subject(100);
	long bytes = LONG_MAX;
	auto shrinks = [](ostrel_db_t, attrlist_t *, attrlist_t *, uint64_t, void *arg) {
		long *before = static_cast<long *>(arg);
		const bool less = heap_use().bytes < *before;
		*before = heap_use().bytes;
		return less ? 0 : 1;
	};
	EXPECT_EQ(ostrel_db_walk(subject->db, nullptr, 0, shrinks, nullptr, &bytes, nullptr), OSTREL_SUCCESS);
}

TEST_F(CoreFaults, NamedPropertiesStayNamedWhenFillingInFails)
{
	int rounds = sweep_allocations([] { return make_subject(1); },
	    [](SubjectPtr &s) {
		    attrlist_t *props = s->props.get();
		    return ostrel_db_get_object_props(s->db, s->idl.get(), 0, &props);
	    },
	    [](const SubjectPtr &s, ostrel_error_t result, bool failed) {
		    const std::string text = text_of(s->props.get());
		    EXPECT_EQ(result, result != OSTREL_SUCCESS ? OSTREL_NO_MEMORY : OSTREL_SUCCESS);
		    EXPECT_TRUE(result == OSTREL_SUCCESS || failed);
		    EXPECT_EQ(text, result == OSTREL_SUCCESS ? "p=1000;" : "p=;gone=;");
	    });
	EXPECT_GT(rounds, 4);
}

TEST_F(CoreFaults, GrowingAnArrayLeavesTheOldOne)
{
	int rounds = sweep_allocations([] { return Heap<void>(malloc(64)); },
	    [](Heap<void> &array) {
		    void *buf = array.release();
		    int count = 64;
		    ostrel_error_t result = grow_buf(&buf, &count, 1);
		    EXPECT_EQ(count, result == OSTREL_SUCCESS ? 128 : 64);
		    array.reset(buf);
		    return result;
	    },
	    [](const Heap<void> &, ostrel_error_t result, bool failed) {
		    EXPECT_EQ(result, failed ? OSTREL_NO_MEMORY : OSTREL_SUCCESS);
	    });
	EXPECT_EQ(rounds, 2);
}

} // namespace
