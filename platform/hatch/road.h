// The way from a descriptor of an attached file to the socket beside it.
#ifndef MERIDON_HATCH_ROAD_H
#define MERIDON_HATCH_ROAD_H

#include <sys/types.h>

#include "base/guards.h"
#include "hatch/record.h"

namespace hatch {

enum class Waiting { yes, no };

// Connects to the server of an attachment that look_at() found behind `fd`. Without waiting, a server that has more
// connections to accept than fit gives EAGAIN.
// Errors: 0, or an errno value: EINTR, ENOMEM, EMFILE, ENFILE, EAGAIN as they are; anything else on the way is EBADF.
int connect_road(int fd, const Attachment &attachment, Waiting waiting, Fd *out, pid_t *server);

} // namespace hatch

#endif
