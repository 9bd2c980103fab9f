// File operations in another enclave, done for real: by children that enter roots and namespaces.
#include "libostrel_zio.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <grp.h>
#include <optional>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "base/guards.h"
#include "golden_script.h"
#include "scratch.h"
#include "syscall_fault.h"
#include "test_enclave.h"

namespace {

constexpr int update_flags = O_RDWR | O_CREAT | O_TRUNC;

// What stands in an open file, from its beginning.
std::string text_of(int fd)
{
	char buf[256];
	ssize_t len = pread(fd, buf, sizeof buf, 0);
	return len < 0 ? "<error>" : std::string(buf, static_cast<size_t>(len));
}

// What is read there, or the name of the error.
std::string read_all(const char *path, enclaveid_t enclave)
{
	int error = -1;
	Stream stream(ostrel_zfopen(path, "r", enclave, &error));
	EXPECT_EQ(error == 0, stream.get() != nullptr);
	if (!stream)
		return error_name(error);
	EXPECT_EQ(fcntl(fileno(stream.get()), F_GETFD), FD_CLOEXEC);
	EXPECT_EQ(fcntl(fileno(stream.get()), F_GETFL) & O_NONBLOCK, 0);
	return text_of(fileno(stream.get()));
}

int update_error(const char *path, enclaveid_t enclave, mode_t mode = 0644)
{
	int error = -1;
	Fd file(ostrel_zopen(path, update_flags, mode, enclave, &error));
	EXPECT_EQ(error == 0, static_cast<bool>(file));
	return error;
}

struct stat stat_of(const std::string &path)
{
	struct stat st = {};
	EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
	return st;
}

// Whether a child has ended that nobody waited for.
bool has_zombie()
{
	siginfo_t info = {};
	return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT | __WALL) == 0 && info.si_pid != 0;
}

void handle_quietly(int signal, void (*handler)(int))
{
	struct sigaction action = {};
	action.sa_handler = handler; // without SA_RESTART
	ASSERT_EQ(sigaction(signal, &action, nullptr), 0);
}

// With an enclave that is a root directory.
class Zio : public ::testing::Test {
protected:
	void SetUp() override
	{
		SKIP_WITHOUT_ENCLAVES();
		enclave.emplace();
	}
	std::optional<TestEnclave> enclave;
};
using ZioFork = Zio;
using ZioFault = Zio;

class ZioScript : public Zio {
protected:
	void play()
	{
		if (!enclave)
			return;
		GoldenScript script(enclave->prefix());
		script.set("prefix", enclave->prefix());
		script.set("root", enclave->root());
		script.set("long path", "/" + std::string(5000, 'x'));
		script.add("read", [this](auto &args) { return read_all(args[0].c_str(), enclave->id()); });
		script.add("update", [this](auto &args) {
			const mode_t mode =
			    args[1].empty() ? 0644 : static_cast<mode_t>(std::stoul(args[1], nullptr, 8));
			return error_name(update_error(args[0].c_str(), enclave->id(), mode));
		});
		script.add("stream", [this](auto &args) {
			int error = -1;
			Stream stream(ostrel_zfopen(args[0].c_str(), args[1].c_str(), enclave->id(), &error));
			return stream && fputs(args[2].c_str(), stream.get()) >= 0 ? "ok" : error_name(error);
		});
		script.add("update_here", [](auto &args) { return error_name(update_error(args[0].c_str(), 0)); });
		script.add("unlink", [this](auto &args) {
			const enclaveid_t id = args[1].empty() ? enclave->id() : std::stoi(args[1]);
			return error_name(ostrel_zunlink(args[0].c_str(), id));
		});
		script.add("move", [this](auto &args) {
			return error_name(ostrel_zrename(args[0].c_str(), args[1].c_str(), enclave->id()));
		});
		script.add("record", [this](auto &args) {
			enclave->write_record(args[0]);
			return "ok";
		});
		const int before = open_descriptors();
		script.play("zio.txt");
		EXPECT_EQ(open_descriptors(), before);
		EXPECT_FALSE(has_zombie());
	}
};

