// Which lines of a flat file hold a selected object.
#include "libostrel_files_select.h"

#include <cstring>

#include "base/guards.h"
#include "libostrel_lines.h"

LineSelection::LineSelection(ostrel_db_t db, attrlist_t *idlist, bool exact, LineSink *sink)
    : db_(db), idlist_(idlist), exact_(exact ? B_TRUE : B_FALSE), sink_(sink)
{
	comparing_ = idlist == nullptr || match_.prepare(ostrel_is_case_sensitive(db), idlist, exact);
	scanning_ = idlist != nullptr && comparing_ && scan_.prepare(match_);
}

ostrel_error_t LineSelection::read(int fd)
{
	BlockReader reader(fd, LongLines::Drop);
	return read(&reader);
}

ostrel_error_t LineSelection::read(BlockReader *reader)
{
	for (;;) {
		ostrel_block block;
		if (int error = reader->next(&block))
			return SETERRNO(error);
		if (block.begin == block.end)
			return OSTREL_SUCCESS;
		if (ostrel_error_t bad = take(block))
			return bad;
	}
}

ostrel_error_t LineSelection::take(const ostrel_block &block)
{
	block_ = block;
	fields_.forget();
	return scanning_ ? take_candidates() : take_lines(block.begin, block.end);
}

static char *newline_of(const char *line, const char *end)
{
	const void *newline = memchr(line, '\n', static_cast<size_t>(end - line));
	return static_cast<char *>(const_cast<void *>(newline));
}

ostrel_error_t LineSelection::take_candidates()
{
	for (char *from = block_.begin; from < block_.end;) {
		const char *found = scan_.next(from, block_.end);
		if (found == block_.end)
			return OSTREL_SUCCESS;
		char *before = static_cast<char *>(memrchr(from, '\n', static_cast<size_t>(found - from)));
		char *line = before != nullptr ? before + 1 : from;
		from = newline_of(found, block_.end) + 1;
		selected_ = false;
		if (ostrel_error_t bad = take_lines(line, from))
			return bad;
		if (!selected_)
			scan_.disappointed();
	}
	return OSTREL_SUCCESS;
}

ostrel_error_t LineSelection::take_lines(char *begin, char *end)
{
	while (begin < end) {
		char *stop = end;
		if (end - begin > static_cast<ptrdiff_t>(StructureIndex::bytes_max)) {
			const void *last = memrchr(begin, '\n', StructureIndex::bytes_max);
			if (last == nullptr) {
				begin = newline_of(begin, end) + 1; // much too long a line
				continue;
			}
			stop = static_cast<char *>(const_cast<void *>(last)) + 1;
		}
		if (ostrel_error_t bad = take_stretch(begin, stop))
			return bad;
		begin = stop;
	}
	return OSTREL_SUCCESS;
}

ostrel_error_t LineSelection::take_stretch(char *begin, char *end)
{
	index_.build(begin, end);
	StructureCursor cursor(index_);
	for (char *line = begin; line < end;) {
		char *object = line;
		while (*object != '\n' && ostrel_line_space(*object))
			object++;
		if (object != line)
			cursor.skip_to(object);
		const char *newline = nullptr;
		bool plain = comparing_ && ostrel_take_apart(object, &cursor, &fields_, &newline);
		if (!plain)
			newline = newline_of(object, end);
		bool whole = block_.size_of(line, newline) <= OSTREL_LINE_MAX;
		line += newline + 1 - line;
		if (!plain && line < end)
			cursor.skip_to(line);
		if (!whole)
			continue;
		ostrel_error_t bad = plain ? take_plain_line(newline) : take_odd_line(object, newline);
		if (bad != OSTREL_SUCCESS)
			return bad;
	}
	return OSTREL_SUCCESS;
}

ostrel_error_t LineSelection::take_plain_line(const char *newline)
{
	if (idlist_ != nullptr && !match_.selects(fields_))
		return OSTREL_SUCCESS;
	selected_ = true;
	return sink_->plain_line(&fields_, newline);
}

ostrel_error_t LineSelection::take_odd_line(const char *line, const char *newline)
{
	if (*line == '#' || *line == '\n')
		return OSTREL_SUCCESS;
	char copy[OSTREL_LINE_SIZE]; // is cut to pieces
	size_t length = static_cast<size_t>(newline - line);
	memcpy(copy, line, length);
	copy[length] = '\0';
	if (copy[0] == '\0')
		return OSTREL_SUCCESS;
	AttrList idlist;
	AttrList props;
	ostrel_error_t result = ostrel_line2attrlist(copy, idlist.out(), props.out());
	if (result == OSTREL_INVALID_ARG)
		return OSTREL_SUCCESS;
	if (result != OSTREL_SUCCESS)
		return SETERROR(result);
	if (idlist_ != nullptr && !ostrel_idlist_match(db_, idlist_, idlist.get(), exact_))
		return OSTREL_SUCCESS;
	selected_ = true;
	return sink_->odd_line(line, newline, idlist.get(), props.get());
}
