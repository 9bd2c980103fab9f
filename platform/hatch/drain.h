// The end of a hatch that goes on for those who are at work.
#ifndef MERIDON_HATCH_DRAIN_H
#define MERIDON_HATCH_DRAIN_H

namespace hatch {

// Gives up a hatch's sign of life: whoever looks for the server finds none, and another one may take its place. Then waits, at
// most `seconds`, until each client has hung up, or has had no call for two: an operation of several calls isn't cut
// off in the middle. Calls are served meanwhile, and until hatch_revoke().
void drain(int fd, int seconds);

} // namespace hatch

#endif
