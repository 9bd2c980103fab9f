/*
 * Identifier lists: the reserved keys, the rule by which a search list selects an object, and questions about a list.
 */
#ifndef LIBOSTREL_IDLIST_H
#define LIBOSTREL_IDLIST_H

#include "libostrel_backend.h"

#define OSTREL_ID_DB_NAME "object-db-name"
#define OSTREL_ID_ID_STRING "object-id-string"
#define OSTREL_ID_ENCLAVE "object-db-enclave"
#define OSTREL_ID_RAWLINE "object-rawline"

// True for NULL, and for a list of nothing but object-db-name and object-id-string.
boolean_t ostrel_idlist_is_empty(attrlist_t *idl);
// Whether the search list `idl` selects an object with the identifiers `objidl`. Values are compared with case if the
// handle was opened so. Without `exact` it is a subset test, in which an empty value matches any; with it, both lists
// have the same keys with the same values, in any order. What can't be compared isn't selected.
boolean_t ostrel_idlist_match(ostrel_db_t db, attrlist_t *idl, attrlist_t *objidl, boolean_t exact);
// Whether it has a text form, which a record needs.
bool ostrel_idlist_has_text(attrlist_t *idl);
// The dbc_stays of a back end for which the name and the enclave of the handle, to the letter, are its own database.
ostrel_stayscmd_t ostrel_idlist_stays;
// Whether a list has a key that chooses a file, level, instance or enclave, whatever its value.
bool ostrel_idlist_chooses(attrlist_t *idl);

#endif
