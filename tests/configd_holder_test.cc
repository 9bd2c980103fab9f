// Which daemon holds a file: second starts, take-overs, and starts that see little of the holder.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>

#include "child.h"
#include "hatch_peer.h"
#include "repository.h"
#include "test_paths.h"

namespace {

// The next daemon has the file before the process of the one before is gone altogether.
bool goes(pid_t pid)
{
	return eventually([pid] { return is_gone(pid); });
}

// Starts a daemon from a process that changed itself first. 255 if that can't be.
int start_after(const std::function<bool()> &change, const std::string &hatch, const std::string &file)
{
	return in_child([&] {
		if (change())
			execl(daemon_program, daemon_program, "-d", hatch.c_str(), "-r", file.c_str(), nullptr);
		return -1;
	});
}

// What the service manager leaves of root's powers.
bool keep_few_powers()
{
	bool good = true;
	for (int number = 0; prctl(PR_CAPBSET_READ, number) >= 0; number++)
		if (number != CAP_DAC_OVERRIDE && number != CAP_FOWNER && number != CAP_CHOWN)
			good = good && prctl(PR_CAPBSET_DROP, number) == 0;
	return good && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

bool hide_proc()
{
	return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
	       mount("none", "/proc", "tmpfs", 0, nullptr) == 0;
}

#ifdef __SANITIZE_ADDRESS__
constexpr bool runs_without_proc = false;
#else
constexpr bool runs_without_proc = true;
#endif

TEST(ConfigdHolder, AStartWithFewerPowersOrWithoutProcKnowsADaemonWithMore)
{
	SKIP_UNLESS_ROOT();
	Repository daemon;
	ASSERT_EQ(daemon.start("hatch.libostrel.1"), 0);
	const pid_t first = daemon.pid();
	EXPECT_EQ(start_after(keep_few_powers, daemon.hatch("hatch.libostrel.1"), daemon.file()), 0);
	EXPECT_EQ(server_of(daemon.hatch("hatch.libostrel.1")), first);
	if (runs_without_proc) {
		EXPECT_EQ(start_after(hide_proc, daemon.hatch("hatch.libostrel.1"), daemon.file()), 0);
		EXPECT_EQ(server_of(daemon.hatch("hatch.libostrel.1")), first);
	}
	EXPECT_EQ(start_after(keep_few_powers, daemon.hatch(), daemon.file()), 0);
	EXPECT_TRUE(goes(first));
	EXPECT_NE(server_of(daemon.hatch()), 0);
	ASSERT_EQ(daemon.start("other"), 0);
}

TEST(ConfigdHolder, AStartThatCantServeEndsNoDaemonThatDoes)
{
	Repository daemon, another;
	ASSERT_EQ(daemon.start(), 0);
	ASSERT_EQ(another.start(), 0);
	std::string said;
	EXPECT_EQ(start_daemon(daemon.place.path("no/hatch"), daemon.file(), &said), EIO);
	EXPECT_NE(said.find("no/hatch"), said.npos) << said;
	EXPECT_EQ(start_daemon(another.hatch(), daemon.file(), &said), EIO);
	EXPECT_NE(said.find("living server"), said.npos) << said;
	EXPECT_EQ(start_daemon(daemon.place.write("text", "x"), daemon.file(), &said), EIO);
	EXPECT_NE(said.find("something else"), said.npos) << said;
	EXPECT_EQ(start_daemon(daemon.place.directory(), daemon.file(), &said), EIO);
	// A relative path needs a working directory.
	const Scratch place;
	const std::string name = place.directory().substr(place.directory().rfind('/') + 1);
	EXPECT_EQ(run_program({"/bin/sh", "-c",
				  "mkdir " + place.path("gone") + "; cd " + place.path("gone") + "; rmdir " +
				      place.path("gone") + "; exec " + daemon_program + " -d " + name + ".hatch -r " +
				      name + ".db"},
		      {}, &said),
	    EIO);
	EXPECT_NE(said.find("working directory"), said.npos) << said;
	EXPECT_NE(access(("/" + name + ".db").c_str(), F_OK), 0);
	EXPECT_EQ(server_of(daemon.hatch()), daemon.pid());
	EXPECT_EQ(server_of(another.hatch()), another.pid());
	RepositoryClient client(daemon.hatch());
	EXPECT_EQ(client.add("g"), RPY_ERROR_NONE);
}

// A new one may serve in a moment.
TEST(ConfigdHolder, AnOldDaemonThatServesNotHereGivesWay)
{
	Repository daemon, relative;
	ASSERT_EQ(daemon.start(), 0);
	const std::string place = relative.place.directory();
	ASSERT_EQ(run_program({"/bin/sh", "-c",
		      "mkdir " + place + "/in; cd " + place + "/in; exec " + daemon_program +
			  " -d hatch -r ../repository.db"}),
	    0);
	const pid_t hidden = daemon.pid(), elsewhere = server_of(relative.hatch("in/hatch"));
	ASSERT_NE(elsewhere, 0);
	ASSERT_EQ(unlink(daemon.hatch().c_str()), 0);
	sleep(11);
	EXPECT_EQ(daemon.start(), 0);
	EXPECT_TRUE(goes(hidden));
	EXPECT_EQ(relative.start(), 0);
	EXPECT_TRUE(goes(elsewhere));
}

TEST(ConfigdHolder, ASecondStartWaitsUntilTheFirstAnswers)
{
	Repository daemon;
	ASSERT_EQ(daemon.start(), 0);
	ASSERT_EQ(kill(daemon.pid(), SIGSTOP), 0);
	for (const char *foreground : {"-f", static_cast<const char *>(nullptr)}) { // serves itself, or has it done
		const std::string hatch = daemon.hatch(), file = daemon.file();
		Process first([&] {
			return execl(daemon_program, daemon_program, "-d", hatch.c_str(), "-r", file.c_str(),
			    foreground, nullptr);
		});
		const std::string pid = std::to_string(first.pid()), tasks = "/proc/" + pid + "/task/" + pid;
		usleep(500000);
		const pid_t serving = foreground != nullptr ? 0 : atoi(file_text(tasks + "/children").c_str());
		ASSERT_EQ(kill(first.pid(), SIGTERM), 0);
		EXPECT_EQ(first.wait(), 1000 + SIGTERM);
		EXPECT_TRUE(serving == 0 || goes(serving));
	}
	std::atomic<int> status{-1};
	std::thread second([&] { status = start_daemon(daemon.hatch(), daemon.file()); });
	usleep(500000);
	EXPECT_EQ(status, -1) << "it said so of a daemon that doesn't answer";
	ASSERT_EQ(kill(daemon.pid(), SIGCONT), 0);
	second.join();
	EXPECT_EQ(status, 0);
	EXPECT_EQ(server_of(daemon.hatch()), daemon.pid());
}

// What a file is to the one who mistyped a path: its content and its mode.
std::string state_of(const std::string &file)
{
	struct stat there = {};
	(void) stat(file.c_str(), &there);
	return std::to_string(there.st_mode & 07777) + file_text(file);
}

TEST(ConfigdHolder, AFileOfSomethingElseIsRefusedAsItIs)
{
	Repository daemon;
	const std::string file = daemon.file(), journal = file + "-journal";
	const std::string text(5000, 'x'), database = "SQLite format 3" + std::string(4081, '\0');
	std::string said;
	for (const std::string &content : {std::string("x"), text, database, std::string(200, '\0')}) {
		daemon.place.write("repository.db", content);
		ASSERT_EQ(chmod(file.c_str(), 0644), 0);
		const std::string before = state_of(file);
		EXPECT_EQ(start_daemon(daemon.hatch(), file, &said), EIO);
		EXPECT_NE(said.find("not a repository"), said.npos) << said;
		EXPECT_TRUE(state_of(file) == before) << content.substr(0, 16);
	}
	daemon.place.write("repository.db", "");
	const std::string notes = state_of(daemon.place.write("repository.db-journal", text));
	EXPECT_EQ(start_daemon(daemon.hatch(), file, &said), EINVAL);
	EXPECT_TRUE(state_of(journal) == notes);
	ASSERT_EQ(unlink(journal.c_str()), 0);
	const std::string other = daemon.place.write("text", text), before = state_of(other);
	EXPECT_EQ(start_daemon(other, file, &said), EIO);
	EXPECT_TRUE(state_of(other) == before);
}

// The first commit of all, cut short: the journal says that the file was empty before it.
TEST(ConfigdHolder, AStoreThatWasHalfMadeIsTakenBackAndMade)
{
	Repository daemon;
	daemon.place.write("repository.db", std::string(8192, '\0'));
	std::string journal = "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7" + std::string(504, '\0');
	journal[22] = 2;  // sectors of 512 bytes
	journal[26] = 16; // pages of 4096
	daemon.place.write("repository.db-journal", journal);
	EXPECT_EQ(daemon.start(), 0);
}

} // namespace
