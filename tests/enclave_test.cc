// The registry of enclaves, and what a process knows of its own.
#include <meridon/enclave.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "base/files.h"
#include "base/guards.h"
#include "golden_rows.h"
#include "scratch.h"
#include "syscall_fault.h"
#include "test_enclave.h"

namespace {

enclave_info_t record(enclaveid_t id, const std::string &name, const std::string &root = "/srv/x")
{
	enclave_info_t info = {};
	info.ei_id = id;
	info.ei_state = ENCLAVE_STATE_READY;
	snprintf(info.ei_name, sizeof info.ei_name, "%s", name.c_str());
	snprintf(info.ei_root, sizeof info.ei_root, "%s", root.c_str());
	return info;
}

int add(const enclave_info_t &info)
{
	return enclave_registry_add(&info);
}

class Registry : public ::testing::Test {
protected:
	Scratch scratch;

	void SetUp() override { setenv("MERIDON_ROOT", scratch.directory().c_str(), 1); }
	void TearDown() override { unsetenv("MERIDON_ROOT"); }

	std::string file(const std::string &name) const { return scratch.path("run/enclaves/" + name); }
	void write_record(const std::string &name, const std::string &text) const
	{
		scratch.write("run/enclaves/" + name, text);
		ASSERT_EQ(chmod(file(name).c_str(), 0644), 0);
	}
	// "3:web 5:db", and "7!" for a record that can't be read.
	static std::string listing()
	{
		enclave_info_t *infos = nullptr;
		size_t count = 0;
		int error = enclave_registry_list(&infos, &count);
		if (error != 0)
			return "error " + std::to_string(error);
		Heap<enclave_info_t> owner(infos);
		std::string text;
		for (size_t i = 0; i < count; i++) {
			const char *mark = infos[i].ei_state == ENCLAVE_STATE_INVALID ? "!" : ":";
			text += std::to_string(infos[i].ei_id) + mark + infos[i].ei_name + " ";
		}
		return text;
	}
};

} // namespace

TEST_F(Registry, ARecordComesBackAsItWasWritten)
{
	EXPECT_EQ(listing(), "") << "no registry yet";
	enclave_info_t full = record(5, "web-1.x_y", "/srv/with blank=and equals/é");
	full.ei_state = ENCLAVE_STATE_SHUTTING_DOWN;
	full.ei_leader = 77;
	full.ei_leader_start = UINT64_MAX;
	mode_t mask = umask(077);
	EXPECT_EQ(add(full), 0);
	umask(mask);
	enclave_info_t found;
	memset(&found, 0xff, sizeof found);
	ASSERT_EQ(enclave_registry_get(5, &found), 0);
	EXPECT_EQ(memcmp(&found, &full, sizeof found), 0);
	ASSERT_EQ(enclave_registry_find("web-1.x_y", &found), 0);
	EXPECT_EQ(found.ei_id, 5);
	EXPECT_EQ(file_text(file("5")), "name=web-1.x_y\nroot=/srv/with blank=and equals/é\nstate=shutting_down\n"
					"leader=77\nleader_start=18446744073709551615\n");
	struct stat st;
	ASSERT_EQ(stat(file("5").c_str(), &st), 0);
	EXPECT_EQ(st.st_mode & 07777, 0644U);
}

TEST_F(Registry, IdsAndNamesAreTakenOnce)
{
	ASSERT_EQ(add(record(10, "web")), 0);
	ASSERT_EQ(add(record(9, "db")), 0);
	EXPECT_EQ(add(record(10, "other")), EEXIST);
	EXPECT_EQ(add(record(11, "web")), EEXIST);
	enclave_info_t renamed = record(9, "web");
	EXPECT_EQ(enclave_registry_replace(&renamed), EEXIST);
	renamed = record(9, "store");
	EXPECT_EQ(enclave_registry_replace(&renamed), 0);
	renamed = record(12, "new");
	EXPECT_EQ(enclave_registry_replace(&renamed), ENOENT);
	EXPECT_EQ(listing(), "9:store 10:web ");
	EXPECT_EQ(enclave_registry_remove(10), 0);
	EXPECT_EQ(enclave_registry_remove(10), ENOENT);
	enclave_info_t found = record(1, "untouched");
	EXPECT_EQ(enclave_registry_get(10, &found), ENOENT);
	EXPECT_EQ(enclave_registry_find("web", &found), ENOENT);
	EXPECT_STREQ(found.ei_name, "untouched");
	EXPECT_EQ(listing(), "9:store ");
}

