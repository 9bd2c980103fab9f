// Flat files: updates. The old file is gone through once, to find what changes and to see that every other line can be
// written again; then the updates of the file are locked, and the new file is put together. If the file isn't the same by
// then, it is gone through once more: under the lock it stays. Lines that are in the writer's form already are copied as they stand,
// straight from the old file, so an update needs memory for what it writes anew only.
#include <cassert>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "base/growing_array.h"
#include "base/guards.h"
#include "libostrel_files.h"
#include "libostrel_files_newfile.h"
#include "libostrel_files_select.h"
#include "libostrel_lines.h"

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
		return look();
	}
	// As open(), of a file that is open already, or of none.
	ostrel_error_t adopt(Fd fd)
	{
		fd_ = std::move(fd);
		return fd_ ? look() : OSTREL_SUCCESS;
	}
	void close() { fd_.reset(); }
	bool exists() const { return static_cast<bool>(fd_); }
	bool is(const struct stat &file) const { return exists() && ostrel_same_file(file, opened_); }
	size_t size() const { return static_cast<size_t>(opened_.st_size); }

	ostrel_error_t read(LineSelection *lines)
	{
		reader_.set_file(fd_.get());
		return lines->read(&reader_);
	}
	ostrel_error_t copy(off_t begin, off_t end, NewFile *to) const
	{
		const char *text = reader_.whole_text();
		int error = text != nullptr ? to->append(text + begin, static_cast<size_t>(end - begin))
					    : to->copy(fd_.get(), begin, end);
		return error == 0 ? OSTREL_SUCCESS : SETERRNO(error);
	}

	// Databases are replaced whole. A file that somebody changed in place meanwhile may have been read in two versions.
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
	ostrel_error_t look()
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
		if (!text_.append(text, length))
			return SETERROR(OSTREL_NO_MEMORY);
		return add({false, begin, begin + static_cast<off_t>(length)});
	}
	ostrel_error_t carry_out(const OldFile &old_file, NewFile *file) const;

private:
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
	GrowingArray<char> text_;
};

ostrel_error_t Plan::carry_out(const OldFile &old_file, NewFile *file) const
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

// ---- The update ----

// One update; which of the lists are given tells its kind.
struct FileUpdate {
	ostrel_db_t db;
	const char *path;
	attrlist_t *idlist;
	attrlist_t *newidlist; // of a rename
	attrlist_t *props;     // of a write

	bool is_write() const { return newidlist == nullptr && props != nullptr; }
};

