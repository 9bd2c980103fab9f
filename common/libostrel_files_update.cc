// Updates of flat files: one object, a batch's frame, all objects. In the order in which an update needs them.
//
// Divisions: the replacement; one object; all objects.
//
// A line that is in the writer's form already is copied as it stands, straight from the old file to the new one. So an update
// needs memory only for the lines that it formats.
//
// The decision comes twice, if need be. First without the lock: what is refused, or matches nothing, makes no file and keeps nobody
// waiting. Then the lock is taken, and if another update has replaced the file meanwhile, the decision is made again on what is
// there now. Updates replace the file, so another version is another inode; the version that was read stays open until then,
// or a later file could get its number.
#include "libostrel_files_update.h"

#include <cassert>
#include <optional>

#include "libostrel_files_content.h"
#include "libostrel_handle.h"
#include "libostrel_idlist.h"

// ---- The replacement ----

namespace {

// An update of one file in its steps, which are called in this order. The object's end releases the lock.
class Replacement {
public:
	Replacement(ostrel_db_t db, const char *path, FileDecision *decision)
	    : db_(db), path_(path), decision_(decision)
	{}

	ostrel_error_t read_and_decide();
	ostrel_error_t take_lock();
	ostrel_error_t decide_for_good();
	ostrel_error_t write();
	ostrel_error_t put_in_place()
	{
		int error = new_file_.commit();
		return error == 0 ? OSTREL_SUCCESS : SETERRNO(error);
	}

private:
	ostrel_error_t decide();
	bool is_about(const struct stat *file) const
	{
		return file != nullptr ? old_file_->is(*file) : !old_file_->exists();
	}

	ostrel_db_t db_;
	const char *path_;
	FileDecision *decision_;
	std::optional<OldFile>
	    old_file_; // the version that was decided about; without a file it is that of a missing database
	std::optional<NewContent> content_;
	NewFile new_file_;
};

// Nothing has been touched yet: what can be refused is refused here.
ostrel_error_t Replacement::decide()
{
	content_.emplace();
	if (ostrel_error_t bad = decision_->decide(&*old_file_, &*content_))
		return bad;
	return content_->writable() ? OSTREL_SUCCESS : SETERROR(OSTREL_INVALID_ARG);
}

ostrel_error_t Replacement::read_and_decide()
{
	old_file_.emplace();
	ostrel_error_t bad = old_file_->open(db_, path_);
	return bad != OSTREL_SUCCESS ? bad : decide();
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
	if (is_about(exists ? &now : nullptr))
		return OSTREL_SUCCESS;
	Fd database = new_file_.take_database();
	if (!database)
		return read_and_decide();
	old_file_.emplace();
	ostrel_error_t bad = old_file_->adopt(std::move(database));
	return bad != OSTREL_SUCCESS ? bad : decide();
}

ostrel_error_t Replacement::write()
{
	if (int error = new_file_.begin(old_file_->size()))
		return SETERRNO(error);
	if (ostrel_error_t bad = content_->write(*old_file_, &new_file_))
		return bad;
	if (ostrel_error_t bad = old_file_->check_unchanged())
		return bad;
	// A file that is still open when the new one takes its place costs the file system an orphan to look after.
	old_file_->close();
	return OSTREL_SUCCESS;
}

} // namespace

ostrel_error_t ostrel_replace_file(ostrel_db_t db, const char *path, FileDecision *decision)
{
	Replacement replacement(db, path, decision);
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

// ---- One object ----

namespace {

// One change of a file; which of the lists are given tells its kind.
struct FileUpdate {
	attrlist_t *idlist;
	attrlist_t *newidlist; // of a rename
	attrlist_t *props;     // of a write

	bool is_write() const { return newidlist == nullptr && props != nullptr; }
	bool is_rename() const { return newidlist != nullptr && props == nullptr; }
	bool is_remove() const { return newidlist == nullptr && props == nullptr; }
};

class OneObject final : public FileDecision {
public:
	OneObject(ostrel_db_t db, const FileUpdate &update) : db_(db), update_(update)
	{
		has_fast_path_ = match_.prepare(ostrel_is_case_sensitive(db), update.idlist, true);
	}

	/*
	 * Errors: OSTREL_NOT_FOUND    a rename or remove matched nothing
	 *         those of reading
	 */
	ostrel_error_t decide(OldFile *old_file, NewContent *content) override;

private:
	ostrel_error_t take_lines(OldFile *old_file, NewContent *content);
	bool is_meant(const SelectedLine &line) const { return !has_fast_path_ || match_.selects(*line.fields); }
	ostrel_error_t apply_update(SelectedLine *line, NewContent *content);

	ostrel_db_t db_;
	const FileUpdate &update_;
	FieldMatch match_;
	bool has_fast_path_; // match_ can tell which lines change
	bool has_objects_ = false;
	bool matched_ = false;
};

ostrel_error_t OneObject::apply_update(SelectedLine *line, NewContent *content)
{
	if (line->is_fast()) {
		if (ostrel_error_t bad = ostrel_make_lists(line))
			return bad;
	}
	attrlist_t *idlist = line->idlist.get();
	attrlist_t *props = line->props.get();
	if (!ostrel_idlist_match(db_, update_.idlist, idlist, B_TRUE))
		return content->add_object(idlist, props);
	matched_ = true;
	if (update_.is_remove())
		return OSTREL_SUCCESS;
	return update_.is_rename() ? content->add_object(update_.newidlist, props)
				   : content->add_object(idlist, update_.props);
}

ostrel_error_t OneObject::take_lines(OldFile *old_file, NewContent *content)
{
	LineSelection lines(db_, nullptr, false);
	for (SelectedLine line;;) {
		ostrel_error_t bad = old_file->next(&lines, &line);
		if (bad != OSTREL_SUCCESS || !line.found())
			return bad;
		has_objects_ = true;
		bad = ostrel_stays_as_it_stands(line, lines) && !is_meant(line)
			  ? content->copy(lines.offset_of(line.begin), lines.offset_of(line.newline + 1))
			  : apply_update(&line, content);
		if (bad != OSTREL_SUCCESS)
			return bad;
	}
}

ostrel_error_t OneObject::decide(OldFile *old_file, NewContent *content)
{
	has_objects_ = matched_ = false;
	if (old_file->exists()) {
		if (ostrel_error_t bad = take_lines(old_file, content))
			return bad;
	}
	if (matched_)
		return OSTREL_SUCCESS;
	if (!update_.is_write())
		return has_objects_ ? OSTREL_NOT_FOUND : SETERROR(OSTREL_NOT_FOUND);
	return content->add_object(update_.idlist, update_.props);
}

} // namespace

ostrel_error_t ostrel_update_object_in_file(
    ostrel_db_t db, attrlist_t *idlist, attrlist_t *newidlist, uint64_t, attrlist_t *props)
{
	FileUpdate update = {idlist, newidlist, props};
	assert(update.is_rename() || update.is_remove() || update.is_write());
	const char *path = ostrel_file_path(db, idlist);
	if (path == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	OneObject decision(db, update);
	return ostrel_replace_file(db, path, &decision);
}

// ---- All objects ----

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
