/*
 * Whether the client of a served database may do what it asks for.
 */
#ifndef LIBOSTREL_AUTH_H
#define LIBOSTREL_AUTH_H

#include <meridon/peercred.h>

#include "libostrel.h"

// Whether the caller with this credential may read, or update, by the authorization text of the handle; a NULL handle
// and an empty text are open to everybody. Errors: OSTREL_EPERM  no, or an unknown user; what the user database failed
// with
ostrel_error_t ostrel_db_check_read_auth(ostrel_db_t db, const peercred_t *cred);
ostrel_error_t ostrel_db_check_write_auth(ostrel_db_t db, const peercred_t *cred);
// Whether it may leave the served database as well. The same errors.
ostrel_error_t ostrel_check_elsewhere_auth(const peercred_t *cred);

#endif
