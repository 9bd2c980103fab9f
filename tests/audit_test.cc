// Audit records of updates, read back from the kernel: who, what, with which result, in which order, and when there is
// none. The tests of this file switch the kernel's audit on for a while; they need root in the initial namespaces.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include <meridon/trail.h>

#include "alloc_fault.h"
#include "cairn_db.h"
#include "capabilities.h"
#include "hatch_peer.h"
#include "kernel_audit.h"
#include "served_db.h"

// The seconds between the attempts of a deferred update pass at once.
extern "C" unsigned int sleep(unsigned int)
{
	return 0;
}

namespace {

const std::string all_fields = "op event parent_file object_name subj_uid subj_gid status retval exe hostname addr "
			       "terminal res";

// A record in short: "update a=1; 0 0 success".
std::string in_short(const AuditRecord &record)
{
	EXPECT_EQ(record.names, all_fields);
	const bool remove = record["op"] == "ostrel_remove";
	EXPECT_EQ(record["op"], remove ? "ostrel_remove" : "ostrel_update");
	EXPECT_EQ(record["event"], remove ? "135" : "134");
	return std::string(remove ? "remove " : "update ") + record["object_name"] + " " + record["status"] + " " +
	       record["retval"] + " " + record["res"];
}

using Lines = std::vector<std::string>;

Lines in_short(const std::vector<AuditRecord> &records)
{
	Lines lines;
	for (const AuditRecord &record : records)
		lines.push_back(in_short(record));
	return lines;
}

// A file database whose updates answer what the test says, and do nothing, until it says OSTREL_SUCCESS.
std::function<ostrel_error_t()> answer;
ostrel_error_t next_answer()
{
	return answer ? answer() : OSTREL_SUCCESS;
}

struct ostrel_db_cmds answering_cmds()
{
	struct ostrel_db_cmds cmds = *ostrel_files_db_cmds;
	cmds.dbc_write = [](ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *props) {
		ostrel_error_t result = next_answer();
		return result == OSTREL_SUCCESS ? ostrel_write_object_to_file(db, idl, flags, props) : result;
	};
	cmds.dbc_remove = [](ostrel_db_t, attrlist_t *, uint64_t) { return next_answer(); };
	return cmds;
}
const struct ostrel_db_cmds answering = answering_cmds();

class Audit : public testing::Test {
protected:
	void SetUp() override
	{
		SKIP_WITHOUT_KERNEL_AUDIT();
		audit_ = std::make_unique<KernelAudit>();
		(void) chmod(file_.scratch.directory().c_str(), 0755);
		db_ = open_database(file_.path);
	}
	void TearDown() override { answer = nullptr; }

