// The repository daemon as a process: its start, its end, and what goes wrong around it.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <gtest/gtest.h>
#include <random>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <thread>

#include <meridon/hatch.h>

#include "hatch_peer.h"
#include "repository.h"
#include "rpy/wire.h"
#include "test_paths.h"

namespace {

constexpr const char *program = TEST_BINARY_DIR "/repository/cairn.configd";

bool waits_for(const std::function<bool()> &condition)
{
	for (int tries = 0; tries < 5000; tries++, usleep(2000))
		if (condition())
			return true;
	return false;
}

// A file system of a test's own, in memory. Without the privilege to mount there is none.
class Mount {
public:
	explicit Mount(const Scratch &place, const char *options = "size=16m") : path(place.path("mount"))
	{
		good = mkdir(path.c_str(), 0755) == 0 && mount("none", path.c_str(), "tmpfs", 0, options) == 0;
	}
	Mount(const Mount &) = delete;
	Mount &operator=(const Mount &) = delete;
	~Mount()
	{
		if (good)
			(void) umount2(path.c_str(), MNT_DETACH);
	}
	bool set_readonly(bool value) const
	{
		return mount("none", path.c_str(), "tmpfs", MS_REMOUNT | (value ? MS_RDONLY : 0), nullptr) == 0;
	}
	const std::string path;
	bool good;
};

TEST(Configd, SaysWhyItCantServeAndEndsWithAnErrno)
{
	Repository daemon;
	std::string said;
	auto run = [&](const std::string &hatch, const std::string &file) {
		return run_program({program, "-d", hatch, "-r", file}, {}, &said);
	};
	EXPECT_EQ(run_program({program}), EINVAL);
	EXPECT_EQ(run_program({program, "-d"}), EINVAL);
	EXPECT_EQ(run_program({program, "-d", "/tmp/x", "-r", "/tmp/y", "-q"}), EINVAL);
	EXPECT_EQ(run_program({program, "--help"}, {}, &said), 0);
	EXPECT_NE(said.find("cairn.configd -d"), said.npos);
	EXPECT_EQ(run(daemon.hatch(), daemon.place.path("no/repository.db")), EIO);
	EXPECT_NE(said.find("no/repository.db"), said.npos);
	EXPECT_EQ(run(daemon.place.path("no/hatch"), daemon.file()), EIO);
	EXPECT_NE(said.find("no/hatch"), said.npos);
	EXPECT_EQ(run(daemon.hatch(), daemon.place.write("text", std::string(5000, 'x'))), EIO);
	EXPECT_NE(said.find("not a repository"), said.npos);
	EXPECT_EQ(run(daemon.hatch(), daemon.place.directory()), EINVAL);
	ASSERT_EQ(symlink(daemon.file().c_str(), daemon.place.path("link").c_str()), 0);
	EXPECT_EQ(run(daemon.hatch(), daemon.place.path("link")), EIO);

	ASSERT_EQ(daemon.start(), 0);
	EXPECT_EQ(run(daemon.hatch(), daemon.place.path("other.db")), EIO);
	EXPECT_NE(said.find("living server"), said.npos);
	{
		RepositoryClient client(daemon.hatch());
		ASSERT_EQ(client.add("g"), RPY_ERROR_NONE); // the one that serves isn't harmed
	}
	daemon.stop();
	std::string bytes = file_text(daemon.file()), newer = bytes, torn = bytes;
	newer[63] = 99; // where such a file says which format it has
	EXPECT_EQ(run(daemon.hatch(), daemon.place.write("newer", newer)), EIO);
	EXPECT_NE(said.find("format 99"), said.npos);
	torn.replace(4096, 2048, std::string(2048, 'x'));
	EXPECT_EQ(run(daemon.hatch(), daemon.place.write("torn", torn)), EIO);
	EXPECT_NE(said.find("torn"), said.npos);
	EXPECT_EQ(file_text(daemon.place.path("torn")), torn);
}

TEST(Configd, ASecondStartWaitsForTheFirstAndAnotherHatchTakesTheFileOver)
{
	Repository daemon;
	std::vector<std::thread> starts;
	std::atomic<int> bad{0};
	for (int i = 0; i < 4; i++)
		starts.emplace_back([&] {
			bad += run_program({program, "-d", daemon.hatch(), "-r", daemon.file()}) == 0 ? 0 : 1;
			bad += server_of(daemon.hatch()) != 0 ? 0 : 1;
		});
	for (std::thread &thread : starts)
		thread.join();
	EXPECT_EQ(bad, 0);
	pid_t first = server_of(daemon.hatch());
	RepositoryClient client(daemon.hatch());
	ASSERT_EQ(client.add("a"), RPY_ERROR_NONE);
	ASSERT_EQ(daemon.start(), 0);
	EXPECT_EQ(daemon.pid(), first);

	// The same hatch by another name is no other hatch.
	std::string relative = std::filesystem::relative(daemon.hatch());
	EXPECT_EQ(run_program({program, "-d", relative, "-r", daemon.file()}), 0);
	EXPECT_EQ(server_of(daemon.hatch()), first);

	ASSERT_EQ(daemon.start("other"), 0);
	EXPECT_NE(daemon.pid(), first);
	EXPECT_TRUE(waits_for([first] { return is_gone(first); }));
	EXPECT_EQ(server_of(daemon.hatch()), 0);
	EXPECT_EQ(client.write("a", {{"v", {"1"}}}), -1);
	EXPECT_EQ(rpy_error(), RPY_ERROR_CONNECTION_BROKEN);
	RepositoryClient next(daemon.hatch("other"));
	EXPECT_EQ(next.write("a", {{"v", {"1"}}}), 1);
}

TEST(Configd, NobodyElseCanHoldAStartUpByLockingTheFile)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "skipped: acting as other users needs root";
	Repository daemon;
	ASSERT_EQ(daemon.start(), 0);
	ASSERT_EQ(chmod(daemon.file().c_str(), 0644), 0);
	daemon.stop();
	// It is named, and not waited for.
	for (bool outlives : {false, true}) {
		Stranger stranger(daemon.file(), Stranger::Lock::whole, outlives);
		ASSERT_NE(stranger.pid, 0);
		std::string output;
		EXPECT_EQ(daemon.start("hatch", &output), EIO);
		EXPECT_NE(output.find("process " + std::to_string(stranger.pid) +
				      " (configd_test), which is no repository daemon"),
		    output.npos)
		    << output;
	}
	ASSERT_EQ(daemon.start(), 0);
	struct stat st;
	ASSERT_EQ(stat(daemon.file().c_str(), &st), 0);
	EXPECT_EQ(st.st_mode & 07777, mode_t{0600}) << "others can open it, and so lock it";
}

