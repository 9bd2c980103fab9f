/*
 * What holds for the requests of a served database, whatever the channel.
 */
#ifndef LIBOSTREL_HATCHSERVER_RULES_H
#define LIBOSTREL_HATCHSERVER_RULES_H

#include <meridon/peercred.h>

#include "libostrel.h"

// Whether a list, which may be NULL, stays within the served database. Otherwise a caller with rights on this database could reach
// any file of the server's, and any enclave's repository: it takes the right to leave (ostrel_check_elsewhere_auth()).
bool ostrel_request_stays(ostrel_db_t db, attrlist_t *idl);

// Takes the handle's own enclave out of a list: it changes nothing, but with it the list has no text for an audit record. A
// back end that passes lists on (no dbc_stays) gets them as they are.
void ostrel_drop_own_enclave(ostrel_db_t db, attrlist_t *idl);

// An update whose identifiers have no text leaves no audit record. Only root may do that.
bool ostrel_may_update(const peercred_t *cred, attrlist_t *idl);

#endif
