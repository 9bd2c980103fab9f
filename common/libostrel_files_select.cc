// Which lines of a flat file hold a selected object. Divisions: the fast and the general path, stretches and candidates.
#include "libostrel_files_select.h"

#include <cstring>

#include "libostrel_error.h"
#include "libostrel_handle.h"
#include "libostrel_idlist.h"
#include "libostrel_lines.h"

LineSelection::LineSelection(ostrel_db_t db, attrlist_t *idlist, bool exact)
    : db_(db), idlist_(idlist), exact_(exact ? B_TRUE : B_FALSE)
{
	has_fast_path_ = idlist == nullptr || match_.prepare(ostrel_is_case_sensitive(db), idlist, exact);
	scanning_ = idlist != nullptr && has_fast_path_ && scan_.prepare(match_);
}

ostrel_error_t LineSelection::next(BlockReader *reader, SelectedLine *line)
{
	for (;;) {
		ostrel_error_t bad = next_in_block(line);
		if (bad != OSTREL_SUCCESS || line->found())
			return bad;
		ostrel_block block;
		if (int error = reader->next(&block))
			return SETERRNO(error);
		if (block.begin == block.end)
			return OSTREL_SUCCESS;
		begin(block);
	}
}

void LineSelection::begin(const ostrel_block &block)
{
	block_ = block;
	fields_.forget(); // they point into the block before
	line_ = stretch_end_ = block.begin;
	lines_end_ = scanning_ ? block.begin : block.end;
	candidate_failed_ = false;
}

static char *newline_of(const char *line, const char *end)
{
	const void *newline = memchr(line, '\n', static_cast<size_t>(end - line));
	return static_cast<char *>(const_cast<void *>(newline));
}

// ---- The fast and the general path ----

// The parsing below is where a read spends its time: the cursor is kept in registers, and stored when a line is found.
inline ostrel_error_t LineSelection::next_in_stretch(SelectedLine *line)
{
	StructureCursor cursor = cursor_;
	char *next = line_;
	while (next < stretch_end_) {
		const char *begin = next;
		while (*begin != '\n' && ostrel_line_space(*begin))
			begin++;
		if (begin != next)
			cursor.skip_to(begin);
		const char *newline = nullptr;
		const bool fast = has_fast_path_ && ostrel_take_apart(begin, &cursor, &fields_, &newline);
		if (!fast)
			newline = newline_of(begin, stretch_end_);
		const bool fits = block_.size_of(next, newline) <= OSTREL_LINE_MAX;
		next += newline + 1 - next;
		if (!fast && next < stretch_end_)
			cursor.skip_to(next);
		if (!fits)
			continue;
		if (!fast) {
			if (ostrel_error_t bad = take_general(begin, newline, line))
				return bad;
		} else if (idlist_ == nullptr || match_.selects(fields_)) {
			line->begin = begin;
			line->newline = newline;
			line->fields = &fields_;
		}
		if (line->found()) {
			candidate_failed_ = false;
			cursor_ = cursor;
			line_ = next;
			return OSTREL_SUCCESS;
		}
	}
	line_ = next;
	return OSTREL_SUCCESS;
}

ostrel_error_t LineSelection::next_in_block(SelectedLine *line)
{
	line->clear();
	do {
		ostrel_error_t bad = next_in_stretch(line);
		if (bad != OSTREL_SUCCESS || line->found())
			return bad;
	} while (next_stretch());
	return OSTREL_SUCCESS;
}

// Errors: OSTREL_INVALID_ARG  the line doesn't parse; OSTREL_NO_MEMORY
static ostrel_error_t make_lists(const char *begin, const char *newline, AttrList *idlist, AttrList *props)
{
	char copy[OSTREL_LINE_SIZE]; // the reader cuts it to pieces
	size_t length = static_cast<size_t>(newline - begin);
	memcpy(copy, begin, length);
	copy[length] = '\0';
	return ostrel_line2attrlist(copy, idlist->out(), props->out());
}

ostrel_error_t LineSelection::take_general(const char *begin, const char *newline, SelectedLine *line) const
{
	if (*begin == '#' || *begin == '\n' || *begin == '\0')
		return OSTREL_SUCCESS;
	AttrList idlist;
	AttrList props;
	ostrel_error_t result = make_lists(begin, newline, &idlist, &props);
	if (result == OSTREL_INVALID_ARG)
		return OSTREL_SUCCESS;
	if (result != OSTREL_SUCCESS)
		return SETERROR(result);
	if (idlist_ != nullptr && !ostrel_idlist_match(db_, idlist_, idlist.get(), exact_))
		return OSTREL_SUCCESS;
	line->begin = begin;
	line->newline = newline;
	line->idlist = std::move(idlist);
	line->props = std::move(props);
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_make_lists(SelectedLine *line)
{
	ostrel_error_t result = make_lists(line->begin, line->newline, &line->idlist, &line->props);
	return result == OSTREL_SUCCESS ? result : SETERROR(result);
}

// ---- Stretches and candidates ----

// Indexes the next stretch of whole lines. False: the block is done.
bool LineSelection::next_stretch()
{
	while (line_ < lines_end_ || next_candidate()) {
		if (lines_end_ - line_ <= static_cast<ptrdiff_t>(StructureIndex::bytes_max)) {
			stretch_end_ = lines_end_;
		} else {
			const void *last = memrchr(line_, '\n', StructureIndex::bytes_max);
			if (last == nullptr) {
				line_ = newline_of(line_, lines_end_) + 1; // much too long a line
				continue;
			}
			stretch_end_ = static_cast<char *>(const_cast<void *>(last)) + 1;
		}
		index_.build(line_, stretch_end_);
		cursor_ = StructureCursor(index_);
		return true;
	}
	return false;
}

// Goes on to the next line that may be selected. False: none is left in the block.
bool LineSelection::next_candidate()
{
	if (candidate_failed_)
		scan_.report_miss();
	candidate_failed_ = false;
	const char *found = scanning_ ? scan_.next(lines_end_, block_.end) : block_.end;
	if (found == block_.end)
		return false;
	void *before = memrchr(lines_end_, '\n', static_cast<size_t>(found - lines_end_));
	line_ = before != nullptr ? static_cast<char *>(before) + 1 : lines_end_;
	lines_end_ = newline_of(found, block_.end) + 1;
	candidate_failed_ = true; // until it is selected
	return true;
}