	static ostrel_error_t write(ostrel_db_t db, const char *ids)
	{
		return ostrel_db_write(db, idl_of(ids).get(), 0, props_of("p=x").get());
	}
	// What a child of this process comes to, and the records that it left.
	std::pair<int, Lines> in_child(const std::function<int()> &run)
	{
		Process child([&] {
			const int status = run();
			return testing::Test::HasFailure() ? 99 : status;
		});
		const pid_t pid = child.pid();
		const int status = child.wait();
		return {status, in_short(audit_->records(pid))};
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
	const std::vector<AuditRecord> found = audit_->records();
	EXPECT_EQ(
	    in_short(found), (Lines{"update a=1; 0 0 success", "update a=1; 0 0 success", "update a=1; 0 0 success",
				 "remove a=1; -1 -1 failed", "remove a=2;b=y; 0 0 success", "remove  0 0 success"}));
	for (const AuditRecord &record : found) {
		EXPECT_EQ(record["parent_file"], file_.path);
		EXPECT_EQ(record["subj_uid"], "0");
		EXPECT_EQ(record["subj_gid"], "0");
		EXPECT_NE(record["exe"].find("audit_test"), std::string::npos);
	}
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
	EXPECT_EQ(drop(db, "b:t"), OSTREL_SUCCESS);
	// A rename's read adds what is stored to the list that the record is made from; the longest types make no text with it.
	EXPECT_EQ(put(db, "c:" + std::string(225, 't'), "p=1"), OSTREL_SUCCESS);
	EXPECT_EQ(move(db, "c", "d:t"), OSTREL_SUCCESS);
	const std::vector<AuditRecord> found = audit_->records();
	const std::string a = "object-pgname=a;object-pgtype=t;", b = "object-pgname=b;object-pgtype=t;";
	EXPECT_EQ(in_short(found),
	    (Lines{"update " + a + " 0 0 success", "update " + a + " 0 0 success", "remove " + a + " -1 -1 failed",
		"remove " + b + " 0 0 success", "update object-pgname=c; 0 0 success"}));
	for (const AuditRecord &record : found)
		EXPECT_EQ(record["parent_file"], test_instance);
}

TEST_F(Audit, ReadsWalksAndWhatNeverReachesAStoreAreNot)
{
	ASSERT_EQ(write(db_.get(), "a=1"), OSTREL_SUCCESS);
	EXPECT_EQ(audit_->records().size(), 1U);
	EXPECT_EQ(ostrel_db_read(db_.get(), idl_of("a=1").get(), 0, nullptr), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_check_auth(db_.get(), B_TRUE), OSTREL_SUCCESS);
	Database raw = open_database(file_.path, ostrel_rawfiles_db_cmds);
	EXPECT_EQ(write(raw.get(), "a=1"), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_db_remove(raw.get(), nullptr, 0), OSTREL_INVALID_ARG);
	EXPECT_EQ(audit_->records().size(), 0U);
}

// ---- Texts from outside ----

// The reader refuses whatever isn't a row of fields, each once; so a record that comes through whole wasn't forged.
TEST_F(Audit, NoTextForgesOrSplitsARecord)
{
	const std::string texts[] = {"with blank", "uid=0", "x subj_uid=0 res=success", "\" uid=0 \"", "it's",
	    "' uid=0 '", "\n", "a\ntype=USER_LOGIN msg=audit(1.1:1): pid=1", "\x01\x1b[31m\x7f", "\xc3\xa9t\xc3\xa9",
	    "\xff\xfe", "exe=/bin/sh", "6162", "\"6162\"", "?", "(null)", "%s%n", std::string(200, '\'')};
	for (const std::string &text : texts) {
		Database db = open_database(file_.scratch.path(text));
		AttrList idl;
		ASSERT_EQ(ostrel_idlist_init(idl.out(), nullptr), OSTREL_SUCCESS);
		ASSERT_EQ(ostrel_idlist_add(idl.get(), "key", text.c_str()), OSTREL_SUCCESS);
		const bool written = ostrel_db_write(db.get(), idl.get(), 0, props_of("p=x").get()) == OSTREL_SUCCESS;
		const std::vector<AuditRecord> found = audit_->records();
		ASSERT_EQ(found.size(), 1U) << text;
		EXPECT_EQ(in_short(found[0]), "update key=" + text + (written ? "; 0 0 success" : "; -1 -1 failed"));
		EXPECT_EQ(found[0]["parent_file"], file_.scratch.path(text));
		EXPECT_EQ(found[0]["subj_uid"], "0");
		// Programs look for these words anywhere in a record.
		for (const char *word : {"uid=", "exe=", "res=", "type="}) {
			size_t count = 0;
			for (size_t at = 0; (at = found[0].raw.find(word, at)) != std::string::npos; at++)
				count++;
			const size_t ours = strcmp(word, "uid=") == 0 ? 3 : strcmp(word, "type=") == 0 ? 0 : 1;
			EXPECT_EQ(count, ours) << word << " in " << found[0].raw;
		}
	}
}

TEST_F(Audit, TheLongestTextsAreRecordedWhole)
{
	const std::string name = std::string(1023, '\n');
	const std::string ids = std::string(255 - 3, '\'');
	Database db = open_database(name, &answering);
	answer = [] { return OSTREL_FAILURE; };
	EXPECT_EQ(ostrel_db_remove(db.get(), idl_of("a=" + ids).get(), 0), OSTREL_FAILURE);
	const std::vector<AuditRecord> found = audit_->records();
	ASSERT_EQ(in_short(found), Lines{"remove a=" + ids + "; -1 -1 failed"});
	EXPECT_EQ(found[0]["parent_file"], name);
}

// ---- No record ----

TEST_F(Audit, WhatHasNoTextOrNoNameOrNoEventIsntRecorded)
{
	Database db = open_database(file_.path, &answering);
	AttrList enclave = idl_of("a=1");
	ASSERT_EQ(ostrel_idlist_add_enclaveid(enclave.get(), 5), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_remove(db.get(), enclave.get(), 0), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_remove(open_database("", &answering).get(), idl_of("a=1").get(), 0), OSTREL_SUCCESS);
	ostrel_audit(nullptr, TRL_ostrel_update, idl_of("a=1").get(), OSTREL_SUCCESS);
	for (unsigned short event : std::initializer_list<unsigned short>{0, 133, 136, 65535})
		ostrel_audit(db.get(), event, idl_of("a=1").get(), OSTREL_SUCCESS);
	EXPECT_EQ(audit_->records().size(), 0U);
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
		const std::vector<AuditRecord> found = audit_->records();
		ASSERT_EQ(in_short(found), Lines{"update a=1; 0 0 success"});
		EXPECT_EQ(found[0]["subj_uid"], std::to_string(real));
		EXPECT_EQ(found[0]["subj_gid"], std::to_string(real));
		EXPECT_EQ(found[0]["parent_file"], file_.path) << "the server's database, not the hatch";
		EXPECT_EQ(found[0].uid, 0U) << "the server sends it";
	}
	EXPECT_EQ(write(server.db(), "a=1"), OSTREL_SUCCESS);
	EXPECT_EQ(audit_->records().at(0)["subj_uid"], "0") << "outside of a call it's the process";
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
			const bool allowed = row.text != "-" || user == 0;
			carried_out = 0;
			auto remove = [&](ostrel_db_t db) { return ostrel_db_remove(db, row.idl.get(), 0); };
			EXPECT_EQ(as_client(user, user, remove), allowed ? OSTREL_FAILURE : OSTREL_INVALID_ARG)
			    << row.text << " by " << user;
			EXPECT_EQ(carried_out, allowed ? 1 : 0) << row.text << " by " << user;
			const std::vector<AuditRecord> found = audit_->records();
			ASSERT_EQ(found.size(), row.text == "-" ? 0U : 1U) << row.text << " by " << user;
			for (const AuditRecord &record : found)
				EXPECT_EQ(record["object_name"] + record["subj_uid"], row.text + std::to_string(user));
		}
	}
}

