// Capabilities of a thread.
#include "capabilities.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "hatch_peer.h"

void keep_audit_write(CapSets sets)
{
	__user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
	__user_cap_data_struct words[_LINUX_CAPABILITY_U32S_3] = {};
	if (sets == CapSets::Permitted)
		words[CAP_TO_INDEX(CAP_AUDIT_WRITE)].permitted = CAP_TO_MASK(CAP_AUDIT_WRITE);
	const int kept = prctl(PR_SET_KEEPCAPS, 1);
	become(1000, 1000);
	if (kept != 0 || syscall(SYS_capset, &header, words) != 0) {
		perror("capset");
		abort();
	}
}

std::string capability_sets()
{
	std::ifstream status("/proc/thread-self/status");
	std::string sets;
	for (std::string line; std::getline(status, line);) {
		if (line.compare(0, 3, "Cap") == 0)
			sets += line + "\n";
	}
	return sets;
}

bool has_audit_write()
{
	__user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
	__user_cap_data_struct words[_LINUX_CAPABILITY_U32S_3] = {};
	return syscall(SYS_capget, &header, words) == 0 &&
	       (words[CAP_TO_INDEX(CAP_AUDIT_WRITE)].effective & CAP_TO_MASK(CAP_AUDIT_WRITE)) != 0;
}
