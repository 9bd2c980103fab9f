// From a descriptor of an attached file to a connection with its server.
#ifndef MERIDON_HATCH_CONNECT_H
#define MERIDON_HATCH_CONNECT_H

#include <sys/types.h>

#include "base/guards.h"
#include "hatch/record.h"

namespace hatch {

// How long connecting may wait for the server, in seconds; or one of these.
inline constexpr int without_end = 0;
inline constexpr int not_at_all = -1;

// Connects to the server of an attachment that read_state() found at `fd`, and names the server's process.
// Errors: 0, or an errno value: EAGAIN if the server's backlog stayed full all the time; EINTR if a signal or a stop ended
//         the wait (try again); ENOMEM, EMFILE, ENFILE; EBADF for anything else.
int connect_to_server(int fd, const Attachment &attachment, int seconds, Fd *out, pid_t *server);

} // namespace hatch

#endif
