// Writing: a write makes a group hold exactly the given properties, in one transaction. A remove deletes the group; a
// rename is a read, a write and a remove.
#include <cstring>
#include <ctime>

#include "libostrel_cairn.h"

namespace {

using Entry = Handle<rpy_transaction_entry_t, rpy_entry_destroy>;
using Value = Handle<rpy_value_t, rpy_value_destroy>;

// ---- Values ----

// The values of an attribute, whatever its type: an array of `count` elements.
struct Values {
	const void *array = nullptr;
	unsigned int count = 0;
};

template <typename T, auto Get>
int get_array(attrpair_t *pair, Values *values, void *)
{
	T *array = nullptr;
	int error = Get(pair, &array, &values->count);
	values->array = array;
	return error;
}

// One value is an array of one; `room` keeps it.
template <typename T, auto Get>
int get_scalar(attrpair_t *pair, Values *values, void *room)
{
	*values = {room, 1};
	return Get(pair, static_cast<T *>(room));
}

// An attribute that is there and has no value is true.
int get_presence(attrpair_t *, Values *values, void *room)
{
	const boolean_t present = B_TRUE;
	memcpy(room, &present, sizeof(present));
	*values = {room, 1};
	return 0;
}

template <typename T>
T element(const void *array, unsigned int i)
{
	return static_cast<const T *>(array)[i];
}

// Numbers widen by their own sign.
template <typename T>
uint64_t number_of(const void *array, unsigned int i)
{
	return static_cast<uint64_t>(static_cast<int64_t>(element<T>(array, i)));
}
template <>
uint64_t number_of<uint32_t>(const void *array, unsigned int i)
{
	return element<uint32_t>(array, i);
}
template <>
uint64_t number_of<uint64_t>(const void *array, unsigned int i)
{
	return element<uint64_t>(array, i);
}

struct AttributeType {
	data_type_t attribute;
	rpy_type_t stored; // of a property that is new
	int (*get)(attrpair_t *pair, Values *values, void *room);
	uint64_t (*number)(const void *array, unsigned int i); // of numbers
};

constexpr AttributeType attribute_types[] = {
    {DATA_TYPE_BOOLEAN, RPY_TYPE_BOOLEAN, get_presence, nullptr},
    {DATA_TYPE_BOOLEAN_VALUE, RPY_TYPE_BOOLEAN, get_scalar<boolean_t, attrpair_value_boolean_value>, nullptr},
    {DATA_TYPE_BOOLEAN_ARRAY, RPY_TYPE_BOOLEAN, get_array<boolean_t, attrpair_value_boolean_array>, nullptr},
    {DATA_TYPE_INT32, RPY_TYPE_INTEGER, get_scalar<int32_t, attrpair_value_int32>, number_of<int32_t>},
    {DATA_TYPE_INT64, RPY_TYPE_INTEGER, get_scalar<int64_t, attrpair_value_int64>, number_of<int64_t>},
    {DATA_TYPE_INT32_ARRAY, RPY_TYPE_INTEGER, get_array<int32_t, attrpair_value_int32_array>, number_of<int32_t>},
    {DATA_TYPE_INT64_ARRAY, RPY_TYPE_INTEGER, get_array<int64_t, attrpair_value_int64_array>, number_of<int64_t>},
    {DATA_TYPE_UINT32, RPY_TYPE_COUNT, get_scalar<uint32_t, attrpair_value_uint32>, number_of<uint32_t>},
    {DATA_TYPE_UINT64, RPY_TYPE_COUNT, get_scalar<uint64_t, attrpair_value_uint64>, number_of<uint64_t>},
    {DATA_TYPE_UINT32_ARRAY, RPY_TYPE_COUNT, get_array<uint32_t, attrpair_value_uint32_array>, number_of<uint32_t>},
    {DATA_TYPE_UINT64_ARRAY, RPY_TYPE_COUNT, get_array<uint64_t, attrpair_value_uint64_array>, number_of<uint64_t>},
    {DATA_TYPE_STRING, RPY_TYPE_ASTRING, get_scalar<char *, attrpair_value_string>, nullptr},
    {DATA_TYPE_STRING_ARRAY, RPY_TYPE_ASTRING, get_array<char *, attrpair_value_string_array>, nullptr},
};

const AttributeType *find_type(data_type_t type)
{
	for (const AttributeType &row : attribute_types) {
		if (row.attribute == type)
			return &row;
	}
	return nullptr;
}

// The elements are what the attribute's type says, so a stored type takes those of its own kind alone: counts and integers
// are one kind.
bool is_number(rpy_type_t type)
{
	return type == RPY_TYPE_COUNT || type == RPY_TYPE_INTEGER;
}
bool takes(rpy_type_t stored, const AttributeType &attribute)
{
	return stored == attribute.stored || (is_number(stored) && is_number(attribute.stored));
}

ostrel_error_t set_value(
    rpy_value_t *value, rpy_type_t stored, const AttributeType &attribute, const Values &values, unsigned int i)
{
	switch (stored) {
	case RPY_TYPE_BOOLEAN:
		rpy_value_set_boolean(value, static_cast<uint8_t>(element<boolean_t>(values.array, i)));
		return OSTREL_SUCCESS;
	case RPY_TYPE_COUNT:
		rpy_value_set_count(value, attribute.number(values.array, i));
		return OSTREL_SUCCESS;
	case RPY_TYPE_INTEGER:
		rpy_value_set_integer(value, static_cast<int64_t>(attribute.number(values.array, i)));
		return OSTREL_SUCCESS;
	default:
		if (rpy_value_set_from_string(value, RPY_TYPE_ASTRING, element<char *>(values.array, i)) != 0)
			return SETERROR(ostrel_rpy_failure());
		return OSTREL_SUCCESS;
	}
}

ostrel_error_t ostrel_array2rpy_entries(ostrel_rpy_resources_t *res, rpy_transaction_entry_t *entry,
    const AttributeType &attribute, rpy_type_t stored, const Values &values)
{
	if (values.count > 0 && !takes(stored, attribute))
		return SETERROR(OSTREL_INVALID_ARG);
	for (unsigned int i = 0; i < values.count; i++) {
		Value value(rpy_value_create(res->nsr_handle));
		if (!value)
			return SETERROR(ostrel_rpy_failure());
		if (ostrel_error_t result = set_value(value.get(), stored, attribute, values, i))
			return result;
		if (rpy_entry_add_value(entry, value.get()) != 0)
			return SETERROR(ostrel_rpy_failure());
		(void) value.release(); // the entry's now
	}
	return OSTREL_SUCCESS;
}

// ---- Transactions ----

// Attaches an entry for a property, which keeps its stored type if it is there.
int attach_entry(ostrel_rpy_resources_t *res, rpy_transaction_entry_t *entry, const char *name, rpy_type_t *type)
{
	if (rpy_pg_get_property(ostrel_res_pg_curr(res), name, res->nsr_prop) != 0)
		return rpy_transaction_property_new(res->nsr_tx, entry, name, *type);
	if (rpy_property_type(res->nsr_prop, type) != 0)
		return -1;
	return rpy_transaction_property_change(res->nsr_tx, entry, name, *type);
}

// Adds the entry of one attribute. Attached, it belongs to the transaction, with what it holds.
ostrel_error_t ostrel_atp2rpy(ostrel_rpy_resources_t *res, attrpair_t *pair)
{
	const char *name = attrpair_name(pair);
	const AttributeType *attribute = find_type(attrpair_type(pair));
	if (attribute == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	uint64_t room = 0;
	Values values;
	if (int error = attribute->get(pair, &values, &room))
		return SETERRNO(error);
	Entry entry(rpy_entry_create(res->nsr_handle));
	if (!entry)
		return SETERROR(ostrel_rpy_failure());
	rpy_type_t type = attribute->stored;
	if (attach_entry(res, entry.get(), name, &type) != 0)
		return SETERROR(ostrel_rpy_failure());
	ostrel_error_t result = ostrel_array2rpy_entries(res, entry.get(), *attribute, type, values);
	if (result != OSTREL_SUCCESS) {
		rpy_entry_destroy_children(entry.get());
		return result;
	}
	(void) entry.release();
	return OSTREL_SUCCESS;
}

// Schedules a property's deletion. One that can't be scheduled stays.
void delete_property(ostrel_rpy_resources_t *res, const char *name)
{
	Entry entry(rpy_entry_create(res->nsr_handle));
	if (entry && rpy_transaction_property_delete(res->nsr_tx, entry.get(), name) == 0)
		(void) entry.release();
}

ostrel_error_t delete_others(ostrel_rpy_resources_t *res, attrlist_t *props)
{
	if (rpy_iter_pg_properties(res->nsr_propiter, ostrel_res_pg_curr(res)) != 0)
		return SETERROR(ostrel_rpy_failure());
	while (rpy_iter_next_property(res->nsr_propiter, res->nsr_prop) > 0) {
		char name[OSTREL_RPY_NAME_MAX];
		if (rpy_property_get_name(res->nsr_prop, name, sizeof(name)) != -1 && !attrlist_exists(props, name))
			delete_property(res, name);
	}
	return OSTREL_SUCCESS;
}

// Builds the transaction that makes the current group hold exactly `props`.
ostrel_error_t build_transaction(ostrel_rpy_resources_t *res, attrlist_t *props, bool created)
{
	rpy_transaction_destroy_children(res->nsr_tx); // of an attempt before
	if (rpy_transaction_reset(res->nsr_tx) != 0 || rpy_transaction_start(res->nsr_tx, ostrel_res_pg_curr(res)) != 0)
		return SETERROR(ostrel_rpy_failure());
	if (!created) {
		if (ostrel_error_t result = delete_others(res, props))
			return result;
	}
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(props, pair)) != nullptr;) {
		if (ostrel_error_t result = ostrel_atp2rpy(res, pair))
			return result;
	}
	return OSTREL_SUCCESS;
}

