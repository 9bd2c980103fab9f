// Whether servers accept the file of rights, judged by its owner, mode and size.
#ifndef TOOLS_SHARED_RIGHTS_H
#define TOOLS_SHARED_RIGHTS_H

#include <string>

#include <sys/types.h>

// Why a server of this user ignores the file of rights, as the end of a sentence about it; empty if it doesn't.
std::string rights_fault(uid_t server);

#endif
