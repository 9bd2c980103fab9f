/*
 * Which file an operation means, and how it is opened for reading.
 */
#ifndef LIBOSTREL_FILES_OPEN_H
#define LIBOSTREL_FILES_OPEN_H

#include "libostrel.h"

// The path that `idlist`, which may be NULL, names, or else that of the handle. NULL: neither names one.
const char *ostrel_file_path(ostrel_db_t db, attrlist_t *idlist);

// Opens the file for reading, in the enclave of the handle if that is another one. -1: *err has the error.
int ostrel_open_db_file(ostrel_db_t db, const char *path, int oflag, int *err);

#endif
