// Updates of flat files. In the order in which an update needs them.
//
// Divisions: the old file; what the new file will hold; the decision; the replacement.
//
// A line that is in the writer's form already is copied as it stands, straight from the old file to the new one. So an update
// needs memory only for the lines that it formats.
#include "libostrel_files_update.h"

#include <cassert>
#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>

#include "base/growing_array.h"
#include "base/guards.h"
#include "libostrel_error.h"
#include "libostrel_files_newfile.h"
#include "libostrel_files_open.h"
#include "libostrel_files_select.h"
#include "libostrel_handle.h"
#include "libostrel_idlist.h"
#include "libostrel_lines.h"

// ---- The old file ----

// Read once to decide, and once more to copy from it, unless it is so short that one read brought it all.
class OldFile {
public:
	// Only a regular file is replaced; the open doesn't wait for anything else. A missing file is no failure: see exists().
	ostrel_error_t open(ostrel_db_t db, const char *path)
	{
		int error = 0;
		fd_.reset(ostrel_open_db_file(db, path, O_RDONLY | O_NONBLOCK | O_CLOEXEC, &error));
		if (!fd_) {
			ostrel_error_t result = ostrel_errno2error(error);
			return result == OSTREL_NOT_FOUND ? OSTREL_SUCCESS : SETERROR(result);
		}
		return check_kind();
	}
	// As open(), with a file that is open already.
	ostrel_error_t adopt(Fd fd)
	{
		fd_ = std::move(fd);
		return check_kind();
	}
	void close() { fd_.reset(); }
	bool exists() const { return static_cast<bool>(fd_); }
	bool is(const struct stat &file) const { return exists() && ostrel_same_file(file, opened_); }
	size_t size() const { return static_cast<size_t>(opened_.st_size); }

	ostrel_error_t next(LineSelection *lines, SelectedLine *line)
	{
		reader_.set_file(fd_.get());
		return lines->next(&reader_, line);
	}
	ostrel_error_t copy(off_t begin, off_t end, NewFile *to) const
	{
		const char *text = reader_.whole_text();
		int error = text != nullptr ? to->append(text + begin, static_cast<size_t>(end - begin))
					    : to->copy(fd_.get(), begin, end);
		return error == 0 ? OSTREL_SUCCESS : SETERRNO(error);
	}

	// Databases are replaced whole. One that another program changed in place meanwhile may have been read in two versions.
	ostrel_error_t check_unchanged() const
	{
		if (!exists() || reader_.whole_text() != nullptr)
			return OSTREL_SUCCESS;
		struct stat now;
		if (fstat(fd_.get(), &now) != 0)
			return SETERRNO(errno);
		bool same = now.st_size == opened_.st_size && now.st_mtim.tv_sec == opened_.st_mtim.tv_sec &&
			    now.st_mtim.tv_nsec == opened_.st_mtim.tv_nsec;
		return same ? OSTREL_SUCCESS : SETERRNO(EBUSY);
	}

private:
	ostrel_error_t check_kind()
	{
		if (fstat(fd_.get(), &opened_) != 0)
			return SETERRNO(errno);
		if (S_ISREG(opened_.st_mode))
			return OSTREL_SUCCESS;
		return SETERRNO(S_ISDIR(opened_.st_mode) ? EISDIR : EINVAL);
	}

	Fd fd_;
	struct stat opened_ = {};
	BlockReader reader_{-1, LongLines::Drop};
};

// ---- What the new file will hold ----

// A stretch of the new file: bytes of the old file, or of the lines that the update formats.
struct Stretch {
	bool copied;
	off_t begin;
	off_t end;
};

class NewContent {
public:
	// Adds bytes of the old file.
	ostrel_error_t copy(off_t begin, off_t end) { return add({true, begin, end}); }
	// Adds the line of an object. One that can't be written isn't a failure yet: see writable().
	ostrel_error_t add_object(attrlist_t *idlist, attrlist_t *props);
	bool writable() const { return writable_; }

	ostrel_error_t write(const OldFile &old_file, NewFile *file) const;

private:
	// A stretch that goes on where the last one ends is joined to it.
	ostrel_error_t add(const Stretch &stretch)
	{
		if (!stretches_.empty()) {
			Stretch &last = stretches_.back();
			if (last.copied == stretch.copied && last.end == stretch.begin) {
				last.end = stretch.end;
				return OSTREL_SUCCESS;
			}
		}
		return stretches_.append(stretch) ? OSTREL_SUCCESS : SETERROR(OSTREL_NO_MEMORY);
	}

	GrowingArray<Stretch> stretches_;
	GrowingArray<char> text_; // the formatted lines
	bool writable_ = true;
};

