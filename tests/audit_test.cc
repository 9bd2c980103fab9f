// Audit records of updates, read back from the kernel: who, what, with which result, in which order, and when there is
// none. The tests of this file switch the kernel's audit on for a while; they need root in the initial namespaces.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <map>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include <meridon/trail.h>

#include "alloc_fault.h"
#include "cairn_db.h"
#include "capabilities.h"
#include "child.h"
#include "hatch_peer.h"
#include "kernel_audit.h"
#include "served_db.h"

// The seconds between the attempts of a deferred update pass at once.
extern "C" unsigned int sleep(unsigned int)
{
	return 0;
}

namespace {

const std::string all_fields =
    "pid uid op event parent_file object_name subj_uid subj_gid status retval exe hostname addr "
    "terminal res";

using Lines = std::vector<std::string>;

// A record in short: "0: update a=1; 0 0 success", with the user first.
std::string in_short(const AuditRecord &record)
{
	EXPECT_EQ(record.names, all_fields);
	EXPECT_EQ(record["event"], record["op"] == "ostrel_remove" ? "135" : "134");
	EXPECT_EQ(record["subj_gid"], record["subj_uid"]) << "all users here have a group of their number";
	EXPECT_NE(record["exe"].find("audit_test"), std::string::npos);
	return record["subj_uid"] + ": " + record["op"].substr(strlen("ostrel_")) + " " + record["object_name"] + " " +
	       record["status"] + " " + record["retval"] + " " + record["res"];
}

// A file database whose updates answer what the test says, and do nothing, until it says OSTREL_SUCCESS.
std::function<ostrel_error_t()> answer;
const struct ostrel_db_cmds answering = [] {
	struct ostrel_db_cmds cmds = *ostrel_files_db_cmds;
	cmds.dbc_write = [](ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *props) {
		ostrel_error_t result = answer();
		return result == OSTREL_SUCCESS ? ostrel_write_object_to_file(db, idl, flags, props) : result;
	};
	cmds.dbc_remove = [](ostrel_db_t, attrlist_t *, uint64_t) { return answer(); };
	return cmds;
}();

class Audit : public testing::Test {
protected:
	void SetUp() override
	{
		SKIP_WITHOUT_KERNEL_AUDIT();
		audit_ = std::make_unique<KernelAudit>();
		(void) chmod(file_.scratch.directory().c_str(), 0777);
		answer = [] { return OSTREL_SUCCESS; };
		db_ = open_database(file_.path);
	}

	static ostrel_error_t write(ostrel_db_t db, const char *ids)
	{
		return ostrel_db_write(db, idl_of(ids).get(), 0, props_of("p=x").get());
	}
	// The records that this process has sent of updates of this database, and of no others; or those of a child's.
	Lines recorded(const std::string &database, pid_t sender = getpid(), uid_t sender_user = 0)
	{
		Lines lines;
		for (const AuditRecord &record : audit_->records(sender)) {
			EXPECT_EQ(record["parent_file"], database);
			EXPECT_EQ(record["uid"], std::to_string(sender_user));
			lines.push_back(in_short(record));
		}
		return lines;
	}
	Lines recorded() { return recorded(file_.path); }
	// What a child of this process that becomes user 1000 records. It is to end well, and to print nothing.
	Lines recorded_of_child(const std::function<void()> &run)
	{
		testing::internal::CaptureStderr();
		Process child([&] {
			run();
			return testing::Test::HasFailure() ? 1 : 0;
		});
		const pid_t pid = child.pid();
		EXPECT_EQ(child.wait(), 0);
		EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
		return recorded(file_.path, pid, 1000);
	}
	// What a client with this real and effective user comes to with an update of the served file.
	int as_client(uid_t real, uid_t effective, const std::function<ostrel_error_t(ostrel_db_t db)> &update) const
	{
		Process client([&] {
			become(real, effective);
			return update(open_database(file_.hatch, ostrel_hatches_db_cmds).get());
		});
		return client.wait();
	}
	static ostrel_error_t write_a1(ostrel_db_t db) { return write(db, "a=1"); }

