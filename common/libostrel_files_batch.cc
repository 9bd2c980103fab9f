// Batches on a flat file: one replacement for all steps.
//
// The file is gone through once. A line whose identifiers have the hash of an object that the batch names becomes an entry, in
// memory; all other lines are copied. Then conditions are looked at and steps carried out on the entries. So a batch costs one
// replacement and what its own objects cost, however long the file is.
//
// The hash is one of the identifiers as a set: lists that match exactly have the same one. Others may, too, so each entry is
// compared. tolower() is what strcasecmp() compares by.
#include "libostrel_files.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "libostrel_batch.h"
#include "libostrel_files_content.h"
#include "libostrel_handle.h"
#include "libostrel_idlist.h"

namespace {

constexpr size_t none = SIZE_MAX;

// An object that the batch may be about. Steps change its lists in place.
struct Entry {
	attrlist_t *idlist; // NULL: removed, or renamed into another entry
	attrlist_t *props;
	off_t begin, end; // its line, if that can be copied: no step changed it, and the writer would write it so
	size_t part;      // where it stands in the new file
	size_t next;      // of the same name
};

void free_entry(Entry &entry)
{
	attrlist_free(entry.idlist);
	attrlist_free(entry.props);
}

// Part of the new file, in its order: an entry, or a stretch of the old file.
struct Part {
	size_t entry; // none: a stretch
	off_t begin, end;
};

// The hash of an object that the batch names, and the entries that have it.
struct Name {
	uint64_t hash;
	size_t first;
};

uint64_t hash_text(const char *text, size_t length, bool folds, uint64_t seed)
{
	uint64_t hash = seed;
	for (size_t i = 0; i < length; i++) {
		const auto byte = static_cast<unsigned char>(text[i]);
		hash = (hash ^ static_cast<uint64_t>(folds ? tolower(byte) : byte)) * 0x100000001b3U;
	}
	return hash ^ (hash >> 29);
}

uint64_t hash_identifier(const attrtext_t &name, const attrtext_t &value, bool folds)
{
	const uint64_t seed = hash_text(name.text, name.length, false, 0xcbf29ce484222325U);
	return hash_text(value.text, value.length, folds, seed) * 0x9e3779b97f4a7c15U;
}

class BatchDecision final : public FileDecision {
public:
	BatchDecision(ostrel_db_t db, const Batch &batch)
	    : db_(db), batch_(batch), folds_(!ostrel_is_case_sensitive(db))
	{}

	// The names that lines are compared with. Before the first decide().
	ostrel_error_t prepare();
	ostrel_error_t decide(OldFile *old_file, NewContent *content) override;
	int failed() const { return failed_; }

private:
	uint64_t hash_of(attrlist_t *idlist) const;
	uint64_t hash_of(const ostrel_fields &fields) const;
	Name *find_name(uint64_t hash) const;
	ostrel_error_t add_name(attrlist_t *idlist);

	ostrel_error_t take_lines(OldFile *old_file);
	ostrel_error_t take_entry(SelectedLine *line, bool stays, const LineSelection &lines);
	ostrel_error_t add_part(size_t entry, off_t begin, off_t end);
	ostrel_error_t add_entry(AttrList idlist, AttrList props, size_t part);
	void link(size_t entry);

	ostrel_error_t find(attrlist_t *idlist);
	ostrel_error_t check(const BatchItem &condition, const OldFile &old_file);
	ostrel_error_t carry_out(const BatchItem &step);
	ostrel_error_t change(const BatchItem &step, size_t entry);
	ostrel_error_t create(const BatchItem &step);
	ostrel_error_t give(NewContent *content) const;

