// The two calls of libaudit that are used. The library is loaded when the first record is to be written, so that a host
// without it lacks the records and nothing else.
#ifndef MERIDON_TRAIL_LIBAUDIT_H
#define MERIDON_TRAIL_LIBAUDIT_H

#include <libaudit.h>

struct Libaudit {
	decltype(&audit_open) open;
	decltype(&audit_log_user_message) log_user_message;
};

// The loaded library, which stays; NULL if it can't be had now. A failure isn't kept: what a process lacks at its first
// record, a descriptor for instance, mustn't cost it all the later ones.
const Libaudit *libaudit();

#endif