// Inodes are counted by each file system alone.
TEST(Configd, ALockOnAFileOfAnotherFileSystemIsNotTakenForOurs)
{
	Repository daemon;
	Scratch elsewhere;
	Mount ours(daemon.place), theirs(elsewhere);
	if (!ours.good || !theirs.good)
		GTEST_SKIP() << "skipped: mounting needs root";
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
	std::string output;
	EXPECT_EQ(daemon.start("other", &output), 0) << output;
	daemon.kill();
}

TEST(Configd, EndsCleanlyAndLeavesTheFileAtTheHatchsPath)
{
	Repository daemon;
	for (int signal : {SIGTERM, SIGINT}) {
		pid_t child = fork();
		if (child == 0) {
			execl(
			    program, program, "-f", "-d", daemon.hatch().c_str(), "-r", daemon.file().c_str(), nullptr);
			_exit(127);
		}
		ASSERT_TRUE(waits_for([&] { return server_of(daemon.hatch()) == child; }));
		ASSERT_EQ(kill(child, signal), 0);
		int status = -1;
		ASSERT_EQ(waitpid(child, &status, 0), child);
		EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
		struct stat there;
		ASSERT_EQ(stat(daemon.hatch().c_str(), &there), 0);
		EXPECT_EQ(there.st_mode, S_IFREG | 0644U);
		ASSERT_EQ(stat(daemon.file().c_str(), &there), 0);
		EXPECT_EQ(there.st_mode, S_IFREG | 0600U);
	}
}