// Whoever takes all of a server's descriptors, by connections for instance, isn't rid of the records of its updates.
TEST_F(Audit, UpdatesAreRecordedWhereNoDescriptorIsLeft)
{
	CairnDaemon here;
	file_.path = test_instance;
	LocalServer server(file_, nullptr, nullptr, ostrel_cairn_db_cmds);
	int gate[2];
	ASSERT_EQ(::pipe2(gate, O_CLOEXEC), 0);
	Fd gate_out(gate[0]), gate_in(gate[1]);
	Process client([&] {
		Database db = open_database(file_.hatch, ostrel_hatches_db_cmds);
		for (char go, i = 0; i < 5; i++) {
			(void) ostrel_db_write(db.get(), group_of("a:t").get(), 0, props_of("p=x").get());
			if (i == 2 && ::read(gate_out.get(), &go, 1) != 1)
				return 1;
		}
		return 0;
	});
	size_t before = 0;
	ASSERT_TRUE(eventually([&] { return (before += audit_->records().size()) == 3; }));
	struct rlimit limit;
	ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
	const struct rlimit low = {256, limit.rlim_max};
	ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
	std::vector<Fd> all;
	for (int fd; (fd = ::dup(gate_in.get())) != -1;)
		all.emplace_back(fd);
	EXPECT_EQ(::write(gate_in.get(), "x", 1), 1);
	EXPECT_EQ(client.wait(), 0);
	ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
	all.clear();
	EXPECT_EQ(audit_->records().size(), 2U);
}

