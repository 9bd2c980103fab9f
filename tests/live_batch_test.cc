// Batches on flat files: the same as their steps one by one, under conditions, all or none; and the loop that loses no update.
#include <random>

#include <gtest/gtest.h>

#include "alloc_fault.h"
#include "hatch_peer.h"
#include "libostrelx.h"
#include "line_lists.h"
#include "scratch.h"
#include "syscall_fault.h"

namespace {

using TestBatch = Handle<struct ostrelx_batch, ostrelx_batch_free>;

TestBatch new_batch()
{
	TestBatch batch;
	EXPECT_EQ(ostrelx_batch_create(batch.out()), OSTREL_SUCCESS);
	return batch;
}

std::string version_of(ostrel_db_t db, const std::string &id)
{
	char version[OSTRELX_VERSION_SIZE];
	AttrList list = ids(id);
	return ostrelx_read(db, list.get(), 0, nullptr, version) == OSTREL_SUCCESS ? version : "";
}

class LiveBatch : public testing::Test {
protected:
	// One change, made at once or added to a batch.
	struct Step {
		enum Kind { Write, Rename, Remove } kind;
		std::string id, other; // properties, or new identifiers

		ostrelx_error_t add_to(ostrelx_batch_t batch) const
		{
			AttrList idl = ids(id);
			if (kind == Remove)
				return ostrelx_batch_remove(batch, idl.get(), 0);
			AttrList list = kind == Write ? props(other) : ids(other);
			return kind == Write ? ostrelx_batch_write(batch, idl.get(), 0, list.get())
					     : ostrelx_batch_rename(batch, idl.get(), 0, list.get());
		}
		ostrel_error_t make(ostrel_db_t db) const
		{
			AttrList idl = ids(id);
			if (kind == Remove)
				return ostrel_db_remove(db, idl.get(), 0);
			AttrList list = kind == Write ? props(other) : ids(other);
			return kind == Write ? ostrel_db_write(db, idl.get(), 0, list.get())
					     : ostrel_db_rename(db, idl.get(), 0, list.get());
		}
	};

