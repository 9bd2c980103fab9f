// Flat files and raw files: reading. A read opens the file, goes through it once, and keeps what the search list
// selects; nothing stays open and nothing is remembered.
#include "libostrel_files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "base/guards.h"
#include "libostrel_blocks.h"
#include "libostrel_lines.h"

// The result of a read while it grows: all or nothing.
class ObjectArray {
public:
	ObjectArray() = default;
	ObjectArray(const ObjectArray &) = delete;
	ObjectArray &operator=(const ObjectArray &) = delete;
	~ObjectArray()
	{
		for (int i = 0; i < used_; i++)
			attrlist_free(objects_[i]);
		free(objects_);
	}

	ostrel_error_t init()
	{
		static constexpr int first_room = 128;
		objects_ = static_cast<attrlist_t **>(malloc(first_room * sizeof(*objects_)));
		if (objects_ == nullptr)
			return SETERROR(OSTREL_NO_MEMORY);
		room_ = first_room;
		return OSTREL_SUCCESS;
	}
	int count() const { return used_; }

	ostrel_error_t add(attrlist_t *idlist, attrlist_t *props)
	{
		if (used_ == room_) {
			void *grown = objects_;
			if (ostrel_error_t bad = grow_buf(&grown, &room_, sizeof(*objects_)))
				return SETERROR(bad);
			objects_ = static_cast<attrlist_t **>(grown);
		}
		if (ostrel_error_t bad = ostrel_object_create(idlist, props, &objects_[used_]))
			return SETERROR(bad);
		used_++;
		return OSTREL_SUCCESS;
	}

	void hand_out(attrlist_t ***objects, uint_t *count)
	{
		*objects = objects_;
		*count = static_cast<uint_t>(used_);
		objects_ = nullptr;
		used_ = 0;
	}

private:
	attrlist_t **objects_ = nullptr;
	int room_ = 0;
	int used_ = 0;
};

// What a read looks for.
struct Search {
	ostrel_db_t db;
	attrlist_t *idlist;
	bool with_props;
	boolean_t exact;
};

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

// The text of one line: what stands before its newline, or before a NUL byte.
static char *cut_line(char *begin, char *end, char **next)
{
	char *newline = static_cast<char *>(memchr(begin, '\n', static_cast<size_t>(end - begin)));
	char *stop = newline != nullptr ? newline : end;
	*next = newline != nullptr ? newline + 1 : end;
	*stop = '\0'; // behind the last line of a file there is slack
	return begin;
}

static ostrel_error_t take_object_line(const Search &search, char *line, ObjectArray *objects)
{
	while (ostrel_line_space(*line))
		line++;
	if (*line == '#' || *line == '\0')
		return OSTREL_SUCCESS;
	AttrList idlist;
	AttrList props;
	ostrel_error_t result = ostrel_line2attrlist(line, idlist.out(), props.out());
	if (result == OSTREL_INVALID_ARG)
		return OSTREL_SUCCESS;
	if (result != OSTREL_SUCCESS)
		return SETERROR(result);
	if (search.idlist != nullptr && !ostrel_idlist_match(search.db, search.idlist, idlist.get(), search.exact))
		return OSTREL_SUCCESS;
	return objects->add(idlist.get(), search.with_props ? props.get() : nullptr);
}

static ostrel_error_t take_raw_line(const Search &search, const char *line, ObjectArray *objects)
{
	AttrList idlist;
	AttrList props;
	uint_t lineno = static_cast<uint_t>(objects->count()) + 1;
	if (ostrel_error_t bad = ostrel_rawline2attrlist(line, lineno, idlist.out(), props.out()))
		return bad;
	return objects->add(idlist.get(), search.with_props ? props.get() : nullptr);
}

static ostrel_error_t read_lines(bool raw, const Search &search, int fd, ObjectArray *objects)
{
	BlockReader reader(fd, raw ? LongLines::Keep : LongLines::Drop);
	for (;;) {
		ostrel_block block;
		if (int error = reader.next(&block))
			return SETERRNO(error);
		if (block.begin == block.end)
			return OSTREL_SUCCESS;
		char *next = block.begin;
		while (next < block.end) {
			char *line = cut_line(next, block.end, &next);
			if (!raw && next - line > OSTREL_LINE_MAX)
				continue;
			ostrel_error_t result =
			    raw ? take_raw_line(search, line, objects) : take_object_line(search, line, objects);
			if (result != OSTREL_SUCCESS)
				return result;
		}
	}
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
	if (ostrel_error_t bad = objects.init())
		return bad;
	Search search = {db, idlist, (flags & OSTREL_FLAG_WITH_PROPS) != 0,
	    (flags & OSTREL_FLAG_EXACT_MATCH) != 0 ? B_TRUE : B_FALSE};
	if (ostrel_error_t bad = read_lines(raw != B_FALSE, search, file.get(), &objects))
		return bad;
	objects.hand_out(objlist, nobjs);
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