class ZioCallback : public Zio {
protected:
	ZioCallback() : notes(open(scratch.write("notes", "").c_str(), O_WRONLY | O_APPEND)) {}
	// Runs `body` in the child, if there is one, and gives what the whole came to.
	int run(const std::function<int()> &in_the_child, enclaveid_t id)
	{
		self = this;
		body = in_the_child;
		return ostrel_zfop("/x", id, note, nullptr);
	}
	// Notes which process it is, and what it is told of where it is and where the file is.
	static int note(zfarg_t *arg)
	{
		dprintf(self->notes.get(), "%s %d%d\n", getpid() == self->caller ? "caller" : "child",
		    arg->zfarg_inglobalenclave, arg->zfarg_finglobalenclave);
		return arg->zfarg_inglobalenclave ? 0 : self->body();
	}
	Scratch scratch;
	Fd notes;
	const pid_t caller = getpid();
	std::function<int()> body;
	static inline ZioCallback *self;
};

} // namespace

static const bool registered = register_parts<ZioScript>("zio.txt");

TEST(ZioKinds, TheGlobalEnclaveNeedsNoChildPipeOrTemplate)
{
	Scratch scratch;
	const std::string db = scratch.write("db", "here\n"), other = scratch.path("other");
	FailNth fork(FailNth::Fork, 1, EPERM), pipe(FailNth::Socketpair, 1, EPERM), tmpl(FailNth::Memfd, 1, EPERM);
	EXPECT_EQ(read_all(db.c_str(), 0), "here\n");
	EXPECT_EQ(ostrel_zrename(db.c_str(), other.c_str(), 0), 0);
	EXPECT_EQ(ostrel_zunlink(other.c_str(), 0), 0);
	EXPECT_EQ(read_all(db.c_str(), 0), "ENOENT");
	EXPECT_FALSE(fork.fired() || pipe.fired() || tmpl.fired());
}

TEST(ZioKinds, WithoutPrivilegeItIsRefused)
{
	SKIP_WITHOUT_ENCLAVES();
	for (TestEnclave::Kind kind : {TestEnclave::RootOnly, fullest_enclave()}) {
		TestEnclave enclave(kind);
		enclave.write("/db", "inside\n");
		EXPECT_EQ(in_child([&] {
			return setresuid(1000, 1000, 1000) == 0 ? read_all("/db", enclave.id()) != "EPERM" : 255;
		}),
		    0);
	}
}

TEST(ZioKinds, JoinsTheNamespacesOfALeaderAndItsRoot)
{
	SKIP_WITHOUT_ENCLAVES(TestEnclave::UserNamespace);
	const gid_t groups_of_host[] = {4, 6};
	ASSERT_EQ(setgroups(2, groups_of_host), 0);
	for (TestEnclave::Kind kind : {TestEnclave::Leader, TestEnclave::LeaderInTree, TestEnclave::UserNamespace}) {
		TestEnclave enclave(kind);
		enclave.write("/db", "inside\n");
		EXPECT_EQ(read_all("/db", enclave.id()), "inside\n") << kind;
		// Mounted where the leader alone sees it.
		EXPECT_EQ(update_error("/private/db", enclave.id()), 0) << kind;
		EXPECT_EQ(read_all("/private/db", enclave.id()), "") << kind;
		EXPECT_EQ(enclave.read("/private/db"), "<none>") << kind;

		EXPECT_EQ(update_error("/new", enclave.id()), 0) << kind;
		struct stat st = stat_of(enclave.host_path("/new"));
		bool mapped = kind == TestEnclave::UserNamespace;
		EXPECT_EQ(st.st_uid, mapped ? 100017U : 17U);
		EXPECT_EQ(st.st_gid, mapped ? 100065U : 65U);

		// The enclave's root may not look into a child, which is a copy of a process of the host, nor act with the
		// groups of the host.
		pid_t pid = -1;
		int status = ostrel_zfork(enclave.id(), B_TRUE, &pid);
		if (pid == 0 && status == 0)
			ostrel_zexit(enclave.id(), pid, prctl(PR_GET_DUMPABLE) * 10 + getgroups(0, nullptr));
		EXPECT_EQ(status, mapped ? 0 : 12);

		enclave.kill_leader();
		EXPECT_EQ(read_all("/db", enclave.id()), "ESRCH") << kind;
	}
}

/* ---- Children ---- */

TEST_F(ZioCallback, RunsInTheChildFirstAndThenInTheCaller)
{
	EXPECT_EQ(run([] { return 0; }, enclave->id()), 0);
	EXPECT_EQ(file_text(scratch.path("notes")), "child 00\ncaller 10\n");
	EXPECT_EQ(run([] { return EDOM; }, enclave->id()), EDOM);
	EXPECT_EQ(run([] { return EDOM; }, 0), 0);
	EXPECT_EQ(file_text(scratch.path("notes")), "child 00\ncaller 10\nchild 00\ncaller 11\n")
	    << "the caller's turn comes only after success";
}

