// Reading: a property group becomes an object, its paths the identifiers and its properties the attributes. A read by name
// gives one group, a read by type all that fit. Nothing is kept between reads but the working objects of the pool's entry.
//
// Divisions: values; properties and groups; reads.
#include <cstdlib>
#include <cstring>

#include "base/growing_array.h"
#include "libostrel_cairn.h"

namespace {

// The strings of a property, freed with it.
struct Strings {
	char *text[OSTREL_RPY_MAX_VALUES];
	int count = 0;

	Strings() = default;
	Strings(const Strings &) = delete;
	Strings &operator=(const Strings &) = delete;
	~Strings()
	{
		for (int i = 0; i < count; i++)
			free(text[i]);
	}
};

// ---- Values ----

// Reads the values of nsr_prop: a single one, or each of several. `read_value` gets the value, its index, and whether it is
// the single one.
template <typename ReadValue>
ostrel_error_t read_values(ostrel_rpy_work_t *work, int *count, ReadValue read_value)
{
	*count = 0;
	if (rpy_property_get_value(work->nsr_prop, work->nsr_val) == 0) {
		ostrel_error_t result = read_value(work->nsr_val, 0, true);
		*count = result == OSTREL_SUCCESS ? 1 : 0;
		return result;
	}
	while (rpy_iter_next_value(work->nsr_valiter, work->nsr_val) > 0) {
		if (*count == OSTREL_RPY_MAX_VALUES)
			return OSTREL_INVALID_ARG;
		if (ostrel_error_t result = read_value(work->nsr_val, *count, false))
			return result;
		++*count;
	}
	return OSTREL_SUCCESS;
}

ostrel_error_t add_booleans(ostrel_rpy_work_t *work, attrlist_t *props, const char *name)
{
	boolean_t values[OSTREL_RPY_MAX_VALUES];
	int count;
	ostrel_error_t result = read_values(work, &count, [&](const rpy_value_t *value, int i, bool) {
		uint8_t byte;
		if (rpy_value_get_boolean(value, &byte) != 0)
			return ostrel_rpy_failure();
		values[i] = byte != 0 ? B_TRUE : B_FALSE;
		return OSTREL_SUCCESS;
	});
	if (result != OSTREL_SUCCESS)
		return result;
	return ostrel_errno2error(attrlist_add_boolean_array(props, name, values, static_cast<unsigned int>(count)));
}

// Whole numbers, of either kind.
template <typename Number, auto Get, auto Add>
ostrel_error_t add_numbers(ostrel_rpy_work_t *work, attrlist_t *props, const char *name)
{
	Number values[OSTREL_RPY_MAX_VALUES];
	int count;
	ostrel_error_t result = read_values(work, &count, [&](const rpy_value_t *value, int i, bool) {
		return Get(value, &values[i]) == 0 ? OSTREL_SUCCESS : ostrel_rpy_failure();
	});
	if (result != OSTREL_SUCCESS)
		return result;
	return ostrel_errno2error(Add(props, name, values, static_cast<unsigned int>(count)));
}

// Copies the text of a value. An empty text among several values is a failure.
ostrel_error_t copy_text(const rpy_value_t *value, bool is_single, char **textp)
{
	ssize_t length = rpy_value_get_astring(value, nullptr, 0);
	if (length < 0 || (length == 0 && !is_single))
		return ostrel_rpy_failure();
	Heap<char> text(static_cast<char *>(malloc(static_cast<size_t>(length) + 1)));
	if (!text)
		return OSTREL_NO_MEMORY;
	if (rpy_value_get_astring(value, text.get(), static_cast<size_t>(length) + 1) < 0)
		return ostrel_rpy_failure();
	*textp = text.release();
	return OSTREL_SUCCESS;
}

ostrel_error_t add_strings(ostrel_rpy_work_t *work, attrlist_t *props, const char *name)
{
	Strings strings;
	int count;
	ostrel_error_t result = read_values(work, &count, [&](const rpy_value_t *value, int i, bool is_single) {
		ostrel_error_t copied = copy_text(value, is_single, &strings.text[i]);
		strings.count = copied == OSTREL_SUCCESS ? i + 1 : i;
		return copied;
	});
	if (result != OSTREL_SUCCESS)
		return result;
	return ostrel_errno2error(
	    attrlist_add_string_array(props, name, strings.text, static_cast<unsigned int>(count)));
}

constexpr struct {
	rpy_type_t type;
	ostrel_error_t (*add)(ostrel_rpy_work_t *work, attrlist_t *props, const char *name);
} value_mapping[] = {
    {RPY_TYPE_BOOLEAN, add_booleans},
    {RPY_TYPE_COUNT, add_numbers<uint64_t, rpy_value_get_count, attrlist_add_uint64_array>},
    {RPY_TYPE_INTEGER, add_numbers<int64_t, rpy_value_get_integer, attrlist_add_int64_array>},
    {RPY_TYPE_ASTRING, add_strings},
};

// ---- Properties and groups ----

// Adds the property in nsr_prop.
ostrel_error_t ostrel_prop2atl(ostrel_rpy_work_t *work, attrlist_t *props)
{
	char name[OSTREL_RPY_NAME_MAX];
	rpy_type_t type;
	if (rpy_property_get_name(work->nsr_prop, name, sizeof(name)) == -1 ||
	    rpy_iter_property_values(work->nsr_valiter, work->nsr_prop) != 0 ||
	    rpy_property_type(work->nsr_prop, &type) != 0)
		return ostrel_rpy_failure();
	for (const auto &row : value_mapping) {
		if (row.type == type)
			return row.add(work, props, name);
	}
	return OSTREL_INVALID_ARG;
}

ostrel_error_t add_identifiers(const ostrel_rpy_work_t *work, attrlist_t *idl)
{
	ostrel_error_t result = ostrel_idlist_add(idl, OSTREL_ID_PGNAME, work->nsr_pgname);
	return result == OSTREL_SUCCESS ? ostrel_idlist_add(idl, OSTREL_ID_PGTYPE, work->nsr_pgtype) : result;
}

// The identifiers and properties of the current group. All properties are read, wanted or not.
ostrel_error_t ostrel_pg2atl(ostrel_rpy_work_t *work, AttrList *idl, AttrList *props)
{
	if (ostrel_error_t result = ostrel_idlist_init(idl->out(), nullptr))
		return result;
	if (ostrel_error_t result = add_identifiers(work, idl->get()))
		return result;
	if (int error = attrlist_alloc(props->out(), ATL_UNIQUE_NAME, 0))
		return ostrel_errno2error(error);
	if (rpy_iter_pg_properties(work->nsr_propiter, ostrel_res_pg_curr(work)) != 0)
		return ostrel_rpy_failure();
	while (rpy_iter_next_property(work->nsr_propiter, work->nsr_prop) > 0) {
		if (ostrel_error_t result = ostrel_prop2atl(work, props->get()))
			return result;
	}
	return OSTREL_SUCCESS;
}

// ---- Reads ----

// The objects of a read.
class Found {
public:
	// Room for objects at the start. Without any, a read that finds nothing has no array to give.
	bool make_room(unsigned int count) { return objects_.make_room(count); }
	ostrel_error_t add(ostrel_rpy_work_t *work, uint64_t flags)
	{
		AttrList idl, props;
		bytes_ += static_cast<size_t>(_rpy_pg_get_bytes(ostrel_res_pg_curr(work)));
		// The daemon of another enclave may go on giving groups for ever.
		if (!work->nsr_until.is_never() && bytes_ > OSTREL_RPY_FOREIGN_BYTES)
			return SETERROR(OSTREL_NO_MEMORY);
		if (ostrel_error_t result = ostrel_pg2atl(work, &idl, &props))
			return SETERROR(result);
		if (!objects_.make_room())
			return SETERROR(OSTREL_NO_MEMORY);
		attrlist_t *handed = (flags & OSTREL_FLAG_WITH_PROPS) != 0 ? props.get() : nullptr;
		if (ostrel_error_t result = ostrel_object_create(idl.get(), handed, objects_.place()))
			return SETERROR(result);
		objects_.added();
		return OSTREL_SUCCESS;
	}
	bool is_empty() const { return objects_.empty(); }
	void hand_out(attrlist_t ***objs, unsigned int *count)
	{
		*count = static_cast<unsigned int>(objects_.size());
		*objs = objects_.release();
	}

private:
	GrowingArray<attrlist_t *, attrlist_free> objects_;
	size_t bytes_ = 0; // of their properties
};

ostrel_error_t read_by_name(RpyOperation *operation, attrlist_t *idl, const char *pgname, uint64_t flags, Found *found)
{
	if (ostrel_error_t result = operation->find(idl, pgname))
		return SETERROR(result);
	return found->add(operation->work(), flags);
}

ostrel_error_t read_by_type(ostrel_rpy_work_t *work, const char *pgtype, uint64_t flags, Found *found)
{
	RpyPath types;
	if (ostrel_error_t result = types.set_pattern(pgtype))
		return SETERROR(result);
	ostrel_rpy_iter_reset(work);
	for (;;) {
		ostrel_error_t result = ostrel_rpy_iter_next_pg(work, nullptr, &types);
		if (result == OSTREL_SUCCESS)
			result = found->add(work, flags);
		if (result == OSTREL_NOT_FOUND || result == OSTREL_WALK_HALTED)
			return OSTREL_SUCCESS;
		if (result != OSTREL_SUCCESS)
			return result;
	}
}

} // namespace

ostrel_error_t ostrel_read_objects_from_cairn(
    ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t ***objs, unsigned int *count)
{
	if (objs == nullptr || count == nullptr || idl == nullptr || ostrel_idlist_is_empty(idl))
		return SETERROR(OSTREL_INVALID_ARG);
	*objs = nullptr;
	*count = 0;
	char *pgname = nullptr, *pgtype = nullptr;
	if (ostrel_error_t result = ostrel_idlist2pginfo(idl, &pgname, &pgtype))
		return SETERROR(result);
	RpyOperation operation(db);
	if (ostrel_error_t result = operation.begin_read(idl))
		return result;
	Found found;
	if (!found.make_room(pgname != nullptr ? 1 : OSTREL_RPY_OBJECTS_START))
		return SETERROR(OSTREL_NO_MEMORY);
	ostrel_error_t result = pgname != nullptr ? read_by_name(&operation, idl, pgname, flags, &found)
						  : read_by_type(operation.work(), pgtype, flags, &found);
	if (result == OSTREL_FAILURE && found.is_empty() && operation.renew(idl))
		result = read_by_type(operation.work(), pgtype, flags, &found);
	if (result == OSTREL_SUCCESS)
		found.hand_out(objs, count);
	return result;
}