// Others that change the group all the time keep this one waiting, and the processor free: ever longer, up to 100 ms.
class StalePause {
public:
	void wait()
	{
		struct timespec pause = {0, next_};
		(void) nanosleep(&pause, nullptr);
		next_ = next_ * 2 < longest ? next_ * 2 : longest;
	}

private:
	static constexpr long longest = 100'000'000;
	long next_ = 50'000;
};

ostrel_error_t commit(ostrel_rpy_resources_t *res, attrlist_t *props, bool created)
{
	for (StalePause pause;;) {
		if (ostrel_error_t result = build_transaction(res, props, created))
			return result;
		int committed = rpy_transaction_commit(res->nsr_tx);
		if (committed == 1)
			return OSTREL_SUCCESS;
		if (committed != 0)
			return SETERROR(ostrel_rpy_failure());
		if (ostrel_rpy_is_over(res))
			return SETERROR(OSTREL_FAILURE);
		pause.wait(); // before the look at the group, which is to be as fresh as it can be
		if (rpy_pg_update(ostrel_res_pg_curr(res)) == -1)
			return SETERROR(ostrel_rpy_failure());
		// What others have put into a group that this write has made goes, too.
		created = false;
	}
}

// Takes back what a failed write has created: the group that is current, if it is one of those. What others have put there
// stays. A commit whose fate is open finds nothing then, or is taken back with it.
void undo_creation(ostrel_rpy_resources_t *res, const RpyCreation &made, uint64_t change)
{
	if (made.first == -1 || res->nsr_pgdepth < made.first || res->nsr_pgdepth > made.last)
		return;
	(void) _rpy_pg_withdraw(ostrel_res_pg_curr(res), change); // after a failure it stays, and is empty
}

