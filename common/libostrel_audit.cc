// Audit records of updates: one for each attempt, in the name of the user who asked for it.
#include "libostrel_audit.h"

#include <cerrno>
#include <unistd.h>

#include <meridon/elevate.h>
#include <meridon/hatch.h>
#include <meridon/trail.h>

#include "base/guards.h"
#include "libostrel_handle.h"
#include "libostrel_idlist.h"

namespace {

// What a record says of an update that was refused for want of permission; all other failures are alike.
constexpr int retval_no_permission = 1003;
constexpr int retval_failure = -1;

int retval_of(ostrel_error_t err)
{
	if (err == OSTREL_SUCCESS)
		return 0;
	return err == OSTREL_EPERM ? retval_no_permission : retval_failure;
}

// The privilege to write records, as long as the object lives. What happens to errno meanwhile isn't the update's.
class AuditPrivilege {
public:
	AuditPrivilege() : errno_(errno), held_(__elevate_if_available("proc_audit", &state_) != 0) {}
	~AuditPrivilege()
	{
		__elevate_restore(state_);
		errno = errno_;
	}
	AuditPrivilege(const AuditPrivilege &) = delete;
	AuditPrivilege &operator=(const AuditPrivilege &) = delete;
	explicit operator bool() const { return held_; }

private:
	int errno_;
	elevate_state_t state_;
	bool held_;
};

void end_session(trl_session_data_t *session)
{
	(void) trl_end_session(session);
}

using PeerCred = Handle<peercred_t, peercred_free>;
using Session = Handle<trl_session_data_t, end_session>;
using Event = Handle<trl_event_data_t, trl_free_event>;

struct Ids {
	uid_t uid;
	gid_t gid;
};

// The user who asked for the update: the caller of the hatch call that this thread serves; outside of one, this process.
bool find_caller(Ids *caller)
{
	PeerCred cred;
	if (hatch_peercred(cred.out()) == 0)
		*caller = {peercred_getruid(cred.get()), peercred_getrgid(cred.get())};
	else if (errno == EINVAL)
		*caller = {getuid(), getgid()};
	else
		return false;
	return true;
}

// The session of a caller; empty if it can't be had.
Session begin_session()
{
	Session session;
	Ids caller;
	if (trl_start_session(session.out(), nullptr, 0) != 0)
		return {};
	if (!find_caller(&caller) ||
	    trl_set_user(session.get(), caller.uid, caller.gid, caller.uid, caller.gid, nullptr, TRL_NEW) != 0)
		return {};
	return session;
}

} // namespace

void ostrel_audit(ostrel_db_t db, unsigned short event, attrlist_t *idl, ostrel_error_t err)
{
	if (db == nullptr || db->db_name[0] == '\0')
		return;
	AuditPrivilege privilege;
	if (!privilege)
		return;
	Session session = begin_session();
	if (!session)
		return;
	Event data(trl_alloc_event(session.get(), event));
	if (!data)
		return;
	char ids[OSTREL_IDSTR_SIZE];
	if (ostrel_idlist2idstr(idl, ids) != OSTREL_SUCCESS)
		return;
	trl_object_t &object = event == TRL_ostrel_remove ? data->trl_ostrel_remove : data->trl_ostrel_update;
	object = {db->db_name, ids};
	(void) trl_put_event(data.get(), err == OSTREL_SUCCESS ? TRL_SUCCESS : TRL_FAILURE, retval_of(err));
}
