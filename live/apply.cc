// Applying with a way back: which objects a batch changes and how, the record of that, the commit; and what ends an apply.
//
// The order is record, guard, commit. The record is locked from its making until the commit is over, so that no guard takes an apply
// back that is under way. A death before the commit leaves a record that undoes nothing (undo.cc says how that is told).
//
// Divisions: objects of a batch; the record; apply; confirm and rollback; what is pending.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "base/clock.h"
#include "guard.h"
#include "libostrel_handle.h"
#include "store.h"
#include "undo.h"

// ---- Objects of a batch ----

namespace {

constexpr int tries_max = 100;
constexpr int64_t guard_wait_ns = 5 * second_ns;

// What a batch does to its objects, found out without carrying it out.
class Rehearsal {
public:
	Rehearsal(ostrel_db_t db, const Batch &batch) : db_(db), batch_(batch) {}
	~Rehearsal()
	{
		for (UndoObject &object : objects)
			for (attrlist_t *list : {object.idl, object.before, object.after})
				attrlist_free(list);
	}
	Rehearsal(const Rehearsal &) = delete;
	Rehearsal &operator=(const Rehearsal &) = delete;

	// Reads the objects of all steps, and follows the steps.
	ostrelx_error_t run();
	// The batch, with the conditions that each object is as it was read here. Those come after the batch's own.
	ostrelx_error_t condition(Batch *batch) const;

	GrowingArray<UndoObject> objects; // the lists are this one's

private:
	struct Version {
		char text[OSTRELX_VERSION_SIZE];
	};
	ostrelx_error_t find(attrlist_t *idl, size_t *at);
	ostrelx_error_t follow(const BatchItem &step);