TEST_F(Registry, NothingIsWrittenThatWouldNotReadBack)
{
	for (const GoldenRow &row : golden_rows("enclaves.txt", "new")) {
		const enclaveid_t id = std::stoi(row[1]);
		EXPECT_EQ(add(record(id, row[2], row[3])), row[0] == "good" ? 0 : EINVAL) << row.line;
		EXPECT_EQ(enclave_registry_remove(id), row[0] == "good" ? 0
						       : row[1] == "1"  ? ENOENT
									: EINVAL)
		    << row.line;
	}
	EXPECT_EQ(add(record(1, std::string(ENCLAVE_NAME_MAX, 'a'), "/" + std::string(ENCLAVE_ROOT_MAX - 1, 'r'))), 0);
	EXPECT_EQ(enclave_registry_remove(1), 0);
	enclave_info_t info = record(1, "x");
	info.ei_state = static_cast<enclave_state_t>(10);
	EXPECT_EQ(add(info), EINVAL);
	info = record(1, "x");
	memset(info.ei_root, 'r', sizeof info.ei_root); // no terminator
	info.ei_root[0] = '/';
	EXPECT_EQ(add(info), EINVAL);
	EXPECT_EQ(listing(), "");
}

TEST_F(Registry, ABadRecordIsListedAsSuchAndCanBeReplacedOrRemoved)
{
	ASSERT_EQ(add(record(3, "good")), 0);
	for (const GoldenRow &row : golden_rows("enclaves.txt", "record")) {
		write_record("7", row[1]);
		enclave_info_t found;
		EXPECT_EQ(listing(), row[0] == "good" ? "3:good 7:x " : "3:good 7! ") << row.line;
		EXPECT_EQ(enclave_registry_get(7, &found), row[0] == "good" ? 0 : EBADMSG) << row.line;
	}
	const std::string good = "name=x\nroot=/r\nstate=ready\n";
	for (const char *name : {"8", "007", "0", "10000", ".9.new"})
		write_record(name, good);
	write_record("7", good + std::string(5000, '#'));
	ASSERT_EQ(mkdir(file("11").c_str(), 0755), 0);
	EXPECT_EQ(listing(), "3:good 7! 8:x 11! ");
	enclave_info_t repaired = record(7, "seven");
	EXPECT_EQ(enclave_registry_replace(&repaired), 0);
	EXPECT_EQ(enclave_registry_remove(8), 0);
	EXPECT_EQ(listing(), "3:good 7:seven 11! ");
}

TEST_F(Registry, AFailedOrKilledUpdateLeavesTheOldRecordOrTheNewOneAndNoOther)
{
	enclave_info_t old = record(3, "old"), fresh = record(3, "fresh");
	ASSERT_EQ(add(old), 0);
	std::vector<Fault> faults;
	for (FailNth::Call call :
	    {FailNth::Open, FailNth::Read, FailNth::Write, FailNth::Fchmod, FailNth::Rename, FailNth::Fsync})
		for (int error : {ENOSPC, 0}) // 0: a kill
			faults.push_back({call, error});
	const int hits = sweep_faults(
	    faults, [&] { return enclave_registry_replace(&old); },
	    [&](int) { return enclave_registry_replace(&fresh); },
	    [&](int begun, const Round &round) {
		    EXPECT_EQ(begun, 0) << "what a dead one left is no obstacle";
		    const bool after_rename = round.is(FailNth::Fsync) && round.nth == 2; // the directory
		    EXPECT_EQ(round.result, round.hit ? round.fault->error : 0);
		    EXPECT_EQ(listing(), round.hit && !after_rename ? "3:old " : "3:fresh ");
		    EXPECT_TRUE(round.fault->error == 0 || !scratch.has("run/enclaves/.3.new"));
	    });
	EXPECT_GE(hits, 16);
	ASSERT_EQ(enclave_registry_replace(&old), 0);
	FailNth cut_short(FailNth::Write, 1, FailNth::Short, 3);
	EXPECT_EQ(enclave_registry_replace(&fresh), 0);
	EXPECT_EQ(listing(), "3:fresh ");
}

TEST_F(Registry, ConcurrentAddsOfOneNameHaveOneWinner)
{
	std::atomic<int> added{0}, taken{0};
	std::vector<std::thread> threads;
	for (int t = 0; t < 8; t++)
		threads.emplace_back([&, t] {
			int error = add(record(100 + t, "same"));
			added += error == 0;
			taken += error == EEXIST;
		});
	for (std::thread &thread : threads)
		thread.join();
	EXPECT_EQ(added, 1);
	EXPECT_EQ(taken, 7);
}