TEST_F(Audit, AClientThatMayNotUpdateLeavesNoRecord)
{
	file_.write_rights("daemon: ostrel.write\n");
	LocalServer server(file_, nullptr, "ostrel.write");
	EXPECT_EQ(as_client(4242, 4242, write_a1), OSTREL_EPERM);
	EXPECT_EQ(audit_->records().size(), 0U);
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
	std::string users;
	for (const AuditRecord &record : audit_->records())
		users += record["subj_uid"] + ":" + record["status"] + ":" + record["retval"] + " ";
	EXPECT_EQ(users, "4242:-1:-1 0:-1:-1 0:0:0 ");
}

// ---- Privileges ----

class AuditPrivileges : public Audit {
protected:
	void SetUp() override
	{
		Audit::SetUp();
		ASSERT_EQ(chmod(file_.scratch.directory().c_str(), 0777), 0);
	}
};

TEST_F(AuditPrivileges, APermittedOneIsEnoughAndIsPutBack)
{
	Process child([&] {
		keep_audit_write(CapSets::Permitted);
		const std::string before = capability_sets();
		EXPECT_EQ(write(db_.get(), "a=1"), OSTREL_SUCCESS);
		EXPECT_EQ(write(open_database("/root/ostrel-no-such/x").get(), "a=1"), OSTREL_EPERM);
		return !HasFailure() && capability_sets() == before ? 0 : 1;
	});
	const pid_t pid = child.pid();
	EXPECT_EQ(child.wait(), 0);
	const std::vector<AuditRecord> found = audit_->records(pid);
	EXPECT_EQ(in_short(found), (Lines{"update a=1; 0 0 success", "update a=1; -1 1003 failed"}));
	for (const AuditRecord &record : found) {
		EXPECT_EQ(record["subj_uid"], "1000");
		EXPECT_EQ(record.uid, 1000U);
	}
}

TEST_F(AuditPrivileges, WithoutOneUpdatesWorkAndLeaveNoRecord)
{
	const auto [status, found] = in_child([&] {
		keep_audit_write(CapSets::Permitted);
		EXPECT_EQ(write(db_.get(), "a=1"), OSTREL_SUCCESS);
		keep_audit_write(CapSets::None);
		return write(db_.get(), "a=2");
	});
	EXPECT_EQ(status, OSTREL_SUCCESS);
	EXPECT_EQ(found, Lines{"update a=1; 0 0 success"}) << "while it was held";
	EXPECT_EQ(file_.text(), "a=1;\tp=string,x;\na=2;\tp=string,x;\n");
}

TEST_F(AuditPrivileges, InAUserNamespaceUpdatesWorkAndLeaveNoRecord)
{
	testing::internal::CaptureStderr();
	const auto result = in_child([&] {
		become(1000, 1000);
		if (unshare(CLONE_NEWUSER) != 0)
			return 77;
		const std::string before = capability_sets();
		EXPECT_TRUE(has_audit_write()) << "it holds the capability, and yet has no audit";
		EXPECT_EQ(write(db_.get(), "a=1"), OSTREL_SUCCESS);
		EXPECT_EQ(capability_sets(), before);
		return 0;
	});
	EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
	if (result.first == 77)
		GTEST_SKIP() << "this process can't enter a user namespace of its own";
	EXPECT_EQ(result, std::make_pair(0, Lines{}));
}

