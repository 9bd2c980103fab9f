// One attempt of an update: the slot, its audit record and its trace point.
#include "libostrel_attempt.h"

#include <meridon/trail.h>

#include "base/guards.h"
#include "libostrel_backend.h"
#include "libostrel_error.h"
#include "libostrel_trace.h"

namespace {

using Arguments = const ostrel_update_arg_t &;

// What the three updates don't have in common.
struct UpdateOp {
	ostrel_op_t op;
	const char *word;
	unsigned short event;
	bool (*has_slot)(ostrel_db_cmds_t cmds);
	ostrel_error_t (*call_slot)(ostrel_db_cmds_t cmds, Arguments update);
	void (*trace)(ostrel_error_t result, Arguments update);
};

void trace_write(ostrel_error_t result, Arguments update)
{
	if (OSTREL_TRACED(db__write))
		ostrel_trace_db_write(result, update.nua_db, update.nua_idl, update.nua_objl);
}

void trace_rename(ostrel_error_t result, Arguments update)
{
	if (OSTREL_TRACED(db__rename))
		ostrel_trace_db_rename(result, update.nua_db, update.nua_idl, update.nua_objl);
}

void trace_remove(ostrel_error_t result, Arguments update)
{
	if (OSTREL_TRACED(db__remove))
		ostrel_trace_db_remove(result, update.nua_db, update.nua_idl);
}

constexpr UpdateOp update_ops[] = {
    {OSTREL_OP_WRITE, "write", TRL_ostrel_update, [](ostrel_db_cmds_t cmds) { return cmds->dbc_write != nullptr; },
	[](ostrel_db_cmds_t cmds, Arguments u) {
		return cmds->dbc_write(u.nua_db, u.nua_idl, u.nua_flags, u.nua_objl);
	},
	trace_write},
    {OSTREL_OP_RENAME, "rename", TRL_ostrel_update, [](ostrel_db_cmds_t cmds) { return cmds->dbc_rename != nullptr; },
	[](ostrel_db_cmds_t cmds, Arguments u) {
		return cmds->dbc_rename(u.nua_db, u.nua_idl, u.nua_flags, u.nua_objl);
	},
	trace_rename},
    {OSTREL_OP_REMOVE, "remove", TRL_ostrel_remove, [](ostrel_db_cmds_t cmds) { return cmds->dbc_remove != nullptr; },
	[](ostrel_db_cmds_t cmds, Arguments u) { return cmds->dbc_remove(u.nua_db, u.nua_idl, u.nua_flags); },
	trace_remove},
};

const UpdateOp *find_op(ostrel_op_t wanted)
{
	for (const UpdateOp &op : update_ops) {
		if (op.op == wanted)
			return &op;
	}
	return nullptr;
}

ostrel_error_t call_and_audit(const UpdateOp &op, Arguments update)
{
	const ostrel_db_cmds_t cmds = update.nua_db->db_cmds;
	CancellationWaits cancellation;
	DbWriteLock lock(update.nua_db);
	ostrel_error_t result = op.call_slot(cmds, update);
	if (cmds->dbc_audit != nullptr)
		cmds->dbc_audit(update.nua_db, op.event, update.nua_idl, result);
	return result;
}

} // namespace

const char *ostrel_update_word(ostrel_op_t op)
{
	const UpdateOp *found = find_op(op);
	return found == nullptr ? "unknown" : found->word;
}

ostrel_error_t ostrel_attempt_update(const ostrel_update_arg_t &update)
{
	const UpdateOp *op = find_op(update.nua_op);
	if (op == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	const bool is_possible = update.nua_db != nullptr && op->has_slot(update.nua_db->db_cmds);
	ostrel_error_t result = is_possible ? call_and_audit(*op, update) : SETERROR(OSTREL_INVALID_ARG);
	// A remove that is refused here is the one result without a trace point of its own.
	if (result != OSTREL_NEEDS_RETRY && (is_possible || op->op != OSTREL_OP_REMOVE))
		op->trace(result, update);
	return result;
}
