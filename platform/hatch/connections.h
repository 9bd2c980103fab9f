// The connections that a process keeps to the hatches it calls, and what it knows of their servers.
#ifndef MERIDON_HATCH_CONNECTIONS_H
#define MERIDON_HATCH_CONNECTIONS_H

#include <sys/types.h>

#include "base/guards.h"
#include "hatch/mapping.h"
#include "hatch/record.h"
#include "hatch/road.h"

namespace hatch {

inline constexpr size_t kept_max = 32;

// One connection: used by one call at a time, and by this process only.
struct Connection {
	Connection *next; // among those in use
	Connection *prev;
	Fd socket;
	Attachment attachment;
	uid_t user;      // its maker's real one: it is theirs for ever
	size_t piece;    // payload that a message of ours can have
	int seconds;     // how long a step may wait for the other end; 0 without end
	Mapping landing; // where replies are received that the caller has no room for; made when first needed
};

// Gives an idle connection to an attachment, or NULL. It is the caller's until it is kept or dropped. Those that others made are
// closed: the process, or a thread of it, has changed its user since.
Connection *take_connection(const Attachment &attachment, uid_t user);
// Makes one. Errors: as connect_road().
int make_connection(int fd, const Attachment &attachment, uid_t user, int seconds, Connection **out);
// Puts a connection back for the next call. The one that was idle for longest goes when there are too many.
void keep_connection(Connection *connection);
// Closes a connection.
void drop_connection(Connection *connection);
// Closes the idle connections to an attachment.
void forget_connections(const Attachment &attachment);

// The server of an attachment that was connected to before. False if that isn't known (any more).
bool known_server(const Attachment &attachment, pid_t *server);

} // namespace hatch

#endif
