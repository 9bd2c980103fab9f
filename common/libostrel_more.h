/*
 * What the library libostrelx reaches of this one, beyond the operations of libostrel.h.
 *
 * libostrelx is another shared library, and no name is exported for it. It finds the table below through the slot dbc_more of a
 * handle's back end, and uses it only if mark and version are those that it was built with: a libostrel of another build is
 * OSTREL_NOTSUP then, and never misread. So a change of this table, or of what it hands over, counts the version up.
 */
#ifndef LIBOSTREL_MORE_H
#define LIBOSTREL_MORE_H

#include "libostrel_backend.h"
#include "libostrel_batch.h"

struct ostrel_more {
	static constexpr uint64_t known_mark = 0x6f737472656c780aU; // "ostrelx\n"
	static constexpr uint64_t current = 1;

	uint64_t mark;
	uint64_t version;

	/*
	 * Carries a batch out under db_lock, and leaves an audit record for each step, with the batch's result.
	 * Results: of the slot dbc_commit; OSTREL_NOTSUP without one; OSTREL_INVALID_ARG for a batch without steps
	 */
	ostrel_error_t (*commit)(ostrel_db_t db, const Batch &batch, int *failed);
	// Results: of the slot dbc_version; OSTREL_NOTSUP without one
	ostrel_error_t (*database_version)(ostrel_db_t db, ObjectVersion *version);
	// Owns: *notifier is new, for its end(). Results: of the slot dbc_notify; OSTREL_NOTSUP without one
	ostrel_error_t (*notify)(ostrel_db_t db, attrlist_t *idl, Notifier **notifier);
	// Results: of the slots dbc_history and dbc_undo; OSTREL_NOTSUP without one
	ostrel_error_t (*history)(
	    ostrel_db_t db, attrlist_t *idl, uint64_t since, ostrel_history_visit_t *visit, void *arg);
	ostrel_error_t (*undo)(ostrel_db_t db, uint64_t revision, Batch *batch);
};

extern const struct ostrel_more ostrel_more;

#endif
