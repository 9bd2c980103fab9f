// What the benchmarks of several processes share: a place on one CPU, programs and servers of the run, and the bare round trip
// that none of them can do without.
#ifndef BENCH_PROCESSES_H
#define BENCH_PROCESSES_H

#include <csignal>
#include <cstdlib>
#include <sched.h>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace processes {

inline void must(bool right)
{
	if (!right)
		abort();
}

inline void stay_on_one_cpu()
{
	cpu_set_t one;
	CPU_ZERO(&one);
	CPU_SET(0, &one);
	must(sched_setaffinity(0, sizeof(one), &one) == 0);
}

// Runs a program to its end, and gives its exit status.
inline int run(std::vector<std::string> words)
{
	std::vector<char *> arguments;
	for (std::string &word : words)
		arguments.push_back(word.data());
	arguments.push_back(nullptr);
	pid_t pid;
	int status;
	must(posix_spawn(&pid, arguments[0], nullptr, nullptr, arguments.data(), environ) == 0);
	must(waitpid(pid, &status, 0) == pid);
	return WEXITSTATUS(status);
}

// A process that answers each message with so many bytes. Made before there are threads.
class Echo {
public:
	explicit Echo(size_t reply_size)
	{
		int ends[2];
		must(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0);
		pid_ = fork();
		must(pid_ >= 0);
		char room[4096] = "";
		while (pid_ == 0) {
			if (recv(ends[1], room, sizeof(room), 0) <= 0)
				_exit(0);
			(void) send(ends[1], room, reply_size, 0);
		}
		fd_ = ends[0];
	}
	Echo(const Echo &) = delete;
	Echo &operator=(const Echo &) = delete;
	~Echo()
	{
		(void) kill(pid_, SIGKILL);
		(void) waitpid(pid_, nullptr, 0);
	}
	void trip(size_t size) const
	{
		char room[4096] = "";
		must(send(fd_, room, size, 0) > 0 && recv(fd_, room, sizeof(room), 0) > 0);
	}

private:
	pid_t pid_;
	int fd_ = -1;
};

} // namespace processes

#endif
