/*
 * The flat-file back end beyond its slots in the table, for itself and its tests.
 */
#ifndef LIBOSTREL_FILES_H
#define LIBOSTREL_FILES_H

#include "libostrel_impl.h"

// Reads the objects of a flat file, or of a raw file. Contract: the slot dbc_read.
ostrel_error_t ostrel_read_objects_from_file_common(
    boolean_t raw, ostrel_db_t db, attrlist_t *idlist, uint64_t flags, attrlist_t ***objlist, uint_t *nobjs);

/*
 * Writes (props given), renames (newidlist given) or removes (neither) the objects that have exactly these identifiers.
 * Errors: OSTREL_NOT_FOUND    a rename or remove matched nothing
 *         OSTREL_INVALID_ARG  no path; not a regular file; a line that can't be written so that it reads back
 *         those of reading and of writing the file. The database is as it was, but for a failed sync of its directory
 */
ostrel_error_t ostrel_update_object_in_file(
    ostrel_db_t db, attrlist_t *idlist, attrlist_t *newidlist, uint64_t flags, attrlist_t *props);

// Replaces the file by one line for each object; NULL slots are passed over. Errors: as of an update.
ostrel_error_t ostrel_write_objects_to_file(ostrel_db_t db, const char *dbname, attrlist_t **objs, uint_t nobjs);

// Removes a database file. Errors: OSTREL_INVALID_ARG for another enclave than the caller's, outside the global one.
ostrel_error_t ostrel_destroy_db_file(const char *name, enclaveid_t enclave);

// The file that an operation means: the list's, or the handle's. NULL: neither names one.
const char *ostrel_file_path(ostrel_db_t db, attrlist_t *idlist);

// Opens the file for reading, in the enclave of the handle if that is another one. -1: *err has the error.
int ostrel_open_db_file(ostrel_db_t db, const char *path, int oflag, int *err);

#endif
