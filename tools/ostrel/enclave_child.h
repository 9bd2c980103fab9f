// Work on files of another enclave: a child process enters it, does the work, and ends.
#ifndef OSTREL_TOOL_ENCLAVE_CHILD_H
#define OSTREL_TOOL_ENCLAVE_CHILD_H

#include <cerrno>
#include <sys/wait.h>
#include <unistd.h>

#include <meridon/enclave.h>

// Runs `work`, which returns 0 or an errno value, inside the enclave, and returns its result. The child makes system
// calls only.
template <typename Work>
int in_enclave(enclaveid_t enclave, const Work &work)
{
	pid_t child = fork();
	if (child < 0)
		return errno;
	if (child == 0)
		_exit(enclave_enter(enclave) != 0 ? errno : work());
	int status = 0;
	while (waitpid(child, &status, 0) < 0)
		if (errno != EINTR)
			return errno;
	return WIFEXITED(status) ? WEXITSTATUS(status) : EINTR;
}

#endif
