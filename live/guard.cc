// The guard, and the rollback of one apply.
//
// A guard may die at any moment: what it has begun is a record called ID.rolling, which the next one carries out again. It looks once
// a second instead of being told, since it lives only as long as something is pending, and the clock of a deadline goes on while
// the host sleeps.
//
// Divisions: one rollback; the guard.
#include "guard.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/clock.h"
#include "undo.h"

// ---- One rollback ----

namespace {

using Database = Handle<struct ostrel_db, ostrel_db_close>;

constexpr const char *rolling = ".rolling";

bool is_rolling(const char *name)
{
	const size_t length = strlen(name);
	return length > strlen(rolling) && strcmp(name + length - strlen(rolling), rolling) == 0;
}

RecordName rolling_name(const char *id)
{
	RecordName name;
	(void) snprintf(name.text, sizeof name.text, "%s%s", id, rolling);
	return name;
}

// A record, locked, and whether its rollback has begun.
struct Opened {
	RecordFile file;
	UndoRecord record;
	bool is_rolling = false;
};

ostrelx_error_t open_pending(const PendingDirectory &directory, const char *id, Opened *opened)
{
	ostrelx_error_t result = directory.open_record(id, 0, &opened->file);
	if (result == OSTREL_NOT_FOUND) {
		opened->is_rolling = true;
		result = directory.open_record(rolling_name(id).text, 0, &opened->file);
	}
	return result == OSTREL_SUCCESS ? opened->record.read(opened->file.get()) : result;
}

ostrelx_error_t take_back(const Opened &opened, uint64_t flags, ostrelx_undonecb_t *cb, void *arg)
{
	Database db;
	if (ostrelx_error_t bad = undo_open_database(opened.record.head, db.out()))
		return bad;
	return undo_take_back(db.get(), opened.record, flags, cb, arg);
}

// A rollback by hand that finds a conflict has changed nothing: the apply is pending as before.
ostrelx_error_t roll_back_opened(const PendingDirectory &directory, const char *id, const Opened &opened,
    uint64_t flags, ostrelx_undonecb_t *cb, void *arg)
{
	if ((flags & OSTRELX_ROLLBACK_PLAN) != 0)
		return take_back(opened, flags, cb, arg);
	if (!opened.is_rolling)
		if (ostrelx_error_t bad = directory.begin_rolling(id))
			return bad;
	const ostrelx_error_t result = take_back(opened, flags, cb, arg);
	if (result == OSTRELX_CONFLICT && !opened.is_rolling)
		directory.end_rolling(id);
	if (result != OSTREL_SUCCESS)
		return result;
	directory.note_rolled_back(id);
	// If this fails it is carried out again, which changes nothing.
	return directory.remove(rolling_name(id).text);
}

} // namespace

ostrelx_error_t undo_roll_back(
    const PendingDirectory &directory, const char *id, uint64_t flags, ostrelx_undonecb_t *cb, void *arg)
{
	Opened opened;
	if (ostrelx_error_t bad = open_pending(directory, id, &opened))
		return bad;
	if ((flags & OSTRELX_ROLLBACK_IF_DUE) != 0 && !opened.is_rolling && !opened.record.is_due())
		return OSTREL_NOT_FOUND;
	return roll_back_opened(directory, id, opened, flags, cb, arg);
}

ostrelx_pending_t undo_pending(const UndoRecord &record, const char *name, ApplyId &id)
{
	(void) snprintf(id, sizeof id, "%.8s", name);
	const UndoHead &head = record.head;
	const ostrelx_pending_state_t state = is_rolling(name)            ? OSTRELX_PENDING_ROLLING
					      : !record.is_of_this_boot() ? OSTRELX_PENDING_OTHER_BOOT
					      : record.is_due()           ? OSTRELX_PENDING_EXPIRED
									  : OSTRELX_PENDING_WAITING;
	return {id, head.store, head.database, head.enclave, head.uid, static_cast<uint32_t>(record.objects.size()),
	    record.seconds_left(), record.state.until, state, head.run};
}

// ---- The guard ----

namespace {

class Guard {
public:
	Guard(ostrelx_guardedcb_t *cb, void *arg) : cb_(cb), arg_(arg) {}
	ostrelx_error_t run(unsigned linger);

private:
	// What was told of a record last.
	struct Told {
		ApplyId id;
		ostrelx_error_t result;
	};

	ostrelx_error_t look(int64_t *wait_ns, bool *is_empty);
	void look_at(const char *name, int64_t *wait_ns);
	void finish(const char *id, const char *name, const Opened &opened, int64_t *wait_ns);
	void set_aside(const char *name, ostrelx_error_t result, int64_t *wait_ns);
	void tell(const char *id, const ostrelx_pending_t *pending, ostrelx_error_t result);
	ostrelx_error_t may_end(bool *may);