	Scratch scratch;
	std::string path = scratch.path("db");
};

TEST_F(LiveBatch, DoesWhatItsStepsDoOneByOneOrNothing)
{
	std::mt19937 random(20261125);
	auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
	// Spellings of one name that a comparison without case takes for the same, and lines that aren't in the writer's form.
	const char *names[] = {"n=eth0", "n=ETH0", "n=eth1", "n=wlan;v=2", "n=WLAN;v=2", "n=a\\=b", "n=x,y"};
	const char *values[] = {"x=int32,1", "x=string,a;y=uint64,7", "x=string,two words"};
	for (int round = 0; round < 150; round++) {
		const uint64_t flags = round % 2 == 0 ? 0 : OSTREL_DB_CASE_SENSITIVE;
		std::string text = "# no object\n";
		for (int i = 0; i < 40; i++)
			text += "other=" + std::to_string(i) + ";\tx=int32," + std::to_string(i) + ";\n";
		text += "n=eth0;\tx=int32,5;\n  n=eth1 ; \tx=int32,5;\nn=eth1;\tx=int32,6;\nlast=1;\tx=int32,1;";
		const std::string one_by_one = scratch.write("one", text);
		scratch.write("db", text);
		TestDb db(path, flags), model(one_by_one, flags);
		TestBatch batch = new_batch();
		ostrel_error_t expected = OSTREL_SUCCESS;
		int failed = -1;
		for (int i = 0; i < 6; i++) {
			const Step step = {static_cast<Step::Kind>(pick(3)), names[pick(7)], ""};
			Step whole = step;
			whole.other = step.kind == Step::Write ? values[pick(3)] : names[pick(7)];
			ASSERT_EQ(whole.add_to(batch.get()), OSTREL_SUCCESS);
			if (expected == OSTREL_SUCCESS && (expected = whole.make(model)) != OSTREL_SUCCESS)
				failed = i;
		}
		int number = -2;
		EXPECT_EQ(ostrelx_commit(db, batch.get(), &number), expected) << "round " << round;
		EXPECT_EQ(number, failed) << "round " << round;
		ASSERT_EQ(file_text(path), expected == OSTREL_SUCCESS ? file_text(one_by_one) : text)
		    << "round " << round;
	}
}

TEST_F(LiveBatch, ConditionsHoldForExactlyWhatWasRead)
{
	scratch.write("db", "n=a;\tx=int32,1;\nn=b;\tx=int32,1;\nn=b;\tx=int32,1;\n");
	TestDb db(path);
	const std::string first = version_of(db, "n=a");
	char whole[OSTRELX_VERSION_SIZE];
	ASSERT_EQ(ostrelx_db_version(db, whole), OSTREL_SUCCESS);
	const struct {
		const char *id, *version;
		ostrelx_error_t result;
	} cases[] = {
	    {"n=a", first.c_str(), OSTREL_SUCCESS},
	    {"n=A", first.c_str(), OSTREL_SUCCESS}, // compared without case
	    {"n=a", "*", OSTREL_SUCCESS},
	    {"n=a", "", OSTRELX_CONFLICT},
	    {"n=a", "v:0", OSTRELX_CONFLICT},
	    {"n=c", "", OSTREL_SUCCESS},
	    {"n=c", "*", OSTRELX_CONFLICT},
	    {"n=b", "*", OSTRELX_CONFLICT}, // there are two
	    {nullptr, whole, OSTREL_SUCCESS},
	    {nullptr, "f:0", OSTRELX_CONFLICT},
	};
	const std::string before = file_text(path);
	for (const auto &one : cases) {
		scratch.write("db", before);
		TestBatch batch = new_batch();
		AttrList always = ids("n=nobody"), written = ids("n=new"), value = props("x=int32,2");
		ASSERT_EQ(ostrelx_batch_write(batch.get(), written.get(), 0, value.get()), OSTREL_SUCCESS);
		ASSERT_EQ(ostrelx_batch_expect(batch.get(), always.get(), ""), OSTREL_SUCCESS);
		AttrList idl = ids(one.id != nullptr ? one.id : "");
		ASSERT_EQ(one.id != nullptr ? ostrelx_batch_expect(batch.get(), idl.get(), one.version)
					    : ostrelx_batch_expect_db(batch.get(), one.version),
		    OSTREL_SUCCESS);
		int failed = -2;
		EXPECT_EQ(ostrelx_commit(db, batch.get(), &failed), one.result) << one.id << " " << one.version;
		EXPECT_EQ(failed, one.result == OSTREL_SUCCESS ? -1 : 1) << one.id << " " << one.version;
		EXPECT_EQ(file_text(path) == before, one.result != OSTREL_SUCCESS) << one.id << " " << one.version;
	}
}

int add_one(attrlist_t *, attrlist_t *list, boolean_t, void *)
{
	int32_t value = 0;
	if (ostrel_atl_get_one_int32(list, "x", &value) != OSTREL_SUCCESS)
		return 1;
	return static_cast<int>(ostrel_atl_add_one_int32(list, "x", value + 1));
}

TEST_F(LiveBatch, OfProcessesThatEachAddOneNoneIsLost)
{
	constexpr int processes = 8, turns = 50;
	scratch.write("db", "n=a;\tx=int32,0;\nother=1;\ty=int32,0;\n");
	std::vector<Process> children;
	for (int child = 0; child < processes; child++)
		children.emplace_back([&] {
			TestDb db(path);
			int failed = 0;
			for (int i = 0; i < turns; i++)
				failed += ostrelx_modify(db, ids("n=a").get(), 0, add_one, nullptr, nullptr) !=
					  OSTREL_SUCCESS;
			return failed;
		});
	for (Process &child : children)
		EXPECT_EQ(child.wait(), 0);
	EXPECT_EQ(file_text(path), "n=a;\tx=int32," + std::to_string(processes * turns) + ";\nother=1;\ty=int32,0;\n");
	// What ends it without a change.
	TestDb db(path);
	int stopped = 0;
	EXPECT_EQ(ostrelx_modify(db, ids("other=1").get(), 0, add_one, nullptr, &stopped), OSTREL_WALK_HALTED);
	EXPECT_EQ(stopped, 1);
}

TEST_F(LiveBatch, AFailingCallOrAKillLeavesAllOrNothing)
{
	const std::string before = "n=a;\tx=int32,1;\nn=b;\tx=int32,1;\nother=1;\tx=int32,1;\n";
	const std::string after = "n=a;\tx=int32,2;\nother=1;\tx=int32,1;\nn=c;\tx=int32,2;\n";
	TestDb db(path);
	auto begin = [&] {
		scratch.write("db", before);
		TestBatch batch = new_batch();
		AttrList value = props("x=int32,2");
		EXPECT_EQ(ostrelx_batch_expect(batch.get(), ids("n=b").get(), "*"), OSTREL_SUCCESS);
		EXPECT_EQ(ostrelx_batch_write(batch.get(), ids("n=a").get(), 0, value.get()), OSTREL_SUCCESS);
		EXPECT_EQ(ostrelx_batch_remove(batch.get(), ids("n=b").get(), 0), OSTREL_SUCCESS);
		EXPECT_EQ(ostrelx_batch_write(batch.get(), ids("n=c").get(), 0, value.get()), OSTREL_SUCCESS);
		return batch;
	};
	auto commit = [&](auto &batch) { return ostrelx_commit(db, batch.get(), nullptr); };
	int hits = sweep_faults(
	    {{FailNth::Open, EMFILE}, {FailNth::Read, EIO}, {FailNth::Write, ENOSPC}, {FailNth::Fsync, EIO},
		{FailNth::Rename, EIO}, {FailNth::Write, 0}, {FailNth::Fsync, 0}, {FailNth::Rename, 0}},
	    begin, commit, [&](auto &, const Round &round) {
		    const std::string now = file_text(path);
		    EXPECT_TRUE(now == before || now == after);
		    // Only the directory's sync comes after the rename.
		    if (round.fault->error != 0 && round.result != OSTREL_SUCCESS) {
			    EXPECT_EQ(now == after, round.is(FailNth::Fsync) && round.nth == 2);
		    }
		    EXPECT_TRUE(round.hit || now == after);
	    });
	EXPECT_GT(hits, 8);
	if (AllocFault::available()) {
		hits = sweep_allocations(begin, commit, [&](auto &, ostrelx_error_t result, bool fired) {
			// A record that can't be made costs itself alone.
			EXPECT_TRUE(result == OSTREL_SUCCESS || (fired && result == OSTREL_NO_MEMORY));
			EXPECT_EQ(file_text(path), result == OSTREL_SUCCESS ? after : before);
		});
		EXPECT_GT(hits, 10);
	}
}

} // namespace