// Goes through the old file and makes the plan.
class Planner final : public LineSink {
public:
	Planner(const FileUpdate &update, Plan *plan)
	    : update_(update), plan_(plan), lines_(update.db, nullptr, false, this)
	{
		comparing_ = match_.prepare(ostrel_is_case_sensitive(update.db), update.idlist, true);
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
	const FileUpdate &update_;
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
	ostrel_error_t result = ostrel_format_object(idlist, props, &line);
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

// The old file, and the new one as it would be.
class Draft {
public:
	explicit Draft(const FileUpdate &update) : update_(update), planner_(update, &plan_) {}

	ostrel_error_t make()
	{
		ostrel_error_t bad = old_file_.open(update_.db, update_.path);
		return bad != OSTREL_SUCCESS ? bad : plan();
	}
	ostrel_error_t make(Fd database)
	{
		ostrel_error_t bad = old_file_.adopt(std::move(database));
		return bad != OSTREL_SUCCESS ? bad : plan();
	}
	// Whether it was made of this file; or, for NULL, of none.
	bool is_of(const struct stat *file) const
	{
		return file != nullptr ? old_file_.is(*file) : !old_file_.exists();
	}
	ostrel_error_t write(NewFile *file);

private:
	ostrel_error_t plan();

	const FileUpdate &update_;
	OldFile old_file_;
	Plan plan_;
	Planner planner_;
};

// What can be refused is refused here: nothing was touched yet.
ostrel_error_t Draft::plan()
{
	if (old_file_.exists()) {
		if (ostrel_error_t bad = planner_.read(&old_file_))
			return bad;
	}
	if (!planner_.matched() && !update_.is_write())
		return planner_.empty() ? SETERROR(OSTREL_NOT_FOUND) : OSTREL_NOT_FOUND;
	if (!planner_.matched()) {
		if (ostrel_error_t bad = planner_.write(update_.idlist, update_.props))
			return bad;
	}
	return planner_.writable() ? OSTREL_SUCCESS : SETERROR(OSTREL_INVALID_ARG);
}

ostrel_error_t Draft::write(NewFile *file)
{
	if (int error = file->begin(old_file_.size()))
		return SETERRNO(error);
	if (ostrel_error_t bad = plan_.carry_out(old_file_, file))
		return bad;
	if (ostrel_error_t bad = old_file_.check_unchanged())
		return bad;
	// A file that is still open when the new one takes its place costs the file system an orphan to look after.
	old_file_.close();
	int error = file->commit();
	return error == 0 ? OSTREL_SUCCESS : SETERRNO(error);
}

static ostrel_error_t update_again(const FileUpdate &update, NewFile *file)
{
	Draft draft(update);
	Fd database = file->take_database();
	ostrel_error_t bad = database ? draft.make(std::move(database)) : draft.make();
	return bad != OSTREL_SUCCESS ? bad : draft.write(file);
}

ostrel_error_t ostrel_update_object_in_file(
    ostrel_db_t db, attrlist_t *idlist, attrlist_t *newidlist, uint64_t, attrlist_t *props)
{
	FileUpdate update = {db, ostrel_file_path(db, idlist), idlist, newidlist, props};
	[[maybe_unused]] bool rename = newidlist != nullptr && props == nullptr;
	[[maybe_unused]] bool remove = newidlist == nullptr && props == nullptr;
	assert(rename || remove || update.is_write());
	if (update.path == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);

	Draft draft(update);
	if (ostrel_error_t bad = draft.make())
		return bad;
	NewFile new_file;
	if (int error = new_file.lock(ostrel_db_get_enclaveid(db), update.path))
		return SETERRNO(error);
	struct stat now;
	bool exists = false;
	if (int error = new_file.find_database(&now, &exists))
		return SETERRNO(error);
	return draft.is_of(exists ? &now : nullptr) ? draft.write(&new_file) : update_again(update, &new_file);
}

static ostrel_error_t plan_object(Plan *plan, attrlist_t *object)
{
	AttrList idlist;
	AttrList props;
	if (ostrel_error_t bad = ostrel_object_get(object, idlist.out(), props.out()))
		return SETERROR(bad);
	ostrel_line line;
	if (ostrel_error_t bad = ostrel_format_object(idlist.get(), props.get(), &line))
		return SETERROR(bad);
	return plan->write(line.text, line.length);
}

ostrel_error_t ostrel_write_objects_to_file(ostrel_db_t db, const char *dbname, attrlist_t **objs, uint_t nobjs)
{
	Plan plan;
	for (uint_t i = 0; i < nobjs; i++) {
		if (objs[i] == nullptr)
			continue;
		if (ostrel_error_t bad = plan_object(&plan, objs[i]))
			return bad;
	}
	NewFile file;
	if (int error = file.lock(ostrel_db_get_enclaveid(db), dbname))
		return SETERRNO(error);
	if (int error = file.begin(0))
		return SETERRNO(error);
	if (ostrel_error_t bad = plan.carry_out(OldFile(), &file))
		return bad;
	int error = file.commit();
	return error == 0 ? OSTREL_SUCCESS : SETERRNO(error);
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

// Under the lock, so that no update that is under way brings the file back. A file that can't be updated, for want of space
// or because something is in the way, can still be removed.
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
