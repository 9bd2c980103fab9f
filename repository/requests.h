// What the daemon answers. A request is untrusted bytes; whatever it holds, the answer is one reply.
//
// requests_read.cc, requests_list.cc and requests_update.cc take the requests apart and fill the replies; requests.cc has the
// table of these handlers, and finds a request's. Which request needs which right stands in rpy/requests.h.
#ifndef REPOSITORY_REQUESTS_H
#define REPOSITORY_REQUESTS_H

#include <string_view>

#include "daemon.h"
#include "rpy/wire.h"

namespace repository {

// Answers one request. `modify` and `read` tell whether the caller may; they are asked when it matters.
void answer(Daemon *daemon, std::string_view request, bool (*read)(), bool (*modify)(), rpy::Writer *reply);

// The same for the call that the calling thread serves, which gets the answer. If it comes back, the reply couldn't be sent.
void serve_call(Daemon *daemon, std::string_view request, bool (*read)(), bool (*modify)());

} // namespace repository

#endif