TEST(Configd, StartsFromAnyProcessAndTakesNothingAlong)
{
	Repository daemon;
	int inherited = open(daemon.place.write("held", "x").c_str(), O_RDONLY); // not close-on-exec
	int status = run_program({"/bin/sh", "-c",
	    "umask 077; trap '' TERM HUP; cd " + daemon.place.directory() + "; exec 0<&-; exec " + program +
		" -d hatch -r repository.db"});
	close(inherited);
	ASSERT_EQ(status, 0);
	pid_t pid = server_of(daemon.hatch());
	ASSERT_GT(pid, 0);
	std::string proc = "/proc/" + std::to_string(pid);
	char text[PATH_MAX] = "";
	EXPECT_GT(readlink((proc + "/cwd").c_str(), text, sizeof(text) - 1), 0);
	EXPECT_STREQ(text, "/");
	for (const std::string &fd : entries_of(proc + "/fd"))
		EXPECT_EQ(link_text(proc + "/fd/" + fd).find("/held"), std::string::npos);
	EXPECT_EQ(getsid(pid), pid);
	ASSERT_EQ(kill(pid, SIGTERM), 0);
	EXPECT_TRUE(waits_for([pid] { return is_gone(pid); }));
}

// Each commit adds 1 to two numbers of one group; nothing that was acknowledged may be missing, nothing half there.
TEST(Configd, LosesNothingThatItAcknowledgedHoweverOftenItIsKilled)
{
	// In memory: a killed process that waits for a busy disk keeps its locks until the disk is done, and a start gives up.
	Repository daemon(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
	ASSERT_EQ(daemon.start(), 0);
	{
		RepositoryClient client(daemon.hatch());
		for (int i = 0; i < 3; i++) {
			ASSERT_EQ(client.add("g" + std::to_string(i)), RPY_ERROR_NONE);
			ASSERT_EQ(client.write("g" + std::to_string(i), {{"a", {"0"}}, {"b", {"0"}}}), 1);
		}
	}
	std::atomic<bool> end{false};
	uint64_t acknowledged[3] = {}, tried[3] = {};
	std::vector<std::thread> writers;
	for (int i = 0; i < 3; i++)
		writers.emplace_back([&, i] {
			RepositoryClient client;
			std::string name = "g" + std::to_string(i);
			while (!end) {
				if (client.bind(daemon.hatch()) != RPY_ERROR_NONE) {
					usleep(300);
					continue;
				}
				for (bool alive = true; alive && !end;) {
					std::string number = std::to_string(++tried[i]);
					alive = client.write(name, {{"a", {number}}, {"b", {number}}}) == 1;
					if (alive)
						acknowledged[i] = tried[i];
				}
			}
		});
	std::mt19937 random(7);
	int bad = 0;
	for (int kills = 0; kills < 200; kills++) {
		usleep(static_cast<useconds_t>(random() % 6000));
		daemon.kill();
		std::string said;
		if (daemon.start("hatch", &said) != 0) {
			bad++;
			ADD_FAILURE() << said;
		}
	}
	end = true;
	for (std::thread &thread : writers)
		thread.join();
	EXPECT_EQ(bad, 0);
	daemon.kill();
	ASSERT_EQ(daemon.start(), 0);
	RepositoryClient client(daemon.hatch());
	for (int i = 0; i < 3; i++) {
		Contents found = client.read("g" + std::to_string(i));
		ASSERT_EQ(found.size(), 2U);
		EXPECT_EQ(found["a"], found["b"]);
		EXPECT_GE(std::stoull(found["a"].at(0)), acknowledged[i]);
		EXPECT_LE(std::stoull(found["a"].at(0)), tried[i]);
		EXPECT_GT(acknowledged[i], 0U);
	}
}

// What ends with the daemon leaves nothing in the file, its ids neither.
TEST(Configd, AnObjectOfATemporaryGroupNeverBecomesAnotherGroup)
{
	Repository daemon;
	ASSERT_EQ(daemon.start(), 0);
	RepositoryClient client(daemon.hatch());
	Pg lease = client.group();
	ASSERT_EQ(rpy_instance_add_pg(client.instance, "lease", "t", RPY_PG_FLAG_TEMPORARY, lease.get()), 0);
	ASSERT_EQ(client.add("kept"), RPY_ERROR_NONE);
	ASSERT_EQ(client.add("passing", "t", RPY_PG_FLAG_TEMPORARY), RPY_ERROR_NONE);
	ASSERT_EQ(client.add("kept too"), RPY_ERROR_NONE);
	Iter iter(rpy_iter_create(client.handle));
	ASSERT_EQ(rpy_iter_instance_pgs(iter.get(), client.instance), 0);
	EXPECT_EQ(client.names(iter.get()), (std::vector<std::string>{"kept", "kept too", "lease", "passing"}));

	Pg last = client.group();
	ASSERT_EQ(rpy_instance_add_pg(client.instance, "last", "t", RPY_PG_FLAG_TEMPORARY, last.get()), 0);
	for (int i = 0; i < 10; i++)
		ASSERT_EQ(client.write("lease", {{"v", {std::to_string(i)}}}), 1);
	daemon.stop();
	ASSERT_EQ(daemon.start(), 0);
	ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
	for (int i = 0; i < 20; i++)
		ASSERT_EQ(
		    client.add("g" + std::to_string(i), "t", i % 2 == 0 ? 0 : RPY_PG_FLAG_TEMPORARY), RPY_ERROR_NONE);
	for (rpy_propertygroup_t *old : {lease.get(), last.get()}) {
		EXPECT_EQ(rpy_pg_update(old), -1);
		EXPECT_EQ(rpy_error(), RPY_ERROR_DELETED);
		EXPECT_EQ(client.write(old, {{"v", {"1"}}}), -1);
		EXPECT_EQ(rpy_error(), RPY_ERROR_DELETED);
		EXPECT_EQ(rpy_pg_delete(old), -1);
		EXPECT_EQ(rpy_error(), RPY_ERROR_DELETED);
	}
}

TEST(Configd, ServesReadsFromAReadOnlyFileSystemAndWritesAgainWhenItCan)
{
	Repository daemon;
	Mount mount(daemon.place);
	if (!mount.good)
		GTEST_SKIP() << "skipped: mounting needs root";
	daemon.files = mount.path;
	ASSERT_EQ(daemon.start(), 0);
	RepositoryClient client(daemon.hatch());
	ASSERT_EQ(client.add("a"), RPY_ERROR_NONE);
	ASSERT_EQ(client.write("a", {{"v", {"1"}}}), 1);
	// A second after the last update nothing is open for writing.
	ASSERT_TRUE(waits_for([&] { return mount.set_readonly(true); }));
	EXPECT_EQ(client.write("a", {{"v", {"2"}}}), -1);
	EXPECT_EQ(rpy_error(), RPY_ERROR_BACKEND_READONLY);
	EXPECT_EQ(client.add("b"), RPY_ERROR_BACKEND_READONLY);
	EXPECT_EQ(client.read("a"), (Contents{{"v", {"1"}}}));
	rpy_status_t status;
	ASSERT_EQ(_rpy_status(client.handle, &status), 0);
	EXPECT_EQ(status.rs_writable, 0);
	daemon.stop();
	ASSERT_EQ(daemon.start(), 0); // it starts there, too
	ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
	EXPECT_EQ(client.read("a"), (Contents{{"v", {"1"}}}));
	EXPECT_EQ(client.write("a", {{"v", {"2"}}}), -1);
	EXPECT_EQ(rpy_error(), RPY_ERROR_BACKEND_READONLY);
	ASSERT_TRUE(mount.set_readonly(false));
	EXPECT_EQ(client.write("a", {{"v", {"2"}}}), 1);
	EXPECT_EQ(client.read("a"), (Contents{{"v", {"2"}}}));
	ASSERT_EQ(_rpy_status(client.handle, &status), 0);
	EXPECT_EQ(status.rs_writable, 1);
	EXPECT_EQ(status.rs_pid, daemon.pid());
	EXPECT_STREQ(status.rs_file, daemon.file().c_str());
	daemon.stop();
}

TEST(Configd, AFullDiskRefusesAnUpdateAndHarmsNothing)
{
	Repository daemon;
	Mount mount(daemon.place, "size=400k");
	if (!mount.good)
		GTEST_SKIP() << "skipped: mounting needs root";
	daemon.files = mount.path;
	ASSERT_EQ(daemon.start(), 0);
	RepositoryClient client(daemon.hatch());
	ASSERT_EQ(client.add("a"), RPY_ERROR_NONE);
	int written = 0;
	for (; written < 100; written++) {
		std::string name = "g" + std::to_string(written);
		if (client.add(name) != RPY_ERROR_NONE || client.write(name, {{"v", {std::string(20000, 'x')}}}) != 1)
			break;
	}
	EXPECT_EQ(rpy_error(), RPY_ERROR_NO_RESOURCES);
	EXPECT_LT(written, 100);
	EXPECT_GT(written, 0);
	EXPECT_EQ(client.read("g0"), (Contents{{"v", {std::string(20000, 'x')}}}));
	ASSERT_EQ(::mount("none", mount.path.c_str(), "tmpfs", MS_REMOUNT, "size=2m"), 0);
	EXPECT_EQ(client.write("a", {{"v", {"1"}}}), 1);
	daemon.kill();
	ASSERT_EQ(daemon.start(), 0);
	ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
	EXPECT_EQ(client.read("a"), (Contents{{"v", {"1"}}}));
	daemon.stop();
}

TEST(Configd, AcknowledgesNothingIntoAFileThatWasTakenAway)
{
	Repository daemon;
	ASSERT_EQ(daemon.start(), 0);
	RepositoryClient client(daemon.hatch());
	ASSERT_EQ(client.add("a"), RPY_ERROR_NONE);
	ASSERT_EQ(client.write("a", {{"v", {"1"}}}), 1);
	auto refused = [&] {
		EXPECT_EQ(client.write("a", {{"v", {"2"}}}), -1);
		EXPECT_EQ(rpy_error(), RPY_ERROR_INTERNAL);
		EXPECT_EQ(client.read("a"), (Contents{{"v", {"1"}}}));
	};
	std::string aside = daemon.place.path("aside"), bytes = file_text(daemon.file());
	ASSERT_EQ(rename(daemon.file().c_str(), aside.c_str()), 0);
	refused();
	daemon.place.write("repository.db", bytes); // the same bytes, and another file
	refused();
	ASSERT_EQ(rename(aside.c_str(), daemon.file().c_str()), 0);
	EXPECT_EQ(client.write("a", {{"v", {"1"}}}), 1);
	ASSERT_EQ(truncate(daemon.file().c_str(), 0), 0);
	refused();
	ASSERT_EQ(truncate(daemon.file().c_str(), 5000), 0);
	EXPECT_EQ(client.write("a", {{"v", {"2"}}}), -1);
}

TEST(Configd, ChangesNothingForUsersWithoutTheRight)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "skipped: acting as other users needs root";
	Repository daemon;
	ASSERT_EQ(chmod(daemon.place.directory().c_str(), 0755), 0);
	std::filesystem::create_directories(daemon.place.path("etc/meridon"));
	daemon.environment = {"MERIDON_ROOT=" + daemon.place.directory()};
	ASSERT_EQ(daemon.start(), 0);
	RepositoryClient root(daemon.hatch());
	ASSERT_EQ(root.add("a"), RPY_ERROR_NONE);
	ASSERT_EQ(root.write("a", {{"v", {"1"}}}), 1);
	Snap snapshot(rpy_snapshot_create(root.handle));
	ASSERT_EQ(_rpy_snapshot_take_new(root.instance, "s", snapshot.get()), 0);
	// Whether reading and each change is refused to a user, as a set of bits, the first for reading.
	auto refused = [&](uid_t user) {
		pid_t child = fork();
		if (child == 0) {
			if (setgroups(0, nullptr) != 0 || setresgid(user, user, user) != 0 ||
			    setresuid(user, user, user) != 0)
				_exit(255);
			RepositoryClient client;
			(void) client.bind(daemon.hatch());
			auto denied = [](bool failed) {
				return failed && rpy_error() == RPY_ERROR_PERMISSION_DENIED ? 1 : 0;
			};
			int bits = denied(client.find() != RPY_ERROR_NONE);
			Pg pg(rpy_pg_create(root.handle));
			int result = rpy_instance_get_pg(root.instance, "a", pg.get());
			bits |= denied(root.write("a", {{"v", {"2"}}}) != 1) << 1;
			bits |= denied(root.add("b") != RPY_ERROR_NONE) << 2;
			bits |= denied(result != 0 || rpy_pg_delete(pg.get()) != 0) << 3;
			Snap made(rpy_snapshot_create(root.handle));
			bits |= denied(_rpy_snapshot_take_new(root.instance, "n", made.get()) != 0) << 4;
			bits |= denied(_rpy_snapshot_delete(snapshot.get()) != 0) << 5;
			bits |= denied(_rpy_snapshot_revert(snapshot.get()) != 0) << 6;
			_exit(bits);
		}
		int status;
		EXPECT_EQ(waitpid(child, &status, 0), child);
		return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
	};
	EXPECT_EQ(refused(1), 0x7e); // all but reading
	EXPECT_EQ(root.read("a"), (Contents{{"v", {"1"}}}));
}

