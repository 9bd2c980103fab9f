// The connections that a process keeps to the hatches it calls, and what it knows of their servers.
#ifndef MERIDON_HATCH_CONNECTIONS_H
#define MERIDON_HATCH_CONNECTIONS_H

#include <sys/types.h>

#include "base/guards.h"
#include "base/row.h"
#include "hatch/connect.h"
#include "hatch/mapping.h"
#include "hatch/record.h"

namespace hatch {

inline constexpr size_t kept_max = 32;

// One connection: used by one call at a time, and by this process only.
struct Connection {
	Links<Connection> used; // among those in use
	Fd socket;
	Attachment attachment;
	uid_t user;    // its maker's real one, which stays
	size_t piece;  // the payload that one of our messages can have
	int seconds;   // the timeout that its socket has; 0: none
	Mapping spill; // receives what the caller's buffer has no room for; made when first needed
};

// Gives the caller an idle connection to an attachment, until it is kept or dropped. NULL: none. Connections that were made
// as another user are closed: this process, or a thread of it, has changed its user since.
Connection *take_connection(const Attachment &attachment, uid_t user);
// Makes one. Errors: as connect_to_server().
int make_connection(int fd, const Attachment &attachment, uid_t user, int seconds, Connection **out);
// Puts a connection back for the next call. If there are too many, the one that was idle for longest is closed.
void keep_connection(Connection *connection);
// Closes a connection.
void drop_connection(Connection *connection);
// Closes the idle connections to an attachment.
void forget_connections(const Attachment &attachment);

// The server of an attachment that was connected to before. False if it isn't known, or not any more.
bool known_server(const Attachment &attachment, pid_t *server);

} // namespace hatch

#endif