TEST_F(Registry, StatesHaveWords)
{
	for (uint32_t i = 0; i < ENCLAVE_STATE_INVALID; i++) {
		enclave_state_t state = static_cast<enclave_state_t>(i);
		EXPECT_EQ(enclave_state_by_name(enclave_state_name(state)), state);
	}
	EXPECT_STREQ(enclave_state_name(static_cast<enclave_state_t>(4711)), "invalid");
	for (const char *word : {"", "Ready", "invalid", "read", static_cast<const char *>(nullptr)})
		EXPECT_EQ(enclave_state_by_name(word), ENCLAVE_STATE_INVALID) << (word == nullptr ? "NULL" : word);
}

/* ---- Leaders ---- */

TEST(Leader, LivesAsLongAsItsProcess)
{
	// A name that looks like the end of the name's field.
	StayingChild leader([] { return pthread_setname_np(pthread_self(), "a) Z 1 (b") == 0; });
	const pid_t pid = leader.pid();
	ASSERT_EQ(file_text("/proc/" + std::to_string(pid) + "/comm"), "a) Z 1 (b\n");
	enclave_info_t info = {};
	info.ei_leader = pid;
	ASSERT_EQ(enclave_leader_start(pid, &info.ei_leader_start), 0);
	uint64_t own_start;
	ASSERT_EQ(enclave_leader_start(getpid(), &own_start), 0);
	EXPECT_GE(info.ei_leader_start, own_start);
	EXPECT_TRUE(enclave_leader_alive(&info));
	info.ei_leader_start++;
	EXPECT_FALSE(enclave_leader_alive(&info)) << "another process that got the id";
	info.ei_leader_start--;
	kill(pid, SIGKILL);
	siginfo_t died;
	ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &died, WEXITED | WNOWAIT), 0);
	EXPECT_FALSE(enclave_leader_alive(&info)) << "a zombie leads nothing";
	leader.end();
	EXPECT_FALSE(enclave_leader_alive(&info));
	EXPECT_EQ(enclave_leader_start(pid, &own_start), ESRCH);
	EXPECT_EQ(enclave_leader_start(0, &own_start), EINVAL);
	info.ei_leader = 0;
	EXPECT_FALSE(enclave_leader_alive(&info));
}

/* ---- The enclave of a process. It is looked up once, so each look needs a process of its own. ---- */

// Started with this variable, the program says where it is and ends.
__attribute__((constructor)) static void say_where()
{
	if (getenv("ENCLAVE_TEST_WHERE") == nullptr)
		return;
	int first = getenclaveid();
	unsetenv("MERIDON_ROOT"); // too late
	_exit(getenclaveid() != first ? 250 : first == -1 ? 251 : first);
}

static int where(const std::string &prefix, const std::string &program = "/proc/self/exe", uid_t user = geteuid())
{
	auto start = [&] {
		setenv("MERIDON_ROOT", prefix.c_str(), 1);
		setenv("ENCLAVE_TEST_WHERE", "1", 1);
		execl(program.c_str(), "where", nullptr);
		return 252;
	};
	return user == geteuid() ? in_child(start) : as_user(user, start);
}

TEST(OwnEnclave, IsWhatTheMarkSaysAndNeverTheGlobalOneByAMistake)
{
	constexpr int unknown = 251;
	Scratch scratch;
	EXPECT_EQ(where(scratch.directory()), 0);
	ASSERT_EQ(mkdir(scratch.path("run").c_str(), 0755), 0);
	EXPECT_EQ(where(scratch.directory()), 0);
	for (const GoldenRow &row : golden_rows("enclaves.txt", "mark")) {
		scratch.write("run/enclave", row[1]);
		EXPECT_EQ(where(scratch.directory()), row[0] == "unknown" ? unknown : std::stoi(row[0])) << row.line;
	}
	ASSERT_EQ(unlink(scratch.path("run/enclave").c_str()), 0);
	ASSERT_EQ(mkfifo(scratch.path("run/enclave").c_str(), 0644), 0);
	EXPECT_EQ(where(scratch.directory()), unknown);
}