TEST(Configd, GivesRightsByTheFile)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "skipped: acting as other users needs root";
	Repository daemon;
	ASSERT_EQ(chmod(daemon.place.directory().c_str(), 0755), 0);
	std::filesystem::create_directories(daemon.place.path("etc/meridon"));
	daemon.environment = {"MERIDON_ROOT=" + daemon.place.directory()};
	ASSERT_EQ(daemon.start(), 0);
	RepositoryClient root(daemon.hatch());
	ASSERT_EQ(root.add("a"), RPY_ERROR_NONE);
	// 1: reading was refused, 2: changing was.
	auto refused = [&](uid_t user) {
		pid_t child = fork();
		if (child == 0) {
			if (setgroups(0, nullptr) != 0 || setresgid(user, user, user) != 0 ||
			    setresuid(user, user, user) != 0)
				_exit(255);
			RepositoryClient client;
			(void) client.bind(daemon.hatch());
			int bits = client.find() == RPY_ERROR_PERMISSION_DENIED ? 1 : 0;
			bits |= root.add("by" + std::to_string(user)) == RPY_ERROR_PERMISSION_DENIED ? 2 : 0;
			_exit(bits);
		}
		int status;
		EXPECT_EQ(waitpid(child, &status, 0), child);
		return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
	};
	constexpr uid_t unknown = 3000000000U;
	EXPECT_EQ(refused(1), 2);
	EXPECT_EQ(refused(unknown), 2);
	daemon.place.write("etc/meridon/rights", "# nobody: cairn.read\ndaemon: cairn.modify\n");
	EXPECT_EQ(refused(1), 0);
	EXPECT_EQ(refused(2), 2);
	daemon.place.write(
	    "etc/meridon/rights", "daemon: cairn.modify\nbin: cairn.read, cairn.modify\nnobody: cairn.*\n");
	EXPECT_EQ(refused(1), 1);
	EXPECT_EQ(refused(2) & 1, 0);
	EXPECT_EQ(refused(65534), 3); // what a user namespace shows for users that it doesn't know
	EXPECT_EQ(refused(unknown), 3);
	EXPECT_EQ(root.read("a"), Contents());
}