	PendingDirectory directory_;
	GrowingArray<Told> told_;
	ostrelx_guardedcb_t *cb_;
	void *arg_;
};

void Guard::tell(const char *id, const ostrelx_pending_t *pending, ostrelx_error_t result)
{
	for (Told &told : told_)
		if (strcmp(told.id, id) == 0 && std::exchange(told.result, result) == result)
			return;
	Told told = {"", result};
	(void) snprintf(told.id, sizeof told.id, "%s", id);
	(void) told_.append(told); // without memory it is told again
	const ostrelx_guarded_t guarded = {id, pending, nullptr, result};
	if (cb_ != nullptr)
		cb_(&guarded, arg_);
}

void Guard::finish(const char *id, const char *name, const Opened &opened, int64_t *wait_ns)
{
	struct Context {
		Guard *guard;
		ostrelx_pending_t pending;
	};
	ApplyId text;
	Context context = {this, undo_pending(opened.record, name, text)};
	auto pass_on = [](const ostrelx_undone_t *undone, void *arg) {
		const auto *to = static_cast<Context *>(arg);
		const ostrelx_guarded_t guarded = {to->pending.id, &to->pending, undone, OSTREL_SUCCESS};
		if (to->guard->cb_ != nullptr)
			to->guard->cb_(&guarded, to->guard->arg_);
	};
	const ostrelx_error_t result =
	    roll_back_opened(directory_, id, opened, OSTRELX_ROLLBACK_FORCE, pass_on, &context);
	if (result == OSTREL_NOT_FOUND) // it was confirmed
		return;
	if (result == OSTREL_SUCCESS)
		*wait_ns = 0;
	tell(id, &context.pending, result);
}

// Takes what isn't a record of this user's out of the way: it would keep a guard for ever.
void Guard::set_aside(const char *name, ostrelx_error_t result, int64_t *wait_ns)
{
	directory_.set_aside(name);
	*wait_ns = 0;
	tell(name, nullptr, result);
}

// Looks at one record, and shortens the wait to the time that it has left.
void Guard::look_at(const char *name, int64_t *wait_ns)
{
	ApplyId id;
	(void) snprintf(id, sizeof id, "%.8s", name);
	if (!undo_is_id(id) || (strcmp(name, id) != 0 && strcmp(name + strlen(id), rolling) != 0)) {
		set_aside(name, OSTREL_EPERM, wait_ns);
		return;
	}
	Opened opened;
	opened.is_rolling = is_rolling(name);
	ostrelx_error_t result = directory_.open_record(name, 0, &opened.file);
	if (result == OSTREL_SUCCESS)
		result = opened.record.read(opened.file.get());
	if (result == OSTREL_NEEDS_RETRY) // an apply that is under way
		*wait_ns = std::min(*wait_ns, 50 * millisecond_ns);
	if (result == OSTREL_EPERM || result == OSTREL_INVALID_ARG) {
		set_aside(name, result, wait_ns);
	}
	if (result != OSTREL_SUCCESS)
		return;
	if (opened.is_rolling || opened.record.is_due())
		finish(id, name, opened, wait_ns);
	else
		*wait_ns = std::min(*wait_ns, static_cast<int64_t>(opened.record.state.deadline_ns - undo_now_ns()));
}

ostrelx_error_t Guard::look(int64_t *wait_ns, bool *is_empty)
{
	GrowingArray<RecordName> names;
	if (ostrelx_error_t bad = directory_.list(&names))
		return bad;
	*is_empty = names.empty();
	for (const RecordName &name : names)
		look_at(name.text, wait_ns);
	return OSTREL_SUCCESS;
}

// Ends only under the directory's lock: an apply that makes its record after that finds no guard, and waits for the next one.
ostrelx_error_t Guard::may_end(bool *may)
{
	GrowingArray<RecordName> names;
	if (ostrelx_error_t bad = directory_.lock())
		return bad;
	const ostrelx_error_t result = directory_.list(&names);
	*may = result == OSTREL_SUCCESS && names.empty();
	if (*may)
		directory_.end_guard();
	directory_.unlock();
	return result;
}

ostrelx_error_t Guard::run(unsigned linger)
{
	if (ostrelx_error_t bad = directory_.open(true))
		return bad;
	Deadline lingers = Deadline::in(linger * second_ns);
	bool is_guard = false;
	for (;;) {
		int64_t wait_ns = second_ns;
		bool is_empty = false;
		if (!is_guard) {
			const ostrelx_error_t result = directory_.become_guard();
			if (result != OSTREL_SUCCESS && result != OSTREL_EXISTS)
				return result;
			is_guard = result == OSTREL_SUCCESS;
		}
		if (is_guard) {
			if (ostrelx_error_t bad = look(&wait_ns, &is_empty))
				return bad;
		} else {
			GrowingArray<RecordName> names;
			if (ostrelx_error_t bad = directory_.list(&names))
				return bad;
			is_empty = names.empty();
			wait_ns = 200 * millisecond_ns;
		}
		if (!is_empty)
			lingers = Deadline::over();
		bool may = false;
		if (is_empty && lingers.has_passed())
			if (ostrelx_error_t bad = may_end(&may))
				return bad;
		if (may)
			return OSTREL_SUCCESS;
		sleep_ns(is_empty ? 50 * millisecond_ns : std::max<int64_t>(wait_ns, 0));
	}
}

} // namespace

ostrelx_error_t ostrelx_guard(unsigned linger, ostrelx_guardedcb_t *cb, void *arg)
{
	return Guard(cb, arg).run(linger);
}
