// Identifier lists: the keys that single an object out, the rule by which a search list selects one, and the text form.
// Codes are returned directly here, without the trace point: the caller reports them if it wishes.
#include "libostrel_idlist.h"

#include <cstdio>
#include <cstring>
#include <strings.h>

#include "base/guards.h"
#include "libostrel_error.h"
#include "libostrel_handle.h"

// The two keys that identify nothing.
static bool is_passed_over(const char *name)
{
	return strcmp(name, OSTREL_ID_ID_STRING) == 0 || strcmp(name, OSTREL_ID_DB_NAME) == 0;
}

// The identifying pair after `pair`, the first one if `pair` is NULL.
static attrpair_t *next_identifier(attrlist_t *idl, attrpair_t *pair)
{
	do
		pair = attrlist_next_attrpair(idl, pair);
	while (pair != nullptr && is_passed_over(attrpair_name(pair)));
	return pair;
}

ostrel_error_t ostrel_idlist_init(attrlist_t **idlp, const char *db_name)
{
	if (idlp == nullptr)
		return OSTREL_INVALID_ARG;
	AttrList idl;
	int error = attrlist_alloc(idl.out(), ATL_UNIQUE_NAME, 0);
	if (error == 0 && db_name != nullptr)
		error = attrlist_add_string(idl.get(), OSTREL_ID_DB_NAME, db_name);
	if (error != 0)
		return ostrel_errno2error(error);
	*idlp = idl.release();
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_idlist_add(attrlist_t *idl, const char *name, const char *value)
{
	if (name == nullptr || is_passed_over(name))
		return OSTREL_INVALID_ARG;
	return ostrel_errno2error(attrlist_add_string(idl, name, value != nullptr ? value : ""));
}

ostrel_error_t ostrel_idlist_add_enclaveid(attrlist_t *idl, enclaveid_t enclave)
{
	return ostrel_errno2error(attrlist_add_int64(idl, OSTREL_ID_ENCLAVE, enclave));
}

ostrel_error_t ostrel_idlist_get(attrlist_t *idl, const char *name, char **valuep)
{
	return ostrel_errno2error(attrlist_lookup_string(idl, name, valuep));
}

ostrel_error_t ostrel_idlist_get_enclaveid(attrlist_t *idl, enclaveid_t *enclavep)
{
	int64_t value;
	if (enclavep == nullptr)
		return OSTREL_INVALID_ARG;
	if (int error = attrlist_lookup_int64(idl, OSTREL_ID_ENCLAVE, &value))
		return ostrel_errno2error(error);
	*enclavep = static_cast<enclaveid_t>(value);
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_idlist_get_db_name(attrlist_t *idl, char **namep)
{
	return ostrel_idlist_get(idl, OSTREL_ID_DB_NAME, namep);
}

ostrel_error_t ostrel_idlist_remove(attrlist_t *idl, const char *name)
{
	return ostrel_errno2error(attrlist_remove(idl, name, DATA_TYPE_STRING));
}

boolean_t ostrel_idlist_is_empty(attrlist_t *idl)
{
	return next_identifier(idl, nullptr) == nullptr ? B_TRUE : B_FALSE;
}

boolean_t ostrel_idlist_match(ostrel_db_t db, attrlist_t *idl, attrlist_t *objidl, boolean_t exact)
{
	const bool with_case = ostrel_is_case_sensitive(db);
	auto compare = with_case ? strcmp : strcasecmp;
	size_t equal = 0;

	for (attrpair_t *pair = nullptr; (pair = next_identifier(idl, pair)) != nullptr;) {
		char *wanted;
		char *stored;
		// An empty search value matches every value, but the key has to be there.
		if (attrpair_value_string(pair, &wanted) != 0 ||
		    attrlist_lookup_string(objidl, attrpair_name(pair), &stored) != 0)
			return B_FALSE;
		if (exact == B_FALSE && *wanted == '\0')
			continue;
		if (compare(wanted, stored) != 0)
			return B_FALSE;
		equal++;
	}
	if (exact == B_FALSE)
		return B_TRUE;

	size_t held = 0;
	for (attrpair_t *pair = nullptr; (pair = next_identifier(objidl, pair)) != nullptr;)
		held++;
	return held == equal ? B_TRUE : B_FALSE;
}

bool ostrel_idlist_has_text(attrlist_t *idl)
{
	char text[OSTREL_IDSTR_SIZE];
	return ostrel_idlist2idstr(idl, text) == OSTREL_SUCCESS;
}

bool ostrel_idlist_stays(ostrel_db_t db, attrlist_t *idl)
{
	char *name;
	int64_t enclave;
	if (attrlist_exists(idl, OSTREL_ID_DB_NAME) &&
	    (ostrel_idlist_get_db_name(idl, &name) != OSTREL_SUCCESS || strcmp(name, ostrel_db_get_name(db)) != 0))
		return false;
	return !attrlist_exists(idl, OSTREL_ID_ENCLAVE) ||
	       (attrlist_lookup_int64(idl, OSTREL_ID_ENCLAVE, &enclave) == 0 && enclave == ostrel_db_get_enclaveid(db));
}

bool ostrel_idlist_chooses(attrlist_t *idl)
{
	return attrlist_exists(idl, OSTREL_ID_DB_NAME) || attrlist_exists(idl, OSTREL_ID_ENCLAVE);
}

ostrel_error_t ostrel_idlist2idstr(attrlist_t *idl, char *buf)
{
	size_t used = 0;

	if (buf == nullptr)
		return OSTREL_INVALID_ARG;
	*buf = '\0';
	for (attrpair_t *pair = nullptr; (pair = next_identifier(idl, pair)) != nullptr;) {
		char *value;
		if (int error = attrpair_value_string(pair, &value))
			return ostrel_errno2error(error);
		const size_t room = OSTREL_IDSTR_SIZE - used;
		const int length = snprintf(buf + used, room, "%s=%s;", attrpair_name(pair), value);
		// Negative for a text beyond INT_MAX: too long as well.
		if (length < 0 || static_cast<size_t>(length) >= room)
			return OSTREL_INVALID_ARG;
		used += static_cast<size_t>(length);
	}
	return OSTREL_SUCCESS;
}