TEST(OwnEnclave, IsAnotherOneAfterEntering)
{
	SKIP_WITHOUT_ENCLAVES();
	TestEnclave enclave;
	setenv("MERIDON_ROOTS", "kept", 1);
	EXPECT_EQ(in_child([&] {
		if (getenclaveid() != 0 || enclave_enter(0) != 0)
			return 1;
		if (enclave_enter(enclave.id()) != 0)
			return 2;
		char cwd[64];
		if (getenclaveid() != enclave.id() || getcwd(cwd, sizeof cwd) == nullptr || strcmp(cwd, "/") != 0)
			return 3;
		if (getenv("MERIDON_ROOT") != nullptr || getenv("MERIDON_ROOTS") == nullptr)
			return 4;
		if (enclave_enter(enclave.id()) != 0)
			return 5;
		// From here there is no way to another one, nor back.
		if (enclave_enter(6) != -1 || errno != EPERM || enclave_enter(0) != -1 || errno != EPERM)
			return 6;
		return 0;
	}),
	    0);
}

TEST(Prefix, IsPutBeforeFixedPathsUnlessItIsTooLong)
{
	char path[PATH_MAX];
	setenv("MERIDON_ROOT", "/some/where", 1);
	EXPECT_EQ(meridon_path("run/enclave", path), 0);
	EXPECT_STREQ(path, "/some/where/run/enclave");
	setenv("MERIDON_ROOT", std::string(PATH_MAX - 13, 'x').c_str(), 1);
	EXPECT_EQ(meridon_path("run/enclave", path), 0);
	EXPECT_EQ(strlen(path), PATH_MAX - 1U);
	setenv("MERIDON_ROOT", std::string(PATH_MAX - 12, 'x').c_str(), 1);
	EXPECT_EQ(meridon_path("run/enclave", path), ENAMETOOLONG);
	unsetenv("MERIDON_ROOT");
	EXPECT_EQ(meridon_path("run/enclave", path), 0);
	EXPECT_STREQ(path, "/run/enclave");
}

// A program with another user's rights doesn't let its caller choose where the registry is.
TEST(Prefix, DoesNotCountInAProgramThatGainedPrivileges)
{
	SKIP_UNLESS_ROOT();
	Scratch scratch("/var/tmp");
	ASSERT_EQ(chmod(scratch.directory().c_str(), 0755), 0);
	ASSERT_EQ(mkdir(scratch.path("run").c_str(), 0755), 0);
	scratch.write("run/enclave", "5\n");
	std::string program = scratch.path("program");
	ASSERT_EQ(system(("cp /proc/" + std::to_string(getpid()) + "/exe " + program).c_str()), 0);
	ASSERT_EQ(chmod(program.c_str(), 0755), 0);
	EXPECT_EQ(where(scratch.directory(), program, 1000), 5);
	ASSERT_EQ(chmod(program.c_str(), 04755), 0);
	EXPECT_EQ(where(scratch.directory(), program, 1000), 0)
	    << "the variable counted (or the file system ignores the mode bit)";
}

// ---- Enclaves as other processes see them ----

// A host with one enclave, whose root is a directory of the test's.
class EnclaveView : public testing::Test {
protected:
	void SetUp() override
	{
		setenv("MERIDON_ROOT", host.directory().c_str(), 1);
		ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
		ASSERT_EQ(add(record(5, "web", root)), 0);
	}
	void TearDown() override { unsetenv("MERIDON_ROOT"); }

	template <typename Call>
	static int error_of(Call call)
	{
		errno = 0;
		return call() < 0 ? errno : 0;
	}

	Scratch host;
	const std::string root = host.path("root");
};

TEST_F(EnclaveView, NameStateAndRootAreGiven)
{
	char text[64 + PATH_MAX];
	enclave_state_t state = ENCLAVE_STATE_INVALID;
	EXPECT_EQ(getenclavenamebyid(5, text, sizeof(text)), 4);
	EXPECT_STREQ(text, "web");
	EXPECT_EQ(enclave_get_state("web", &state), 0);
	EXPECT_EQ(state, ENCLAVE_STATE_READY);
	EXPECT_EQ(enclave_getattr(5, ENCLAVE_ATTR_ROOT, text, sizeof(text)), static_cast<ssize_t>(root.size() + 1));
	EXPECT_EQ(text, root);
	EXPECT_GT(enclave_getattr(0, ENCLAVE_ATTR_ROOT, text, sizeof(text)), 0);
	EXPECT_EQ(text, host.directory()) << "the process's own, after the prefix";
	unsetenv("MERIDON_ROOT");
	EXPECT_EQ(enclave_getattr(0, ENCLAVE_ATTR_ROOT, text, sizeof(text)), 2);
	EXPECT_STREQ(text, "/");
	EXPECT_EQ(getenclavenamebyid(0, text, sizeof(text)), 7);
}