TEST(Configd, AnswersAnyBytesAndGoesOn)
{
	Repository daemon;
	ASSERT_EQ(daemon.start(), 0);
	RepositoryClient client(daemon.hatch());
	ASSERT_EQ(client.add("a"), RPY_ERROR_NONE);
	ASSERT_EQ(client.write("a", {{"v", {"1"}}}), 1);
	Fd hatch(open(daemon.hatch().c_str(), O_RDONLY | O_CLOEXEC));
	std::mt19937 random(3);
	char room[4096];
	for (int i = 0; i < 3000; i++) {
		std::string request(8 + random() % 64, '\0');
		for (char &byte : request)
			byte = static_cast<char>(random() % 4 == 0 ? random() : random() % 3);
		auto op = static_cast<uint32_t>(random() % (static_cast<uint32_t>(rpy::Op::count_) + 1));
		memcpy(request.data(), &rpy::magic, sizeof(rpy::magic));
		memcpy(request.data() + 4, &op, sizeof(op));
		hatch_arg_t arg = {request.data(), request.size(), nullptr, 0, room, sizeof(room)};
		ASSERT_EQ(hatch_call(hatch.get(), &arg), 0);
		ASSERT_GE(arg.data_size, 8U);
		if (arg.rbuf != room)
			(void) munmap(arg.rbuf, arg.rsize);
	}
	hatch_arg_t empty = {room, 3, nullptr, 0, room, sizeof(room)};
	EXPECT_EQ(hatch_call(hatch.get(), &empty), -1);
	EXPECT_EQ(errno, ENOBUFS);
	EXPECT_EQ(client.read("a"), (Contents{{"v", {"1"}}}));
}

