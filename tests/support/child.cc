#include "child.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/wait.h>

// A broken fixture ends the program: what a test would say without it is worth nothing.
static void must(bool ok, const char *what)
{
	if (ok)
		return;
	perror(what);
	abort();
}

int in_child(const std::function<int()> &body)
{
	fflush(nullptr);
	struct sigaction usual = {}, before = {};
	usual.sa_handler = SIG_DFL;
	must(sigaction(SIGCHLD, &usual, &before) == 0, "sigaction");
	pid_t pid = fork();
	must(pid >= 0, "fork");
	if (pid == 0) {
		int status = body();
		fflush(nullptr);
		_exit(status);
	}
	int status;
	must(waitpid(pid, &status, 0) == pid, "waitpid");
	must(sigaction(SIGCHLD, &before, nullptr) == 0, "sigaction");
	return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

StayingChild::StayingChild(const std::function<bool()> &begin)
{
	int ready[2];
	must(pipe2(ready, O_CLOEXEC) == 0, "pipe");
	pid_ = fork();
	must(pid_ >= 0, "fork");
	char byte = 0;
	if (pid_ == 0) {
		if (!begin() || prctl(PR_SET_PDEATHSIG, SIGKILL) == -1 || write(ready[1], &byte, 1) != 1)
			_exit(1);
		for (;;)
			pause();
	}
	close(ready[1]);
	if (read(ready[0], &byte, 1) != 1)
		end();
	close(ready[0]);
}

void StayingChild::end()
{
	if (pid_ == 0)
		return;
	kill(pid_, SIGKILL);
	(void) waitpid(pid_, nullptr, 0);
	pid_ = 0;
}

int as_user(uid_t user, const std::function<int()> &body)
{
	return in_child([&] {
		must(setgroups(0, nullptr) == 0 && setresgid(user, user, user) == 0 && setresuid(user, user, user) == 0,
		    "another user");
		return body();
	});
}
