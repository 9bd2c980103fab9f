// Renaming. The repository has no rename: the object is read, written under its new name, and the old group removed. What
// fails is taken back if that can't destroy what others have written.
//
// The order is what loses nothing: at every point the object is there under one of its names, or under both. A rename that is cut
// short leaves two objects at worst, and a caller that repeats it brings it to its end.
#include <cstring>

#include "libostrel_cairn.h"
#include "libostrel_read.h"

namespace {

// Which group an identifier list names, in a form that can be compared.
struct GroupLocation {
	enclaveid_t enclave;
	boolean_t svclevel;
	char instance[OSTREL_RPY_NAME_MAX];
	char pgname[OSTREL_RPY_NAME_MAX];
	bool is_as_asked; // the list has the stored spelling and the stored types

	bool same_top(const GroupLocation &other) const
	{
		return enclave == other.enclave && svclevel == other.svclevel && strcmp(instance, other.instance) == 0;
	}
	bool is_below(const GroupLocation &other) const
	{
		const size_t length = strlen(other.pgname);
		return strncmp(pgname, other.pgname, length) == 0 && pgname[length] == '/';
	}
};

ostrel_error_t note_location(const RpyOperation &operation, const char *pgname, GroupLocation *location)
{
	const ostrel_rpy_resources_t *res = operation.res();
	*location = {res->nsr_enclaveid, res->nsr_svclevelop, "", "", false};
	if (!res->nsr_svclevelop &&
	    rpy_instance_get_name(res->nsr_op_inst, location->instance, sizeof(location->instance)) == -1)
		return SETERROR(ostrel_rpy_failure());
	RpyPath path;
	if (ostrel_error_t result = path.set(pgname))
		return SETERROR(result);
	char *end = location->pgname;
	for (int i = 0; i < path.count; i++) {
		if (i > 0)
			*end++ = '/';
		end = stpcpy(end, path.component[i]);
	}
	return OSTREL_SUCCESS;
}

// Whether a list's path is the stored one. Types beyond the last level don't count.
bool is_stored_path(const char *asked, const char *stored)
{
	RpyPath mine, theirs;
	if (mine.set(asked) != OSTREL_SUCCESS || theirs.set(stored) != OSTREL_SUCCESS || mine.count < theirs.count)
		return false;
	for (int i = 0; i < theirs.count; i++) {
		if (strcmp(mine.component[i], theirs.component[i]) != 0)
			return false;
	}
	return true;
}

// Finds the location of a list's group, in the stored spelling if the group is there.
ostrel_error_t locate(ostrel_db_t db, attrlist_t *idl, GroupLocation *location, bool *has_groups)
{
	*has_groups = false;
	char *pgname = nullptr, *pgtype = nullptr;
	if (ostrel_idlist2pginfo(idl, &pgname, &pgtype) != OSTREL_SUCCESS || pgname == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	RpyOperation operation(db);
	if (ostrel_error_t result = operation.begin_update(idl, 0))
		return result;
	ostrel_error_t found = operation.find(idl, pgname);
	ostrel_rpy_resources_t *res = operation.res();
	if (found != OSTREL_SUCCESS && found != OSTREL_NOT_FOUND)
		return SETERROR(found);
	if (ostrel_error_t result =
		note_location(operation, found == OSTREL_SUCCESS ? res->nsr_pgname : pgname, location))
		return result;
	if (found != OSTREL_SUCCESS)
		return OSTREL_SUCCESS;
	location->is_as_asked =
	    is_stored_path(pgname, res->nsr_pgname) && (pgtype == nullptr || is_stored_path(pgtype, res->nsr_pgtype));
	rpy_iter_t *iter = res->nsr_pgiter[res->nsr_pgdepth];
	if (rpy_iter_pg_pgs(iter, ostrel_res_pg_curr(res)) != 0)
		return SETERROR(ostrel_rpy_failure());
	rpy_propertygroup_t *scratch = res->nsr_pg[(res->nsr_pgdepth + 1) % OSTREL_RPY_MAX_DEPTH];
	*has_groups = rpy_iter_next_pg(iter, scratch) == 1;
	return OSTREL_SUCCESS;
}

// A rename that is under way.
struct Rename {
	ostrel_db_t db;
	attrlist_t *from;
	attrlist_t *to;
	uint64_t flags;
	uint64_t change = _rpy_new_change(); // the write of the new object is part of it
	bool is_same = false;                // nothing is to be done
	bool has_company = false;            // there are groups below the new name, the old one perhaps
};

// Removing the old group takes the groups below it along, so a rename that would lose any is refused.
ostrel_error_t check(Rename *rename)
{
	GroupLocation from = {}, to = {};
	bool has_groups = false;
	if (ostrel_error_t result = locate(rename->db, rename->from, &from, &has_groups))
		return result;
	if (ostrel_error_t result = locate(rename->db, rename->to, &to, &rename->has_company))
		return result;
	const bool one_tree = from.same_top(to);
	rename->is_same = one_tree && strcmp(from.pgname, to.pgname) == 0;
	// Nothing gives a group that stays another spelling, or other types.
	if (rename->is_same ? !to.is_as_asked : has_groups || (one_tree && to.is_below(from)))
		return SETERROR(OSTREL_INVALID_ARG);
	return OSTREL_SUCCESS;
}

ostrel_error_t find_old_one(const Rename &rename)
{
	RpyOperation operation(rename.db);
	return operation.begin_update_at(rename.from, 0);
}

// Takes the new object back. What others have written there since is theirs; a daemon that was started later knows of
// no changes.
void take_new_one_back(const Rename &rename, bool is_same_daemon)
{
	RpyOperation operation(rename.db);
	if (operation.begin_update_at(rename.to, rename.flags) != OSTREL_SUCCESS)
		return;
	rpy_propertygroup_t *group = ostrel_res_pg_curr(operation.res());
	const int undone = is_same_daemon ? _rpy_pg_withdraw(group, rename.change) : rpy_pg_delete(group);
	if (undone == 0)
		ostrel_request_refresh_cairn(operation.res());
}

// Writes the new object, and removes the old one or takes the new one back. A remove that may still be carried out, however
// late, can follow after the old object was seen: both objects stay then, unless the daemon that was asked has ended. A new
// object with groups below it stays, since they would go with it.
ostrel_error_t move_object(const Rename &rename, attrlist_t *props)
{
	if (ostrel_error_t result = ostrel_rpy_write(rename.db, rename.to, rename.flags, props, rename.change))
		return result;
	RpyRemoveFate fate;
	ostrel_error_t result = ostrel_rpy_remove(rename.db, rename.from, rename.flags, &fate);
	if (result == OSTREL_SUCCESS || rename.has_company)
		return result;
	ostrel_error_t old_one = fate.is_open ? find_old_one(rename) : OSTREL_SUCCESS;
	if (old_one == OSTREL_NOT_FOUND)
		return OSTREL_SUCCESS;
	if (old_one == OSTREL_SUCCESS && fate.is_open == fate.daemon_ended)
		take_new_one_back(rename, !fate.daemon_ended);
	return result;
}

// The record of the update is made from its list, which has to keep a text form: the stored types that a read has added may
// be too long for one.
void keep_text(attrlist_t *idl, attrlist_t *given)
{
	char *pgtype;
	if (ostrel_idlist_has_text(idl) || !ostrel_idlist_has_text(given))
		return;
	(void) attrlist_remove_all(idl, OSTREL_ID_PGTYPE);
	if (ostrel_idlist_get(given, OSTREL_ID_PGTYPE, &pgtype) == OSTREL_SUCCESS)
		(void) ostrel_idlist_add(idl, OSTREL_ID_PGTYPE, pgtype); // in the room of the longer one
}

// Reads the object with the lock given up, since the read takes it itself. The dispatcher holds it around each slot, which a
// slot's type doesn't say.
ostrel_error_t read_unlocked(ostrel_db_t db, attrlist_t *idl, uint64_t flags, AttrList *props) NO_THREAD_SAFETY_ANALYSIS
{
	AttrList given;
	if (int error = attrlist_dup(idl, given.out(), 0))
		return SETERRNO(error);
	ostrel_db_unlock(db);
	ostrel_error_t result = ostrel_db_read(db, idl, flags, props->out());
	ostrel_db_wrlock(db);
	keep_text(idl, given.get());
	return result;
}

} // namespace

ostrel_error_t ostrel_rename_object_in_cairn(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *newidl)
{
	char *pgtype;
	if (idl == nullptr || newidl == nullptr || ostrel_idlist_is_empty(idl) || ostrel_idlist_is_empty(newidl) ||
	    ostrel_idlist_get(newidl, OSTREL_ID_PGTYPE, &pgtype) != OSTREL_SUCCESS)
		return SETERROR(OSTREL_INVALID_ARG);
	AttrList props;
	if (ostrel_error_t result = read_unlocked(db, idl, flags, &props))
		return result;
	Rename rename = {db, idl, newidl, flags};
	if (ostrel_error_t result = check(&rename))
		return result;
	return rename.is_same ? OSTREL_SUCCESS : move_object(rename, props.get());
}
