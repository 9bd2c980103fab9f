// Reading one object: the slot under the handle's read lock, and what becomes of the objects that it found.
#include "libostrel_read.h"

#include "base/guards.h"
#include "libostrel_backend.h"
#include "libostrel_error.h"
#include "libostrel_objects.h"
#include "libostrel_trace.h"
#include "libostrel_util.h"

static ostrel_error_t read_locked(ostrel_db_t db, attrlist_t *idl, uint64_t flags, Objects &objs)
{
	CancellationWaits cancellation;
	DbReadLock lock(db);
	return db->db_cmds->dbc_read(db, idl, db->db_flags | flags | OSTREL_FLAG_EXACT_MATCH | OSTREL_FLAG_WITH_PROPS,
	    objs.out(), objs.out_count());
}

// Hands out what a read found, which has to be one object. The properties are the only copy that is made of it.
static ostrel_error_t hand_out_the_one(Objects &objs, attrlist_t *idl, attrlist_t **objl)
{
	attrlist_t *stored_idl;
	attrlist_t *stored_props;

	if (objs.count() == 0)
		return OSTREL_NOT_FOUND;
	if (objs.count() > 1)
		return SETERROR(OSTREL_INVALID_ARG);
	if (ostrel_error_t result = ostrel_object_look(objs[0], &stored_idl, &stored_props))
		return result;
	if (objl != nullptr) {
		if (int error = attrlist_dup(stored_props, objl, 0))
			return SETERRNO(error);
	}
	// The object was found, so the read succeeds even if the caller's list can't take all its identifiers.
	(void) attrlist_merge(idl, stored_idl, ATL_UNIQUE_NAME_TYPE);
	return OSTREL_SUCCESS;
}

static ostrel_error_t read_one(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t **objl)
{
	if (db == nullptr || db->db_cmds->dbc_read == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	Objects objs;
	ostrel_error_t result = read_locked(db, idl, flags, objs);
	if (result != OSTREL_SUCCESS) {
		objs.forget();
		return result;
	}
	return hand_out_the_one(objs, idl, objl);
}

ostrel_error_t ostrel_db_read(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t **objl)
{
	ostrel_error_t result = read_one(db, idl, flags, objl);
	if (OSTREL_TRACED(db__read))
		ostrel_trace_db_read(result, db, idl, result == OSTREL_SUCCESS && objl != nullptr ? *objl : nullptr);
	return result;
}

ostrel_error_t ostrel_db_get_object_props(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t **props)
{
	AttrList found;
	AttrList wanted;

	if (props == nullptr || *props == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	if (ostrel_error_t result = ostrel_db_read(db, idl, flags, found.out()))
		return result;
	// A walk doesn't survive a change of its list, so it goes over a copy.
	if (int error = attrlist_dup(*props, wanted.out(), 0))
		return SETERRNO(error);
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(wanted.get(), pair)) != nullptr;) {
		const char *name = attrpair_name(pair);
		if (!attrlist_exists(found.get(), name)) {
			(void) attrlist_remove(*props, name, attrpair_type(pair)); // it is there
			continue;
		}
		if (ostrel_error_t result = atl_add_entry_val(*props, name, found.get()))
			return result;
	}
	return OSTREL_SUCCESS;
}
