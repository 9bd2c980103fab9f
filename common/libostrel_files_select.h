/*
 * Finding the lines of a flat file that hold a selected object. The caller asks for one line after the other; nothing here
 * calls back.
 *
 * Three filters stand in a row, each cheaper than the next. A scan for the bytes of a search value leaves out lines without
 * looking at them. On the fast path a line is taken apart and compared where it lies. Every other line takes the general
 * path: the reader of libostrel_lines.h makes lists of it, and those are compared. Each filter selects the same lines.
 */
#ifndef LIBOSTREL_FILES_SELECT_H
#define LIBOSTREL_FILES_SELECT_H

#include "base/guards.h"
#include "libostrel_files_blocks.h"
#include "libostrel_files_fields.h"
#include "libostrel_files_scan.h"

// A line that holds a selected object. Its bytes and fields are valid until the next one is asked for.
struct SelectedLine {
	const char *begin = nullptr;     // the object's first byte, after white space; NULL: there is no line
	const char *newline = nullptr;   // the byte that ends the line
	ostrel_fields *fields = nullptr; // its parts, if it took the fast path
	AttrList idlist;                 // its lists, if it took the general path
	AttrList props;

	bool found() const { return begin != nullptr; }
	bool is_fast() const { return fields != nullptr; }
	void clear()
	{
		begin = nullptr;
		fields = nullptr;
		if (idlist) {
			idlist.reset();
			props.reset();
		}
	}
};

class LineSelection {
public:
	// `idlist` may be NULL: every object is selected. The list has to outlive this.
	LineSelection(ostrel_db_t db, attrlist_t *idlist, bool exact);
	LineSelection(const LineSelection &) = delete;
	LineSelection &operator=(const LineSelection &) = delete;

	/*
	 * Finds the next selected line of a file, in the file's order; malformed lines are passed over. The reader drops long
	 * lines. Errors: those of the reads, mapped; OSTREL_NO_MEMORY. *line is found() on success alone
	 */
	ostrel_error_t next(BlockReader *reader, SelectedLine *line);

	// The same for text in memory: starts on a block, and finds the next line of it.
	void begin(const ostrel_block &block);
	ostrel_error_t next_in_block(SelectedLine *line);

	// Of a byte of the line found last: its place in the file.
	off_t offset_of(const char *byte) const { return block_.offset + (byte - block_.begin); }
	// Whether this newline is the file's own: the last line may lack it.
	bool has_newline(const char *newline) const { return !block_.open || newline + 1 != block_.end; }

private:
	bool next_stretch();
	bool next_candidate();
	ostrel_error_t next_in_stretch(SelectedLine *line);
	ostrel_error_t take_general(const char *begin, const char *newline, SelectedLine *line) const;

	ostrel_db_t db_;
	attrlist_t *idlist_;
	boolean_t exact_;
	FieldMatch match_;
	bool has_fast_path_; // match_ can tell what idlist_ selects
	CandidateScan scan_;
	bool scanning_; // scan_ can tell where to look

	// Within a block, candidates or all lines; within those, stretches that are indexed; within a stretch, lines.
	ostrel_block block_ = {};
	char *lines_end_ = nullptr;
	char *stretch_end_ = nullptr;
	char *line_ = nullptr; // the next one to look at
	bool candidate_failed_ = false;
	StructureIndex index_;
	StructureCursor cursor_;
	ostrel_fields fields_;
};

// Makes the lists of a line that took the fast path, as the general path does.
ostrel_error_t ostrel_make_lists(SelectedLine *line);

#endif
