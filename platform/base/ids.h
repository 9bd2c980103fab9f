// Who the calling thread is to the receiver of its messages: its real user and group.
#ifndef MERIDON_BASE_IDS_H
#define MERIDON_BASE_IDS_H

#include <sys/types.h>
#include <unistd.h>

struct Ids {
	uid_t user;
	gid_t group;

	bool operator==(const Ids &) const = default;
	static Ids own() { return {getuid(), getgid()}; }
};

#endif
