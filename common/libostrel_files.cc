// Flat files and raw files: reading. A read opens the file, goes through it once, and keeps what the search list
// selects; nothing stays open and nothing is remembered.
#include "libostrel_files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "base/growing_array.h"
#include "base/guards.h"
#include "libostrel_files_blocks.h"
#include "libostrel_files_select.h"
#include "libostrel_lines.h"

// The result of a read while it grows: all or nothing.
using ObjectArray = GrowingArray<attrlist_t *, attrlist_free>;

const char *ostrel_file_path(ostrel_db_t db, attrlist_t *idlist)
{
	char *name = nullptr;
	if (ostrel_idlist_get_db_name(idlist, &name) == OSTREL_SUCCESS)
		return name;
	return db != nullptr ? ostrel_db_get_name(db) : nullptr;
}

int ostrel_open_db_file(ostrel_db_t db, const char *path, int oflag, int *err)
{
	enclaveid_t enclave = db != nullptr && getenclaveid() == 0 ? ostrel_db_get_enclaveid(db) : 0;
	if (enclave != 0)
		return ostrel_zopen(path, oflag, 0, enclave, err);
	int fd = open(path, oflag);
	*err = fd < 0 ? errno : 0;
	return fd;
}

static ostrel_error_t keep_object(ObjectArray *objects, attrlist_t *idlist, attrlist_t *props)
{
	if (!objects->make_room())
		return SETERROR(OSTREL_NO_MEMORY);
	if (ostrel_error_t bad = ostrel_object_create(idlist, props, objects->place()))
		return SETERROR(bad);
	objects->added();
	return OSTREL_SUCCESS;
}

static char *newline_of(char *line, char *end)
{
	return static_cast<char *>(memchr(line, '\n', static_cast<size_t>(end - line)));
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
			char *newline = newline_of(line, block.end);
			*newline = '\0';
			if (ostrel_error_t bad = keep_raw_line(line, with_props, objects))
				return bad;
			line = newline + 1;
		}
	}
}

// ---- Flat files ----

// Makes objects of the selected lines.
class ObjectSink final : public LineSink {
public:
	ObjectSink(bool with_props, ObjectArray *objects) : with_props_(with_props), objects_(objects) {}

	ostrel_error_t plain_line(ostrel_fields *fields, const char *) override
	{
		if (!objects_->make_room())
			return SETERROR(OSTREL_NO_MEMORY);
		if (ostrel_error_t bad = ostrel_make_object(fields, with_props_, objects_->place()))
			return SETERROR(bad);
		objects_->added();
		return OSTREL_SUCCESS;
	}
	ostrel_error_t odd_line(const char *, const char *, attrlist_t *idlist, attrlist_t *props) override
	{
		return keep_object(objects_, idlist, with_props_ ? props : nullptr);
	}

private:
	bool with_props_;
	ObjectArray *objects_;
};

static ostrel_error_t read_objects(
    int fd, ostrel_db_t db, attrlist_t *idlist, uint64_t flags, bool with_props, ObjectArray *objects)
{
	ObjectSink sink(with_props, objects);
	return LineSelection(db, idlist, (flags & OSTREL_FLAG_EXACT_MATCH) != 0, &sink).read(fd);
}

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
