// The file of rights, as seen from outside: whether it counts.
#ifndef TOOLS_SHARED_RIGHTS_H
#define TOOLS_SHARED_RIGHTS_H

#include <string>

#include <sys/types.h>

// Why a server of this user doesn't go by the file of rights, as the end of a sentence about it; empty if it does.
std::string rights_fault(uid_t server);

#endif