	ostrel_db_t db_;
	const Batch &batch_;
	bool folds_;
	int failed_ = -1;
	GrowingArray<Name> names_; // by hash
	GrowingArray<Entry, free_entry> entries_;
	GrowingArray<Part> parts_;
	GrowingArray<size_t> found_; // by find()
};

// ---- Names ----

uint64_t BatchDecision::hash_of(attrlist_t *idlist) const
{
	uint64_t sum = 0;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(idlist, pair)) != nullptr;) {
		const char *name = attrpair_name(pair);
		char *value;
		if (strcmp(name, OSTREL_ID_ID_STRING) == 0 || strcmp(name, OSTREL_ID_DB_NAME) == 0 ||
		    attrpair_value_string(pair, &value) != 0)
			continue;
		sum += hash_identifier({name, strlen(name)}, {value, strlen(value)}, folds_);
	}
	return sum;
}

uint64_t BatchDecision::hash_of(const ostrel_fields &fields) const
{
	uint64_t sum = 0;
	for (uint_t i = 0; i < fields.identifier_count; i++) {
		const attrtext_t &name = fields.identifiers[i].name;
		sum += hash_identifier(name, fields.identifier_values[i], folds_);
	}
	return sum;
}

Name *BatchDecision::find_name(uint64_t hash) const
{
	Name *found = std::lower_bound(
	    names_.begin(), names_.end(), hash, [](const Name &name, uint64_t wanted) { return name.hash < wanted; });
	return found != names_.end() && found->hash == hash ? found : nullptr;
}

ostrel_error_t BatchDecision::add_name(attrlist_t *idlist)
{
	const Name name = {hash_of(idlist), none};
	return names_.append(&name, 1) ? OSTREL_SUCCESS : SETERROR(OSTREL_NO_MEMORY);
}

ostrel_error_t BatchDecision::prepare()
{
	for (size_t i = 0; i < batch_.condition_count(); i++) {
		const BatchItem &item = batch_.condition(i);
		if (ostrel_error_t bad = item.idl != nullptr ? add_name(item.idl) : OSTREL_SUCCESS)
			return bad;
	}
	for (size_t i = 0; i < batch_.step_count(); i++) {
		const BatchItem &item = batch_.step(i);
		if (ostrel_error_t bad = add_name(item.idl))
			return bad;
		if (ostrel_error_t bad = item.kind == BatchKind::Rename ? add_name(item.list) : OSTREL_SUCCESS)
			return bad;
	}
	std::sort(names_.begin(), names_.end(), [](const Name &a, const Name &b) { return a.hash < b.hash; });
	return OSTREL_SUCCESS;
}

// ---- The old file ----

ostrel_error_t BatchDecision::add_part(size_t entry, off_t begin, off_t end)
{
	const Part part = {entry, begin, end};
	return parts_.append(&part, 1) ? OSTREL_SUCCESS : SETERROR(OSTREL_NO_MEMORY);
}

// Objects of one name stay in the file's order: a new entry comes last. One that the batch doesn't name is in no row.
void BatchDecision::link(size_t entry)
{
	Name *name = find_name(hash_of(entries_[entry].idlist));
	if (name == nullptr)
		return;
	size_t *last = &name->first;
	while (*last != none)
		last = &entries_[*last].next;
	*last = entry;
}

ostrel_error_t BatchDecision::add_entry(AttrList idlist, AttrList props, size_t part)
{
	const Entry entry = {idlist.get(), props.get(), 0, 0, part, none};
	if (!entries_.append(&entry, 1))
		return SETERROR(OSTREL_NO_MEMORY);
	(void) idlist.release(); // the entry's now
	(void) props.release();
	link(entries_.size() - 1);
	return OSTREL_SUCCESS;
}

ostrel_error_t BatchDecision::take_entry(SelectedLine *line, bool stays, const LineSelection &lines)
{
	const off_t begin = lines.offset_of(line->begin);
	const off_t end = stays ? lines.offset_of(line->newline + 1) : begin;
	if (line->is_fast()) {
		if (ostrel_error_t bad = ostrel_make_lists(line))
			return bad;
	}
	if (ostrel_error_t bad = add_part(entries_.size(), 0, 0))
		return bad;
	if (ostrel_error_t bad = add_entry(std::move(line->idlist), std::move(line->props), parts_.size() - 1))
		return bad;
	entries_.back().begin = begin;
	entries_.back().end = end;
	return OSTREL_SUCCESS;
}

