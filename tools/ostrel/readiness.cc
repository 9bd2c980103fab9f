// The socket protocol of the service manager: one datagram for each state.
#include "readiness.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

#include <base/guards.h>
#include <fmt/format.h>

#include "failure.h"

namespace {

// Returns an errno value. A name that begins with @ is in the abstract name space.
int send_state(const char *name, const char *state)
{
	sockaddr_un address = {};
	address.sun_family = AF_UNIX;
	size_t length = std::strlen(name);
	if (length >= sizeof(address.sun_path) || (name[0] != '/' && name[0] != '@'))
		return EINVAL;
	std::memcpy(address.sun_path, name, length);
	if (name[0] == '@')
		address.sun_path[0] = '\0';
	const Fd out(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
	if (!out)
		return errno;
	auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
	ssize_t sent = sendto(
	    out.get(), state, std::strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address), size);
	return sent < 0 ? errno : 0;
}

} // namespace

void tell_manager(const char *state)
{
	const char *name = std::getenv("NOTIFY_SOCKET");
	if (name == nullptr || name[0] == '\0')
		return;
	if (int error = send_state(name, state); error != 0)
		warn(Failure(
		    Exit::done, fmt::format("the service manager can't be told {}: {}", state, std::strerror(error))));
}