	std::unique_ptr<KernelAudit> audit_;
	ServedFile file_;
	Database db_;
};

// ---- What is recorded ----

TEST_F(Audit, EachUpdateIsRecordedInTurn)
{
	EXPECT_EQ(write(db_.get(), "a=1"), OSTREL_SUCCESS);
	EXPECT_EQ(write(db_.get(), "a=1"), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_rename(db_.get(), idl_of("a=1").get(), 0, idl_of("a=2;b=y").get()), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_remove(db_.get(), idl_of("a=1").get(), 0), OSTREL_NOT_FOUND);
	EXPECT_EQ(ostrel_db_remove(db_.get(), idl_of("a=2;b=y").get(), 0), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_remove(db_.get(), nullptr, 0), OSTREL_SUCCESS) << "the whole database";
	EXPECT_EQ(recorded(),
	    (Lines{"0: update a=1; 0 0 success", "0: update a=1; 0 0 success", "0: update a=1; 0 0 success",
		"0: remove a=1; -1 -1 failed", "0: remove a=2;b=y; 0 0 success", "0: remove  0 0 success"}));
}

TEST_F(Audit, UpdatesOfTheRepositoryAreRecordedToo)
{
	CairnDaemon here;
	ASSERT_TRUE(here.ready);
	CairnDb db = open_cairn();
	ASSERT_TRUE(db);
	EXPECT_EQ(put(db, "a:t", "p=1"), OSTREL_SUCCESS);
	EXPECT_EQ(move(db, "a:t", "b:t"), OSTREL_SUCCESS);
	EXPECT_EQ(drop(db, "a:t"), OSTREL_NOT_FOUND);
	// A rename's read adds what is stored to the list that the record is made from; the longest types make no text with it.
	EXPECT_EQ(put(db, "c:" + std::string(225, 't'), "p=1"), OSTREL_SUCCESS);
	EXPECT_EQ(move(db, "c", "d:t"), OSTREL_SUCCESS);
	const std::string a = "object-pgname=a;object-pgtype=t;";
	EXPECT_EQ(recorded(test_instance),
	    (Lines{"0: update " + a + " 0 0 success", "0: update " + a + " 0 0 success",
		"0: remove " + a + " -1 -1 failed", "0: update object-pgname=c; 0 0 success"}));
}

TEST_F(Audit, ReadsWalksAndWhatNeverReachesAStoreAreNot)
{
	ASSERT_EQ(write(db_.get(), "a=1"), OSTREL_SUCCESS);
	EXPECT_EQ(recorded().size(), 1U);
	EXPECT_EQ(ostrel_db_read(db_.get(), idl_of("a=1").get(), 0, nullptr), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_check_auth(db_.get(), B_TRUE), OSTREL_SUCCESS);
	Database raw = open_database(file_.path, ostrel_rawfiles_db_cmds);
	EXPECT_EQ(write(raw.get(), "a=1"), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_db_remove(raw.get(), nullptr, 0), OSTREL_INVALID_ARG);
	// Nor what has no name.
	EXPECT_EQ(ostrel_db_remove(open_database("", &answering).get(), idl_of("a=1").get(), 0), OSTREL_SUCCESS);
	ostrel_audit(nullptr, TRL_ostrel_update, idl_of("a=1").get(), OSTREL_SUCCESS);
	EXPECT_EQ(recorded(), Lines{});
}

// ---- Texts from outside ----

// The reader refuses whatever isn't a row of fields, each once; so a record that comes through whole wasn't forged.
TEST_F(Audit, NoTextForgesOrSplitsARecord)
{
	std::vector<std::pair<std::string, std::string>> names = {
	    {std::string(1023, '\n'), std::string(250, '\'')}}; // the longest
	for (const char *text : {"with blank", "uid=0", "x subj_uid=0 res=success", "\" uid=0 \"", "it's", "' uid=0 '",
		 "\n", "a\ntype=USER_LOGIN msg=audit(1.1:1): pid=1", "\x01\x1b[31m\x7f", "\xc3\xa9t\xc3\xa9",
		 "\xff\xfe", "exe=/bin/sh", "6162", "\"6162\"", "?", "(null)", "%s%n"})
		names.emplace_back(file_.scratch.path(text), text);
	for (const auto &[database, id] : names) {
		Database db = open_database(database);
		AttrList idl;
		ASSERT_EQ(ostrel_idlist_init(idl.out(), nullptr), OSTREL_SUCCESS);
		ASSERT_EQ(ostrel_idlist_add(idl.get(), "key", id.c_str()), OSTREL_SUCCESS);
		const bool written = ostrel_db_write(db.get(), idl.get(), 0, props_of("p=x").get()) == OSTREL_SUCCESS;
		const std::vector<AuditRecord> found = audit_->records();
		ASSERT_EQ(found.size(), 1U) << id;
		EXPECT_EQ(in_short(found[0]), "0: update key=" + id + (written ? "; 0 0 success" : "; -1 -1 failed"));
		EXPECT_EQ(found[0]["parent_file"], database);
		// Programs look for these words anywhere in a record.
		for (const auto &[word, ours] :
		    std::map<std::string, int>{{"uid=", 3}, {"exe=", 1}, {"res=", 1}, {"type=", 0}}) {
			int count = 0;
			for (size_t at = 0; (at = found[0].raw.find(word, at)) != std::string::npos; at++)
				count++;
			EXPECT_EQ(count, ours) << word << " in " << found[0].raw;
		}
	}
}

// ---- Who ----

TEST_F(Audit, AnUpdateThroughAHatchIsRecordedInTheClientsName)
{
	LocalServer server(file_);
	// Real and effective user: the real one counts. Ids beyond 2^31 are ids.
	const std::pair<uid_t, uid_t> clients[] = {
	    {1, 1}, {4242, 4242}, {1000, 0}, {0, 1000}, {3'000'000'000U, 3'000'000'000U}};
	for (const auto &[real, effective] : clients) {
		EXPECT_EQ(as_client(real, effective, write_a1), OSTREL_SUCCESS);
		EXPECT_EQ(recorded(), Lines{std::to_string(real) + ": update a=1; 0 0 success"});
	}
	EXPECT_EQ(write(server.db(), "a=1"), OSTREL_SUCCESS);
	EXPECT_EQ(recorded(), Lines{"0: update a=1; 0 0 success"}) << "outside of a call it's the process";
}

// What has no text leaves no record, and so nobody but root gets it carried out.
TEST_F(Audit, NoClientChoosesNotToBeRecorded)
{
	std::atomic<int> carried_out = 0;
	answer = [&] {
		carried_out++;
		return OSTREL_FAILURE;
	};
	LocalServer server(file_, nullptr, nullptr, &answering);
	const std::string longest = "a=" + std::string(252, 'x');
	struct {
		AttrList idl;
		std::string text; // of the record; "-": there is none
	} rows[] = {{idl_of("a=1"), "a=1;"}, {idl_of("a=1"), "-"}, {idl_of(longest), longest + ";"},
	    {idl_of(longest + "x"), "-"}, {idl_of("object-id-string=x"), ""}, {{}, ""}};
	ASSERT_EQ(ostrel_idlist_add_enclaveid(rows[0].idl.get(), 0), OSTREL_SUCCESS); // the handle's own
	ASSERT_EQ(attrlist_add_int32(rows[1].idl.get(), "b", 1), 0);
	for (const auto &row : rows) {
		for (uid_t user : {4242U, 0U}) {
			SCOPED_TRACE(row.text + " by " + std::to_string(user));
			const bool allowed = row.text != "-" || user == 0;
			carried_out = 0;
			auto remove = [&](ostrel_db_t db) { return ostrel_db_remove(db, row.idl.get(), 0); };
			EXPECT_EQ(as_client(user, user, remove), allowed ? OSTREL_FAILURE : OSTREL_INVALID_ARG);
			EXPECT_EQ(carried_out, allowed ? 1 : 0);
			const std::string line = std::to_string(user) + ": remove " + row.text + " -1 -1 failed";
			EXPECT_EQ(recorded(), row.text == "-" ? Lines{} : Lines{line});
		}
	}
}

// Whoever takes all of a server's descriptors, by connections for instance, isn't rid of the records of its updates.
TEST_F(Audit, UpdatesAreRecordedWhereNoDescriptorIsLeft)
{
	CairnDaemon here;
	file_.path = test_instance;
	LocalServer server(file_, nullptr, nullptr, ostrel_cairn_db_cmds);
	Signal none_left;
	Process client([&] {
		Database db = open_database(file_.hatch, ostrel_hatches_db_cmds);
		for (int i = 0; i < 5; i++) {
			(void) ostrel_db_write(db.get(), group_of("a:t").get(), 0, props_of("p=x").get());
			if (i == 2)
				none_left.wait();
		}
		return 0;
	});
	size_t before = 0;
	ASSERT_TRUE(eventually([&] { return (before += recorded().size()) == 3; }));
	struct rlimit limit;
	ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
	const struct rlimit low = {256, limit.rlim_max};
	ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
	std::vector<Fd> all;
	for (int fd; (fd = ::open("/", O_PATH | O_CLOEXEC)) != -1;)
		all.emplace_back(fd);
	none_left.raise();
	EXPECT_EQ(client.wait(), 0);
	ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
	all.clear();
	EXPECT_EQ(recorded().size(), 2U);
}

TEST_F(Audit, AClientThatMayNotUpdateLeavesNoRecord)
{
	file_.write_rights("daemon: ostrel.write\n");
	LocalServer server(file_, nullptr, "ostrel.write");
	EXPECT_EQ(as_client(4242, 4242, write_a1), OSTREL_EPERM);
	EXPECT_EQ(recorded(), Lines{});
	(void) unsetenv("MERIDON_ROOT");
}

TEST_F(Audit, OfAClientsDeferredUpdateTheFirstAttemptIsTheClients)
{
	std::atomic<int> attempts = 0;
	answer = [&] { return ++attempts < 3 ? OSTREL_NEEDS_RETRY : OSTREL_SUCCESS; };
	LocalServer server(file_, nullptr, nullptr, &answering);
	EXPECT_EQ(as_client(4242, 4242, write_a1), OSTREL_SUCCESS);
	ASSERT_TRUE(eventually([&] { return file_.text() != ""; }));
	ostrel_db_wrlock(server.db());
	ostrel_db_unlock(server.db());
	EXPECT_EQ(recorded(),
	    (Lines{"4242: update a=1; -1 -1 failed", "0: update a=1; -1 -1 failed", "0: update a=1; 0 0 success"}));
}

// ---- Privileges ----

class AuditPrivileges : public Audit {};

TEST_F(AuditPrivileges, APermittedOneIsEnoughAndIsPutBack)
{
	EXPECT_EQ(recorded_of_child([&] {
		keep_audit_write(CapSets::Permitted);
		const std::string before = capability_sets();
		EXPECT_EQ(write(db_.get(), "a=1"), OSTREL_SUCCESS);
		answer = [] { return OSTREL_EPERM; };
		EXPECT_EQ(write(open_database(file_.path, &answering).get(), "a=1"), OSTREL_EPERM);
		EXPECT_EQ(capability_sets(), before);
		keep_audit_write(CapSets::None);
		EXPECT_EQ(write(db_.get(), "a=2"), OSTREL_SUCCESS);
	}),
	    (Lines{"1000: update a=1; 0 0 success", "1000: update a=1; -1 1003 failed"}));
	EXPECT_EQ(file_.text(), "a=1;\tp=string,x;\na=2;\tp=string,x;\n")
	    << "without the privilege only the record is lost";
}

TEST_F(AuditPrivileges, InAUserNamespaceUpdatesWorkAndLeaveNoRecord)
{
	const auto enter_one = [] {
		become(1000, 1000);
		return unshare(CLONE_NEWUSER);
	};
	if (in_child(enter_one) != 0)
		GTEST_SKIP() << "this process can't enter a user namespace of its own";
	EXPECT_EQ(recorded_of_child([&] {
		EXPECT_EQ(enter_one(), 0);
		const std::string before = capability_sets();
		EXPECT_TRUE(has_audit_write()) << "it holds the capability, and yet has no audit";
		EXPECT_EQ(write(db_.get(), "a=1"), OSTREL_SUCCESS);
		EXPECT_EQ(capability_sets(), before);
	}),
	    Lines{});
}

// Whatever fails inside: the update's result and errno stay, nothing is printed, no privilege and no descriptor is left.
TEST_F(AuditPrivileges, AFailureOnTheWayLeavesNothingBehind)
{
	AttrList enclave = idl_of("a=1"), good = idl_of("a=1");
	ASSERT_EQ(ostrel_idlist_add_enclaveid(enclave.get(), 5), OSTREL_SUCCESS);
	const struct {
		const char *failure;
		unsigned short event;
		attrlist_t *idl;
		rlim_t descriptors;
	} rows[] = {{"no text", TRL_ostrel_update, enclave.get(), RLIM_INFINITY},
	    {"no event", 99, good.get(), RLIM_INFINITY}, {"no session", TRL_ostrel_update, good.get(), 0},
	    {"none, and no earlier one is kept", TRL_ostrel_update, good.get(), RLIM_INFINITY}};
	EXPECT_EQ(recorded_of_child([&] {
		keep_audit_write(CapSets::Permitted);
		const std::string before = capability_sets();
		const int open = open_descriptors();
		rlimit usual;
		(void) getrlimit(RLIMIT_NOFILE, &usual);
		for (const auto &row : rows) {
			const rlimit files = {std::min(row.descriptors, usual.rlim_cur), usual.rlim_max};
			(void) setrlimit(RLIMIT_NOFILE, &files);
			errno = 12345;
			ostrel_audit(db_.get(), row.event, row.idl, OSTREL_SUCCESS);
			EXPECT_EQ(errno, 12345) << row.failure;
			(void) setrlimit(RLIMIT_NOFILE, &usual);
			EXPECT_EQ(capability_sets(), before) << row.failure;
			EXPECT_EQ(open_descriptors(), open) << row.failure;
		}
	}),
	    Lines{"1000: update a=1; 0 0 success"});
}

TEST_F(Audit, AnAllocationThatFailsCostsTheRecordAlone)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	Database db = open_database(file_.path, &answering);
	AttrList idl = idl_of("a=1");
	ASSERT_EQ(ostrel_db_remove(db.get(), idl.get(), 0), OSTREL_SUCCESS); // libaudit is loaded now
	ASSERT_EQ(recorded().size(), 1U);
	const int rounds =
	    sweep_allocations([] { return 0; }, [&](int) { return ostrel_db_remove(db.get(), idl.get(), 0); },
		[&](int, ostrel_error_t result, bool failed) {
			EXPECT_EQ(result, OSTREL_SUCCESS);
			EXPECT_EQ(recorded().size(), failed ? 0U : 1U);
		});
	EXPECT_GT(rounds, 2);
}

