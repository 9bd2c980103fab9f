// The registry of enclaves, and what a process knows of its own.
#include <meridon/enclave.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sstream>
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
#include "golden_script.h"
#include "scratch.h"
#include "syscall_fault.h"
#include "test_enclave.h"

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

namespace {

enclave_info_t record(enclaveid_t id, const std::string &name, const std::string &root = "/srv/x")
{
	enclave_info_t info = {};
	info.ei_id = id;
	info.ei_state = ENCLAVE_STATE_READY;
	(void) name.copy(info.ei_name, sizeof info.ei_name); // one that is too long has no terminator
	(void) root.copy(info.ei_root, sizeof info.ei_root);
	return info;
}

int add(const enclave_info_t &info)
{
	return enclave_registry_add(&info);
}

// The record in words, or the name of the error. What isn't found is left alone.
std::string record_text(int error, const enclave_info_t &info)
{
	if (error != 0)
		return info.ei_id == -1 ? error_name(error) : "changed";
	std::ostringstream text;
	text << info.ei_id << " " << info.ei_name << " " << info.ei_root << " " << enclave_state_name(info.ei_state)
	     << " " << info.ei_leader << " " << info.ei_leader_start;
	return text.str();
}

// "3:web 5:db", and "7!" for a record that can't be read.
std::string listing()
{
	enclave_info_t *infos = nullptr;
	size_t count = 0;
	if (int error = enclave_registry_list(&infos, &count))
		return error_name(error);
	Heap<enclave_info_t> owner(infos);
	std::string text;
	for (size_t i = 0; i < count; i++) {
		const char *mark = infos[i].ei_state == ENCLAVE_STATE_INVALID ? "!" : ":";
		text += (i == 0 ? "" : " ") + std::to_string(infos[i].ei_id) + mark + infos[i].ei_name;
	}
	return text;
}

// What is read from a descriptor, if there is one.
std::string text_at(int fd)
{
	if (fd < 0)
		return error_name(errno);
	Fd owner(fd);
	char text[16];
	return {text, static_cast<size_t>(std::max<ssize_t>(read(fd, text, sizeof(text)), 0))};
}

// A text that a call gave together with its length, which counts the terminator.
std::string given_text(ssize_t length, const char *text)
{
	EXPECT_TRUE(length < 0 || length == static_cast<ssize_t>(strlen(text) + 1));
	return length < 0 ? error_name(errno) : text;
}

// A host with a registry.
class EnclaveTest : public testing::Test {
protected:
	void SetUp() override { setenv("MERIDON_ROOT", host.directory().c_str(), 1); }
	void TearDown() override { unsetenv("MERIDON_ROOT"); }

	void play()
	{
		GoldenScript script(host.directory());
		script.set("root", host.directory());
		script.set("user", std::to_string(geteuid()));
		script.set("group", std::to_string(getegid()));
		script.set("longest name", std::string(ENCLAVE_NAME_MAX, 'a'));
		script.set("longest root", "/" + std::string(ENCLAVE_ROOT_MAX - 1, 'r'));
		script.set("longer root", "/" + std::string(ENCLAVE_ROOT_MAX, 'r'));
		script.set("longest prefix", std::string(PATH_MAX - strlen("/run/enclave") - 1, 'x'));
		auto put = [](int (*call)(const enclave_info_t *)) {
			return [call](const GoldenScript::Arguments &args) {
				enclave_info_t info = record(std::stoi(args[0]), args[1], args[2]);
				if (!args[3].empty())
					info.ei_state = enclave_state_by_name(args[3].c_str());
				info.ei_leader = std::stoi("0" + args[4]);
				info.ei_leader_start = std::stoull("0" + args[5]);
				return error_name(call(&info));
			};
		};
		script.add("add", put(enclave_registry_add));
		script.add("replace", put(enclave_registry_replace));
		script.add(
		    "forget", [](auto &args) { return error_name(enclave_registry_remove(std::stoi(args[0]))); });
		script.add("get", [](auto &args) {
			enclave_info_t info = record(-1, "untouched");
			return record_text(enclave_registry_get(std::stoi(args[0]), &info), info);
		});
		script.add("find", [](auto &args) {
			enclave_info_t info = record(-1, "untouched");
			return record_text(enclave_registry_find(args[0].c_str(), &info), info);
		});
		script.add("all", [](auto &) { return listing(); });
		script.add("where", [this](auto &) {
			const int enclave = where(host.directory());
			return enclave == 251 ? "unknown" : std::to_string(enclave);
		});
		script.add("name", [](auto &args) {
			char text[64];
			return given_text(getenclavenamebyid(std::stoi(args[0]), text, sizeof(text)), text);
		});
		script.add("attribute", [](auto &args) {
			std::string text(std::stoul(args[2]), '\0');
			const ssize_t length =
			    enclave_getattr(std::stoi(args[0]), std::stoi(args[1]), text.data(), text.size());
			return given_text(length, text.data());
		});
		script.add("state", [](auto &args) {
			enclave_state_t state = ENCLAVE_STATE_INVALID;
			const int result = enclave_get_state(args[0].c_str(), &state);
			return result == 0 ? enclave_state_name(state) : error_name_of(result);
		});
		script.add(
		    "prefix", [](auto &args) { return error_name_of(setenv("MERIDON_ROOT", args[0].c_str(), 1)); });
		script.add("path", [](auto &args) {
			char path[PATH_MAX];
			const int error = meridon_path(args[0].c_str(), path);
			return error == 0 ? path : error_name(error);
		});
		script.add("no_prefix", [](auto &) { return error_name_of(unsetenv("MERIDON_ROOT")); });
		script.add("hold", [](auto &args) { return error_name_of(_enclave_hold(std::stoi(args[0]), 0)); });
		script.add("open", [](auto &args) { return text_at(_enclave_open(args[0].c_str())); });
		script.add("open_in",
		    [](auto &args) { return text_at(_enclave_open_in(std::stoi(args[0]), args[1].c_str())); });
		script.play("enclaves.txt");
	}

	const Scratch host;
};
using Registry = EnclaveTest;
using OwnEnclave = EnclaveTest;

} // namespace

static const bool registered = register_parts<EnclaveTest>("enclaves.txt");

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
		    EXPECT_EQ(listing(), round.hit && !after_rename ? "3:old" : "3:fresh");
		    EXPECT_TRUE(round.fault->error == 0 || !host.has("run/enclaves/.3.new"));
	    });
	EXPECT_GE(hits, 16);
	ASSERT_EQ(enclave_registry_replace(&old), 0);
	FailNth cut_short(FailNth::Write, 1, FailNth::Short, 3);
	EXPECT_EQ(enclave_registry_replace(&fresh), 0);
	EXPECT_EQ(listing(), "3:fresh");
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

TEST_F(OwnEnclave, IsAnotherOneAfterEntering)
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
class EnclaveView : public EnclaveTest {
protected:
	void SetUp() override
	{
		EnclaveTest::SetUp();
		ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
		ASSERT_EQ(add(record(5, "web", root)), 0);
	}
	const std::string root = host.path("root");
};

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
	EXPECT_EQ(error_name_of(_enclave_capabilities(6, &capabilities)), "EINVAL");
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
	EXPECT_EQ(error_name_of(_enclave_capabilities(5, &capabilities)), "ESRCH");

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
	EXPECT_EQ(error_name_of(_enclave_hold(5, 0)), "EAGAIN");
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
