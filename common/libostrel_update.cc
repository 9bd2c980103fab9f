// Flat files: updates. Every update reads the whole file, changes what matches, and replaces the file.
#include <cassert>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

#include "base/guards.h"
#include "libostrel_files.h"
#include "libostrel_lines.h"
#include "libostrel_newfile.h"

// Objects that a read handed out.
class ReadObjects {
public:
	ReadObjects() = default;
	ReadObjects(const ReadObjects &) = delete;
	ReadObjects &operator=(const ReadObjects &) = delete;
	~ReadObjects()
	{
		for (uint_t i = 0; i < count; i++)
			attrlist_free(items[i]);
		free(items);
	}

	ostrel_error_t append(attrlist_t *idlist, attrlist_t *props)
	{
		attrlist_t **grown =
		    static_cast<attrlist_t **>(realloc(items, (static_cast<size_t>(count) + 1) * sizeof(*items)));
		if (grown == nullptr)
			return SETERROR(OSTREL_NO_MEMORY);
		items = grown;
		if (ostrel_error_t bad = ostrel_object_create(idlist, props, &items[count]))
			return bad;
		count++;
		return OSTREL_SUCCESS;
	}

	attrlist_t **items = nullptr;
	uint_t count = 0;
};

// One update; which of the lists are given tells its kind.
struct Update {
	attrlist_t *idlist;
	attrlist_t *newidlist; // of a rename
	attrlist_t *props;     // of a write
};

static ostrel_error_t write_object(NewFile *file, attrlist_t *object)
{
	AttrList idlist;
	AttrList props;
	if (ostrel_error_t bad = ostrel_object_get(object, idlist.out(), props.out()))
		return SETERROR(bad);
	char idstr[1024];
	if (ostrel_error_t bad = ostrel_check_identifiers(idlist.get()))
		return SETERROR(bad);
	if (ostrel_error_t bad = ostrel_idlist2idstr(idlist.get(), idstr))
		return SETERROR(bad);
	ostrel_line line;
	if (ostrel_error_t bad = ostrel_format_line(&line, idstr, props.get()))
		return SETERROR(bad);
	return file->append(line.text, line.length);
}

ostrel_error_t ostrel_write_objects_to_file(ostrel_db_t db, const char *dbname, attrlist_t **objs, uint_t nobjs)
{
	NewFile file;
	if (ostrel_error_t bad = file.open(db, dbname))
		return bad;
	for (uint_t i = 0; i < nobjs; i++) {
		if (objs[i] == nullptr)
			continue;
		if (ostrel_error_t bad = write_object(&file, objs[i]))
			return bad;
	}
	return file.commit();
}

static ostrel_error_t change_object(const Update &update, attrlist_t *idlist, attrlist_t *props, attrlist_t **slot)
{
	AttrList changed;
	bool remove = update.newidlist == nullptr && update.props == nullptr;
	if (!remove) {
		attrlist_t *ids = update.newidlist != nullptr ? update.newidlist : idlist;
		attrlist_t *values = update.props != nullptr ? update.props : props;
		if (ostrel_error_t bad = ostrel_object_create(ids, values, changed.out()))
			return bad;
	}
	attrlist_free(*slot);
	*slot = changed.release();
	return OSTREL_SUCCESS;
}

static ostrel_error_t change_matches(ostrel_db_t db, const Update &update, ReadObjects *objects, bool *matched)
{
	for (uint_t i = 0; i < objects->count; i++) {
		AttrList idlist;
		AttrList props;
		if (ostrel_error_t bad = ostrel_object_get(objects->items[i], idlist.out(), props.out()))
			return bad;
		if (!ostrel_idlist_match(db, update.idlist, idlist.get(), B_TRUE))
			continue;
		*matched = true;
		if (ostrel_error_t bad = change_object(update, idlist.get(), props.get(), &objects->items[i]))
			return bad;
	}
	return OSTREL_SUCCESS;
}

// Only a regular file is replaced; what else stands at the path is found out before anything waits for it.
static ostrel_error_t check_kind(ostrel_db_t db, const char *path)
{
	int error = 0;
	Fd file(ostrel_open_db_file(db, path, O_RDONLY | O_NONBLOCK | O_CLOEXEC, &error));
	if (!file)
		return ostrel_errno2error(error);
	struct stat kind;
	if (fstat(file.get(), &kind) != 0)
		return ostrel_errno2error(errno);
	if (S_ISDIR(kind.st_mode))
		return ostrel_errno2error(EISDIR);
	return S_ISREG(kind.st_mode) ? OSTREL_SUCCESS : OSTREL_INVALID_ARG;
}

static ostrel_error_t read_all(ostrel_db_t db, const char *path, ReadObjects *objects)
{
	ostrel_error_t kind = check_kind(db, path);
	if (kind == OSTREL_NOT_FOUND)
		return OSTREL_SUCCESS;
	if (kind != OSTREL_SUCCESS)
		return SETERROR(kind);
	AttrList everything;
	if (ostrel_error_t bad = ostrel_idlist_init(everything.out(), path))
		return SETERROR(bad);
	ostrel_error_t result = ostrel_read_objects_from_file(
	    db, everything.get(), OSTREL_FLAG_WITH_PROPS, &objects->items, &objects->count);
	return result == OSTREL_NOT_FOUND ? OSTREL_SUCCESS : result;
}

ostrel_error_t ostrel_update_object_in_file(
    ostrel_db_t db, attrlist_t *idlist, attrlist_t *newidlist, uint64_t, attrlist_t *props)
{
	[[maybe_unused]] bool rename = newidlist != nullptr && props == nullptr;
	[[maybe_unused]] bool remove = newidlist == nullptr && props == nullptr;
	bool write = newidlist == nullptr && props != nullptr;
	assert(rename || remove || write);
	const char *path = ostrel_file_path(db, idlist);
	if (path == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);

	ReadObjects objects;
	if (ostrel_error_t bad = read_all(db, path, &objects))
		return bad;
	bool matched = false;
	if (ostrel_error_t bad = change_matches(db, {idlist, newidlist, props}, &objects, &matched))
		return bad;
	if (!matched && !write)
		return OSTREL_NOT_FOUND;
	if (!matched) {
		if (ostrel_error_t bad = objects.append(idlist, props))
			return bad;
	}
	return ostrel_write_objects_to_file(db, path, objects.items, objects.count);
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

ostrel_error_t ostrel_destroy_db_file(const char *name, enclaveid_t enclave)
{
	static constexpr enclaveid_t last_enclave = 9999;
	enclaveid_t own = getenclaveid();
	int error = 0;
	if (enclave > last_enclave || enclave == own)
		error = ostrel_unlink_durably(name);
	else if (own != 0)
		return SETERROR(OSTREL_INVALID_ARG);
	else
		error = ostrel_zunlink(name, enclave);
	return error == 0 ? OSTREL_SUCCESS : SETERRNO(error);
}
