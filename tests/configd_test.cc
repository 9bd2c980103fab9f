// The repository daemon as a process: its start, its end, and what goes wrong around it.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <sys/file.h>
#include <sys/mount.h>
#include <thread>

#include "child.h"
#include "hatch_peer.h"
#include "repository.h"
#include "test_paths.h"

namespace {

// A daemon, a client of it, and in the repository a group "a" with one property "v".
class Configd : public RepositoryTest {
protected:
	void start_with(const std::string &value)
	{
		start();
		ASSERT_EQ(client.add("a"), RPY_ERROR_NONE);
		ASSERT_EQ(set(value), RPY_ERROR_NONE);
	}
	rpy_error_t set(const std::string &value) { return set(client, value); }
	static rpy_error_t set(RepositoryClient &by, const std::string &value)
	{
		return by.write("a", {{"v", {value}}}) == 1 ? RPY_ERROR_NONE : rpy_error();
	}
	std::string get()
	{
		const Contents found = client.read("a");
		return found.count("v") == 1 && found.at("v").size() == 1 ? found.at("v")[0] : "";
	}
};

TEST_F(Configd, SaysWhyItCantServeAndEndsWithAnErrno)
{
	EXPECT_EQ(run_program({daemon_program}), EINVAL);
	EXPECT_EQ(run_program({daemon_program, "-d"}), EINVAL);
	EXPECT_EQ(run_program({daemon_program, "-d", "/tmp/x", "-r", "/tmp/y", "-q"}), EINVAL);
	EXPECT_EQ(run_program({daemon_program, "--help"}, {}, &said), 0);
	EXPECT_NE(said.find("cairn.configd -d"), said.npos);
	start_with("1");
	auto refused = [&](int status, const std::string &hatch, const std::string &file, const char *why) {
		EXPECT_EQ(start_daemon(hatch, file, &said), status) << file;
		EXPECT_NE(said.find(why), said.npos) << said;
	};
	refused(EIO, daemon.hatch(), daemon.place.path("other.db"), "living server");
	EXPECT_EQ(set("2"), RPY_ERROR_NONE) << "the one that serves was harmed";
	EXPECT_EQ(call(open_hatch(daemon.hatch()).get(), "abc").error, ENOBUFS) << "less than a request's head";
	daemon.stop();
	std::string bytes = file_text(daemon.file()), newer = bytes, torn = bytes;
	newer[63] = 99; // where such a file says which format it has
	torn.replace(4096, 2048, std::string(2048, 'x'));
	ASSERT_EQ(symlink(daemon.file().c_str(), daemon.place.path("link").c_str()), 0);
	refused(EIO, daemon.hatch(), daemon.place.path("no/repository.db"), "no/repository.db");
	refused(EIO, daemon.hatch(), daemon.place.write("text", std::string(5000, 'x')), "not a repository");
	refused(EIO, daemon.hatch(), daemon.place.write("newer", newer), "format 99");
	refused(EIO, daemon.hatch(), daemon.place.write("torn", torn), "torn");
	refused(EINVAL, daemon.hatch(), daemon.place.directory(), "");
	refused(EIO, daemon.hatch(), daemon.place.path("link"), "");
	EXPECT_EQ(file_text(daemon.place.path("torn")), torn);
}

TEST_F(Configd, ASecondStartWaitsForTheFirstAndLeavesItBe)
{
	std::vector<std::jthread> starts;
	for (int i = 0; i < 4; i++)
		starts.emplace_back([&] {
			EXPECT_EQ(start_daemon(daemon.hatch(), daemon.file()), 0);
			EXPECT_NE(server_of(daemon.hatch()), 0);
		});
	starts.clear();
	pid_t first = server_of(daemon.hatch());
	start_with("1");
	EXPECT_EQ(daemon.pid(), first);

	// The same hatch by another name is no other hatch.
	EXPECT_EQ(start_daemon(std::filesystem::relative(daemon.hatch()), daemon.file()), 0);
	EXPECT_EQ(server_of(daemon.hatch()), first);
}

TEST_F(Configd, NobodyElseCanHoldAStartUpByLockingTheFile)
{
	SKIP_UNLESS_ROOT();
	ASSERT_EQ(daemon.start(), 0);
	ASSERT_EQ(chmod(daemon.file().c_str(), 0644), 0);
	daemon.stop();
	// It is named, and not waited for.
	for (bool outlives : {false, true}) {
		auto lock = [](int fd) { return flock(fd, LOCK_SH | LOCK_NB); };
		auto lock_and_end = [&](int fd) { return in_child([&] { return lock(fd); }); };
		StayingChild stranger =
		    outlives ? lock_as_stranger(daemon.file(), lock_and_end) : lock_as_stranger(daemon.file(), lock);
		ASSERT_NE(stranger.pid(), 0);
		EXPECT_EQ(daemon.start("hatch", &said), EIO);
		EXPECT_NE(said.find("process " + std::to_string(stranger.pid()) +
				    " (configd_test), which is no repository daemon"),
		    said.npos)
		    << said;
	}
	ASSERT_EQ(daemon.start(), 0);
	struct stat st;
	ASSERT_EQ(stat(daemon.file().c_str(), &st), 0);
	EXPECT_EQ(st.st_mode & 07777, mode_t{0600}) << "others can open it, and so lock it";
}

// Inodes are counted by each file system alone.
TEST_F(Configd, ALockOnAFileOfAnotherFileSystemIsNotTakenForOurs)
{
	Scratch elsewhere;
	MemoryMount ours(daemon.place), theirs(elsewhere);
	if (!ours.good || !theirs.good)
		GTEST_SKIP() << "mounting needs root";
	daemon.files = ours.path;
	ASSERT_EQ(daemon.start(), 0);
	struct stat file, twin = {};
	ASSERT_EQ(stat(daemon.file().c_str(), &file), 0);
	Fd stranger;
	for (int i = 0; i < 1000 && twin.st_ino != file.st_ino; i++) {
		std::string path = theirs.path + "/" + std::to_string(i);
		stranger.reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
		ASSERT_EQ(fstat(stranger.get(), &twin), 0);
	}
	ASSERT_EQ(twin.st_ino, file.st_ino);
	ASSERT_EQ(flock(stranger.get(), LOCK_EX), 0);
	EXPECT_EQ(daemon.start("other", &said), 0) << said;
	daemon.kill();
}

TEST_F(Configd, EndsCleanlyAndLeavesTheFileAtTheHatchsPath)
{
	for (int signal : {SIGTERM, SIGINT}) {
		Process serving([this] {
			return execl(daemon_program, daemon_program, "-f", "-d", daemon.hatch().c_str(), "-r",
			    daemon.file().c_str(), nullptr);
		});
		ASSERT_TRUE(eventually([&] { return server_of(daemon.hatch()) == serving.pid(); }));
		ASSERT_EQ(kill(serving.pid(), signal), 0);
		EXPECT_EQ(serving.wait(), 0);
		struct stat there;
		ASSERT_EQ(stat(daemon.hatch().c_str(), &there), 0);
		EXPECT_EQ(there.st_mode, S_IFREG | 0644U);
		ASSERT_EQ(stat(daemon.file().c_str(), &there), 0);
		EXPECT_EQ(there.st_mode, S_IFREG | 0600U);
	}
}

TEST_F(Configd, StartsFromAnyProcessAndTakesNothingAlong)
{
	int inherited = open(daemon.place.write("held", "x").c_str(), O_RDONLY); // not close-on-exec
	int status = run_program({"/bin/sh", "-c",
	    "umask 077; trap '' TERM HUP; cd " + daemon.place.directory() + "; exec 0<&-; exec " + daemon_program +
		" -d hatch -r repository.db"});
	close(inherited);
	ASSERT_EQ(status, 0);
	pid_t pid = server_of(daemon.hatch());
	ASSERT_GT(pid, 0);
	std::string proc = "/proc/" + std::to_string(pid);
	EXPECT_EQ(link_text(proc + "/cwd"), "/");
	for (const std::string &fd : entries_of(proc + "/fd"))
		EXPECT_EQ(link_text(proc + "/fd/" + fd).find("/held"), std::string::npos);
	EXPECT_EQ(getsid(pid), pid);
	ASSERT_EQ(kill(pid, SIGTERM), 0);
	EXPECT_TRUE(eventually([pid] { return is_gone(pid); }));
}

TEST_F(Configd, AcknowledgesNothingIntoAFileThatWasTakenAway)
{
	start_with("1");
	auto refused = [&] {
		rpy_status_t status;
		EXPECT_EQ(set("2"), RPY_ERROR_INTERNAL);
		EXPECT_EQ(get(), "1");
		EXPECT_TRUE(_rpy_status(client.handle, &status) == 0 && status.rs_writable == 0);
	};
	std::string aside = daemon.place.path("aside"), bytes = file_text(daemon.file());
	ASSERT_EQ(rename(daemon.file().c_str(), aside.c_str()), 0);
	refused();
	daemon.place.write("repository.db", bytes); // the same bytes, and another file
	refused();
	ASSERT_EQ(rename(aside.c_str(), daemon.file().c_str()), 0);
	EXPECT_EQ(set("1"), RPY_ERROR_NONE);
	for (off_t size : {0, 5000}) {
		ASSERT_EQ(truncate(daemon.file().c_str(), size), 0);
		EXPECT_NE(set("2"), RPY_ERROR_NONE);
	}
}

TEST_F(Configd, GivesRightsByTheFile)
{
	SKIP_UNLESS_ROOT();
	ASSERT_EQ(chmod(daemon.place.directory().c_str(), 0755), 0);
	std::filesystem::create_directories(daemon.place.path("etc/meridon"));
	daemon.environment = {"MERIDON_ROOT=" + daemon.place.directory()};
	start_with("1");
	Snap snapshot(rpy_snapshot_create(client.handle));
	ASSERT_EQ(_rpy_snapshot_take_new(client.instance, "s", snapshot.get()), 0);
	Pg group = client.group();
	ASSERT_EQ(rpy_instance_get_pg(client.instance, "a", group.get()), 0);
	// What is refused to a user for want of a right, as a set of bits: reading, then the changes.
	constexpr int reading = 1, changing = 0xfe;
	auto refused = [&](uid_t user) {
		return as_user(user, [&] {
			int bits = 0, bit = 1;
			auto look = [&](bool failed) {
				bits |= failed && rpy_error() == RPY_ERROR_PERMISSION_DENIED ? bit : 0;
				bit <<= 1;
			};
			RepositoryClient own;
			(void) own.bind(daemon.hatch());
			Snap made(rpy_snapshot_create(client.handle));
			look(own.find() != RPY_ERROR_NONE);
			look(client.write(group.get(), {{"v", {"2"}}}) != 1);
			look(client.add("b") != RPY_ERROR_NONE);
			look(_rpy_snapshot_take_new(client.instance, "n", made.get()) != 0);
			look(_rpy_snapshot_revert(snapshot.get()) != 0);
			look(_rpy_snapshot_delete(snapshot.get()) != 0);
			look(rpy_pg_delete(group.get()) != 0);
			// What takes the store for long is for operators, too.
			char *findings = nullptr;
			void *bytes = nullptr;
			size_t size = 0;
			const bool may_verify = _rpy_verify(client.handle, &findings) == 0;
			look(!may_verify && _rpy_backup(client.handle, &bytes, &size) != 0);
			return bits;
		});
	};
	constexpr uid_t unknown = 3000000000U;
	EXPECT_EQ(refused(1), changing);
	EXPECT_EQ(refused(unknown), changing);
	EXPECT_EQ(get(), "1");
	daemon.place.write("etc/meridon/rights", "# nobody: cairn.read\ndaemon: cairn.modify\n");
	EXPECT_EQ(refused(1), 0);
	EXPECT_EQ(refused(2), changing);
	daemon.place.write(
	    "etc/meridon/rights", "daemon: cairn.modify\nbin: cairn.read, cairn.modify\nnobody: cairn.*\n");
	EXPECT_EQ(refused(1), reading);
	EXPECT_EQ(refused(2), 0);
	EXPECT_EQ(refused(65534), reading | changing); // as a user namespace shows users that it doesn't know
	EXPECT_EQ(refused(unknown), reading | changing);
	EXPECT_EQ(client.find(), RPY_ERROR_NONE);
}

TEST_F(Configd, IsIdleWhenNobodyAsks)
{
	start_with("0");
	usleep(1500000); // a second after its last update it closes what it had open for that
	clockid_t clock;
	struct timespec begin, later;
	ASSERT_EQ(clock_getcpuclockid(daemon.pid(), &clock), 0);
	ASSERT_EQ(clock_gettime(clock, &begin), 0);
	usleep(1500000);
	ASSERT_EQ(clock_gettime(clock, &later), 0);
	EXPECT_LT((later.tv_sec - begin.tv_sec) * 1'000'000'000 + later.tv_nsec - begin.tv_nsec, 10'000'000);
}

} // namespace