// Signals have the numbers of errors that say "not found", "no permission", "no memory" and the like.
TEST_F(ZioCallback, ADeathBySignalIsAFailureThatNobodyMisreads)
{
	auto died_of = [&](int signal) { return run([signal] { return kill(getpid(), signal); }, enclave->id()); };
	for (int signal : {SIGHUP, SIGINT, SIGUSR2, SIGPIPE, SIGALRM})
		EXPECT_EQ(died_of(signal), EINTR) << signal;
	for (int signal : {SIGKILL, SIGTERM, SIGABRT}) {
		EXPECT_EQ(died_of(signal), signal);
		EXPECT_EQ(ostrel_errno2error(signal), OSTREL_FAILURE);
	}
}

TEST_F(ZioCallback, ACaughtSignalDoesNotEndTheWait)
{
	static std::atomic<int> alarms;
	handle_quietly(SIGALRM, [](int) { alarms++; });
	itimerval often = {{0, 5000}, {0, 5000}}, never = {};
	ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
	auto linger = [] {
		usleep(60000);
		return ENOTTY;
	};
	const int error = run(linger, enclave->id());
	ASSERT_EQ(setitimer(ITIMER_REAL, &never, nullptr), 0);
	EXPECT_EQ(error, ENOTTY);
	EXPECT_GT(alarms, 2);
	EXPECT_FALSE(has_zombie());
}

TEST_F(ZioCallback, AChildBelongsToTheLibraryAlone)
{
	static std::atomic<int> signals;
	handle_quietly(SIGCHLD, [](int) { signals++; });
	std::atomic<bool> stop{false};
	std::atomic<int> stolen{0};
	// What many a daemon does.
	std::thread reaper([&] {
		while (!stop) {
			stolen += waitpid(-1, nullptr, WNOHANG) > 0;
			usleep(50);
		}
	});
	for (int i = 0; i < 20; i++)
		EXPECT_EQ(run([i] { return i % 5; }, enclave->id()), i % 5);
	stop = true;
	reaper.join();
	EXPECT_EQ(stolen, 0);
	EXPECT_EQ(signals, 0);

	handle_quietly(SIGCHLD, SIG_IGN);
	EXPECT_EQ(read_all("/missing", enclave->id()), "ENOENT");
	EXPECT_EQ(update_error("/db", enclave->id()), 0);
	EXPECT_FALSE(has_zombie());
	handle_quietly(SIGCHLD, SIG_DFL);
}

TEST_F(ZioFork, AChildHasACovenantOfItsOwnAndItsStatusComesBack)
{
	for (bool enter : {false, true}) {
		pid_t pid = -1;
		int status = ostrel_zfork(enclave->id(), enter ? B_TRUE : B_FALSE, &pid);
		if (pid == 0 && status == 0) {
			bool inside = access((enclave->prefix() + "/run").c_str(), F_OK) != 0;
			bool right = getpgrp() == getpid() && inside == enter &&
				     getenclaveid() == (enter ? enclave->id() : 0) &&
				     (getenv("MERIDON_ROOT") == nullptr) == enter;
			ostrel_zexit(enclave->id(), pid, right ? 42 : 1);
			abort();
		}
		EXPECT_EQ(status, 42);
		EXPECT_GT(pid, 0);
	}
	pid_t pid = -1;
	EXPECT_EQ(ostrel_zfork(0, B_TRUE, &pid), 0);
	EXPECT_EQ(pid, 0);
	ostrel_zexit(0, 0, 1); // neither of these is a child
	ostrel_zexit(enclave->id(), 1, 1);
}

TEST_F(ZioFork, AChildForksAndStartsAProgramAlsoIfTheCallerIgnoresSIGCHLD)
{
	EXPECT_EQ(in_child([&] {
		signal(SIGCHLD, SIG_IGN);
		pid_t pid;
		int status = ostrel_zfork(enclave->id(), B_FALSE, &pid);
		if (pid == 0 && status == 0) {
			pid_t inner;
			int result = ostrel_zfork(enclave->id(), B_FALSE, &inner);
			if (inner == 0 && result == 0) {
				execl("/bin/sh", "sh", "-c", "exit 23", nullptr);
				ostrel_zexit(enclave->id(), 0, 0);
			}
			ostrel_zexit(enclave->id(), 0, result);
		}
		return status;
	}),
	    23);
}

/* ---- Calls that fail ---- */

