// Repositories of other enclaves: the enclave's own daemon, and the private one that is started where there is none. The
// enclaves have a root with the daemon's program and what it needs, and nothing else.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <sched.h>
#include <sstream>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <thread>

#include <meridon/hatch.h>

#include "cairn_db.h"
#include "child.h"
#include "hatch_peer.h"
#include "test_enclave.h"
#include "test_paths.h"

namespace fs = std::filesystem;

// A start that comes to no end is given up after 15 s; in the test that sets this, after one.
static unsigned int longest_alarm = 60;
extern "C" unsigned int alarm(unsigned int seconds) noexcept
{
	const itimerval timer = {{}, {static_cast<time_t>(std::min(seconds, longest_alarm)), 0}};
	return static_cast<unsigned int>(setitimer(ITIMER_REAL, &timer, nullptr));
}

namespace {

constexpr const char *program = "/lib/cairn/bin/cairn.configd";
constexpr const char *own_hatch = "/system/transient/repository_hatch";
constexpr const char *private_hatch = "/system/transient/repository_hatch.libostrel.5";
constexpr const char *repository_file = "/etc/cairn/repository.db";

// Copies a program into a root, with the libraries that it is linked to, each to its own path.
void install(const std::string &from, const std::string &root, const std::string &to)
{
	const std::string libraries = "cp --parents $(ldd " + from + " | grep -o '/[^ ]*') " + root;
	const std::string itself = "install -D " + from + " " + root + to;
	ASSERT_EQ(run_program({"/bin/sh", "-c", libraries + " && " + itself}), 0);
}

// An enclave with the daemon's program, its file with an instance in it, and a host with a daemon of its own.
class Enclaves : public testing::Test {
protected:
	virtual TestEnclave::Kind kind() const { return TestEnclave::RootOnly; }

	void SetUp() override
	{
		SKIP_WITHOUT_ENCLAVES(kind());
		if (sanitized && kind() == TestEnclave::UserNamespace)
			GTEST_SKIP() << "a sanitized daemon needs /proc, which can't be mounted in this kind";
		// Mounts of the test's own, which go with it.
		ASSERT_EQ(unshare(CLONE_NEWNS), 0);
		ASSERT_EQ(mount("none", "/", "", MS_REC | MS_PRIVATE, ""), 0);
		enclave.emplace(kind());
		for (const char *directory : {"/system/transient", "/etc/cairn", "/proc", "/tmp", "/dev"})
			fs::create_directories(enclave_path(directory));
		ASSERT_NO_FATAL_FAILURE(install(daemon_program, enclave->root(), program));
		ASSERT_NO_FATAL_FAILURE(mount_proc());
		fs::create_directories(enclave->prefix() + "/system/transient");
		host_hatch = enclave->prefix() + own_hatch;
		host_daemon = make_repository(host_hatch, enclave->prefix() + "/host.db", "host");
		end(make_repository(enclave->prefix() + "/first", enclave_path(repository_file), "enclave"), SIGTERM);
		if (kind() == TestEnclave::UserNamespace) {
			const std::string system = enclave_path("/system"), etc = enclave_path("/etc");
			ASSERT_EQ(run_program({"/bin/chown", "-R", "100000:100000", system, etc}), 0);
		}
	}
	void TearDown() override
	{
		db.reset();
		for (pid_t pid : {server_of(enclave_path(own_hatch)), private_daemon(), host_daemon})
			end(pid);
		if (enclave)
			(void) umount2(enclave_path("/proc").c_str(), MNT_DETACH);
	}