// A line that the writer wouldn't write so becomes an entry as well: it is written again.
ostrel_error_t BatchDecision::take_lines(OldFile *old_file)
{
	LineSelection lines(db_, nullptr, false);
	for (SelectedLine line;;) {
		ostrel_error_t bad = old_file->next(&lines, &line);
		if (bad != OSTREL_SUCCESS || !line.found())
			return bad;
		const bool stays = ostrel_stays_as_it_stands(line, lines);
		if (stays && !line.fields->has_escapes && find_name(hash_of(*line.fields)) == nullptr)
			bad = add_part(none, lines.offset_of(line.begin), lines.offset_of(line.newline + 1));
		else
			bad = take_entry(&line, stays, lines);
		if (bad != OSTREL_SUCCESS)
			return bad;
	}
}

// ---- Conditions and steps ----

// The entries that a list singles out, as they are now.
ostrel_error_t BatchDecision::find(attrlist_t *idlist)
{
	found_.clear();
	for (size_t i = find_name(hash_of(idlist))->first; i != none; i = entries_[i].next) {
		if (entries_[i].idlist == nullptr || !ostrel_idlist_match(db_, idlist, entries_[i].idlist, B_TRUE))
			continue;
		if (!found_.append(i))
			return SETERROR(OSTREL_NO_MEMORY);
	}
	return OSTREL_SUCCESS;
}

ostrel_error_t BatchDecision::check(const BatchItem &condition, const OldFile &old_file)
{
	const char *wanted = condition.version.text;
	ObjectVersion now;
	if (condition.kind == BatchKind::ExpectDatabase) {
		if (ostrel_error_t bad = old_file.version(&now))
			return bad;
		return strcmp(now.text, wanted) == 0 ? OSTREL_SUCCESS : OSTREL_CONFLICT;
	}
	if (ostrel_error_t bad = find(condition.idl))
		return bad;
	if (*wanted == '\0')
		return found_.empty() ? OSTREL_SUCCESS : OSTREL_CONFLICT;
	if (found_.size() != 1)
		return OSTREL_CONFLICT;
	if (strcmp(wanted, "*") == 0)
		return OSTREL_SUCCESS;
	const Entry &entry = entries_[found_[0]];
	if (ostrel_error_t bad = ostrel_version_of(entry.idlist, entry.props, &now))
		return SETERROR(bad);
	return strcmp(now.text, wanted) == 0 ? OSTREL_SUCCESS : OSTREL_CONFLICT;
}

ostrel_error_t copy_list(attrlist_t *from, AttrList *to)
{
	int error = attrlist_dup(from, to->out(), 0);
	return error == 0 ? OSTREL_SUCCESS : SETERRNO(error);
}

// A renamed object becomes another entry, in the row of its new name, at the same place of the file.
ostrel_error_t BatchDecision::change(const BatchItem &step, size_t index)
{
	AttrList copy;
	if (step.list != nullptr) {
		if (ostrel_error_t bad = copy_list(step.list, &copy))
			return bad;
	}
	Entry &entry = entries_[index];
	entry.end = entry.begin;
	if (step.kind == BatchKind::Write) {
		attrlist_free(entry.props);
		entry.props = copy.release();
		return OSTREL_SUCCESS;
	}
	const AttrList old(entry.idlist);
	AttrList props(entry.props);
	entry.idlist = entry.props = nullptr;
	if (step.kind == BatchKind::Remove)
		return OSTREL_SUCCESS;
	parts_[entry.part].entry = entries_.size();
	return add_entry(std::move(copy), std::move(props), entry.part);
}

