// Flat files and raw files: the slots of their tables. Divisions: raw files, flat files, the slots.
#include "libostrel_files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "base/growing_array.h"
#include "base/guards.h"
#include "libostrel_error.h"
#include "libostrel_files_blocks.h"
#include "libostrel_files_newfile.h"
#include "libostrel_files_open.h"
#include "libostrel_files_select.h"
#include "libostrel_handle.h"
#include "libostrel_idlist.h"
#include "libostrel_lines.h"
#include "libostrel_zio.h"

// The result of a read while it grows: all or nothing.
using ObjectArray = GrowingArray<attrlist_t *, attrlist_free>;

static ostrel_error_t keep_object(ObjectArray *objects, attrlist_t *idlist, attrlist_t *props)
{
	if (!objects->make_room())
		return SETERROR(OSTREL_NO_MEMORY);
	if (ostrel_error_t bad = ostrel_object_create(idlist, props, objects->place()))
		return SETERROR(bad);
	objects->added();
	return OSTREL_SUCCESS;
}

// ---- Raw files ----

static ostrel_error_t keep_raw_line(const char *line, bool with_props, ObjectArray *objects)
{
	AttrList idlist;
	AttrList props;
	uint_t lineno = static_cast<uint_t>(objects->size()) + 1;
	if (ostrel_error_t bad = ostrel_rawline2attrlist(line, lineno, idlist.out(), props.out()))
		return bad;
	return keep_object(objects, idlist.get(), with_props ? props.get() : nullptr);
}

static ostrel_error_t read_raw_lines(int fd, bool with_props, ObjectArray *objects)
{
	BlockReader reader(fd, LongLines::Keep);
	for (;;) {
		ostrel_block block;
		if (int error = reader.next(&block))
			return SETERRNO(error);
		if (block.begin == block.end)
			return OSTREL_SUCCESS;
		for (char *line = block.begin; line < block.end;) {
			char *newline = static_cast<char *>(memchr(line, '\n', static_cast<size_t>(block.end - line)));
			*newline = '\0';
			if (ostrel_error_t bad = keep_raw_line(line, with_props, objects))
				return bad;
			line = newline + 1;
		}
	}
}

// ---- Flat files ----

static ostrel_error_t keep_line(SelectedLine *line, bool with_props, ObjectArray *objects)
{
	if (!line->is_fast())
		return keep_object(objects, line->idlist.get(), with_props ? line->props.get() : nullptr);
	if (!objects->make_room())
		return SETERROR(OSTREL_NO_MEMORY);
	if (ostrel_error_t bad = ostrel_make_object(line->fields, with_props, objects->place()))
		return SETERROR(bad);
	objects->added();
	return OSTREL_SUCCESS;
}

static ostrel_error_t read_objects(
    int fd, ostrel_db_t db, attrlist_t *idlist, uint64_t flags, bool with_props, ObjectArray *objects)
{
	BlockReader reader(fd, LongLines::Drop);
	LineSelection selection(db, idlist, (flags & OSTREL_FLAG_EXACT_MATCH) != 0);
	for (SelectedLine line;;) {
		ostrel_error_t bad = selection.next(&reader, &line);
		if (bad != OSTREL_SUCCESS || !line.found())
			return bad;
		bad = keep_line(&line, with_props, objects);
		if (bad != OSTREL_SUCCESS)
			return bad;
	}
}

// ---- The slots ----

ostrel_error_t ostrel_read_objects_from_file_common(
    boolean_t raw, ostrel_db_t db, attrlist_t *idlist, uint64_t flags, attrlist_t ***objlist, uint_t *nobjs)
{
	if (objlist == nullptr || nobjs == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	if (raw != B_FALSE && !ostrel_idlist_is_empty(idlist))
		return SETERROR(OSTREL_INVALID_ARG);
	*objlist = nullptr;
	*nobjs = 0;
	const char *path = ostrel_file_path(db, idlist);
	if (path == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	int error = 0;
	Fd file(ostrel_open_db_file(db, path, O_RDONLY | O_CLOEXEC, &error));
	if (!file)
		return SETERRNO(error);

	ObjectArray objects;
	if (!objects.make_room())
		return SETERROR(OSTREL_NO_MEMORY);
	bool with_props = (flags & OSTREL_FLAG_WITH_PROPS) != 0;
	ostrel_error_t result = raw != B_FALSE ? read_raw_lines(file.get(), with_props, &objects)
					       : read_objects(file.get(), db, idlist, flags, with_props, &objects);
	if (result != OSTREL_SUCCESS)
		return result;
	*nobjs = static_cast<uint_t>(objects.size());
	*objlist = objects.release();
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_read_objects_from_file(
    ostrel_db_t db, attrlist_t *idlist, uint64_t flags, attrlist_t ***objlist, uint_t *nobjs)
{
	return ostrel_read_objects_from_file_common(B_FALSE, db, idlist, flags, objlist, nobjs);
}

ostrel_error_t ostrel_read_objects_from_rawfile(
    ostrel_db_t db, attrlist_t *idlist, uint64_t flags, attrlist_t ***objlist, uint_t *nobjs)
{
	return ostrel_read_objects_from_file_common(B_TRUE, db, idlist, flags, objlist, nobjs);
}

ostrel_error_t ostrel_write_object_to_file(ostrel_db_t db, attrlist_t *idlist, uint64_t flags, attrlist_t *props)
{
	if (db == nullptr || idlist == nullptr || props == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	return ostrel_update_object_in_file(db, idlist, nullptr, flags, props);
}

ostrel_error_t ostrel_rename_object_in_file(ostrel_db_t db, attrlist_t *idlist, uint64_t flags, attrlist_t *newidlist)
{
	if (db == nullptr || idlist == nullptr || newidlist == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	return ostrel_update_object_in_file(db, idlist, newidlist, flags, nullptr);
}

ostrel_error_t ostrel_remove_object_from_file(ostrel_db_t db, attrlist_t *idlist, uint64_t flags)
{
	if (db == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	if (idlist == nullptr)
		return ostrel_destroy_db_file(ostrel_db_get_name(db), ostrel_db_get_enclaveid(db));
	return ostrel_update_object_in_file(db, idlist, nullptr, flags, nullptr);
}

// Under the lock, so that an update that is under way can't bring the file back. A file that can't be updated, for want of
// space or because something is in the temporary file's place, can still be removed.
static int remove_database(const char *name, enclaveid_t enclave)
{
	struct stat status;
	if (enclave == 0 && lstat(name, &status) != 0)
		return errno;
	NewFile lock;
	if (lock.lock(enclave, name) == ETIMEDOUT)
		return ETIMEDOUT;
	return lock.remove_database();
}

ostrel_error_t ostrel_destroy_db_file(const char *name, enclaveid_t enclave)
{
	static constexpr enclaveid_t last_enclave = 9999;
	enclaveid_t own = getenclaveid();
	const bool here = enclave > last_enclave || enclave == own;
	if (!here && own != 0)
		return SETERROR(OSTREL_INVALID_ARG);
	int error = remove_database(name, here ? 0 : enclave);
	return error == 0 ? OSTREL_SUCCESS : SETERRNO(error);
}