bool is_temporary(uint64_t flags)
{
	return (flags & OSTREL_FLAG_TEMPORARY) != 0;
}

struct RpyPaths {
	char *pgname = nullptr;
	char *pgtype = nullptr; // none if the list has none
};

// Finds the group of a write, or makes it.
ostrel_error_t find_or_create(RpyOperation *operation, attrlist_t *idl, const char *pgname, const char *pgtype,
    uint64_t change, RpyCreation *made)
{
	ostrel_error_t result = operation->find(idl, pgname);
	_rpy_handle_set_change(operation->res()->nsr_handle, change);
	if (result != OSTREL_NOT_FOUND)
		return result == OSTREL_SUCCESS ? result : SETERROR(result);
	if (pgtype == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	return ostrel_rpy_add_pg(operation->res(), pgname, pgtype, made);
}

// One attempt at a write, as part of a change. *is_gone: others have deleted the group, or one above it, in the middle.
ostrel_error_t write_once(
    RpyOperation *operation, attrlist_t *idl, const RpyPaths &path, attrlist_t *props, uint64_t change, bool *is_gone)
{
	RpyCreation made;
	ostrel_error_t result = find_or_create(operation, idl, path.pgname, path.pgtype, change, &made);
	ostrel_rpy_resources_t *res = operation->res();
	if (result == OSTREL_SUCCESS)
		result = commit(res, props, made.first != -1);
	rpy_transaction_destroy_children(res->nsr_tx);
	*is_gone = result == OSTREL_FAILURE && rpy_error() == RPY_ERROR_DELETED;
	if (result == OSTREL_SUCCESS)
		ostrel_request_refresh_cairn(res);
	else
		undo_creation(res, made, change);
	return result;
}

constexpr int write_tries = 20;

ostrel_error_t write_as(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *props, uint64_t change)
{
	RpyPaths path;
	if (ostrel_idlist2pginfo(idl, &path.pgname, &path.pgtype) != OSTREL_SUCCESS || path.pgname == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	RpyOperation operation(db);
	if (ostrel_error_t result = operation.begin_update(idl, is_temporary(flags)))
		return SETERROR(result);
	// A group that others made and took back again, since their write failed, is made anew.
	ostrel_error_t result = OSTREL_FAILURE;
	bool is_gone = true;
	for (int tries = 0; is_gone && tries < write_tries; tries++)
		result = write_once(&operation, idl, path, props, change, &is_gone);
	return result;
}

// ---- Renames ----

// Which group an identifier list names, as far as two of them can be told apart.
struct GroupPlace {
	enclaveid_t enclave;
	boolean_t svclevel;
	char instance[OSTREL_RPY_NAME_MAX];
	char pgname[OSTREL_RPY_NAME_MAX];
	bool is_as_asked; // the list has the stored spelling, and the stored types

	bool same_top(const GroupPlace &other) const
	{
		return enclave == other.enclave && svclevel == other.svclevel && strcmp(instance, other.instance) == 0;
	}
	bool is_below(const GroupPlace &other) const
	{
		const size_t length = strlen(other.pgname);
		return strncmp(pgname, other.pgname, length) == 0 && pgname[length] == '/';
	}
};

ostrel_error_t note_place(const RpyOperation &operation, const char *pgname, GroupPlace *place)
{
	const ostrel_rpy_resources_t *res = operation.res();
	*place = {res->nsr_enclaveid, res->nsr_svclevelop, "", "", false};
	if (!res->nsr_svclevelop &&
	    rpy_instance_get_name(res->nsr_op_inst, place->instance, sizeof(place->instance)) == -1)
		return SETERROR(ostrel_rpy_failure());
	RpyPath path;
	if (ostrel_error_t result = path.set(pgname))
		return SETERROR(result);
	char *end = place->pgname;
	for (int i = 0; i < path.count; i++) {
		if (i > 0)
			*end++ = '/';
		end = stpcpy(end, path.component[i]);
	}
	return OSTREL_SUCCESS;
}

// Whether a list's path is the stored one. Types may be left over: no level is theirs.
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

// Where the group of a list is: in the repository's spelling if it is there.
ostrel_error_t find_place(ostrel_db_t db, attrlist_t *idl, GroupPlace *place, bool *has_groups)
{
	*has_groups = false;
	char *pgname = nullptr, *pgtype = nullptr;
	if (ostrel_idlist2pginfo(idl, &pgname, &pgtype) != OSTREL_SUCCESS || pgname == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	RpyOperation operation(db);
	if (ostrel_error_t result = operation.begin_update(idl, false))
		return result;
	ostrel_error_t found = operation.find(idl, pgname);
	ostrel_rpy_resources_t *res = operation.res();
	if (found != OSTREL_SUCCESS && found != OSTREL_NOT_FOUND)
		return SETERROR(found);
	if (ostrel_error_t result = note_place(operation, found == OSTREL_SUCCESS ? res->nsr_pgname : pgname, place))
		return result;
	if (found != OSTREL_SUCCESS)
		return OSTREL_SUCCESS;
	place->is_as_asked =
	    is_stored_path(pgname, res->nsr_pgname) && (pgtype == nullptr || is_stored_path(pgtype, res->nsr_pgtype));
	rpy_iter_t *iter = res->nsr_pgiter[res->nsr_pgdepth];
	if (rpy_iter_pg_pgs(iter, ostrel_res_pg_curr(res)) != 0)
		return SETERROR(ostrel_rpy_failure());
	rpy_propertygroup_t *scratch = res->nsr_pg[(res->nsr_pgdepth + 1) % OSTREL_RPY_MAX_DEPTH];
	*has_groups = rpy_iter_next_pg(iter, scratch) == 1;
	return OSTREL_SUCCESS;
}

struct Rename {
	bool is_same = false;     // nothing is to be done
	bool has_company = false; // there are groups below the new name, the old one perhaps
};

// Removing the old group takes the groups below it along, so a rename that would lose any is refused.
ostrel_error_t check_rename(ostrel_db_t db, attrlist_t *idl, attrlist_t *newidl, Rename *found)
{
	GroupPlace from = {}, to = {};
	bool has_groups = false;
	if (ostrel_error_t result = find_place(db, idl, &from, &has_groups))
		return result;
	if (ostrel_error_t result = find_place(db, newidl, &to, &found->has_company))
		return result;
	const bool one_tree = from.same_top(to);
	found->is_same = one_tree && strcmp(from.pgname, to.pgname) == 0;
	// Nothing gives a group that stays another spelling, or other types.
	if (found->is_same ? !to.is_as_asked : has_groups || (one_tree && to.is_below(from)))
		return SETERROR(OSTREL_INVALID_ARG);
	return OSTREL_SUCCESS;
}

// Whether the group of a list is there.
ostrel_error_t look_for(ostrel_db_t db, attrlist_t *idl)
{
	char *pgname;
	if (ostrel_idlist2pginfo(idl, &pgname, nullptr) != OSTREL_SUCCESS)
		return OSTREL_INVALID_ARG;
	RpyOperation operation(db);
	if (ostrel_error_t result = operation.begin_update(idl, false))
		return result;
	return operation.find(idl, pgname);
}

// What became of a remove that failed.
struct RemoveFate {
	bool is_open = false;      // it may be carried out all the same
	bool daemon_ended = false; // not by the daemon that was asked, at any rate
};

ostrel_error_t remove_group(ostrel_db_t db, attrlist_t *idl, uint64_t flags, RemoveFate *fate)
{
	char *pgname;
	if (ostrel_idlist2pginfo(idl, &pgname, nullptr) != OSTREL_SUCCESS)
		return OSTREL_INVALID_ARG;
	RpyOperation operation(db);
	if (ostrel_error_t result = operation.begin_update(idl, is_temporary(flags)))
		return result;
	if (ostrel_error_t result = operation.find(idl, pgname))
		return result;
	ostrel_rpy_resources_t *res = operation.res();
	if (rpy_pg_delete(ostrel_res_pg_curr(res)) != 0) {
		ostrel_error_t result = ostrel_rpy_failure();
		fate->is_open = _rpy_is_open() != 0;
		fate->daemon_ended = fate->is_open && _rpy_daemon_has_ended(res->nsr_handle) != 0;
		return result;
	}
	ostrel_request_refresh_cairn(res);
	return OSTREL_SUCCESS;
}

// Takes the new object of a rename back. What others have written there since is theirs; a daemon that came later doesn't know
// of anybody's.
void undo_rename(ostrel_db_t db, attrlist_t *newidl, uint64_t flags, uint64_t change, bool same_daemon)
{
	char *pgname;
	RpyOperation operation(db);
	if (ostrel_idlist2pginfo(newidl, &pgname, nullptr) != OSTREL_SUCCESS ||
	    operation.begin_update(newidl, is_temporary(flags)) != OSTREL_SUCCESS ||
	    operation.find(newidl, pgname) != OSTREL_SUCCESS)
		return;
	rpy_propertygroup_t *group = ostrel_res_pg_curr(operation.res());
	const int undone = same_daemon ? _rpy_pg_withdraw(group, change) : rpy_pg_delete(group);
	if (undone == 0)
		ostrel_request_refresh_cairn(operation.res());
}

// Removes the old object of a rename, or takes the new one back. A remove whose fate is open may be carried out after the old
// object was seen, however late, so that both stay unless nobody is left to do so. A new one with groups below it stays:
// they would go with it.
ostrel_error_t remove_or_undo(
    ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *newidl, const Rename &rename, uint64_t change)
{
	RemoveFate fate;
	ostrel_error_t result = remove_group(db, idl, flags, &fate);
	if (result == OSTREL_SUCCESS || rename.has_company)
		return result;
	ostrel_error_t old_one = fate.is_open ? look_for(db, idl) : OSTREL_SUCCESS;
	if (old_one == OSTREL_NOT_FOUND)
		return OSTREL_SUCCESS;
	if (old_one == OSTREL_SUCCESS && fate.is_open == fate.daemon_ended)
		undo_rename(db, newidl, flags, change, !fate.daemon_ended);
	return result;
}

// The record of the update is made from its list. What a read has added mustn't cost it that: the stored types may be long.
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

// ---- Slots ----

ostrel_error_t ostrel_write_object_to_cairn(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *props)
{
	if (idl == nullptr || props == nullptr || ostrel_idlist_is_empty(idl))
		return SETERROR(OSTREL_INVALID_ARG);
	return write_as(db, idl, flags, props, _rpy_new_change());
}

ostrel_error_t ostrel_remove_object_from_cairn(ostrel_db_t db, attrlist_t *idl, uint64_t flags)
{
	if (idl == nullptr || ostrel_idlist_is_empty(idl))
		return OSTREL_INVALID_ARG;
	RemoveFate ignored;
	return remove_group(db, idl, flags, &ignored);
}

ostrel_error_t ostrel_rename_object_in_cairn(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *newidl)
{
	char *pgtype;
	if (idl == nullptr || newidl == nullptr || ostrel_idlist_is_empty(idl) || ostrel_idlist_is_empty(newidl) ||
	    ostrel_idlist_get(newidl, OSTREL_ID_PGTYPE, &pgtype) != OSTREL_SUCCESS)
		return SETERROR(OSTREL_INVALID_ARG);
	AttrList props;
	if (ostrel_error_t result = read_unlocked(db, idl, flags, &props))
		return result;
	Rename rename;
	if (ostrel_error_t result = check_rename(db, idl, newidl, &rename))
		return result;
	if (rename.is_same)
		return OSTREL_SUCCESS;
	const uint64_t change = _rpy_new_change();
	if (ostrel_error_t result = write_as(db, newidl, flags, props.get(), change))
		return result;
	return remove_or_undo(db, idl, flags, newidl, rename, change);
}