	std::string enclave_path(const std::string &path) const { return enclave ? enclave->root() + path : path; }
	pid_t private_daemon() const { return server_of(enclave_path(private_hatch)); }
	static void end(pid_t pid, int signal = SIGKILL)
	{
		if (pid > 0 && ::kill(pid, signal) == 0)
			(void) ends(pid);
	}
	static bool ends(pid_t pid)
	{
		return eventually([pid] { return is_gone(pid); });
	}
	void mount_proc()
	{
		if (kind() == TestEnclave::RootOnly) {
			ASSERT_EQ(mount("proc", enclave_path("/proc").c_str(), "proc", 0, nullptr), 0);
		} else if (kind() == TestEnclave::Leader) {
			ASSERT_EQ(in_child([&] {
				return enclave_enter(5) == 0 && mount("proc", "/proc", "proc", 0, nullptr) == 0 ? 0 : 1;
			}),
			    0);
		}
	}
	// Starts a daemon in the enclave. The status of its first process.
	int start_inside(const char *hatch)
	{
		return in_child([&] {
			if (enclave_enter(5) != 0)
				return 99;
			execl(program, program, "-d", hatch, "-r", repository_file, nullptr);
			return 98;
		});
	}
	pid_t start_own()
	{
		EXPECT_EQ(start_inside(own_hatch), 0);
		return server_of(enclave_path(own_hatch));
	}
	// Makes a file with an instance in it, and gives its daemon.
	static pid_t make_repository(const std::string &hatch, const std::string &file, const char *where)
	{
		EXPECT_EQ(start_daemon(hatch, file), 0);
		RepositoryClient maker(hatch);
		EXPECT_EQ(maker.find(), RPY_ERROR_NONE);
		EXPECT_EQ(maker.add("where", "t"), RPY_ERROR_NONE);
		EXPECT_EQ(maker.write("where", {{"p", {where}}}), 1);
		return server_of(hatch);
	}
	AttrList in_enclave(const std::string &group, enclaveid_t id = 5)
	{
		AttrList idl = group_of(group);
		EXPECT_EQ(ostrel_idlist_add_enclaveid(idl.get(), id), OSTREL_SUCCESS);
		return idl;
	}
	std::string read(const CairnDb &opened, enclaveid_t id = 5)
	{
		AttrList props;
		ostrel_error_t result = ostrel_db_read(opened.get(), in_enclave("where", id).get(), 0, props.out());
		return result == OSTREL_SUCCESS ? text_of(props.get()) : std::string("? ") + ostrel_strerror(result);
	}
	ostrel_error_t write(const CairnDb &opened, const std::string &group, const std::string &props)
	{
		return ostrel_db_write(opened.get(), in_enclave(group).get(), 0, props_of(props).get());
	}
	static ostrel_error_t build_native_again(const CairnDb &opened)
	{
		ostrel_rpy_resources_t *res = nullptr;
		RpyLock lock(opened.get());
		return ostrel_create_rpy_resources(opened.get(), &res);
	}
	// Puts a shell's script in the place of the daemon.
	void replace_program(const std::string &script)
	{
		fs::remove(enclave_path(program));
		install("/bin/sh", enclave->root(), "/bin/sh");
		enclave->write(program, "#!/bin/sh\n" + script);
		ASSERT_EQ(chmod(enclave_path(program).c_str(), 0755), 0);
	}

