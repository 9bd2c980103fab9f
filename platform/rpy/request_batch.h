// Request batching: reads of single groups by many threads over one handle. Most of the cost of a call is waking the daemon and
// being woken by it, so a few threads have a call each, and those that come meanwhile wait and share the next one.
//
// A thread that takes a turn makes its own call. When it ends, the turn goes to the waiter that came first: the leader, which
// sends its own read along with all that wait and fit. Nobody waits for the daemon longer than the leader's call may take.
#ifndef MERIDON_RPY_REQUEST_BATCH_H
#define MERIDON_RPY_REQUEST_BATCH_H

#include <meridon/rpy.h>

namespace rpy {

class Call;

// As Call::send(); a batchable request (rpy/requests.h) may share its call with those of other threads.
bool send_in_batch(rpy_handle_t *handle, Call *call);

} // namespace rpy

#endif
