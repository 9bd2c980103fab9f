// The way from a descriptor of an attached file to the socket beside it.
#ifndef MERIDON_HATCH_ROAD_H
#define MERIDON_HATCH_ROAD_H

#include <sys/types.h>

#include "base/guards.h"
#include "hatch/record.h"

namespace hatch {

// How long a step may wait for the other end, in seconds.
inline constexpr int without_end = 0;
inline constexpr int not_at_all = -1;

// Connects to the server of an attachment that look_at() found behind `fd`. A server that has more connections to accept
// than fit gives EAGAIN when the time is over.
// Errors: 0, or an errno value: EINTR (of a wait that a signal or a stop ended: try again), ENOMEM, EMFILE, ENFILE, EAGAIN
//         as they are; anything else on the way is EBADF.
int connect_road(int fd, const Attachment &attachment, int seconds, Fd *out, pid_t *server);

} // namespace hatch

#endif
