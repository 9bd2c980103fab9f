// Covenants and the fork that honours them.
#include <meridon/covenant.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "base/guards.h"
#include "scratch.h"
#include "syscall_fault.h"

namespace {

class Covenant : public ::testing::Test {
protected:
	Fd tmpl{covenant_open(COVENANT_PROCESS_TEMPLATE, O_RDWR)};

	void SetUp() override
	{
		ASSERT_TRUE(tmpl);
		ASSERT_EQ(cv_pr_tmpl_set_param(tmpl.get(), COVENANT_PR_PGRPONLY), 0);
	}
	void TearDown() override { (void) cv_tmpl_clear(tmpl.get()); }
};

// The exit status of a child, which a plain wait finds or not.
int status_of(pid_t pid, int options)
{
	siginfo_t info = {};
	if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | options) == -1)
		return -errno;
	return info.si_status;
}

// A child by one of the two forks: whether it had a process group of its own.
struct Child {
	pid_t pid;
	bool has_group;

	explicit Child(pid_t (*fork_it)()) : pid(fork_it())
	{
		if (pid == 0)
			_exit(getpgrp() == getpid() ? 1 : 0);
		has_group = status_of(pid, fork_it == fork ? 0 : __WALL) == 1;
	}
};

} // namespace

TEST_F(Covenant, ATemplateTakesOnlyWhatIsSupported)
{
	EXPECT_EQ(fcntl(tmpl.get(), F_GETFD), FD_CLOEXEC);
	EXPECT_EQ(cv_tmpl_set_critical(tmpl.get(), 0), 0);
	EXPECT_EQ(cv_tmpl_set_critical(tmpl.get(), 1), EINVAL);
	EXPECT_EQ(cv_tmpl_set_informative(tmpl.get(), 0x20), EINVAL);
	EXPECT_EQ(cv_pr_tmpl_set_fatal(tmpl.get(), COVENANT_EV_HWERR), 0);
	EXPECT_EQ(cv_pr_tmpl_set_fatal(tmpl.get(), COVENANT_EV_HWERR | 1), EINVAL);
	EXPECT_EQ(cv_pr_tmpl_set_param(tmpl.get(), 8), EINVAL);
	EXPECT_EQ(cv_tmpl_activate(-1), EBADF);
	EXPECT_EQ(cv_tmpl_clear(tmpl.get()), EINVAL); // nothing is active

	Scratch scratch;
	const std::string text(100, 'x'), file = scratch.write("f", text), fifo = scratch.path("fifo");
	ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
	for (const std::string &path : {file, fifo, std::string("/")}) {
		Fd other(open(path.c_str(), path == "/" ? O_RDONLY : O_RDWR));
		EXPECT_EQ(cv_tmpl_set_critical(other.get(), 0), EINVAL) << path;
		EXPECT_EQ(cv_tmpl_activate(other.get()), EINVAL) << path;
	}
	EXPECT_EQ(file_text(file), text);
}

TEST_F(Covenant, OnlyTheTemplateIsOpenedAndNoFailureReadsAsAMissingFile)
{
	for (const char *path : {"/system/covenant/other", "", "/etc/passwd"}) {
		EXPECT_EQ(covenant_open(path, O_RDWR), -1);
		EXPECT_EQ(errno, EINVAL) << path;
	}
	EXPECT_EQ(covenant_open(COVENANT_PROCESS_TEMPLATE, O_RDONLY), -1);
	EXPECT_EQ(errno, EINVAL);
	FailNth fault(FailNth::Memfd, 1, ENFILE);
	EXPECT_EQ(covenant_open(COVENANT_PROCESS_TEMPLATE, O_RDWR), -1);
	EXPECT_EQ(errno, ENFILE);
}

// The last covenant of this thread, 0 without one.
static covenant_id_t latest()
{
	covenant_id_t id = 0;
	errno = 0;
	const int result = covenant_latest(COVENANT_TYPE_PROCESS, &id);
	EXPECT_EQ(result == 0 ? 0 : ESRCH, errno);
	return id;
}

TEST_F(Covenant, OnlyTheForksOfTheActivatingThreadMakeOne)
{
	ASSERT_EQ(cv_tmpl_activate(tmpl.get()), 0);
	std::thread([] {
		EXPECT_FALSE(Child(fork).has_group);
		EXPECT_EQ(latest(), 0);
	}).join();

	const Child child(fork);
	EXPECT_TRUE(child.has_group);
	covenant_id_t id = latest();
	EXPECT_EQ(id, child.pid);
	EXPECT_EQ(covenant_abandon_id(id + 1), -1);
	EXPECT_EQ(covenant_abandon_id(id), 0);
	EXPECT_EQ(latest(), 0);
	EXPECT_EQ(covenant_latest(2, &id), -1);
	EXPECT_EQ(errno, EINVAL);

	ASSERT_EQ(cv_tmpl_clear(tmpl.get()), 0);
	EXPECT_FALSE(Child(fork).has_group);
	EXPECT_EQ(latest(), 0);
}

TEST_F(Covenant, ItsForkHonoursTheTemplateAsItWasWhenActivated)
{
	ASSERT_EQ(cv_tmpl_activate(tmpl.get()), 0);
	tmpl.reset(); // a copy is active: nothing is read from what may be another file by now
	const Child child(covenant_fork);
	EXPECT_TRUE(child.has_group);
	EXPECT_EQ(latest(), child.pid);

	Fd without(covenant_open(COVENANT_PROCESS_TEMPLATE, O_RDWR));
	ASSERT_EQ(cv_tmpl_activate(without.get()), 0);
	EXPECT_FALSE(Child(covenant_fork).has_group);
	EXPECT_EQ(latest(), 0);
	EXPECT_EQ(cv_tmpl_clear(without.get()), 0);
}

TEST_F(Covenant, ItsForkIsInvisibleToOthersAndKeepsTheSignalMask)
{
	sigset_t before, after;
	sigset_t usr1;
	sigemptyset(&usr1);
	sigaddset(&usr1, SIGUSR1);
	ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &usr1, &before), 0);
	pid_t pid = covenant_fork();
	if (pid == 0) {
		sigset_t mask;
		sigprocmask(SIG_BLOCK, nullptr, &mask);
		_exit(sigismember(&mask, SIGUSR1) == 1 && sigismember(&mask, SIGTERM) == 0 ? 9 : 0);
	}
	ASSERT_GT(pid, 0);
	EXPECT_EQ(status_of(pid, 0), -ECHILD);
	EXPECT_EQ(waitpid(-1, nullptr, 0), -1);
	EXPECT_EQ(status_of(pid, __WALL), 9);
	ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, &after), 0);
	EXPECT_EQ(sigismember(&after, SIGUSR1), 1);
	EXPECT_EQ(sigismember(&after, SIGTERM), 0);

	FailNth fault(FailNth::Fork, 1, EAGAIN);
	EXPECT_EQ(covenant_fork(), -1);
	EXPECT_EQ(errno, EAGAIN);
	ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &after), 0);
	EXPECT_EQ(sigismember(&after, SIGTERM), 0);
}

TEST_F(Covenant, WhatKillsTheParentsGroupDoesNotReachTheChild)
{
	EXPECT_EQ(in_child([&] { // a group to kill that isn't the test's own
		setpgid(0, 0);
		signal(SIGTERM, SIG_IGN);
		(void) cv_tmpl_activate(tmpl.get());
		pid_t child = covenant_fork();
		if (child == 0) {
			signal(SIGTERM, SIG_DFL);
			usleep(100000);
			_exit(3);
		}
		kill(0, SIGTERM);
		return status_of(child, __WALL);
	}),
	    3);
}