	ostrel_db_t db_;
	const Batch &batch_;
	GrowingArray<Version> versions_;
};

// The place of an object, which is read if it is a new one.
ostrelx_error_t Rehearsal::find(attrlist_t *idl, size_t *at)
{
	const bool folds = (db_->db_flags & OSTREL_DB_CASE_SENSITIVE) == 0;
	for (*at = 0; *at < objects.size(); ++*at)
		if (undo_same_object(objects[*at].idl, idl, folds))
			return OSTREL_SUCCESS;
	if (!objects.make_room() || !versions_.make_room())
		return OSTREL_NO_MEMORY;
	Version *version = versions_.place();
	*version = {};
	versions_.added();
	UndoObject *object = objects.place();
	*object = {};
	objects.added();
	if (int error = attrlist_dup(idl, &object->idl, 0))
		return ostrel_errno2error(error);
	const ostrelx_error_t result = ostrelx_read(db_, object->idl, 0, &object->before, version->text);
	if (result == OSTREL_NOT_FOUND)
		return OSTREL_SUCCESS;
	if (result != OSTREL_SUCCESS)
		return result;
	return ostrel_errno2error(attrlist_dup(object->before, &object->after, 0));
}

ostrelx_error_t Rehearsal::follow(const BatchItem &step)
{
	size_t at = 0;
	size_t to = 0;
	if (ostrelx_error_t bad = find(step.idl, &at))
		return bad;
	if (step.kind == BatchKind::Rename) {
		if (ostrelx_error_t bad = find(step.list, &to))
			return bad;
		// A file then has two objects of one name, which nothing can tell apart.
		if (to != at && objects[to].after != nullptr)
			return OSTREL_INVALID_ARG;
	}
	AttrList old(std::exchange(objects[at].after, nullptr));
	if (step.kind == BatchKind::Rename)
		objects[to].after = old.release();
	if (step.kind != BatchKind::Write)
		return OSTREL_SUCCESS;
	objects[at].flags = step.flags & OSTREL_FLAG_TEMPORARY;
	return ostrel_errno2error(attrlist_dup(step.list, &objects[at].after, 0));
}

ostrelx_error_t Rehearsal::run()
{
	for (size_t i = 0; i < batch_.step_count(); i++)
		if (ostrelx_error_t bad = follow(batch_.step(i)))
			return bad;
	return OSTREL_SUCCESS;
}

ostrelx_error_t add_item(const BatchItem &item, Batch *batch)
{
	switch (item.kind) {
	case BatchKind::ExpectObject:
		return batch->expect(item.idl, item.version.text);
	case BatchKind::ExpectDatabase:
		return batch->expect_database(item.version.text);
	case BatchKind::Write:
		return batch->write(item.idl, item.flags, item.list);
	case BatchKind::Rename:
		return batch->rename(item.idl, item.flags, item.list);
	case BatchKind::Remove:
		return batch->remove(item.idl, item.flags);
	}
	return OSTREL_INVALID_ARG;
}

ostrelx_error_t Rehearsal::condition(Batch *batch) const
{
	for (size_t i = 0; i < batch_.condition_count(); i++)
		if (ostrelx_error_t bad = add_item(batch_.condition(i), batch))
			return bad;
	for (size_t i = 0; i < objects.size(); i++)
		if (ostrelx_error_t bad = batch->expect(objects[i].idl, versions_[i].text))
			return bad;
	for (size_t i = 0; i < batch_.step_count(); i++)
		if (ostrelx_error_t bad = add_item(batch_.step(i), batch))
			return bad;
	return OSTREL_SUCCESS;
}

// ---- The record ----

// The name of the database as the guard needs it, which has another working directory.
ostrelx_error_t name_for_guard(ostrel_db_t db, const char *store, char (&name)[OSTREL_DB_NAME_MAX + 1])
{
	const bool is_path = strcmp(store, "repo") != 0;
	if (!is_path || db->db_name[0] == '/') {
		(void) snprintf(name, sizeof name, "%s", db->db_name);
		return OSTREL_SUCCESS;
	}
	if (db->db_enclave != getenclaveid())
		return OSTREL_INVALID_ARG;
	char directory[PATH_MAX];
	if (getcwd(directory, sizeof directory) == nullptr)
		return OSTREL_FAILURE;
	const int length = snprintf(name, sizeof name, "%s/%s", directory, db->db_name);
	return length > 0 && static_cast<size_t>(length) < sizeof name ? OSTREL_SUCCESS : OSTREL_INVALID_ARG;
}

ostrelx_error_t make_record(
    ostrel_db_t db, const Rehearsal &rehearsal, unsigned seconds, const char *run, UndoRecord *record)
{
	char name[OSTREL_DB_NAME_MAX + 1];
	char boot[boot_id_size];
	const char *store = undo_store_word(db);
	if (store == nullptr)
		return OSTREL_NOTSUP;
	if (ostrelx_error_t bad = name_for_guard(db, store, name))
		return bad;
	if (ostrelx_error_t bad = undo_boot_id(boot))
		return bad;
	UndoState state = {};
	undo_set_deadline(&state, seconds);
	const UndoHead head = {store, name, db->db_enclave, db->db_flags, geteuid(), boot, run};
	return record->make(state, head, rehearsal.objects);
}

// Whether two records are about an object in common. In doubt, of letters in another case, they are.
bool overlap(const UndoRecord &a, const UndoRecord &b)
{
	if (strcmp(a.head.store, b.head.store) != 0 || strcmp(a.head.database, b.head.database) != 0 ||
	    a.head.enclave != b.head.enclave)
		return false;
	for (const UndoObject &one : a.objects)
		for (const UndoObject &other : b.objects)
			if (undo_same_object(one.idl, other.idl, true))
				return true;
	return false;
}

// Errors: OSTREL_EXISTS  `id` is that of an apply with an object in common
ostrelx_error_t require_no_overlap(const PendingDirectory &directory, const UndoRecord &record, ApplyId &id)
{
	GrowingArray<RecordName> names;
	if (ostrelx_error_t bad = directory.list(&names))
		return bad;
	for (const RecordName &name : names) {
		RecordFile file;
		UndoRecord other;
		ostrelx_error_t result = directory.open_record(name.text, -1, &file);
		if (result == OSTREL_SUCCESS)
			result = other.read(file.get());
		if (result == OSTREL_NO_MEMORY)
			return result;
		if (result != OSTREL_SUCCESS || !overlap(record, other)) // what isn't a record is the guard's to mend
			continue;
		(void) snprintf(id, sizeof id, "%.8s", name.text);
		return OSTREL_EXISTS;
	}
	return OSTREL_SUCCESS;
}

// ---- Apply ----

class Apply {
public:
	Apply(ostrel_db_t db, const Batch &batch, unsigned seconds, const char *run)
	    : db_(db), batch_(batch), seconds_(seconds), run_(run)
	{}
	// One try. *again: another writer was faster, and nothing was changed.
	ostrelx_error_t run(ApplyId &id, int *failed, bool *again);

private:
	ostrelx_error_t add_record(const Rehearsal &rehearsal, ApplyId &id);
	ostrelx_error_t await_guard() const;
	ostrelx_error_t commit(const Rehearsal &rehearsal, int *failed, bool *again) const;
	void give_up(ostrelx_error_t result, const char *id);

