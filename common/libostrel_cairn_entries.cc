// Attributes become properties: the transaction that makes a group hold exactly the properties of an object. One table says
// how the values of each attribute type are fetched and what type a new property has; a stored property keeps its type.
//
// Divisions: values; the transaction.
#include <cstring>

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

// A single value is an array of one element, which lies in `room`.
template <typename T, auto Get>
int get_scalar(attrpair_t *pair, Values *values, void *room)
{
	*values = {room, 1};
	return Get(pair, static_cast<T *>(room));
}

// An attribute without a value is true by its presence.
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

// The elements have the attribute's type, so a stored type accepts only its own kind. Counts and integers are one kind.
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

// ---- The transaction ----

// Attaches an entry for a property. A stored property keeps its type, which goes to *type.
int attach_entry(ostrel_rpy_resources_t *res, rpy_transaction_entry_t *entry, const char *name, rpy_type_t *type)
{
	if (rpy_pg_get_property(ostrel_res_pg_curr(res), name, res->nsr_prop) != 0)
		return rpy_transaction_property_new(res->nsr_tx, entry, name, *type);
	if (rpy_property_type(res->nsr_prop, type) != 0)
		return -1;
	return rpy_transaction_property_change(res->nsr_tx, entry, name, *type);
}

// Adds the entry of one attribute. Once attached, it belongs to the transaction with its values.
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

// Schedules the deletion of a property. If that fails, the property stays.
void delete_property(ostrel_rpy_resources_t *res, const char *name)
{
	Entry entry(rpy_entry_create(res->nsr_handle));
	if (entry && rpy_transaction_property_delete(res->nsr_tx, entry.get(), name) == 0)
		(void) entry.release();
}

// What `props` doesn't have goes. The names are those of the version that the transaction was started on.
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

} // namespace

ostrel_error_t ostrel_rpy_build_transaction(ostrel_rpy_resources_t *res, attrlist_t *props, bool created)
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