// Whatever fails inside: the update's result and errno stay, nothing is printed, no privilege and no descriptor is left.
TEST_F(AuditPrivileges, AFailureOnTheWayLeavesNothingBehind)
{
	AttrList enclave = idl_of("a=1"), good = idl_of("a=1");
	ASSERT_EQ(ostrel_idlist_add_enclaveid(enclave.get(), 5), OSTREL_SUCCESS);
	const auto record = [&](unsigned short event, attrlist_t *idl, rlim_t descriptors) {
		const std::string before = capability_sets();
		const int open = open_descriptors();
		rlimit files;
		(void) getrlimit(RLIMIT_NOFILE, &files);
		const rlim_t usual = std::exchange(files.rlim_cur, std::min(descriptors, files.rlim_cur));
		(void) setrlimit(RLIMIT_NOFILE, &files);
		errno = 12345;
		ostrel_audit(db_.get(), event, idl, OSTREL_SUCCESS);
		EXPECT_EQ(errno, 12345);
		files.rlim_cur = usual;
		(void) setrlimit(RLIMIT_NOFILE, &files);
		EXPECT_EQ(capability_sets(), before);
		EXPECT_EQ(open_descriptors(), open);
	};
	testing::internal::CaptureStderr();
	EXPECT_EQ(in_child([&] {
		keep_audit_write(CapSets::Permitted);
		record(TRL_ostrel_update, enclave.get(), RLIM_INFINITY); // no text
		record(99, good.get(), RLIM_INFINITY);                   // no event
		record(TRL_ostrel_update, good.get(), 0);                // no session
		record(TRL_ostrel_update, good.get(), RLIM_INFINITY);    // and now there is one: no failure is kept
		return 0;
	}),
	    std::make_pair(0, Lines{"update a=1; 0 0 success"}));
	EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Audit, AnAllocationThatFailsCostsTheRecordAlone)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	Database db = open_database(file_.path, &answering);
	AttrList idl = idl_of("a=1");
	ASSERT_EQ(ostrel_db_remove(db.get(), idl.get(), 0), OSTREL_SUCCESS); // libaudit is loaded now
	ASSERT_EQ(audit_->records().size(), 1U);
	const int rounds =
	    sweep_allocations([] { return 0; }, [&](int) { return ostrel_db_remove(db.get(), idl.get(), 0); },
		[&](int, ostrel_error_t result, bool failed) {
			EXPECT_EQ(result, OSTREL_SUCCESS);
			EXPECT_EQ(audit_->records().size(), failed ? 0U : 1U);
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
		seen.push_back("update " + text_of(idl) + (flags == 0 ? " 0 0 success" : " -1 -1 failed"));
		return flags == 0 ? OSTREL_SUCCESS : OSTREL_EXISTS;
	};
	LocalServer server(file_, nullptr, nullptr, &cmds);
	// They begin when all are there: a process forked while the server's threads are busy may find a lock of the
	// sanitizer's allocator taken for good.
	int gate[2];
	ASSERT_EQ(::pipe2(gate, O_CLOEXEC), 0);
	Fd gate_out(gate[0]), gate_in(gate[1]);
	std::vector<Process> processes;
	for (uid_t user = first_user; user < first_user + clients; user++) {
		processes.emplace_back([&, user] {
			char go;
			if (::read(gate_out.get(), &go, 1) != 1)
				return 2;
			become(user, user);
			Database db = open_database(file_.hatch, ostrel_hatches_db_cmds);
			for (int i = 0; i < updates; i++) {
				const std::string ids = "user=" + std::to_string(user) + ";n=" + std::to_string(i);
				(void) ostrel_db_write(db.get(), idl_of(ids).get(), i % 2U, props_of("p=x").get());
			}
			return 0;
		});
	}
	ASSERT_EQ(::write(gate_in.get(), std::string(clients, 'x').data(), clients), clients);
	for (Process &process : processes)
		EXPECT_EQ(process.wait(), 0);
	const std::vector<AuditRecord> found = audit_->records();
	EXPECT_EQ(seen.size(), size_t{clients} * updates);
	EXPECT_EQ(in_short(found), seen);
	for (const AuditRecord &record : found)
		ASSERT_EQ(record["object_name"].find("user=" + record["subj_uid"] + ";"), 0U) << record.raw;
}

} // namespace
