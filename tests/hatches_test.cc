// The hatch back end: databases of other processes, servers that come and go, and answers that no server should give.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "alloc_fault.h"
#include "served_db.h"

namespace {

constexpr char first_text[] = "a=1;\tp=string,one;\n", first_object[] = "a=1;|p=one;";

class HatchDatabase : public testing::Test {
protected:
	void SetUp() override
	{
		SKIP_UNLESS_ROOT();
		file_.write(first_text);
		server_.emplace(serve_file(file_));
		db_ = open();
	}
	Database open(uint64_t flags = 0) const { return open_database(file_.hatch, ostrel_hatches_db_cmds, flags); }

	ServedFile file_;
	std::optional<Process> server_;
	Database db_;
};

ostrel_error_t write(const Database &db, const std::string &ids, const std::string &props)
{
	return ostrel_db_write(db.get(), idl_of(ids).get(), 0, props_of(props).get());
}

// What a read gives: the result, or "identifiers|properties".
std::string read(const Database &db, const std::string &ids)
{
	AttrList idl = idl_of(ids);
	AttrList props;
	ostrel_error_t result = ostrel_db_read(db.get(), idl.get(), 0, props.out());
	return result == OSTREL_SUCCESS ? text_of(idl.get()) + "|" + text_of(props.get())
					: std::string("? ") + ostrel_strerror(result);
}

int note(ostrel_db_t, attrlist_t *idl, attrlist_t *props, uint64_t, void *arg)
{
	*static_cast<std::string *>(arg) += text_of(idl) + "|" + text_of(props) + " ";
	return 0;
}

std::string walk(const Database &db, attrlist_t *idl)
{
	std::string seen;
	ostrel_error_t result = ostrel_db_walk(db.get(), idl, 0, note, nullptr, &seen, nullptr);
	return result == OSTREL_SUCCESS ? seen : std::string("? ") + ostrel_strerror(result);
}

TEST_F(HatchDatabase, EveryOperationReachesTheServersFile)
{
	file_.write("a=1;b=x;\tp=string,one;\na=2;b=x;\tp=string,two;\n");
	EXPECT_EQ(read(db_, "b=X;a=1"), "a=1;b=x;|p=one;") << "with the stored spelling";
	EXPECT_EQ(read(db_, "a=1"), "? object not found") << "a read selects exactly";
	EXPECT_EQ(walk(db_, nullptr), "a=1;b=x;|p=one; a=2;b=x;|p=two; ");
	EXPECT_EQ(walk(db_, idl_of("a=2").get()), "a=2;b=x;|p=two; ");
	EXPECT_EQ(walk(db_, idl_of("a=3").get()), "");
	EXPECT_EQ(read(open(OSTREL_DB_CASE_SENSITIVE), "b=X;a=1"), "a=1;b=x;|p=one;")
	    << "the server's handle says how case is compared";

	EXPECT_EQ(write(db_, "a=3", "p=three"), OSTREL_SUCCESS);
	EXPECT_EQ(write(db_, "a=1;b=x", "q=new"), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_rename(db_.get(), idl_of("a=3").get(), 0, idl_of("a=4;c=y").get()), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_remove(db_.get(), idl_of("a=2;b=x").get(), 0), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_remove(db_.get(), idl_of("a=2;b=x").get(), 0), OSTREL_NOT_FOUND);
	EXPECT_EQ(write(db_, "a=tab\there", "p=x"), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_db_rename(db_.get(), idl_of("a=9").get(), 0, idl_of("a=8").get()), OSTREL_NOT_FOUND);
	EXPECT_EQ(file_.text(), "a=1;b=x;\tq=string,new;\na=4;c=y;\tp=string,three;\n");
	EXPECT_EQ(ostrel_db_check_auth(db_.get(), B_FALSE), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_check_auth(db_.get(), B_TRUE), OSTREL_SUCCESS);

	EXPECT_EQ(ostrel_db_remove(db_.get(), nullptr, 0), OSTREL_SUCCESS);
	EXPECT_FALSE(file_.scratch.has("db"));
	EXPECT_EQ(read(db_, "a=1"), "? object not found");
	file_.write("a=1;\tp=string,x;\na=1;\tp=string,y;\n");
	EXPECT_EQ(read(db_, "a=1"), "? invalid argument") << "two objects match";
}

TEST_F(HatchDatabase, AServerThatEndsInOrderTakesItsPathWithIt)
{
	server_->kill();
	LocalServer server(file_);
	EXPECT_EQ(read(db_, "a=1"), first_object);
	const int before = open_descriptors();
	server.stop();
	EXPECT_EQ(ostrel_db_check_auth(db_.get(), B_TRUE), OSTREL_NOT_FOUND);
	EXPECT_EQ(ostrel_db_check_auth(db_.get(), B_TRUE), OSTREL_NOT_FOUND) << "it stays broken, and goes on trying";
	EXPECT_LT(open_descriptors(), before);
	ASSERT_EQ(symlink("db", file_.hatch.c_str()), 0); // to itself: ELOOP has no result of its own
	EXPECT_EQ(ostrel_db_check_auth(db_.get(), B_TRUE), OSTREL_INVALID_ARG);
	ASSERT_EQ(unlink(file_.hatch.c_str()), 0);
	LocalServer again(file_);
	EXPECT_EQ(read(db_, "a=1"), first_object);
}

TEST_F(HatchDatabase, OpensOnlyAPathThatIsThereAndFindsOutWithTheFirstCallThatItIsNoHatch)
{
	const std::string fifo = file_.scratch.path("fifo");
	ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
	const int before = open_descriptors();
	for (const std::string &missing : {file_.scratch.path("missing"), std::string()}) {
		Database db;
		EXPECT_EQ(ostrel_db_open(missing.c_str(), 0, ostrel_hatches_db_cmds, 0, db.out()), OSTREL_NOT_FOUND);
		EXPECT_FALSE(db);
	}
	for (const std::string &path : {file_.path, fifo, file_.scratch.directory()}) {
		EXPECT_EQ(open_descriptors(), before) << "before " << path;
		Database db = open_database(path, ostrel_hatches_db_cmds);
		for (int i = 0; i < 3; i++)
			EXPECT_EQ(read(db, "a=1"), "? failure") << path;
		EXPECT_EQ(open_descriptors(), before + 1) << path;
	}
	EXPECT_EQ(open_descriptors(), before);
	EXPECT_EQ(file_.text(), first_text);
}

TEST_F(HatchDatabase, ThreadsOfOneHandleAllFindTheNewServer)
{
	EXPECT_EQ(read(db_, "a=1"), first_object);
	const int before = open_descriptors();
	std::atomic<bool> stop = false;
	std::atomic<int> generation = 0; // odd while no server is there
	std::atomic<int> wrong = 0;
	std::vector<std::jthread> threads;
	for (int t = 0; t < 8; t++) {
		threads.emplace_back([&] {
			while (!stop) {
				const int at = generation;
				const std::string answer = read(db_, "a=1");
				if (answer != first_object &&
				    (answer != "? failure" || (at == generation && at % 2 == 0)))
					wrong++;
			}
		});
	}
	for (int round = 0; round < (sanitized ? 3 : 10); round++) {
		usleep(20'000);
		generation++;
		server_->kill();
		usleep(5'000);
		*server_ = serve_file(file_);
		generation++;
	}
	stop = true;
	threads.clear();
	EXPECT_EQ(wrong, 0);
	server_->kill();
	EXPECT_EQ(read(db_, "a=1"), "? failure");
	EXPECT_EQ(write(db_, "a=1", "p=two"), OSTREL_FAILURE);
	*server_ = serve_file(file_);
	EXPECT_EQ(read(db_, "a=1"), first_object);
	EXPECT_EQ(open_descriptors(), before);
}

TEST_F(HatchDatabase, AFailedAllocationFailsOneOperationAndLeavesNothing)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	EXPECT_EQ(read(db_, "a=1"), first_object); // makes what is made once for the process
	db_.reset();
	struct Subject {
		Database db;
		AttrList idl, props, found;
		Database opened;
	};
	auto prepare = [&] { return Subject{open(), idl_of("a=1"), props_of("p=one"), {}, {}}; };
	auto check = [](Subject &, ostrel_error_t result, bool failed) {
		// Where the layer below copes, so does the operation.
		EXPECT_TRUE(result == OSTREL_SUCCESS || (failed && result == OSTREL_NO_MEMORY)) << result;
	};
	auto read = [](Subject &s) { return ostrel_db_read(s.db.get(), s.idl.get(), 0, s.found.out()); };
	auto write = [](Subject &s) { return ostrel_db_write(s.db.get(), s.idl.get(), 0, s.props.get()); };
	auto open_another = [&](Subject &s) {
		return ostrel_db_open(file_.hatch.c_str(), 0, ostrel_hatches_db_cmds, 0, s.opened.out());
	};
	auto check_opened = [](Subject &s, ostrel_error_t result, bool failed) {
		EXPECT_EQ(result, failed ? OSTREL_NO_MEMORY : OSTREL_SUCCESS);
		EXPECT_EQ(static_cast<bool>(s.opened), !failed);
	};
	EXPECT_GT(sweep_allocations(prepare, read, check), 4);
	EXPECT_GT(sweep_allocations(prepare, write, check), 3);
	EXPECT_GT(sweep_allocations(prepare, open_another, check_opened), 2);
	EXPECT_EQ(file_.text(), first_text);
}

// ---- What goes out, and what may come back ----

// A server of the test's own: keeps the last request, and answers with the same bytes each time.
struct Canned {
	std::mutex lock;
	std::string request, reply;
	int calls = 0;
};

void answer_canned(void *cookie, char *arg, size_t size, hatch_desc_t *, unsigned int)
{
	auto *canned = static_cast<Canned *>(cookie);
	char reply[4096]; // hatch_return() jumps over destructors
	canned->lock.lock();
	canned->request.assign(arg, size);
	canned->calls++;
	size = canned->reply.copy(reply, sizeof reply);
	canned->lock.unlock();
	hatch_return(reply, size, nullptr, 0);
}

class HatchBlocks : public testing::Test {
protected:
	void set_reply(const std::string &block)
	{
		const std::lock_guard hold(canned_.lock);
		canned_.reply = block_of(block);
	}

	Scratch scratch_;
	Canned canned_;
	LocalHatch hatch_{scratch_.path("hatch"), answer_canned, &canned_};
	Database db_ = open_database(scratch_.path("hatch"), ostrel_hatches_db_cmds, OSTREL_FLAG_TEMPORARY);
};

TEST_F(HatchBlocks, EachOperationSendsItsBlock)
{
	auto expect_sent = [&](const std::string &block) { EXPECT_TRUE(canned_.request == block_of(block)) << block; };
	AttrList other = idl_of("a=new"), props = props_of("p=x");
	// An identifier list of every length up to a word, so that the data list begins everywhere.
	for (size_t length = 0; length < 8; length++) {
		const std::string key = "key=" + std::string(length, 'v'), ids = " ids=" + key;
		AttrList idl = idl_of(key);
		EXPECT_EQ(ostrel_db_write(db_.get(), idl.get(), 0x10, props.get()), OSTREL_SUCCESS);
		expect_sent("write flags=0x10 props=p=x" + ids);
		EXPECT_EQ(ostrel_db_rename(db_.get(), idl.get(), 0x20, other.get()), OSTREL_SUCCESS);
		expect_sent("rename flags=0x20 newids=a=new" + ids);
		EXPECT_EQ(ostrel_db_remove(db_.get(), idl.get(), 0x40), OSTREL_SUCCESS);
		expect_sent("remove flags=0x40" + ids);
		// No list of objects comes back, which a read can't do without.
		EXPECT_EQ(ostrel_db_read(db_.get(), idl.get(), 0x80, nullptr), OSTREL_INVALID_ARG);
		expect_sent("read flags=0x87" + ids);
		EXPECT_EQ(
		    ostrel_db_walk(db_.get(), idl.get(), 0x80, note, nullptr, nullptr, nullptr), OSTREL_INVALID_ARG);
		expect_sent("read flags=0x82" + ids);
	}
	EXPECT_EQ(ostrel_db_remove(db_.get(), nullptr, 0), OSTREL_SUCCESS);
	expect_sent("remove flags=0");
	EXPECT_EQ(ostrel_db_check_auth(db_.get(), B_FALSE), OSTREL_SUCCESS);
	expect_sent("may_read flags=0");
	Database elsewhere;
	ASSERT_EQ(ostrel_db_open(scratch_.path("hatch").c_str(), -7, ostrel_hatches_db_cmds, 0, elsewhere.out()),
	    OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_check_auth(elsewhere.get(), B_TRUE), OSTREL_SUCCESS);
	expect_sent("may_write flags=0 enclave=-7");
}

TEST_F(HatchBlocks, AnUpdateWithoutItsListIsNotSent)
{
	EXPECT_EQ(ostrel_db_write(db_.get(), idl_of("a=1").get(), 0, nullptr), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_db_rename(db_.get(), idl_of("a=1").get(), 0, nullptr), OSTREL_INVALID_ARG);
	EXPECT_EQ(canned_.calls, 0);
}

TEST_F(HatchBlocks, AReplyIsBelievedNoFurtherThanItReaches)
{
	for (const auto &[reply, answer] : golden_pairs("hatch_replies.txt")) {
		set_reply(reply);
		EXPECT_EQ(read(db_, "a=1"), answer) << reply;
	}
}

TEST_F(HatchBlocks, AnEmptyListOfObjectsIsASuccess)
{
	set_reply("read objects=");
	EXPECT_EQ(walk(db_, nullptr), "");
	Objects objs;
	EXPECT_EQ(ostrel_read_objects_from_hatch(db_.get(), nullptr, 0, objs.out(), objs.out_count()), OSTREL_SUCCESS);
	EXPECT_EQ(objs.count(), 0U);
}

TEST_F(HatchBlocks, ListsAreUnpackedAsFarAsTheyAreAskedFor)
{
	std::string bytes = block_of("write ids=a=1 newids=b=2");
	auto *arg = reinterpret_cast<ostrel_hatch_arg_t *>(bytes.data());
	AttrList first;
	AttrList second;
	EXPECT_EQ(ostrel_read_lists_from_hatch_arg(arg, nullptr, second.out()), OSTREL_SUCCESS);
	EXPECT_EQ(text_of(second.get()), "b=2;");
	EXPECT_EQ(ostrel_read_lists_from_hatch_arg(arg, first.out(), nullptr), OSTREL_SUCCESS);
	EXPECT_EQ(text_of(first.get()), "a=1;");
	bytes.back() ^= 0x55; // the data list's last byte
	EXPECT_EQ(ostrel_read_lists_from_hatch_arg(arg, first.out(), second.out()), OSTREL_INVALID_ARG);
	EXPECT_EQ(text_of(first.get()), "a=1;") << "what was unpacked stays with the caller";
	EXPECT_FALSE(second);
	arg->nda_result = OSTREL_EXISTS;
	attrlist_t *untouched = first.get();
	EXPECT_EQ(ostrel_read_lists_from_hatch_arg(arg, &untouched, nullptr), OSTREL_EXISTS);
	EXPECT_EQ(untouched, first.get());
}

} // namespace
