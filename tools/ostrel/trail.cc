#include "trail.h"

#include <memory>
#include <unistd.h>

#include <libostrel.h>
#include <meridon/elevate.h>
#include <meridon/trail.h>

namespace {

// What the library records of an update without permission.
constexpr int retval_no_permission = 1003;

class Privilege {
public:
	Privilege() : held_(__elevate_if_available("proc_audit", &state_) != 0) {}
	~Privilege() { __elevate_restore(state_); }
	Privilege(const Privilege &) = delete;
	Privilege &operator=(const Privilege &) = delete;
	explicit operator bool() const { return held_; }

private:
	elevate_state_t state_;
	bool held_;
};

struct End {
	void operator()(trl_session_data_t *session) const { (void) trl_end_session(session); }
	void operator()(trl_event_data_t *event) const { trl_free_event(event); }
};
using Session = std::unique_ptr<trl_session_data_t, End>;
using Event = std::unique_ptr<trl_event_data_t, End>;

Session begin_session()
{
	trl_session_data_t *made = nullptr;
	if (trl_start_session(&made, nullptr, 0) != 0)
		return nullptr;
	Session session(made);
	if (trl_set_user(made, getuid(), getgid(), getuid(), getgid(), nullptr, TRL_NEW) != 0)
		return nullptr;
	return session;
}

void record(const Session &session, trl_event_t kind, std::string database, const Identifiers &id, Exit result)
{
	char ids[OSTREL_IDSTR_SIZE];
	Event event(trl_alloc_event(session.get(), kind));
	if (!event || ostrel_idlist2idstr(id_list(id).get(), ids) != OSTREL_SUCCESS)
		return;
	trl_object_t &object = kind == TRL_ostrel_remove ? event->trl_ostrel_remove : event->trl_ostrel_update;
	object = {database.data(), ids};
	const int failed = result == Exit::permission ? retval_no_permission : -1;
	(void) trl_put_event(
	    event.get(), result == Exit::done ? TRL_SUCCESS : TRL_FAILURE, result == Exit::done ? 0 : failed);
}

} // namespace

void record_updates(const std::string &database, const std::vector<const Object *> &writes,
    const std::vector<const Identifiers *> &removals, Exit result)
{
	Privilege privilege;
	Session session = privilege ? begin_session() : nullptr;
	if (!session)
		return;
	for (const Object *object : writes)
		record(session, TRL_ostrel_update, database, object->id, result);
	for (const Identifiers *id : removals)
		record(session, TRL_ostrel_remove, database, *id, result);
}