// ---- Many at once ----

// Eight clients of a server, each of a user of its own, and the records against what the store saw: as many as finished
// attempts, in their order.
TEST_F(Audit, EveryAttemptOfManyClientsIsRecordedInTheStoresOrder)
{
	constexpr uid_t first_user = 5000;
	constexpr int clients = 8;
	constexpr int updates = sanitized ? 100 : 1250;
	static Lines seen; // guarded by the handle's lock, which updates hold
	seen.clear();
	struct ostrel_db_cmds cmds = *ostrel_files_db_cmds;
	cmds.dbc_write = [](ostrel_db_t, attrlist_t *idl, uint64_t flags, attrlist_t *) {
		const std::string ids = text_of(idl),
				  user = ids.substr(strlen("user="), ids.find(';') - strlen("user="));
		seen.push_back(user + ": update " + ids + (flags == 0 ? " 0 0 success" : " -1 -1 failed"));
		return flags == 0 ? OSTREL_SUCCESS : OSTREL_EXISTS;
	};
	LocalServer server(file_, nullptr, nullptr, &cmds);
	// They begin when all are there: a process forked while the server's threads are busy may find a lock of the
	// sanitizer's allocator taken for good.
	Signal all_are_there;
	std::vector<Process> processes;
	for (uid_t user = first_user; user < first_user + clients; user++) {
		processes.emplace_back([&, user] {
			all_are_there.wait();
			become(user, user);
			Database db = open_database(file_.hatch, ostrel_hatches_db_cmds);
			for (int i = 0; i < updates; i++) {
				const std::string ids = "user=" + std::to_string(user) + ";n=" + std::to_string(i);
				(void) ostrel_db_write(db.get(), idl_of(ids).get(), i % 2U, props_of("p=x").get());
			}
			return 0;
		});
	}
	for (int i = 0; i < clients; i++)
		all_are_there.raise();
	for (Process &process : processes)
		EXPECT_EQ(process.wait(), 0);
	server.stop(); // no thread of its adds any more
	EXPECT_EQ(seen.size(), size_t{clients} * updates);
	EXPECT_EQ(recorded(), seen);
}

} // namespace
