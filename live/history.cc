// History and undo: what the store tells, in the structures of the public interface.
#include "base/guards.h"
#include "store.h"

namespace {

struct Visit {
	ostrelx_historycb_t *cb;
	void *arg;
	bool halted;
};

ostrel_error_t hand_out(const HistoryEntry &entry, void *arg)
{
	Visit *visit = static_cast<Visit *>(arg);
	const ostrelx_history_entry_t shown = {
	    .revision = entry.revision,
	    .part = entry.part,
	    .what = static_cast<ostrelx_change_t>(entry.what),
	    .at_ns = entry.at_ns,
	    .uid = entry.uid,
	    .behalf = entry.behalf,
	    .has_behalf = entry.has_behalf ? B_TRUE : B_FALSE,
	    .is_hidden = entry.is_hidden ? B_TRUE : B_FALSE,
	    .idl = entry.idl,
	    .before = entry.before,
	    .after = entry.after,
	};
	visit->halted = visit->cb(&shown, visit->arg) != 0;
	return visit->halted ? OSTREL_WALK_HALTED : OSTREL_SUCCESS;
}

using BatchGuard = Handle<struct ostrelx_batch, ostrelx_batch_free>;

} // namespace

ostrelx_error_t ostrelx_history(ostrel_db_t db, attrlist_t *idl, uint64_t since, ostrelx_historycb_t *cb, void *arg)
{
	if (db == nullptr || cb == nullptr)
		return OSTREL_INVALID_ARG;
	const struct ostrel_more *store = ostrelx_store_of(db);
	if (store == nullptr)
		return OSTREL_NOTSUP;
	Visit visit = {cb, arg, false};
	ostrel_error_t result = store->history(db, idl, since, hand_out, &visit);
	return visit.halted ? OSTREL_WALK_HALTED : result; // whatever the store makes of its visitor's refusal
}

ostrelx_error_t ostrelx_undo(ostrel_db_t db, uint64_t revision, ostrelx_batch_t *batchp)
{
	if (db == nullptr || batchp == nullptr)
		return OSTREL_INVALID_ARG;
	const struct ostrel_more *store = ostrelx_store_of(db);
	if (store == nullptr)
		return OSTREL_NOTSUP;
	BatchGuard batch;
	if (ostrelx_error_t result = ostrelx_batch_create(batch.out()))
		return result;
	if (ostrel_error_t result = store->undo(db, revision, &batch.get()->items))
		return result;
	*batchp = batch.release();
	return OSTREL_SUCCESS;
}