TEST_F(ZioFault, AFailedWaitIsTheResult)
{
	enclave->write("/db", "old\n");
	FailNth fault(FailNth::Waitid, 1, ECHILD);
	EXPECT_EQ(ostrel_zunlink("/db", enclave->id()), ECHILD);
	siginfo_t info = {}; // the child that nobody waited for
	EXPECT_EQ(waitid(P_ALL, 0, &info, WEXITED | __WALL), 0);
	EXPECT_EQ(info.si_status, 0);
}

// Whatever call fails, in the parent or in the child, its error is the result, and no descriptor or child is left. Only a
// directory that cannot be synced by its nature is no failure.
TEST(ZioKinds, AnySingleFailureIsReportedAndLeavesNoDescriptor)
{
	SKIP_WITHOUT_ENCLAVES();
	TestEnclave enclave(fullest_enclave());
	(void) getenclaveid(); // looked up once: not the operations' doing
	const enclaveid_t id = enclave.id();
	const std::vector<Fault> faults = {{FailNth::Open, EIO}, {FailNth::Read, EIO}, {FailNth::Stat, EIO},
	    {FailNth::Fchmod, EIO}, {FailNth::Fchown, EINVAL}, {FailNth::Ftruncate, EIO}, {FailNth::Fork, EAGAIN},
	    {FailNth::Setns, EPERM}, {FailNth::Chroot, EPERM}, {FailNth::Chroot, ENOENT}, {FailNth::Socketpair, EMFILE},
	    {FailNth::Memfd, ENFILE}, {FailNth::Write, EIO}, {FailNth::Sendmsg, EPERM}, {FailNth::Recvmsg, ENOMEM},
	    {FailNth::Rename, EROFS}, {FailNth::Unlink, EROFS}, {FailNth::Fsync, EIO}, {FailNth::Fsync, EINVAL},
	    {FailNth::Fsync, ENOTSUP}, {FailNth::Fsync, EINTR}};
	const struct {
		std::function<int()> run;
		std::function<bool()> is_done;
	} operations[] = {
	    {[&] { return update_error("/new", id); }, [&] { return enclave.read("/new").empty(); }},
	    {[&] { return update_error("/db", id); }, [&] { return enclave.read("/db").empty(); }},
	    {[&] { return ostrel_zrename("/db", "/db2", id); }, [&] { return enclave.read("/db2") == "old\n"; }},
	    {[&] { return ostrel_zunlink("/db", id); }, [&] { return enclave.read("/db") == "<none>"; }},
	};
	int hits = 0;
	for (const auto &operation : operations) {
		auto prepare = [&] {
			enclave.write("/db", "old\n");
			(void) unlink(enclave.host_path("/db2").c_str());
			return unlink(enclave.host_path("/new").c_str());
		};
		hits += sweep_faults(
		    faults, prepare, [&](int) { return operation.run(); },
		    [&](int, const Round &round) {
			    const int error = round.fault->error == ENOENT ? ESRCH : round.fault->error;
			    const bool counts = round.hit && !(round.is(FailNth::Fsync) && error != EIO);
			    EXPECT_EQ(round.result, counts ? error : 0);
			    EXPECT_TRUE(counts || operation.is_done());
			    EXPECT_FALSE(has_zombie());
		    });
	}
	EXPECT_GT(hits, 50);
}

/* ---- Many ---- */

// A fork is slow in a process with a sanitizer's memory.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
static constexpr int rounds = 8;
#else
static constexpr int rounds = 25;
#endif

TEST(ZioKinds, ThreadsDoNotDisturbEachOtherAndNoDescriptorIsLeft)
{
	SKIP_WITHOUT_ENCLAVES();
	TestEnclave enclave(fullest_enclave());
	const int before = open_descriptors();
	std::vector<std::thread> threads;
	std::atomic<int> failures{0};
	for (int t = 0; t < 6; t++)
		threads.emplace_back([&, t] {
			const std::string db = "/db" + std::to_string(t), fresh = db + ".new";
			for (int i = 0; i < rounds; i++) {
				int error = -1;
				Stream file(ostrel_zfopen(fresh.c_str(), "w", enclave.id(), &error));
				failures += !file || fprintf(file.get(), "%d", t * 1000 + i) < 1;
				file.reset();
				failures += ostrel_zrename(fresh.c_str(), db.c_str(), enclave.id()) != 0;
				failures += read_all(db.c_str(), enclave.id()) != std::to_string(t * 1000 + i);
				failures += ostrel_zunlink("/none", enclave.id()) != ENOENT;
			}
		});
	for (std::thread &thread : threads)
		thread.join();
	EXPECT_EQ(failures, 0);
	EXPECT_EQ(open_descriptors(), before);
	EXPECT_FALSE(has_zombie());
}
