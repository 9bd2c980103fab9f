/*
 * The flat-file and raw-file back ends: their rules, and what their slots share.
 *
 *   libostrel_files.cc   the slots of the two tables but the walk; reading
 *   _walk                the walk of a flat file
 *   _update              write, rename and remove, and the replacement of a file in its steps
 *   _content             the old file, and what the new one will hold
 *   _batch               many changes in one replacement, with conditions
 *   _notify              tells when the file may have changed
 *   _newfile, _lock      the new file beside the database, and the lock of updates that lies on it
 *   _select, _scan       the lines of a file that hold a selected object
 *   _fields              the fast path through a line; the general one is the format's, libostrel_lines.h
 *   _blocks              a file as blocks of whole lines
 *   _open                which file an operation means
 *
 * State. None between operations: every one opens the file, goes through it once, and closes it.
 *
 * Readers take no lock. A database is only ever replaced whole, by one rename, so that an open file stays one complete
 * version; a reader sees the old version or the new one. A read error is never taken for the end of the file: a result holds
 * all selected objects of one version, or there is none. Lines that don't parse or are too long are no objects, silently.
 *
 * Updates of one file take turns, across handles, threads, processes and enclaves, by the lock on the temporary file
 * (the database's path with `.new` appended). The order is fixed:
 *
 *   1. read the database and decide, without the lock: what can be refused is refused before anything is touched
 *   2. take the lock, for 60 s at most; then, if the database isn't the version that was read, read and decide again, for good
 *   3. empty the temporary file, set its mode, write it, sync it
 *   4. open the directory, rename the file over the database while the lock is held, sync the directory, unlock
 *
 * What a failure leaves. Up to the rename the database is as it was, whatever fails or kills the process. A refusal in step 1
 * touches nothing; one in step 2 removes the temporary file, if this update made it. After step 3 the temporary file stays,
 * with whatever it holds: the next update empties it and uses it. If the sync of the directory fails, the new file stands, and
 * the result is that error; it may be lost if the machine goes down.
 *
 * Writers that take no lock aren't kept out. A database that one of them changed in place while it was copied is found out
 * before the rename (OSTREL_FAILURE).
 */
#ifndef LIBOSTREL_FILES_H
#define LIBOSTREL_FILES_H

#include "libostrel_backend.h"
#include "libostrel_files_update.h"

// ---- Slots ----

ostrel_readcmd_t ostrel_read_objects_from_file;
ostrel_readcmd_t ostrel_read_objects_from_rawfile;
ostrel_writecmd_t ostrel_write_object_to_file;
ostrel_renamecmd_t ostrel_rename_object_in_file;
ostrel_removecmd_t ostrel_remove_object_from_file;
ostrel_visitcmd_t ostrel_visit_objects_of_file;
ostrel_commitcmd_t ostrel_commit_batch_to_file;
ostrel_versioncmd_t ostrel_version_of_file; // of a raw file, too
ostrel_notifycmd_t ostrel_notify_of_file;   // of a raw file, too

// ---- What they are made of ----

// Reads the objects of a flat file, or of a raw file. Contract: the slot dbc_read.
ostrel_error_t ostrel_read_objects_from_file_common(
    boolean_t raw, ostrel_db_t db, attrlist_t *idlist, uint64_t flags, attrlist_t ***objlist, uint_t *nobjs);

// A notifier of a path in an enclave, as the slot dbc_notify. Owns: *notifier is new, for its end().
ostrel_error_t ostrel_notify_of_path(const char *path, enclaveid_t enclave, Notifier **notifier);

// Removes a database file. Errors: OSTREL_INVALID_ARG for another enclave than the caller's, outside the global one.
ostrel_error_t ostrel_destroy_db_file(const char *name, enclaveid_t enclave);

#endif
