// Peer credentials: three ids and how to ask for them.
#include "peercred/peercred.h"

#include <cerrno>
#include <cstdlib>

namespace {

template <typename Id>
Id id_of(const peercred_t *cred, Id ucred::*field)
{
	if (cred != nullptr)
		return cred->ids.*field;
	errno = EINVAL;
	return static_cast<Id>(-1);
}

} // namespace

peercred_t *peercred_make(const struct ucred &ids)
{
	auto *cred = static_cast<peercred_t *>(malloc(sizeof(peercred_t)));
	if (cred != nullptr)
		cred->ids = ids;
	return cred;
}

uid_t peercred_getruid(const peercred_t *cred)
{
	return id_of(cred, &ucred::uid);
}

gid_t peercred_getrgid(const peercred_t *cred)
{
	return id_of(cred, &ucred::gid);
}

pid_t peercred_getpid(const peercred_t *cred)
{
	return id_of(cred, &ucred::pid);
}

void peercred_free(peercred_t *cred)
{
	free(cred);
}
