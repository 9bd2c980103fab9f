/*
 * Audit records of updates: the slot dbc_audit of files and of the repository.
 */
#ifndef LIBOSTREL_AUDIT_H
#define LIBOSTREL_AUDIT_H

#include "libostrel_backend.h"

// Leaves a record of an update in the audit trail, under the ids of the client that the calling thread serves, or else of
// the process: what was updated, and whether it worked. It has no result: what goes wrong costs the record, silently.
ostrel_auditcmd_t ostrel_audit;

#endif
