/*
 * Replacing the objects of a flat file. libostrel_files.h has the rules that an update keeps.
 */
#ifndef LIBOSTREL_FILES_UPDATE_H
#define LIBOSTREL_FILES_UPDATE_H

#include "libostrel.h"

class OldFile;
class NewContent;

// What an update makes of one version of the old file.
class FileDecision {
public:
	// Goes through the old file and gives the whole content of the new one. Called again if another update replaced the file
	// meanwhile: it decides about the new version then, with an empty content.
	virtual ostrel_error_t decide(OldFile *old_file, NewContent *content) = 0;

protected:
	~FileDecision() = default;
};

// Carries a decision out, in the steps that libostrel_files.h describes. Errors: those of the decision; OSTREL_INVALID_ARG  a line
// of the new file can't be written, not a regular file; those of reading and of writing the file
ostrel_error_t ostrel_replace_file(ostrel_db_t db, const char *path, FileDecision *decision);

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

#endif