	ostrel_db_t db_;
	const Batch &batch_;
	unsigned seconds_;
	const char *run_;
	PendingDirectory directory_;
	RecordFile file_;
	UndoState state_ = {};
};

ostrelx_error_t Apply::add_record(const Rehearsal &rehearsal, ApplyId &id)
{
	UndoRecord record;
	if (ostrelx_error_t bad = make_record(db_, rehearsal, seconds_, run_, &record))
		return bad;
	if (ostrelx_error_t bad = directory_.open(true))
		return bad;
	if (ostrelx_error_t bad = directory_.lock())
		return bad;
	ostrelx_error_t result = require_no_overlap(directory_, record, id);
	if (result == OSTREL_SUCCESS)
		result = directory_.add(record, id, &file_);
	directory_.unlock();
	state_ = record.state;
	return result;
}

ostrelx_error_t Apply::await_guard() const
{
	const Deadline end = Deadline::in(guard_wait_ns);
	for (; !directory_.has_guard(); sleep_ns(20 * millisecond_ns))
		if (end.has_passed())
			return OSTREL_NOTSUP;
	return OSTREL_SUCCESS;
}

ostrelx_error_t Apply::commit(const Rehearsal &rehearsal, int *failed, bool *again) const
{
	struct ostrelx_batch batch;
	if (ostrelx_error_t bad = rehearsal.condition(&batch.items))
		return bad;
	int number = -1;
	const ostrelx_error_t result = ostrelx_commit(db_, &batch, &number);
	const int own_first = static_cast<int>(batch_.condition_count());
	const int own = static_cast<int>(rehearsal.objects.size());
	*again = result == OSTRELX_CONFLICT && number >= own_first && number < own_first + own;
	*failed = number < own_first + own ? number : number - own;
	return result;
}

// A commit that changed nothing takes its record along. Of one that failed otherwise the guard finds out what it did.
void Apply::give_up(ostrelx_error_t result, const char *id)
{
	if (result == OSTREL_FAILURE)
		(void) directory_.begin_rolling(id);
	else
		(void) directory_.remove(id);
	file_.release();
}

ostrelx_error_t Apply::run(ApplyId &id, int *failed, bool *again)
{
	Rehearsal rehearsal(db_, batch_);
	if (ostrelx_error_t bad = rehearsal.run())
		return bad;
	if (ostrelx_error_t bad = add_record(rehearsal, id))
		return bad;
	if (ostrelx_error_t bad = await_guard()) {
		give_up(bad, id);
		return bad;
	}
	if (ostrelx_error_t bad = commit(rehearsal, failed, again)) {
		give_up(bad, id);
		return bad;
	}
	state_.is_applied = true;
	(void) undo_write_state(file_.get(), state_); // without it the guard looks for signs
	file_.release();
	return OSTREL_SUCCESS;
}

bool are_seconds(unsigned seconds)
{
	return seconds > 0 && seconds <= OSTRELX_APPLY_SECONDS_MAX;
}

} // namespace