ostrel_error_t BatchDecision::create(const BatchItem &step)
{
	AttrList ids;
	AttrList props;
	if (ostrel_error_t bad = copy_list(step.idl, &ids))
		return bad;
	if (ostrel_error_t bad = copy_list(step.list, &props))
		return bad;
	if (ostrel_error_t bad = add_part(entries_.size(), 0, 0))
		return bad;
	return add_entry(std::move(ids), std::move(props), parts_.size() - 1);
}

ostrel_error_t BatchDecision::carry_out(const BatchItem &step)
{
	if (ostrel_error_t bad = find(step.idl))
		return bad;
	if (found_.empty())
		return step.kind == BatchKind::Write ? create(step) : OSTREL_NOT_FOUND;
	for (size_t entry : found_) {
		if (ostrel_error_t bad = change(step, entry))
			return bad;
	}
	return OSTREL_SUCCESS;
}

ostrel_error_t BatchDecision::give(NewContent *content) const
{
	for (const Part &part : parts_) {
		const Entry *entry = part.entry != none ? &entries_[part.entry] : nullptr;
		ostrel_error_t bad = OSTREL_SUCCESS;
		if (entry == nullptr)
			bad = content->copy(part.begin, part.end);
		else if (entry->begin != entry->end)
			bad = content->copy(entry->begin, entry->end);
		else if (entry->idlist != nullptr)
			bad = content->add_object(entry->idlist, entry->props);
		if (bad != OSTREL_SUCCESS)
			return bad;
	}
	return OSTREL_SUCCESS;
}

ostrel_error_t BatchDecision::decide(OldFile *old_file, NewContent *content)
{
	entries_.clear();
	parts_.clear();
	for (Name &name : names_)
		name.first = none;
	if (old_file->exists()) {
		if (ostrel_error_t bad = take_lines(old_file))
			return bad;
	}
	for (size_t i = 0; i < batch_.condition_count() + batch_.step_count(); i++) {
		const bool is_condition = i < batch_.condition_count();
		ostrel_error_t bad = is_condition ? check(batch_.condition(i), *old_file)
						  : carry_out(batch_.step(i - batch_.condition_count()));
		failed_ = static_cast<int>(i);
		if (bad != OSTREL_SUCCESS)
			return bad;
	}
	failed_ = -1;
	return give(content);
}

// The file that a batch is about: each item has to name the same one.
ostrel_error_t path_of(ostrel_db_t db, const Batch &batch, const char **path, int *failed)
{
	*path = ostrel_file_path(db, nullptr);
	for (size_t i = 0; i < batch.condition_count() + batch.step_count(); i++) {
		const size_t conditions = batch.condition_count();
		const BatchItem &item = i < conditions ? batch.condition(i) : batch.step(i - conditions);
		if (item.idl == nullptr)
			continue;
		const char *meant = ostrel_file_path(db, item.idl);
		if (*path != nullptr && meant != nullptr && strcmp(meant, *path) == 0)
			continue;
		*failed = static_cast<int>(i);
		return SETERROR(OSTREL_INVALID_ARG);
	}
	return OSTREL_SUCCESS;
}

} // namespace

ostrel_error_t ostrel_commit_batch_to_file(ostrel_db_t db, const Batch &batch, int *failed)
{
	const char *path;
	if (ostrel_error_t bad = path_of(db, batch, &path, failed))
		return bad;
	BatchDecision decision(db, batch);
	if (ostrel_error_t bad = decision.prepare())
		return bad;
	ostrel_error_t result = ostrel_replace_file(db, path, &decision);
	*failed = decision.failed();
	return result;
}

ostrel_error_t ostrel_version_of_file(ostrel_db_t db, ObjectVersion *version)
{
	const char *path = ostrel_file_path(db, nullptr);
	if (path == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	OldFile file;
	if (ostrel_error_t bad = file.open(db, path))
		return bad;
	return file.version(version);
}
