// Flat files: updates. The old file is gone through once, to find what changes and to see that every other line can be
// written again; then the new file is put together. Lines that are in the writer's form already are copied as they stand,
// straight from the old file, so an update needs memory for what it writes anew only.
#include <cassert>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "base/guards.h"
#include "libostrel_files.h"
#include "libostrel_lines.h"
#include "libostrel_newfile.h"
#include "libostrel_select.h"

// ---- Lines to be written ----

// Formats an object's line. Errors: OSTREL_INVALID_ARG if it wouldn't be read back as this object.
static ostrel_error_t format_object(attrlist_t *idlist, attrlist_t *props, ostrel_line *line)
{
	char idstr[1024];
	if (ostrel_error_t bad = ostrel_check_identifiers(idlist))
		return bad;
	if (ostrel_error_t bad = ostrel_idlist2idstr(idlist, idstr))
		return bad;
	return ostrel_format_line(line, idstr, props);
}

// Bytes that grow.
class Bytes {
public:
	Bytes() = default;
	Bytes(const Bytes &) = delete;
	Bytes &operator=(const Bytes &) = delete;
	~Bytes() { free(bytes_); }

	ostrel_error_t append(const void *bytes, size_t length)
	{
		if (length > room_ - used_) {
			size_t room = 2 * room_ + length + 256;
			char *grown = static_cast<char *>(realloc(bytes_, room));
			if (grown == nullptr)
				return SETERROR(OSTREL_NO_MEMORY);
			bytes_ = grown;
			room_ = room;
		}
		memcpy(bytes_ + used_, bytes, length);
		used_ += length;
		return OSTREL_SUCCESS;
	}
	char *begin() const { return bytes_; }
	size_t size() const { return used_; }

private:
	char *bytes_ = nullptr;
	size_t room_ = 0;
	size_t used_ = 0;
};

// ---- The old file ----

// The old file: read once to plan, and once more to copy from it, if it isn't so short that it is at hand still.
class OldFile {
public:
	// Only a regular file is replaced, and what else stands at the path is found out before anything waits for it.
	// A missing file is no failure: exists() tells.
	ostrel_error_t open(ostrel_db_t db, const char *path)
	{
		int error = 0;
		fd_.reset(ostrel_open_db_file(db, path, O_RDONLY | O_NONBLOCK | O_CLOEXEC, &error));
		if (!fd_) {
			ostrel_error_t result = ostrel_errno2error(error);
			return result == OSTREL_NOT_FOUND ? OSTREL_SUCCESS : SETERROR(result);
		}
		if (fstat(fd_.get(), &opened_) != 0)
			return SETERRNO(errno);
		if (S_ISREG(opened_.st_mode))
			return OSTREL_SUCCESS;
		return SETERRNO(S_ISDIR(opened_.st_mode) ? EISDIR : EINVAL);
	}
	void close() { fd_.reset(); }
	bool exists() const { return static_cast<bool>(fd_); }
	size_t size() const { return static_cast<size_t>(opened_.st_size); }

	ostrel_error_t read(LineSelection *lines)
	{
		reader_.set_file(fd_.get());
		return lines->read(&reader_);
	}
	ostrel_error_t copy(off_t begin, off_t end, NewFile *to) const
	{
		if (const char *text = reader_.whole_text())
			return to->append(text + begin, static_cast<size_t>(end - begin));
		return to->copy(fd_.get(), begin, end);
	}

	// Databases are replaced whole. A file that somebody changed in place meanwhile may have been read in two versions.
	ostrel_error_t check_unchanged() const
	{
		if (reader_.whole_text() != nullptr)
			return OSTREL_SUCCESS;
		struct stat now;
		if (fstat(fd_.get(), &now) != 0)
			return SETERRNO(errno);
		bool same = now.st_size == opened_.st_size && now.st_mtim.tv_sec == opened_.st_mtim.tv_sec &&
			    now.st_mtim.tv_nsec == opened_.st_mtim.tv_nsec;
		return same ? OSTREL_SUCCESS : SETERRNO(EBUSY);
	}

private:
	Fd fd_;
	struct stat opened_ = {};
	BlockReader reader_{-1, LongLines::Drop};
};

// ---- The plan of a new file ----

// A stretch of the new file: bytes of the old file, or of the lines that are written anew.
struct Stretch {
	bool copied;
	off_t begin;
	off_t end;
};

class Plan {
public:
	ostrel_error_t copy(off_t begin, off_t end) { return add({true, begin, end}); }
	ostrel_error_t write(const char *text, size_t length)
	{
		off_t begin = static_cast<off_t>(text_.size());
		if (ostrel_error_t bad = text_.append(text, length))
			return bad;
		return add({false, begin, begin + static_cast<off_t>(length)});
	}
	ostrel_error_t carry_out(const OldFile &old_file, NewFile *file) const;

private:
	size_t count() const { return stretches_.size() / sizeof(Stretch); }
	Stretch *stretches() const { return reinterpret_cast<Stretch *>(stretches_.begin()); }

	ostrel_error_t add(const Stretch &stretch)
	{
		if (count() > 0) {
			Stretch *last = stretches() + count() - 1;
			if (last->copied == stretch.copied && last->end == stretch.begin) {
				last->end = stretch.end;
				return OSTREL_SUCCESS;
			}
		}
		return stretches_.append(&stretch, sizeof(stretch));
	}

	Bytes stretches_;
	Bytes text_;
};