ostrelx_error_t ostrelx_apply(ostrel_db_t db, ostrelx_batch_t batch, unsigned seconds, const char *run,
    char id[OSTRELX_APPLY_ID_SIZE], int *failed)
{
	int number = -1;
	if (failed != nullptr)
		*failed = -1;
	if (db == nullptr || batch == nullptr || id == nullptr || !are_seconds(seconds) ||
	    batch->items.step_count() == 0)
		return OSTREL_INVALID_ARG;
	ostrelx_error_t result = OSTRELX_CONFLICT;
	ApplyId name = "";
	bool again = true;
	for (int i = 0; i < tries_max && again; i++) {
		again = false;
		result = Apply(db, batch->items, seconds, run).run(name, &number, &again);
	}
	if (result == OSTREL_SUCCESS || result == OSTREL_EXISTS)
		memcpy(id, name, sizeof name);
	if (failed != nullptr && !again)
		*failed = number;
	return result;
}

// ---- Confirm and rollback ----

ostrelx_error_t ostrelx_confirm(const char *id)
{
	PendingDirectory directory;
	if (!undo_is_id(id))
		return OSTREL_INVALID_ARG;
	if (ostrelx_error_t bad = directory.open(false))
		return bad;
	return directory.remove(id);
}

ostrelx_error_t ostrelx_confirm_later(const char *id, unsigned seconds)
{
	PendingDirectory directory;
	RecordFile file;
	UndoRecord record;
	if (!undo_is_id(id) || !are_seconds(seconds))
		return OSTREL_INVALID_ARG;
	if (ostrelx_error_t bad = directory.open(false))
		return bad;
	// Under the record's lock no guard looks at the time. An unlink meanwhile is a confirm, and loses nothing.
	if (ostrelx_error_t bad = directory.open_record(id, 60 * second_ns, &file))
		return bad;
	if (ostrelx_error_t bad = record.read(file.get()))
		return bad;
	undo_set_deadline(&record.state, seconds);
	return undo_write_state(file.get(), record.state);
}

ostrelx_error_t ostrelx_rollback(const char *id, uint64_t flags, ostrelx_undonecb_t *cb, void *arg)
{
	PendingDirectory directory;
	if (!undo_is_id(id))
		return OSTREL_INVALID_ARG;
	if (ostrelx_error_t bad = directory.open(false))
		return bad;
	return undo_roll_back(directory, id, flags, cb, arg);
}

ostrelx_error_t ostrelx_rolled_back(const char *id, int64_t *when)
{
	PendingDirectory directory;
	if (!undo_is_id(id) || when == nullptr)
		return OSTREL_INVALID_ARG;
	if (ostrelx_error_t bad = directory.open(false))
		return bad;
	return directory.rolled_back_at(id, when);
}

// ---- What is pending ----

ostrelx_error_t ostrelx_pending(ostrelx_pendingcb_t *cb, void *arg)
{
	PendingDirectory directory;
	GrowingArray<RecordName> names;
	if (cb == nullptr)
		return OSTREL_INVALID_ARG;
	ostrelx_error_t result = directory.open(false);
	if (result == OSTREL_NOT_FOUND)
		return OSTREL_SUCCESS;
	if (result != OSTREL_SUCCESS)
		return result;
	if ((result = directory.list(&names)) != OSTREL_SUCCESS)
		return result;
	for (const RecordName &name : names) {
		RecordFile file;
		UndoRecord record;
		result = directory.open_record(name.text, -1, &file);
		if (result == OSTREL_SUCCESS)
			result = record.read(file.get());
		if (result == OSTREL_NO_MEMORY)
			return result;
		if (result != OSTREL_SUCCESS)
			continue;
		ApplyId id;
		const ostrelx_pending_t pending = undo_pending(record, name.text, id);
		if (cb(&pending, arg) != 0)
			return OSTREL_WALK_HALTED;
	}
	return OSTREL_SUCCESS;
}