// "No such file" and "not a directory" would read as a missing database.
TEST_F(EnclaveView, FailuresAreNeverThoseOfAMissingFile)
{
	char text[64];
	enclave_state_t state;
	EXPECT_EQ(error_of([&] { return enclave_getattr(6, ENCLAVE_ATTR_ROOT, text, sizeof(text)); }), EINVAL);
	EXPECT_EQ(error_of([&] { return enclave_getattr(5, 2, text, sizeof(text)); }), EINVAL);
	EXPECT_EQ(error_of([&] { return enclave_getattr(5, ENCLAVE_ATTR_ROOT, text, 3); }), ERANGE);
	EXPECT_EQ(error_of([&] { return getenclavenamebyid(-1, text, sizeof(text)); }), EINVAL);
	EXPECT_EQ(error_of([&] { return enclave_get_state("other", &state); }), EINVAL);
	EXPECT_EQ(error_of([&] { return _enclave_hold(6, 0); }), EINVAL);
	host.write("run/enclaves/5", "nonsense\n");
	EXPECT_EQ(error_of([&] { return enclave_getattr(5, ENCLAVE_ATTR_ROOT, text, sizeof(text)); }), ESRCH);
	EXPECT_EQ(error_of([&] { return enclave_get_state("web", &state); }), EINVAL);
	std::error_code ignored;
	std::filesystem::remove_all(host.path("run"), ignored);
	EXPECT_EQ(error_of([&] { return getenclavenamebyid(5, text, sizeof(text)); }), EINVAL);
}

TEST_F(EnclaveView, AnEnclavesPathIsOpenedInsideItsRootOrNowhereWithoutWaiting)
{
	const std::string outside = host.write("outside", "outside");
	host.write("root/file", "inside");
	ASSERT_EQ(mkfifo((root + "/fifo").c_str(), 0600), 0);
	for (const auto &[name, to] : {std::pair<const char *, std::string>("/within", "/file"),
		 {"/absolute", "/outside"}, {"/upwards", "../outside"}, {"/out", outside}})
		ASSERT_EQ(symlink(to.c_str(), (root + name).c_str()), 0);
	// How many bytes there are, or the error of the open.
	auto in_it = [&](const std::string &path, bool by_id) {
		Fd fd(by_id ? _enclave_open_in(5, path.c_str()) : _enclave_open(path.c_str()));
		char text[16];
		return fd ? static_cast<int>(std::max<ssize_t>(read(fd.get(), text, sizeof(text)), 0)) : -errno;
	};
	const struct {
		std::string path;
		int by_path, by_id;
	} rows[] = {
	    {root + "/file", 6, 6},
	    {root + "/within", 6, 6},
	    {root + "/absolute", -ENOENT, -ENOENT},
	    {root + "/upwards", -ENOENT, -ENOENT},
	    {root + "/out", -ENOENT, -ENOENT},
	    {root + "/../outside", -ENOENT, -ENOENT},
	    {root + "/fifo", 0, 0},
	    {outside, 7, -EINVAL}, // no path of that enclave
	    {root + "side", -ENOENT, -EINVAL},
	    {root, 0, -EINVAL},
	};
	for (const auto &row : rows) {
		EXPECT_EQ(in_it(row.path, false), row.by_path) << row.path;
		EXPECT_EQ(in_it(row.path, true), row.by_id) << row.path;
	}
	enclave_info_t moved = record(5, "web", host.path("elsewhere"));
	ASSERT_EQ(enclave_registry_replace(&moved), 0);
	EXPECT_EQ(in_it(root + "/out", true), -EINVAL);
	ASSERT_EQ(enclave_registry_remove(5), 0);
	EXPECT_EQ(in_it(root + "/out", true), -EINVAL) << "without a record it isn't a path of the host";
}

