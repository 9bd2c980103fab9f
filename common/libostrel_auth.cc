// Authorization: whether the caller of a served database may read or update it. The platform is asked three things:
// who this caller is, what the user is called, and whether the user holds the right.
#include "libostrel_auth.h"

#include <cerrno>

#include "base/users.h"
#include "libostrel_error.h"
#include "libostrel_handle.h"

namespace {

constexpr char elsewhere[] = "ostrel.elsewhere";

// A failure that names no error, or one that speaks of a thing not found, mustn't read as success, or as something about
// an object: an unknown user holds no right.
ostrel_error_t refusal_of(int error)
{
	const ostrel_error_t result = ostrel_errno2error(error);
	return result == OSTREL_SUCCESS || result == OSTREL_NOT_FOUND ? OSTREL_EPERM : result;
}

ostrel_error_t check_auth(const char *auth, const peercred_t *cred)
{
	if (*auth == '\0')
		return OSTREL_SUCCESS;
	const uid_t uid = peercred_getruid(cred);
	if (uid == static_cast<uid_t>(-1)) // the one that is none: ids have no sign
		return refusal_of(errno);

	UserEntry user;
	const int error = user.find(getpwuid_r, uid);
	if (!user)
		return refusal_of(error);
	return chkrightattr_peercred(auth, user->pw_name, cred) == 1 ? OSTREL_SUCCESS : OSTREL_EPERM;
}

} // namespace

ostrel_error_t ostrel_db_check_read_auth(ostrel_db_t db, const peercred_t *cred)
{
	return db == nullptr ? OSTREL_SUCCESS : check_auth(ostrel_db_get_read_auth(db), cred);
}

ostrel_error_t ostrel_db_check_write_auth(ostrel_db_t db, const peercred_t *cred)
{
	return db == nullptr ? OSTREL_SUCCESS : check_auth(ostrel_db_get_write_auth(db), cred);
}

ostrel_error_t ostrel_check_elsewhere_auth(const peercred_t *cred)
{
	return check_auth(elsewhere, cred);
}
