// What libostrelx reaches: each operation under the handle's lock, with its audit records.
#include "libostrel_more.h"

#include <meridon/trail.h>

#include "base/guards.h"
#include "libostrel_error.h"
#include "libostrel_handle.h"

namespace {

void audit_steps(ostrel_db_t db, const Batch &batch, ostrel_error_t result)
{
	if (db->db_cmds->dbc_audit == nullptr)
		return;
	for (size_t i = 0; i < batch.step_count(); i++) {
		const BatchItem &step = batch.step(i);
		const unsigned short event = step.kind == BatchKind::Remove ? TRL_ostrel_remove : TRL_ostrel_update;
		db->db_cmds->dbc_audit(db, event, step.idl, result);
	}
}

ostrel_error_t commit(ostrel_db_t db, const Batch &batch, int *failed)
{
	*failed = -1;
	if (batch.step_count() == 0)
		return SETERROR(OSTREL_INVALID_ARG);
	if (db->db_cmds->dbc_commit == nullptr)
		return SETERROR(OSTREL_NOTSUP);
	CancellationWaits cancellation;
	DbWriteLock lock(db);
	ostrel_error_t result = db->db_cmds->dbc_commit(db, batch, failed);
	audit_steps(db, batch, result);
	return result;
}

ostrel_error_t database_version(ostrel_db_t db, ObjectVersion *version)
{
	if (db->db_cmds->dbc_version == nullptr)
		return SETERROR(OSTREL_NOTSUP);
	CancellationWaits cancellation;
	DbReadLock lock(db);
	return db->db_cmds->dbc_version(db, version);
}

ostrel_error_t notify(ostrel_db_t db, attrlist_t *idl, Notifier **notifier)
{
	if (db->db_cmds->dbc_notify == nullptr)
		return SETERROR(OSTREL_NOTSUP);
	CancellationWaits cancellation;
	return db->db_cmds->dbc_notify(db, idl, notifier);
}

ostrel_error_t history(ostrel_db_t db, attrlist_t *idl, uint64_t since, ostrel_history_visit_t *visit, void *arg)
{
	if (db->db_cmds->dbc_history == nullptr)
		return SETERROR(OSTREL_NOTSUP);
	return db->db_cmds->dbc_history(db, idl, since, visit, arg);
}

ostrel_error_t undo(ostrel_db_t db, uint64_t revision, Batch *batch)
{
	if (db->db_cmds->dbc_undo == nullptr)
		return SETERROR(OSTREL_NOTSUP);
	CancellationWaits cancellation;
	return db->db_cmds->dbc_undo(db, revision, batch);
}

} // namespace

const struct ostrel_more ostrel_more = {
    .mark = ostrel_more::known_mark,
    .version = ostrel_more::current,
    .commit = commit,
    .database_version = database_version,
    .notify = notify,
    .history = history,
    .undo = undo,
};
