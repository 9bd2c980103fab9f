/*
 * Reading one object, by the table of the handle's back end. This stands below the back ends: the repository's rename reads
 * the object that it renames as a caller would.
 */
#ifndef LIBOSTREL_READ_H
#define LIBOSTREL_READ_H

#include "libostrel_handle.h"

// For the analysis: a caller that holds the lock gives it up before, since the lock isn't recursive.
extern "C" ostrel_error_t ostrel_db_read(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t **objl)
    EXCLUDES(db->db_lock);

#endif
