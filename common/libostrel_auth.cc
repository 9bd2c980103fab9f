// Authorization: whether the caller of a served database may read or update it. The platform is asked three things:
// who this caller is, what the user is called, and whether the user holds the right.
#include "libostrel_auth.h"

#include <cerrno>
#include <pwd.h>

#include "base/guards.h"
#include "libostrel_error.h"
#include "libostrel_handle.h"

namespace {

constexpr size_t entry_first = 570; // bytes of an entry of the user database; doubled as long as it asks for more
constexpr size_t entry_max = 1U << 20;
constexpr char elsewhere[] = "ostrel.elsewhere";

// A failure that names no error, or one that speaks of a thing not found, mustn't read as success, or as something about
// an object: an unknown user holds no right.
ostrel_error_t refusal_of(int error)
{
	const ostrel_error_t result = ostrel_errno2error(error);
	return result == OSTREL_SUCCESS || result == OSTREL_NOT_FOUND ? OSTREL_EPERM : result;
}

ostrel_error_t check_user(const char *auth, const struct passwd *entry, const peercred_t *cred)
{
	return chkrightattr_peercred(auth, entry->pw_name, cred) == 1 ? OSTREL_SUCCESS : OSTREL_EPERM;
}

ostrel_error_t check_auth(const char *auth, const peercred_t *cred)
{
	if (*auth == '\0')
		return OSTREL_SUCCESS;
	const uid_t uid = peercred_getruid(cred);
	if (uid == static_cast<uid_t>(-1)) // the one that is none: ids have no sign
		return refusal_of(errno);

	char first[entry_first];
	Heap<char> grown;
	struct passwd entry;
	struct passwd *found = nullptr;
	// Its own result counts: it leaves errno alone.
	int error = getpwuid_r(uid, &entry, first, sizeof(first), &found);
	for (size_t size = 2 * entry_first; error == ERANGE && size <= entry_max; size *= 2) {
		grown.reset(static_cast<char *>(malloc(size)));
		if (!grown)
			return OSTREL_NO_MEMORY;
		error = getpwuid_r(uid, &entry, grown.get(), size, &found);
	}
	return found == nullptr ? refusal_of(error) : check_user(auth, found, cred);
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