	std::optional<TestEnclave> enclave;
	// Opened by each test: a child that is forked beside its thread may wait for the allocator of a sanitizer.
	CairnDb db;
	std::string host_hatch;
	pid_t host_daemon = 0;
};

class LeaderEnclaves : public Enclaves {
protected:
	TestEnclave::Kind kind() const override { return TestEnclave::Leader; }
};

TEST_F(LeaderEnclaves, WithoutADaemonAPrivateOneIsStartedUsedAndEnded)
{
	db = open_cairn();
	EXPECT_EQ(read(db), "p=enclave;");
	EXPECT_EQ(private_daemon(), 0) << "it was made for the operation";
	EXPECT_EQ(write(db, "where", "p=changed"), OSTREL_SUCCESS);
	EXPECT_EQ(private_daemon(), 0);
	EXPECT_EQ(read(db), "p=changed;");
	EXPECT_EQ(resources_of(db)->nsr_enclave_resources, nullptr);
	EXPECT_EQ(get(db, "where"), "where:t|p=host;") << "the host's own isn't touched";
}

TEST_F(Enclaves, ADatabaseOfAnEnclaveKeepsThePrivateDaemonUntilItIsClosed)
{
	ASSERT_EQ(setenv("OF_THE_HOST", "secret", 1), 0);
	db = open_cairn(test_instance, 0, 5);
	ASSERT_TRUE(db);
	const pid_t daemon = private_daemon();
	EXPECT_GT(daemon, 0);
	const std::string proc = "/proc/" + std::to_string(daemon), environment = file_text(proc + "/environ");
	EXPECT_NE(environment.find("PATH="), std::string::npos);
	EXPECT_EQ(environment.find("secret"), std::string::npos);
	EXPECT_EQ(resources_of(db)->nsr_private_configd_pid, daemon);
	EXPECT_TRUE(_enclave_has_process(5, daemon));
	EXPECT_FALSE(_enclave_has_process(5, host_daemon));
	for (const std::string &fd : entries_of(proc + "/fd")) {
		const std::string open = link_text(proc + "/fd/" + fd);
		EXPECT_TRUE(std::stoi(fd) > 2 || open == "/dev/null" || open.rfind("socket:", 0) == 0)
		    << "it has this process's " << open;
	}
	EXPECT_EQ(get(db, "where"), "where:t|p=enclave;");
	EXPECT_EQ(read(db, 0), "p=host;") << "other enclaves hang on it, whichever it is";
	EXPECT_NE(resources_of(db)->nsr_enclave_resources, nullptr);
	{
		CairnDb second = open_cairn(test_instance, 0, 5);
		ASSERT_TRUE(second);
		EXPECT_TRUE(resources_of(second)->nsr_private_configd);
		EXPECT_EQ(resources_of(second)->nsr_private_configd_pid, 0) << "found, not started";
	}
	EXPECT_EQ(in_child([&] { return db.reset(), 0; }), 0);
	EXPECT_FALSE(is_gone(daemon)) << "a forked child hasn't started it";
	EXPECT_EQ(get(db, "where"), "where:t|p=enclave;") << "the end of the second leaves it alone";
	ASSERT_EQ(build_native_again(db), OSTREL_SUCCESS); // as after a connection that broke though the daemon lives
	EXPECT_EQ(resources_of(db)->nsr_private_configd_pid, daemon) << "new resources that find it have it";
	EXPECT_EQ(get(db, "where"), "where:t|p=enclave;");
	db.reset();
	EXPECT_TRUE(ends(daemon));
}

// Whatever has become of the enclave meanwhile.
TEST_F(Enclaves, APrivateDaemonEndsWithTheDatabaseThatStartedItInEveryCase)
{
	enclave_info_t info;
	ASSERT_EQ(enclave_registry_get(5, &info), 0);
	auto ends_after = [&](const std::function<void()> &change) {
		CairnDb opened = open_cairn(test_instance, 0, 5);
		const pid_t daemon = private_daemon();
		change();
		opened.reset();
		EXPECT_TRUE(enclave_registry_replace(&info) == 0 || enclave_registry_add(&info) == 0);
		return daemon > 0 && ends(daemon);
	};
	EXPECT_TRUE(ends_after([] { (void) enclave_registry_remove(5); }));
	EXPECT_TRUE(ends_after([&] { fs::remove(enclave_path(private_hatch)); }));
	EXPECT_TRUE(ends_after([&] {
		enclave_info_t led = info;
		StayingChild leader([] { return true; });
		led.ei_leader = leader.pid();
		EXPECT_EQ(enclave_leader_start(leader.pid(), &led.ei_leader_start), 0);
		EXPECT_EQ(enclave_registry_replace(&led), 0);
	}));
}

TEST_F(Enclaves, APrivateDaemonStaysWithAProgramThatForksIntoTheBackground)
{
	for (const char *end : {"closes it", "is killed"}) {
		const Signal go_on;
		EXPECT_EQ(in_child([&] {
			CairnDb opened = open_cairn(test_instance, 0, 5);
			if (fork() != 0)
				_exit(private_daemon() > 0 ? 0 : 1);
			alarm(20);
			enclave->write(std::string("/tmp/") + end, get(opened, "where"));
			go_on.wait();
			if (strcmp(end, "is killed") == 0)
				(void) raise(SIGKILL);
			opened.reset();
			return 0;
		}),
		    0);
		EXPECT_TRUE(
		    eventually([&] { return enclave->read(std::string("/tmp/") + end) == "where:t|p=enclave;"; }));
		const pid_t daemon = private_daemon();
		EXPECT_GT(daemon, 0) << "the child goes on with it";
		go_on.raise();
		EXPECT_TRUE(ends(daemon)) << end;
	}
}

// Each operation of the first two processes starts and ends one, or finds that of another; the others have the enclave's
// database open for a while.
TEST_F(Enclaves, ThePrivateDaemonOfOneOperationEndsNoneOfAnother)
{
	constexpr int processes = 4, writes = 10;
	std::vector<Process> children;
	for (int child = 0; child < processes; child++)
		children.emplace_back([&, child] {
			CairnDb opened;
			int failed = 0;
			for (int i = 0; i < writes; i++) {
				if (i % 5 == 0)
					opened = open_cairn(test_instance, 0, child < 2 ? 0 : 5);
				const std::string name = "g" + std::to_string(child) + "_" + std::to_string(i);
				failed += write(opened, name + ":t", "p=1") != OSTREL_SUCCESS;
			}
			opened.reset();
			return failed;
		});
	for (Process &child : children)
		EXPECT_EQ(child.wait(), 0);
	db = open_cairn(test_instance, 0, 5);
	std::istringstream names(walk(db, "t"));
	int whole = 0;
	for (std::string name; names >> name;)
		whole += get(db, name.substr(0, name.find(':'))) == name + "|p=1;" ? 1 : 0;
	EXPECT_EQ(whole, processes * writes);
}

TEST_F(Enclaves, AnIdThatIsGivenToAnotherRootLeadsToThatOnesRepository)
{
	db = open_cairn();
	const pid_t daemon = start_own();
	CairnDb native = open_cairn(test_instance, 0, 5);
	EXPECT_EQ(read(db), "p=enclave;");
	EXPECT_EQ(get(native, "where"), "where:t|p=enclave;");
	// The old root lives on, with its daemon. The path may be the same.
	const std::string root = enclave->root(), old = root + "-before";
	ASSERT_EQ(umount2(enclave_path("/proc").c_str(), MNT_DETACH), 0);
	fs::rename(root, old);
	fs::create_directories(root + "/system/transient");
	for (const char *path : {"/lib", "/lib64", "/etc", "/proc", "/dev"}) {
		if (fs::exists(old + path))
			fs::copy(old + path, root + path, fs::copy_options::recursive);
	}
	ASSERT_NO_FATAL_FAILURE(mount_proc());
	(void) start_own();
	RepositoryClient maker(enclave_path(own_hatch));
	ASSERT_EQ(maker.write("where", {{"p", {"new"}}}), 1);
	EXPECT_EQ(read(db), "p=new;");
	EXPECT_EQ(get(native, "where"), "where:t|p=new;");
	end(daemon);
}

TEST_F(Enclaves, TheEnclavesOwnDaemonIsUsedWhereItIsUpAndItsResourcesKept)
{
	db = open_cairn();
	ASSERT_EQ(start_inside(own_hatch), 0);
	// Threads that begin at once come to the same ones: nobody's are replaced under an update that waits for its snapshot.
	std::vector<std::jthread> threads;
	for (int i = 0; i < 8; i++)
		threads.emplace_back([&] { EXPECT_EQ(read(db), "p=enclave;"); });
	threads.clear();
	ostrel_rpy_resources_t *kept = resources_of(db)->nsr_enclave_resources;
	ASSERT_NE(kept, nullptr);
	EXPECT_FALSE(kept->nsr_private_configd);
	EXPECT_EQ(kept->nsr_enclave_node, nullptr);
	EXPECT_EQ(kept->nsr_refcnt, 1U);
	const uint64_t hits = kept->nsr_cache_hits;
	EXPECT_EQ(read(db), "p=enclave;");
	EXPECT_EQ(resources_of(db)->nsr_enclave_resources, kept);
	EXPECT_EQ(kept->nsr_cache_hits, hits + 1);
	EXPECT_FALSE(fs::exists(enclave_path(private_hatch)));

	ASSERT_EQ(write(db, "where", "p=enclave"), OSTREL_SUCCESS);
	ASSERT_EQ(build_native_again(db), OSTREL_SUCCESS);
	EXPECT_EQ(resources_of(db)->nsr_enclave_resources, kept) << "an update waits there for its snapshot";

	const pid_t before = server_of(enclave_path(own_hatch));
	end(before);
	ASSERT_EQ(start_inside(own_hatch), 0);
	EXPECT_EQ(read(db), "p=enclave;") << "a new connection";
	EXPECT_TRUE(ostrel_refresh_is_pending(resources_of(db)->nsr_enclave_resources));

	enclave->set_state(ENCLAVE_STATE_DOWN);
	(void) read(db, 77);
	EXPECT_EQ(resources_of(db)->nsr_enclave_resources, nullptr) << "swept";
}

TEST_F(Enclaves, TheOwnDaemonThatComesUpTakesOverFromThePrivateOne)
{
	db = open_cairn(test_instance, 0, 5);
	ASSERT_TRUE(db);
	const pid_t before = private_daemon();
	ASSERT_GT(before, 0);
	ASSERT_EQ(start_inside(own_hatch), 0);
	EXPECT_TRUE(ends(before));
	EXPECT_EQ(get(db, "where"), "where:t|p=enclave;");
	EXPECT_FALSE(resources_of(db)->nsr_private_configd);
	EXPECT_EQ(put(db, "where", "p=own"), OSTREL_SUCCESS);
	const pid_t own = server_of(enclave_path(own_hatch));
	db.reset();
	EXPECT_FALSE(is_gone(own)) << "it isn't this process's to end";
}

TEST_F(Enclaves, ThoseWhoStartAPrivateDaemonAtOnceGetOneWithOneOwner)
{
	constexpr int processes = 4;
	constexpr int owner = 10, other = 0;
	std::vector<Process> children;
	void *shared = mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
	auto *arrived = new (shared) std::atomic<int>(0);
	auto all_come_to = [&](int point) {
		++*arrived;
		return eventually([&] { return *arrived >= point * processes; });
	};
	for (int i = 0; i < processes; i++)
		children.emplace_back([&] {
			(void) all_come_to(1);
			CairnDb opened = open_cairn(test_instance, 0, 5);
			bool reads = opened && get(opened, "where") == "where:t|p=enclave;";
			(void) all_come_to(2); // all have it
			reads = reads && get(opened, "where") == "where:t|p=enclave;";
			(void) all_come_to(3); // and nobody needs it any more
			return !reads ? 1 : resources_of(opened)->nsr_private_configd_pid != 0 ? owner : other;
		});
	int owners = 0;
	for (Process &child : children) {
		const int status = child.wait();
		EXPECT_TRUE(status == owner || status == other) << status;
		owners += status == owner;
	}
	EXPECT_EQ(owners, 1);
	EXPECT_EQ(private_daemon(), 0);
}

TEST_F(Enclaves, WhatIsPlantedInAnEnclaveLeadsNowhere)
{
	db = open_cairn();
	const fs::path private_path = enclave_path(private_hatch), own_path = enclave_path(own_hatch),
		       host = host_hatch;
	auto fifo = [](const fs::path &path) { EXPECT_EQ(mkfifo(path.c_str(), 0644), 0); };
	auto copied_record = [&] {
		fs::copy_file(host, private_path);
		for (const auto &entry : fs::directory_iterator(host.parent_path()))
			if (entry.is_socket())
				fs::create_symlink(entry, private_path.parent_path() / entry.path().filename());
	};
	auto link_and_fifo = [&] {
		fs::create_symlink(host, own_path);
		fifo(private_path);
	};
	auto fifos = [&] {
		fifo(own_path);
		fifo(private_path);
	};
	auto directory = [&] {
		fs::remove_all(private_path.parent_path());
		fs::create_symlink(host.parent_path(), private_path.parent_path());
	};
	const std::pair<const char *, std::function<void()>> plants[] = {
	    {"a copy of the host's record, with a link to its socket", copied_record},
	    {"a link to the host's hatch as the private one", [&] { fs::create_symlink(host, private_path); }},
	    {"a link to the host's hatch as the own one, and a FIFO", link_and_fifo}, {"FIFOs", fifos},
	    {"the host's record under a second name", [&] { fs::create_hard_link(host, private_path); }},
	    {"a directory that is a link out", directory}};
	for (const auto &[what, plant] : plants) {
		fs::remove(own_path);
		plant();
		const std::string said = read(db);
		EXPECT_TRUE(said[0] == '?' || (what == plants[0].first && said == "p=enclave;"))
		    << what << ": " << said;
		fs::remove(private_path);
		EXPECT_EQ(server_of(host_hatch), host_daemon) << what;
		EXPECT_EQ(get(db, "where"), "where:t|p=host;") << what;
	}
}

// The host's own objects stay at hand, however long that daemon takes.
TEST_F(Enclaves, ADaemonThatDoesntAnswerHoldsUpThoseAloneWhoAskIt)
{
	db = open_cairn();
	const pid_t daemon = start_own();
	ASSERT_EQ(kill(daemon, SIGSTOP), 0);
	std::atomic<bool> answered{false};
	std::jthread asks([&] {
		(void) read(db);
		answered = true;
	});
	usleep(100'000);
	EXPECT_EQ(get(db, "where"), "where:t|p=host;");
	CairnDb other = open_cairn();
	EXPECT_EQ(put(other, "where", "p=still"), OSTREL_SUCCESS);
	EXPECT_FALSE(answered);
	ASSERT_EQ(kill(daemon, SIGCONT), 0);
	asks.join();
	EXPECT_EQ(read(db), "p=enclave;");

	fs::rename(enclave_path(own_hatch), enclave_path("/hidden"));
	EXPECT_EQ(read(other).substr(0, 1), "?");
	EXPECT_FALSE(is_gone(daemon)) << "a private one takes nothing from it";
	fs::rename(enclave_path("/hidden"), enclave_path(own_hatch));
	EXPECT_EQ(read(other), "p=enclave;");
}

// Makes a new terminal the one of this process, which is to be nobody's group leader.
static bool get_terminal()
{
	const int pty = posix_openpt(O_RDWR | O_NOCTTY);
	return setsid() != -1 && pty != -1 && grantpt(pty) == 0 && unlockpt(pty) == 0 &&
	       open(ptsname(pty), O_RDWR) != -1 && open("/dev/tty", O_RDWR) != -1;
}

// What stands there is the enclave's choice. The caller may have blocked all signals, and may have a terminal.
TEST_F(Enclaves, AProgramThatNeverEndsHoldsNobodyUp)
{
	replace_program("read line </proc/$$/stat\necho $line >/tmp/stat\nread never </tmp/fifo\n");
	ASSERT_EQ(mkfifo(enclave_path("/tmp/fifo").c_str(), 0600), 0);
	longest_alarm = 1;
	EXPECT_EQ(in_child([&] {
		db = open_cairn();
		sigset_t all;
		(void) sigfillset(&all);
		if (!db || !get_terminal() || pthread_sigmask(SIG_SETMASK, &all, nullptr) != 0)
			return 1;
		return read(db) == "? failure" && get(db, "where") == "where:t|p=host;" ? 0 : 2;
	}),
	    0);
	std::istringstream stat(enclave->read("/tmp/stat"));
	std::string comm, state;
	int pid = 0, parent, group, session, terminal = -1;
	ASSERT_TRUE(stat >> pid >> comm >> state >> parent >> group >> session >> terminal);
	EXPECT_EQ(terminal, 0) << "it could write the input of the caller's terminal";
	EXPECT_TRUE(ends(pid)) << "it stays behind";
}

// Whose root a path lies below is known, and not guessed from the registry.
TEST_F(Enclaves, APathIsResolvedInTheEnclaveThatWasAskedForAlsoBelowTheRootOfAnother)
{
	ASSERT_EQ(start_inside("/elsewhere"), 0);
	const pid_t daemon = server_of(enclave_path("/elsewhere"));
	ASSERT_EQ(symlink("/elsewhere", enclave_path(own_hatch).c_str()), 0);
	enclave_info_t nested;
	ASSERT_EQ(enclave_registry_get(5, &nested), 0);
	nested.ei_id = 6;
	strcpy(nested.ei_name, "nested");
	strcat(nested.ei_root, "/system");
	ASSERT_EQ(enclave_registry_add(&nested), 0);
	db = open_cairn(test_instance, 0, 5);
	ASSERT_TRUE(db);
	EXPECT_FALSE(resources_of(db)->nsr_private_configd);
	EXPECT_EQ(get(db, "where"), "where:t|p=enclave;");
	ostrel_rpy_resources_t claimed{};
	claimed.nsr_enclaveid = 5;
	claimed.nsr_private_configd = B_TRUE;
	EXPECT_TRUE(ostrel_native_configd_inenclave_ready(&claimed));
	end(daemon);
}

// What a stranger's program as root could do with the rest of root's powers: mount, trace, load modules. A leader that the
// enclave's own starter has confined further is the measure then.
TEST_F(Enclaves, TheProgramHasNoMoreCapabilitiesThanADaemonNeedsAndTheLeaderHas)
{
	db = open_cairn();
	replace_program("while read name value; do echo $name$value; done </proc/self/status >/tmp/status\n");
	auto sets = [&] {
		EXPECT_EQ(read(db), "? failure");
		std::istringstream status(enclave->read("/tmp/status"));
		std::string found;
		for (std::string line; std::getline(status, line);)
			if (line.rfind("Cap", 0) == 0 || line.rfind("NoNewPrivs", 0) == 0)
				found += line + " ";
		return found;
	};
	EXPECT_EQ(sets(),
	    "CapInh:0000000000000000 CapPrm:000000000000000b CapEff:000000000000000b CapBnd:000000000000000b "
	    "CapAmb:0000000000000000 NoNewPrivs:1 ");

	StayingChild leader([&] {
		for (int i = 1; i < 64; i++)
			(void) prctl(PR_CAPBSET_DROP, i);
		return chroot(enclave->root().c_str()) == 0;
	});
	enclave_info_t info;
	ASSERT_EQ(enclave_registry_get(5, &info), 0);
	info.ei_leader = leader.pid();
	ASSERT_EQ(enclave_leader_start(leader.pid(), &info.ei_leader_start), 0);
	ASSERT_EQ(enclave_registry_replace(&info), 0);
	EXPECT_EQ(sets(),
	    "CapInh:0000000000000000 CapPrm:0000000000000001 CapEff:0000000000000001 CapBnd:0000000000000001 "
	    "CapAmb:0000000000000000 NoNewPrivs:1 ");
}

TEST_F(Enclaves, AProcessInsideOpensItsOwnDatabases)
{
	ASSERT_EQ(start_inside(own_hatch), 0);
	EXPECT_EQ(in_child([&] {
		char root[64];
		if (enclave_enter(5) != 0 || enclave_getattr(5, ENCLAVE_ATTR_ROOT, root, sizeof(root)) != 2 ||
		    root[0] != '/')
			return 1;
		CairnDb own = open_cairn(test_instance, 0, 5);
		if (!own || get(own, "where") != "where:t|p=enclave;" || put(own, "inside:t", "p=1") != OSTREL_SUCCESS)
			return 2;
		CairnDb native = open_cairn(test_instance, 0, 0);
		return native && get(native, "inside") == "inside:t|p=1;" ? 0 : 3;
	}),
	    0);
}

TEST_F(Enclaves, AnEnclaveThatIsNotThereOrNotUpIsAnErrorAndNothingIsStarted)
{
	db = open_cairn();
	EXPECT_EQ(read(db, 6), "? invalid argument");
	enclave->set_state(ENCLAVE_STATE_INSTALLED);
	EXPECT_EQ(read(db).substr(0, 1), "?");
	EXPECT_EQ(private_daemon(), 0);
	enclave->set_state(ENCLAVE_STATE_RUNNING);
	EXPECT_EQ(read(db), "p=enclave;");
	ASSERT_EQ(rename(enclave_path(program).c_str(), enclave_path("/gone").c_str()), 0);
	EXPECT_EQ(read(db), "? failure") << "no daemon's program";
	EXPECT_EQ(get(db, "where"), "where:t|p=host;");
}

// In an enclave with a user namespace the host's root is nobody.
class UserEnclaves : public Enclaves {
protected:
	TestEnclave::Kind kind() const override { return TestEnclave::UserNamespace; }
};

TEST_F(UserEnclaves, ReadsWorkAndUpdatesAreRefused)
{
	db = open_cairn();
	EXPECT_EQ(read(db), "p=enclave;");
	EXPECT_EQ(write(db, "where", "p=x"), OSTREL_EPERM);
	EXPECT_EQ(read(db), "p=enclave;");
	EXPECT_EQ(private_daemon(), 0);
}

} // namespace
