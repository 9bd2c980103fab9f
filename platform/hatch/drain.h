// An orderly end of a hatch: clients in the middle of their work are served on.
#ifndef MERIDON_HATCH_DRAIN_H
#define MERIDON_HATCH_DRAIN_H

namespace hatch {

// Gives up a hatch's sign of life: new clients find no server, and another server may attach. Then waits, at most `seconds`,
// until each client has hung up or has made no call for two seconds, so that an operation of several calls isn't cut off in
// the middle. Calls are served meanwhile, and until hatch_revoke().
void drain(int fd, int seconds);

} // namespace hatch

#endif