ostrel_error_t NewContent::add_object(attrlist_t *idlist, attrlist_t *props)
{
	ostrel_line line;
	ostrel_error_t result = ostrel_format_object(idlist, props, &line);
	if (result == OSTREL_INVALID_ARG) {
		writable_ = false;
		return OSTREL_SUCCESS;
	}
	if (result != OSTREL_SUCCESS)
		return SETERROR(result);
	off_t begin = static_cast<off_t>(text_.size());
	if (!text_.append(line.text, line.length))
		return SETERROR(OSTREL_NO_MEMORY);
	return add({false, begin, begin + static_cast<off_t>(line.length)});
}

ostrel_error_t NewContent::write(const OldFile &old_file, NewFile *file) const
{
	for (const Stretch &stretch : stretches_) {
		if (stretch.copied) {
			if (ostrel_error_t bad = old_file.copy(stretch.begin, stretch.end, file))
				return bad;
			continue;
		}
		size_t length = static_cast<size_t>(stretch.end - stretch.begin);
		if (int error = file->append(text_.begin() + stretch.begin, length))
			return SETERRNO(error);
	}
	return OSTREL_SUCCESS;
}

// ---- The decision ----

// One change of a file; which of the lists are given tells its kind.
struct FileUpdate {
	attrlist_t *idlist;
	attrlist_t *newidlist; // of a rename
	attrlist_t *props;     // of a write

	bool is_write() const { return newidlist == nullptr && props != nullptr; }
	bool is_rename() const { return newidlist != nullptr && props == nullptr; }
	bool is_remove() const { return newidlist == nullptr && props == nullptr; }
};

// One version of the old file, and what an update makes of it.
class Decision {
public:
	Decision(ostrel_db_t db, const FileUpdate &update) : db_(db), update_(update), lines_(db, nullptr, false)
	{
		has_fast_path_ = match_.prepare(ostrel_is_case_sensitive(db), update.idlist, true);
	}

	// The version to decide about; without a file it is that of a missing database.
	OldFile *old_file() { return &old_file_; }
	// Whether it is this one; NULL is a missing database.
	bool is_about(const struct stat *file) const
	{
		return file != nullptr ? old_file_.is(*file) : !old_file_.exists();
	}

	/*
	 * Goes through the old file, and refuses what can be refused: nothing has been touched yet.
	 * Errors: OSTREL_NOT_FOUND    a rename or remove matched nothing
	 *         OSTREL_INVALID_ARG  a line of the new file can't be written
	 *         those of reading
	 */
	ostrel_error_t decide();
	ostrel_error_t write(NewFile *file);

private:
	ostrel_error_t take_lines();
	bool stays_as_it_stands(const SelectedLine &line) const;
	ostrel_error_t apply_update(SelectedLine *line);

	ostrel_db_t db_;
	const FileUpdate &update_;
	OldFile old_file_;
	LineSelection lines_;
	FieldMatch match_;
	bool has_fast_path_; // match_ can tell which lines change
	NewContent content_;
	bool has_objects_ = false;
	bool matched_ = false;
};

// Whether its bytes in the old file are what the writer would make of it.
bool Decision::stays_as_it_stands(const SelectedLine &line) const
{
	return line.is_fast() && has_fast_path_ && !match_.selects(*line.fields) &&
	       ostrel_is_as_written(*line.fields, line.newline) && lines_.has_newline(line.newline);
}

ostrel_error_t Decision::apply_update(SelectedLine *line)
{
	if (line->is_fast()) {
		if (ostrel_error_t bad = ostrel_make_lists(line))
			return bad;
	}
	attrlist_t *idlist = line->idlist.get();
	attrlist_t *props = line->props.get();
	if (!ostrel_idlist_match(db_, update_.idlist, idlist, B_TRUE))
		return content_.add_object(idlist, props);
	matched_ = true;
	if (update_.is_remove())
		return OSTREL_SUCCESS;
	return update_.is_rename() ? content_.add_object(update_.newidlist, props)
				   : content_.add_object(idlist, update_.props);
}

ostrel_error_t Decision::take_lines()
{
	for (SelectedLine line;;) {
		ostrel_error_t bad = old_file_.next(&lines_, &line);
		if (bad != OSTREL_SUCCESS || !line.found())
			return bad;
		has_objects_ = true;
		bad = stays_as_it_stands(line)
			  ? content_.copy(lines_.offset_of(line.begin), lines_.offset_of(line.newline + 1))
			  : apply_update(&line);
		if (bad != OSTREL_SUCCESS)
			return bad;
	}
}

