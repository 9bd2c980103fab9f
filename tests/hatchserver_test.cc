// The hatch server: requests as no client of ours would send them, who may do what, and how a server begins and ends.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "alloc_fault.h"
#include "cairn_db.h"
#include "served_db.h"

namespace {

constexpr char first_text[] = "a=1;\tp=string,one;\na=2;\tp=string,two;\n";

// A served file, or one to serve, and its database.
class HatchServer : public testing::Test {
protected:
	void SetUp() override
	{
		SKIP_UNLESS_ROOT();
		file_.write(first_text);
	}
	ostrel_error_t create(const std::string &path)
	{
		return ostrel_hatchserver_create(path.c_str(), nullptr, nullptr, db_.get(), &hatch_);
	}
	void destroy() const { ostrel_hatchserver_destroy(file_.hatch.c_str(), hatch_); }
	static struct stat look(const std::string &path)
	{
		struct stat st = {};
		EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
		return st;
	}

	ServedFile file_;
	Database db_ = open_database(file_.path);
	int hatch_ = -1;
};

// ---- Requests ----

class HatchRequests : public HatchServer {};

TEST_F(HatchRequests, AreAnsweredAsTheGoldenFileSays)
{
	LocalServer server(file_);
	Fd hatch = open_hatch(file_.hatch);
	for (const auto &[request, expected] : golden_pairs("hatch_requests.txt"))
		EXPECT_EQ(ask(hatch.get(), request).text(), expected) << request;
	// Many megabytes are judged by the database.
	const std::string big = " ids=a=" + std::string(size_t{sanitized ? 4 : 8} << 20, 'x');
	EXPECT_EQ(ask(hatch.get(), "read" + big).objects, "");
	EXPECT_EQ(ask(hatch.get(), "write props=p=x" + big).text(), "write 2 invalid argument");
	EXPECT_EQ(ask(hatch.get(), "remove" + big).text(), "remove 2 object not found");
	EXPECT_EQ(ask(hatch.get(), "read ids=a=2").objects, "a=2;|p=two; ");
	EXPECT_EQ(file_.text(), first_text);
}

// A store of the test's own: reads give as many objects of as many bytes as it says.
struct Store {
	unsigned int count = 1;
	size_t size = 10;
} store;

ostrel_error_t read_store(ostrel_db_t db, attrlist_t *, uint64_t, attrlist_t ***objs, unsigned int *count)
{
	EXPECT_EQ(ostrel_db_get_flags(db), 0U); // a handle that is still there
	Objects found;
	if (!found.alloc(store.count))
		return OSTREL_NO_MEMORY;
	for (unsigned int i = 0; i < found.count(); i++)
		found[i] = object_of("a=1", "p=" + std::string(store.size, 'x')).release();
	*count = found.count();
	*objs = found.release();
	return OSTREL_SUCCESS;
}

constexpr struct ostrel_db_cmds store_cmds = {
    nullptr, nullptr, read_store, nullptr, nullptr, nullptr, nullptr, nullptr};

TEST_F(HatchRequests, WithoutADatabaseToServeAreRefused)
{
	const std::string path = file_.scratch.path("none");
	struct ostrel_db no_table = {};
	constexpr struct ostrel_db_cmds no_slots = {};
	Database empty = open_database("x", &no_slots);
	for (ostrel_db_t db : {static_cast<ostrel_db_t>(nullptr), &no_table, empty.get()}) {
		LocalHatch hatch(path, ostrel_hatch_handler, db);
		Fd fd = open_hatch(path);
		for (const char *cmd : {"read", "write", "remove"})
			EXPECT_EQ(ask(fd.get(), cmd).text(), std::string(cmd) + " 2 invalid argument");
		for (size_t size = 0; size < 4; size++)
			EXPECT_EQ(ask(fd.get(), "0 cut=" + std::to_string(size)).text(), "0 0 invalid argument");
	}
}

// ---- Replies ----

class HatchReplies : public HatchServer {};

TEST_F(HatchReplies, OfEveryLengthComeThroughWholeAndLeaveNothingBehind)
{
	LocalServer server(file_, nullptr, nullptr, &store_cmds);
	Database db = open_database(file_.hatch, ostrel_hatches_db_cmds);
	auto read_sized = [&](size_t size) {
		store.size = size;
		AttrList found;
		char *value = nullptr;
		ASSERT_EQ(ostrel_db_read(db.get(), idl_of("a=1").get(), 0, found.out()), OSTREL_SUCCESS) << size;
		ASSERT_EQ(ostrel_atl_get_one_string(found.get(), "p", &value), 0) << size;
		ASSERT_TRUE(value == std::string(size, 'x')) << size;
	};
	const size_t border = 65536; // beyond it the stack isn't used
	for (size_t size :
	    {size_t{0}, size_t{1}, size_t{4096}, size_t{200'000}, size_t{262'144}, size_t{sanitized ? 1U : 16U} << 20})
		read_sized(size);
	for (size_t size = border - 260; size < border; size++)
		read_sized(size);
	long before = 0;
	for (int i = 0; i < 320; i++) {
		read_sized(1U << 20);
		before = i == 20 ? anonymous_kib() : before;
	}
	// Each thread that served keeps room for one reply; a leak would be ten times as much.
	EXPECT_TRUE(sanitized || anonymous_kib() - before < 32 * 1024) << anonymous_kib() << " KiB, not " << before;
	store = {10'000, 10};
	auto count = [](ostrel_db_t, attrlist_t *, attrlist_t *, uint64_t, void *arg) {
		++*static_cast<int *>(arg);
		return 0;
	};
	int objects = 0;
	EXPECT_EQ(ostrel_db_walk(db.get(), nullptr, 0, count, nullptr, &objects, nullptr), OSTREL_SUCCESS);
	EXPECT_EQ(objects, 10'000);
	store = {};
}

// ---- Who may do what ----

class HatchRights : public HatchServer {
protected:
	void SetUp() override
	{
		HatchServer::SetUp();
		for (const char *name : {"daemon", "bin", "sys"}) {
			if (getpwnam(name) == nullptr)
				GTEST_SKIP() << "no user " << name;
		}
		file_.write_rights("daemon: ostrel.read, ostrel.write\nbin: ostrel.read\n");
	}
	void TearDown() override { (void) unsetenv("MERIDON_ROOT"); }
	static uid_t user(const char *name) { return getpwnam(name)->pw_uid; }

	// What a thread of the user is answered: a letter for each result, and the objects that come.
	static std::string answers(uid_t real, const std::string &hatch, const std::vector<std::string> &requests)
	{
		std::string letters, found;
		thread_as(real, [&] {
			Fd fd = open_hatch(hatch);
			for (const std::string &request : requests) {
				const Reply reply = ask(fd.get(), request);
				letters += reply.error != 0 ? '!' : ".Pienwmfur"[reply.head.nda_result];
				found += reply.objects;
			}
			hatch_forget(fd.get());
		});
		return found.empty() ? letters : letters + " " + found;
	}
	// A read, the three updates, which undo one another, and the two questions.
	std::string may(uid_t real)
	{
		const std::string found = " a=1;|p=one; ";
		std::string said = answers(real, file_.hatch,
		    {"read ids=a=1", "write ids=a=9 props=p=x", "rename ids=a=9 newids=a=8", "remove ids=a=8",
			"may_read", "may_write"});
		EXPECT_EQ(said.find(found) != std::string::npos, said[0] == '.') << said;
		return said.substr(0, 6);
	}
	std::string may(const char *name) { return may(user(name)); }
};

TEST_F(HatchRights, EachUserMayDoWhatTheFileSays)
{
	Process server = serve_file(file_, "ostrel.read", "ostrel.write");
	EXPECT_EQ(may("daemon"), "......");
	EXPECT_EQ(may("bin"), ".PPP.P");
	EXPECT_EQ(may("sys"), "PPPPPP");
	EXPECT_EQ(may("root"), "......");
	EXPECT_EQ(may(3'000'000'000U), "PPPPPP") << "a user that nobody knows";
	EXPECT_EQ(answers(user("daemon"), file_.hatch, {"remove ids=a=#1"}), "i") << "an update that leaves no record";
	EXPECT_EQ(file_.text(), first_text);
	// A file that is changed counts at once.
	file_.write_rights("%bin: ostrel.*\n");
	EXPECT_EQ(may("bin"), "......");
	EXPECT_EQ(may("daemon"), "PPPPPP");
}

TEST_F(HatchRights, AnEmptyNameLetsEverybody)
{
	Process open_to_read = serve_file(file_, "", "ostrel.write");
	EXPECT_EQ(may("sys"), ".PPP.P");
	EXPECT_EQ(may(3'000'000'000U), ".PPP.P");
	open_to_read.kill();
	Process open_to_all = serve_file(file_);
	EXPECT_EQ(may("sys"), "......");
	EXPECT_EQ(may(3'000'000'000U), "......");
}

TEST_F(HatchRights, ARequestFromOutsideLearnsNothingOfWhatItAsksFor)
{
	Process server = serve_file(file_, "ostrel.read", "ostrel.write");
	// What is there and what isn't, what is sensible and what isn't: the same answer.
	EXPECT_EQ(answers(user("sys"), file_.hatch,
		      {"read ids=a=1", "read ids=a=7", "remove", "write", "rename ids=a=7 newids=a=1",
			  "read ids=object-db-name=/etc/passwd"}),
	    "PPPPPP");
	EXPECT_EQ(file_.text(), first_text);
}

// ---- Requests that leave the served database ----

// A letter for each result of read, write, rename, rename to there, remove, and what the read found.
struct Leaving {
	std::string by;            // an identifier; a number follows a '#'
	std::string without, with; // the right. Empty: any result that isn't OSTREL_EPERM
};
constexpr char refused[] = "PPPPP";

class HatchElsewhere : public HatchRights {
protected:
	// Asks for all of it as a user with the right to go elsewhere, as root, and as a user with the other rights alone.
	void expect(const std::string &hatch, const std::vector<Leaving> &rows)
	{
		for (const Leaving &row : rows) {
			for (const char *name : {"daemon", "bin", "root"}) {
				begin_();
				const std::string before = state_();
				const std::string answers = asked_for(user(name), hatch, row.by);
				const bool has_right = *name != 'd';
				const std::string &expected = has_right ? row.with : row.without;
				EXPECT_TRUE(
				    answers == expected || (expected.empty() && answers.find('P') == std::string::npos))
				    << row.by << " by " << name << ": " << answers;
				EXPECT_TRUE(has_right || row.without != refused || state_() == before) << row.by;
			}
		}
	}

	const std::string rights_ = "daemon: ostrel.read, ostrel.write\nbin: ostrel.*\n";
	const std::string other_ = file_.scratch.path("other"), done_ = "..... a=1;|p=one; ";
	// Objects of the served database, and of where it goes. All is made again, and looked at, for each user.
	std::string here_ = "a=2", here_new_ = "a=4", there_ = "a=1", there_new_ = "a=3";
	std::function<void()> begin_ = [this] {
		file_.write(first_text);
		file_.scratch.write("other", first_text);
	};
	std::function<std::string()> state_ = [this] { return file_.text() + file_text(other_); };

private:
	std::string asked_for(uid_t real, const std::string &hatch, const std::string &by) const
	{
		const std::string there = " ids=" + by + ";" + there_;
		return answers(real, hatch,
		    {"read" + there, "write props=p=x" + there, "rename newids=" + there_new_ + there,
			"rename ids=" + here_ + " newids=" + by + ";" + here_new_,
			"remove ids=" + by + ";" + there_new_});
	}
};

TEST_F(HatchElsewhere, AnotherFileOrEnclaveTakesTheRight)
{
	file_.write_rights(rights_);
	const std::string name = "object-db-name=", enclave = "object-db-enclave=", link = file_.scratch.path("link");
	ASSERT_EQ(::link(file_.path.c_str(), link.c_str()), 0);
	Process server = serve_file(file_, "ostrel.read", "ostrel.write");
	expect(file_.hatch, {{name + other_, refused, done_}, {name + file_.scratch.path("./db"), refused, done_},
				{name + link, refused, ""}, {name + other_ + "/no", refused, "nnn.n"},
				{name + "#1", refused, done_}, {enclave + "#5", refused, ""},
				{enclave + "global", refused, "....n"}, {enclave + "#4294967296", refused, ""},
				{name + file_.path, done_, done_}, {enclave + "#0", done_, done_}});
	ServedFile raw;
	raw.path = file_.path;
	Process raw_server = serve_file(raw, "ostrel.read", "ostrel.write", ostrel_rawfiles_db_cmds);
	there_ = there_new_ = "";
	const std::string lines = ".iiii object-rawline=line1;|object-rawline=a=1;\tp=string,one;; "
				  "object-rawline=line2;|object-rawline=a=2;\tp=string,two;; ";
	expect(raw.hatch, {{name + other_, refused, lines}, {name + file_.path, lines, lines}});
}

// What a list means the far server alone knows, and it takes the one between for the caller.
TEST_F(HatchElsewhere, NothingIsPassedOnToAFurtherHatchWithoutIt)
{
	file_.write_rights(rights_);
	Process far_server = serve_file(file_);
	ServedFile between;
	between.path = file_.hatch;
	Process server = serve_file(between, "ostrel.read", "ostrel.write", ostrel_hatches_db_cmds);
	expect(between.hatch,
	    {{"object-db-name=" + other_, refused, done_}, {"object-db-name=" + file_.path, refused, done_},
		{"object-db-enclave=#0", refused, ""}, {"object-db-name=" + file_.hatch, refused, ""}});
}

TEST_F(HatchElsewhere, AnotherLevelOrEnclaveOfARepositoryTakesTheRight)
{
	CairnDaemon here;
	ASSERT_TRUE(here.ready);
	std::filesystem::create_directories(here.daemon.place.path("etc/meridon"));
	ASSERT_EQ(chmod(here.daemon.place.write("etc/meridon/rights", rights_).c_str(), 0644), 0);
	here_ = "object-pgname=c;object-pgtype=t";
	here_new_ = "object-pgname=d;object-pgtype=t";
	there_ = "object-pgname=a;object-pgtype=t";
	there_new_ = "object-pgname=b;object-pgtype=t";
	for (const auto &[own, other] :
	    {std::pair(test_instance, test_service), std::pair(test_service, test_instance)}) {
		CairnDb own_db = open_cairn(own), other_db = open_cairn(other);
		state_ = [&] { return walk(own_db, "*") + "/ " + walk(other_db, "*"); };
		begin_ = [&] {
			for (const char *group : {"a", "b", "c", "d"}) {
				(void) drop(own_db, group);
				(void) drop(other_db, group);
			}
			ASSERT_EQ(put(own_db, "c:t", "p=two"), OSTREL_SUCCESS);
			ASSERT_EQ(put(other_db, "a:t", "p=one"), OSTREL_SUCCESS);
		};
		ServedFile served;
		served.path = own;
		Process server = serve_file(served, "ostrel.read", "ostrel.write", ostrel_cairn_db_cmds);
		const std::string name = "object-db-name=", enclave = "object-db-enclave=";
		// A rename without a place among the new identifiers leads to the served one.
		expect(served.hatch, {{name + other, refused, "....n " + there_ + ";|p=one; "}});
		EXPECT_EQ(state_(), "b:t / d:t ");
		expect(served.hatch, {{name + "net/other", refused, "iiiii"}, {enclave + "#5", refused, ""},
					 {enclave + "#0", "n....", "n...."}, {name + own, "n....", "n...."}});
	}
}

// ---- Beginning and end ----

TEST_F(HatchServer, MakesItsPlaceAsItMustBeAndLeavesTheDirectory)
{
	const std::string directory = file_.scratch.path("hatches");
	for (int round = 0; round < 2; round++) {
		const mode_t mask = umask(0077);
		ASSERT_EQ(create(file_.hatch), OSTREL_SUCCESS);
		(void) umask(mask);
		EXPECT_EQ(look(file_.hatch).st_mode, S_IFREG | 0644U);
		EXPECT_EQ(look(directory).st_mode, S_IFDIR | 0755U);
		EXPECT_EQ(look(directory).st_uid, 16U);
		EXPECT_EQ(look(directory).st_gid, 65U);
		EXPECT_NE(fcntl(hatch_, F_GETFD), -1);
		destroy();
		EXPECT_FALSE(file_.scratch.has("hatches/db"));
		// What is there already is put right.
		ASSERT_EQ(chmod(directory.c_str(), 0700), 0);
		ASSERT_EQ(chown(directory.c_str(), 0, 0), 0);
		attachable(file_.hatch, 0600);
	}
}

TEST_F(HatchServer, RefusesWhatItCannotServeAndStoresItsRightsFirstAndCutsThem)
{
	Database nameless = open_database("");
	auto refusal = [&](const std::string &path, ostrel_db_t db, int *hatch) {
		return ostrel_hatchserver_create(path.c_str(), "r", std::string(2000, 'w').c_str(), db, hatch);
	};
	EXPECT_EQ(refusal(file_.hatch, nullptr, &hatch_), OSTREL_INVALID_ARG);
	EXPECT_EQ(refusal(file_.hatch, db_.get(), nullptr), OSTREL_INVALID_ARG);
	EXPECT_EQ(refusal(file_.hatch, nameless.get(), &hatch_), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_hatchserver_create(nullptr, nullptr, nullptr, db_.get(), &hatch_), OSTREL_INVALID_ARG);
	EXPECT_EQ(refusal("", db_.get(), &hatch_), OSTREL_INVALID_ARG);
	EXPECT_EQ(refusal(file_.path + "/db", db_.get(), &hatch_), OSTREL_NOT_FOUND) << "the directory is a file";
	EXPECT_EQ(refusal(file_.scratch.path("no/such/db"), db_.get(), &hatch_), OSTREL_NOT_FOUND);
	EXPECT_FALSE(file_.scratch.has("hatches"));
	EXPECT_EQ(hatch_, -1);
	EXPECT_STREQ(ostrel_db_get_read_auth(db_.get()), "r");
	EXPECT_EQ(ostrel_db_get_write_auth(db_.get()), std::string(1023, 'w'));
	ASSERT_EQ(create(file_.hatch), OSTREL_SUCCESS);
	EXPECT_STREQ(ostrel_db_get_read_auth(db_.get()), "");
	destroy();
}

TEST_F(HatchServer, ChangesNoFileThatIsNotItsOwn)
{
	const int before = open_descriptors();
	ASSERT_EQ(mkdir(file_.scratch.path("hatches").c_str(), 0755), 0);
	ASSERT_EQ(chmod(file_.path.c_str(), 0600), 0);
	const char *hatch = file_.hatch.c_str(), *file = file_.path.c_str();
	const std::pair<std::function<int()>, ostrel_error_t> obstacles[] = {
	    {[=] { return symlink(file, hatch); }, OSTREL_FAILURE},
	    {[=] { return link(file, hatch); }, OSTREL_INVALID_ARG},
	    {[=] { return mkfifo(hatch, 0600); }, OSTREL_INVALID_ARG},
	};
	for (const auto &[put, result] : obstacles) {
		ASSERT_EQ(put(), 0);
		EXPECT_EQ(create(hatch), result) << "obstacle " << look(hatch).st_mode;
		ASSERT_EQ(unlink(hatch), 0);
	}
	EXPECT_EQ(look(file_.path).st_mode, S_IFREG | 0600U);
	EXPECT_EQ(create(file_.scratch.write("hatches/db", "not a hatch")), OSTREL_FAILURE);
	EXPECT_EQ(file_text(file_.hatch), "not a hatch");
	const std::string kept = file_.scratch.path("kept"), planted = file_.scratch.path("hatches/sub");
	ASSERT_EQ(mkdir(kept.c_str(), 0700), 0);
	ASSERT_EQ(symlink(kept.c_str(), planted.c_str()), 0);
	EXPECT_EQ(create(planted + "/db"), OSTREL_NOT_FOUND) << "another user may have made the link";
	EXPECT_EQ(look(kept).st_mode, S_IFDIR | 0700U);
	EXPECT_EQ(look(kept).st_uid, 0U);
	EXPECT_EQ(hatch_, -1);
	EXPECT_EQ(open_descriptors(), before);
}

TEST_F(HatchServer, NeedsTheRightToChangeOwners)
{
	const std::string directory = file_.scratch.path("hatches");
	ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
	ASSERT_EQ(chown(directory.c_str(), 1000, 1000), 0);
	EXPECT_EQ(as_user(1000, [&] { return create(file_.hatch) == OSTREL_EPERM && hatch_ == -1 ? 7 : 1; }), 7);
	EXPECT_FALSE(file_.scratch.has("hatches/db"));
}

TEST_F(HatchServer, TakesThePathOverFromOneThatLives)
{
	ServedFile other;
	other.hatch = file_.hatch;
	other.write("a=3;\tp=string,three;\n");
	Process first = serve_file(other);
	Fd old = open_hatch(file_.hatch);
	EXPECT_EQ(ask(old.get(), "read").objects, "a=3;|p=three; ");
	ASSERT_EQ(create(file_.hatch), OSTREL_SUCCESS);
	EXPECT_EQ(ask(old.get(), "read").error, EBADF);
	EXPECT_EQ(ask(open_hatch(file_.hatch).get(), "read ids=a=1").objects, "a=1;|p=one; ");
	ostrel_hatchserver_destroy(file_.hatch.c_str(), -1);
	EXPECT_FALSE(file_.scratch.has("hatches/db")) << "without a hatch the path alone is destroyed";
	EXPECT_NE(fcntl(hatch_, F_GETFD), -1);
	destroy();
	EXPECT_EQ(fcntl(hatch_, F_GETFD), -1);
}

// ---- Memory that runs out ----

// Runs the handler with an allocation that fails, as often as the test says, and sees to it that the thread has given
// back what it took for the call before. The state of a fault outlives its call, which isn't left the usual way.
struct Starved {
	ostrel_db_t db;
	int nth = 0;
	std::deque<AllocFault> faults;
	std::atomic<int> leaks = 0;
	std::atomic<bool> slow = false;
};
thread_local long blocks_before = -1;

void starve(void *cookie, char *arg, size_t size, hatch_desc_t *descs, unsigned int ndescs)
{
	auto *starved = static_cast<Starved *>(cookie);
	if (starved->slow) {
		usleep(50'000);
		hatch_return(nullptr, 0, nullptr, 0);
	}
	starved->leaks += blocks_before != -1 && heap_use().blocks != blocks_before;
	blocks_before = heap_use().blocks;
	if (starved->nth > 0) {
		starved->faults.emplace_back(1000'000); // what the queue needs is taken
		blocks_before = heap_use().blocks;
		new (&starved->faults.back()) AllocFault(starved->nth);
	}
	ostrel_hatch_handler(starved->db, arg, size, descs, ndescs);
}

TEST_F(HatchServer, AnswersWhicheverAllocationFailsAndKeepsNothing)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	// Without records: an update outlives an allocation that fails after it, for its record.
	struct ostrel_db_cmds unaudited = *ostrel_files_db_cmds;
	unaudited.dbc_audit = nullptr;
	Database db = open_database(file_.path, &unaudited);
	struct Case {
		const char *request, *objects;
	};
	const Case cases[] = {
	    {"read ids=a=1", "a=1;|p=one; "},
	    {"write ids=a=2 props=p=two", ""},
	    {"may_read", ""},
	};
	for (const Case &row : cases) {
		Starved starved = {db.get(), 0, {}, 0, true};
		LocalHatch hatch(file_.scratch.path("starved"), starve, &starved);
		Fd fd = open_hatch(file_.scratch.path("starved"));
		// Starting a thread takes memory that another one gives back: so there are enough of them before.
		std::vector<std::jthread> crowd;
		for (int i = 0; i < 8; i++)
			crowd.emplace_back([&] { (void) call(fd.get(), std::string("wait")); });
		crowd.clear();
		starved.slow = false;
		for (int warm = 0; warm < 5; warm++)
			EXPECT_EQ(ask(fd.get(), row.request).objects, row.objects);
		bool fired = true;
		for (starved.nth = 1; fired && starved.nth < 1000; starved.nth++) {
			Reply reply = ask(fd.get(), row.request);
			ASSERT_EQ(reply.error, 0);
			fired = starved.faults.back().fired();
			EXPECT_EQ(reply.head.nda_result, fired ? OSTREL_NO_MEMORY : OSTREL_SUCCESS) << starved.nth;
			EXPECT_EQ(reply.objects, fired ? "" : row.objects);
		}
		EXPECT_GT(starved.nth, 2);
		EXPECT_EQ(starved.leaks, 0);
		EXPECT_EQ(file_.text(), first_text);
	}
}

} // namespace