// Names come from ids here, and states from names: a record for each is enough, however many others there are.
TEST_F(EnclaveView, TheStateOfTheEnclaveNamedLastTakesNoListing)
{
	enclave_state_t state = ENCLAVE_STATE_INVALID;
	auto opens = [&state] {
		char name[ENCLAVE_NAME_MAX + 1];
		FailNth count(FailNth::Open, 1000000, EIO);
		EXPECT_GT(getenclavenamebyid(5, name, sizeof(name)), 0);
		EXPECT_EQ(enclave_get_state(name, &state), 0);
		return count.calls();
	};
	const int alone = opens();
	EXPECT_GT(alone, 0);
	for (int id = 100; id < 150; id++)
		ASSERT_EQ(add(record(id, "e" + std::to_string(id))), 0);
	EXPECT_EQ(opens(), alone);
	for (enclave_info_t renamed : {record(5, "other"), record(100, "web")}) {
		renamed.ei_state = ENCLAVE_STATE_DOWN;
		ASSERT_EQ(enclave_registry_replace(&renamed), 0);
	}
	EXPECT_EQ(enclave_get_state("web", &state), 0);
	EXPECT_EQ(state, ENCLAVE_STATE_DOWN) << "the name is another's now";
}

TEST_F(EnclaveView, AUserHoldsUpNeitherTurnsNorUpdates)
{
	SKIP_UNLESS_ROOT();
	ASSERT_EQ(chmod(host.directory().c_str(), 0755), 0);
	// Locks everything of the registry that it can open.
	StayingChild user([&] {
		bool all = setresgid(1234, 1234, 1234) == 0 && setresuid(1234, 1234, 1234) == 0;
		struct flock lock = {};
		lock.l_type = F_RDLCK;
		for (const char *name : {"run/enclaves/.", "run/enclaves/5", "run/enclaves/.lock"}) {
			const int fd = open(host.path(name).c_str(), O_RDONLY);
			all &= strstr(name, ".lock") != nullptr || fd != -1;
			(void) (flock(fd, LOCK_SH) == 0 && fcntl(fd, F_OFD_SETLK, &lock) == 0);
		}
		return all;
	});
	ASSERT_GT(user.pid(), 0);
	EXPECT_TRUE(Fd(_enclave_hold(5, 0)));
	EXPECT_EQ(in_child([&] {
		alarm(5);
		const enclave_info_t changed = record(5, "web", root);
		return enclave_registry_replace(&changed);
	}),
	    0);
	EXPECT_EQ(as_user(1234, [] { return _enclave_hold(5, 0) == -1 ? errno : 0; }), EPERM);
}

TEST_F(EnclaveView, CapabilitiesAreThoseOfTheLeaderAndCanBeGivenUp)
{
	uint64_t capabilities = 0;
	EXPECT_EQ(_enclave_capabilities(5, &capabilities), 0);
	EXPECT_EQ(capabilities, UINT64_MAX) << "nobody there is known to have less";
	EXPECT_EQ(error_of([&] { return _enclave_capabilities(6, &capabilities); }), EINVAL);
	SKIP_UNLESS_ROOT();
	StayingChild leader([] {
		for (int i = 1; i < 64; i++)
			(void) prctl(PR_CAPBSET_DROP, i);
		return true;
	});
	enclave_info_t info = record(5, "web", root);
	info.ei_leader = leader.pid();
	ASSERT_EQ(enclave_leader_start(leader.pid(), &info.ei_leader_start), 0);
	ASSERT_EQ(enclave_registry_replace(&info), 0);
	EXPECT_EQ(_enclave_capabilities(5, &capabilities), 0);
	EXPECT_EQ(capabilities, 1U);
	leader.end();
	EXPECT_EQ(error_of([&] { return _enclave_capabilities(5, &capabilities); }), ESRCH);

	EXPECT_EQ(in_child([] {
		if (_enclave_confine(0xb) != 0)
			return 1;
		const std::string status = file_text("/proc/self/status");
		for (const char *line : {"CapPrm:\t000000000000000b\n", "CapEff:\t000000000000000b\n",
			 "CapBnd:\t000000000000000b\n", "NoNewPrivs:\t1\n"})
			if (status.find(line) == std::string::npos)
				return 2;
		return 0;
	}),
	    0);
}

TEST_F(EnclaveView, OneAtATimeHoldsAnEnclave)
{
	Fd first(_enclave_hold(5, 0));
	ASSERT_TRUE(first);
	EXPECT_EQ(error_of([&] { return _enclave_hold(5, 0); }), EAGAIN);
	ASSERT_EQ(add(record(6, "db")), 0) << "updates don't wait for turns";
	EXPECT_TRUE(Fd(_enclave_hold(6, 0))) << "nor do turns in another enclave";
	std::thread end([&] {
		usleep(50000);
		first.reset();
	});
	Fd second(_enclave_hold(5, 20));
	EXPECT_TRUE(second);
	end.join();
}
