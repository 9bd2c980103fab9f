// What a credential holds; made by the hatch layer from what the kernel attached to a message.
#ifndef MERIDON_PEERCRED_PEERCRED_H
#define MERIDON_PEERCRED_PEERCRED_H

#include <sys/socket.h>

#include <meridon/peercred.h>

struct peercred {
	struct ucred ids;
};

// A new credential, or NULL if memory ran out. Freed with peercred_free().
peercred_t *peercred_make(const struct ucred &ids);

#endif