TEST(Configd, KeepsItsFileFlatAndIsIdleWhenNobodyAsks)
{
	Repository daemon("/dev/shm"); // a busy disk would make each of the commits wait
	ASSERT_EQ(daemon.start(), 0);
	RepositoryClient client(daemon.hatch());
	ASSERT_EQ(client.add("a"), RPY_ERROR_NONE);
	struct stat before, after;
	for (int i = 0; i < 2000; i++) {
		ASSERT_EQ(client.write("a", {{"v", {std::to_string(i)}}}), 1);
		if (i == 100) {
			ASSERT_EQ(stat(daemon.file().c_str(), &before), 0);
		}
	}
	ASSERT_EQ(stat(daemon.file().c_str(), &after), 0);
	EXPECT_EQ(before.st_size, after.st_size);
	usleep(1500000);
	auto used = [&] {
		std::string text = file_text("/proc/" + std::to_string(daemon.pid()) + "/stat");
		unsigned long user = 0, system = 0;
		(void) sscanf(text.substr(text.rfind(')') + 2).c_str(),
		    "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user, &system);
		return user + system;
	};
	unsigned long begin = used();
	usleep(1500000);
	EXPECT_EQ(used(), begin);
	void *bytes = nullptr;
	size_t size = 0;
	ASSERT_EQ(_rpy_backup(client.handle, &bytes, &size), 0);
	std::string copy(static_cast<char *>(bytes), size);
	free(bytes);
	Repository restored;
	restored.place.write("repository.db", copy);
	ASSERT_EQ(restored.start(), 0);
	RepositoryClient other(restored.hatch());
	EXPECT_EQ(other.read("a"), (Contents{{"v", {"1999"}}}));
}

} // namespace