ostrel_error_t Decision::decide()
{
	if (old_file_.exists()) {
		if (ostrel_error_t bad = take_lines())
			return bad;
	}
	if (!matched_ && !update_.is_write())
		return has_objects_ ? OSTREL_NOT_FOUND : SETERROR(OSTREL_NOT_FOUND);
	if (!matched_) {
		if (ostrel_error_t bad = content_.add_object(update_.idlist, update_.props))
			return bad;
	}
	return content_.writable() ? OSTREL_SUCCESS : SETERROR(OSTREL_INVALID_ARG);
}

ostrel_error_t Decision::write(NewFile *file)
{
	if (int error = file->begin(old_file_.size()))
		return SETERRNO(error);
	if (ostrel_error_t bad = content_.write(old_file_, file))
		return bad;
	if (ostrel_error_t bad = old_file_.check_unchanged())
		return bad;
	// A file that is still open when the new one takes its place costs the file system an orphan to look after.
	old_file_.close();
	return OSTREL_SUCCESS;
}

// ---- The replacement ----

// An update of one file in its steps, which are called in this order. The object's end releases the lock.
class Replacement {
public:
	Replacement(ostrel_db_t db, const char *path, const FileUpdate &update) : db_(db), path_(path), update_(update)
	{}

	ostrel_error_t read_and_decide();
	ostrel_error_t take_lock();
	ostrel_error_t decide_for_good();
	ostrel_error_t write() { return decision_->write(&new_file_); }
	ostrel_error_t put_in_place()
	{
		int error = new_file_.commit();
		return error == 0 ? OSTREL_SUCCESS : SETERRNO(error);
	}

private:
	ostrel_db_t db_;
	const char *path_;
	const FileUpdate &update_;
	std::optional<Decision> decision_;
	NewFile new_file_;
};

ostrel_error_t Replacement::read_and_decide()
{
	decision_.emplace(db_, update_);
	ostrel_error_t bad = decision_->old_file()->open(db_, path_);
	return bad != OSTREL_SUCCESS ? bad : decision_->decide();
}

ostrel_error_t Replacement::take_lock()
{
	int error = new_file_.lock(ostrel_db_get_enclaveid(db_), path_);
	return error == 0 ? OSTREL_SUCCESS : SETERRNO(error);
}

// The version that was read is open until here, so that no later file can have its inode.
ostrel_error_t Replacement::decide_for_good()
{
	struct stat now;
	bool exists = false;
	if (int error = new_file_.find_database(&now, &exists))
		return SETERRNO(error);
	if (decision_->is_about(exists ? &now : nullptr))
		return OSTREL_SUCCESS;
	Fd database = new_file_.take_database();
	if (!database)
		return read_and_decide();
	decision_.emplace(db_, update_);
	ostrel_error_t bad = decision_->old_file()->adopt(std::move(database));
	return bad != OSTREL_SUCCESS ? bad : decision_->decide();
}

ostrel_error_t ostrel_update_object_in_file(
    ostrel_db_t db, attrlist_t *idlist, attrlist_t *newidlist, uint64_t, attrlist_t *props)
{
	FileUpdate update = {idlist, newidlist, props};
	assert(update.is_rename() || update.is_remove() || update.is_write());
	const char *path = ostrel_file_path(db, idlist);
	if (path == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);

	Replacement replacement(db, path, update);
	if (ostrel_error_t bad = replacement.read_and_decide())
		return bad;
	if (ostrel_error_t bad = replacement.take_lock())
		return bad;
	if (ostrel_error_t bad = replacement.decide_for_good())
		return bad;
	if (ostrel_error_t bad = replacement.write())
		return bad;
	return replacement.put_in_place();
}

static ostrel_error_t add_object(attrlist_t *object, NewContent *content)
{
	AttrList idlist;
	AttrList props;
	if (ostrel_error_t bad = ostrel_object_get(object, idlist.out(), props.out()))
		return SETERROR(bad);
	return content->add_object(idlist.get(), props.get());
}

ostrel_error_t ostrel_write_objects_to_file(ostrel_db_t db, const char *dbname, attrlist_t **objs, uint_t nobjs)
{
	NewContent content;
	for (uint_t i = 0; i < nobjs; i++) {
		if (objs[i] == nullptr)
			continue;
		if (ostrel_error_t bad = add_object(objs[i], &content))
			return bad;
	}
	if (!content.writable())
		return SETERROR(OSTREL_INVALID_ARG);
	NewFile file;
	if (int error = file.lock(ostrel_db_get_enclaveid(db), dbname))
		return SETERRNO(error);
	if (int error = file.begin(0))
		return SETERRNO(error);
	if (ostrel_error_t bad = content.write(OldFile(), &file))
		return bad;
	int error = file.commit();
	return error == 0 ? OSTREL_SUCCESS : SETERRNO(error);
}