ostrel_error_t Plan::carry_out(const OldFile &old_file, NewFile *file) const
{
	for (size_t i = 0; i < count(); i++) {
		const Stretch &stretch = stretches()[i];
		ostrel_error_t bad = stretch.copied ? old_file.copy(stretch.begin, stretch.end, file)
						    : file->append(text_.begin() + stretch.begin,
							  static_cast<size_t>(stretch.end - stretch.begin));
		if (bad != OSTREL_SUCCESS)
			return bad;
	}
	return OSTREL_SUCCESS;
}

// ---- The update ----

// One update; which of the lists are given tells its kind.
struct Update {
	ostrel_db_t db;
	attrlist_t *idlist;
	attrlist_t *newidlist; // of a rename
	attrlist_t *props;     // of a write
};

// Goes through the old file and makes the plan.
class Planner final : public LineSink {
public:
	Planner(const Update &update, Plan *plan)
	    : update_(update), plan_(plan), lines_(update.db, nullptr, false, this)
	{
		comparing_ = match_.prepare(update.db, update.idlist, true);
	}

	ostrel_error_t read(OldFile *old_file) { return old_file->read(&lines_); }
	bool matched() const { return matched_; }
	bool empty() const { return !seen_; }
	// Whether every line of the new file can be written.
	bool writable() const { return writable_; }

	// Plans the line of an object that is to be written.
	ostrel_error_t write(attrlist_t *idlist, attrlist_t *props);

	ostrel_error_t plain_line(ostrel_fields *fields, const char *newline) override;
	ostrel_error_t odd_line(const char *, const char *, attrlist_t *idlist, attrlist_t *props) override;

private:
	const Update &update_;
	Plan *plan_;
	LineSelection lines_;
	FieldMatch match_;
	bool comparing_; // match_ can tell what matches
	bool matched_ = false;
	bool seen_ = false;
	bool writable_ = true;
};

ostrel_error_t Planner::write(attrlist_t *idlist, attrlist_t *props)
{
	ostrel_line line;
	ostrel_error_t result = format_object(idlist, props, &line);
	if (result == OSTREL_SUCCESS)
		return plan_->write(line.text, line.length);
	if (result != OSTREL_INVALID_ARG)
		return SETERROR(result);
	// It matters only if the update gets as far as writing.
	writable_ = false;
	return OSTREL_SUCCESS;
}

ostrel_error_t Planner::plain_line(ostrel_fields *fields, const char *newline)
{
	if (comparing_ && !match_.selects(*fields) && ostrel_is_as_written(*fields, newline) &&
	    lines_.has_newline(newline)) {
		seen_ = true;
		return plan_->copy(lines_.offset_of(fields->begin), lines_.offset_of(newline + 1));
	}
	return lines_.take_as_odd(fields->begin, newline);
}

ostrel_error_t Planner::odd_line(const char *, const char *, attrlist_t *idlist, attrlist_t *props)
{
	seen_ = true;
	if (!ostrel_idlist_match(update_.db, update_.idlist, idlist, B_TRUE))
		return write(idlist, props);
	matched_ = true;
	if (update_.newidlist != nullptr)
		return write(update_.newidlist, props);
	if (update_.props != nullptr)
		return write(idlist, update_.props);
	return OSTREL_SUCCESS;
}

static ostrel_error_t write_first_object(ostrel_db_t db, const char *path, attrlist_t *idlist, attrlist_t *props)
{
	AttrList object;
	if (ostrel_error_t bad = ostrel_object_create(idlist, props, object.out()))
		return bad;
	attrlist_t *objects[] = {object.get()};
	return ostrel_write_objects_to_file(db, path, objects, 1);
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

	OldFile old_file;
	if (ostrel_error_t bad = old_file.open(db, path))
		return bad;
	Update update = {db, idlist, newidlist, props};
	Plan plan;
	Planner planner(update, &plan);
	if (old_file.exists()) {
		if (ostrel_error_t bad = planner.read(&old_file))
			return bad;
	}
	if (!planner.matched() && !write)
		return OSTREL_NOT_FOUND;
	if (planner.empty())
		return write_first_object(db, path, idlist, props);
	if (!planner.matched()) {
		if (ostrel_error_t bad = planner.write(idlist, props))
			return bad;
	}

	NewFile new_file;
	if (ostrel_error_t bad = new_file.open(db, path, old_file.size()))
		return bad;
	if (!planner.writable())
		return SETERROR(OSTREL_INVALID_ARG);
	if (ostrel_error_t bad = plan.carry_out(old_file, &new_file))
		return bad;
	if (ostrel_error_t bad = old_file.check_unchanged())
		return bad;
	// A file that is still open when the new one takes its place costs the file system an orphan to look after.
	old_file.close();
	return new_file.commit();
}

static ostrel_error_t write_object(NewFile *file, attrlist_t *object)
{
	AttrList idlist;
	AttrList props;
	if (ostrel_error_t bad = ostrel_object_get(object, idlist.out(), props.out()))
		return SETERROR(bad);
	ostrel_line line;
	if (ostrel_error_t bad = format_object(idlist.get(), props.get(), &line))
		return SETERROR(bad);
	return file->append(line.text, line.length);
}

ostrel_error_t ostrel_write_objects_to_file(ostrel_db_t db, const char *dbname, attrlist_t **objs, uint_t nobjs)
{
	NewFile file;
	if (ostrel_error_t bad = file.open(db, dbname, 0))
		return bad;
	for (uint_t i = 0; i < nobjs; i++) {
		if (objs[i] == nullptr)
			continue;
		if (ostrel_error_t bad = write_object(&file, objs[i]))
			return bad;
	}
	return file.commit();
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
