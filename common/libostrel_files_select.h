/*
 * Going through the lines of a flat file and giving on those that hold a selected object.
 */
#ifndef LIBOSTREL_FILES_SELECT_H
#define LIBOSTREL_FILES_SELECT_H

#include "libostrel_files_blocks.h"
#include "libostrel_files_fields.h"
#include "libostrel_files_scan.h"
#include "libostrel_impl.h"

// Who gets the selected lines, in the order of the file. A result other than OSTREL_SUCCESS ends the reading with it.
class LineSink {
public:
	// A plain line, in its parts; its newline is at `newline`.
	virtual ostrel_error_t plain_line(ostrel_fields *fields, const char *newline) = 0;
	// Any other line: its first byte behind white space, its newline, and its lists, which stay the caller's.
	virtual ostrel_error_t odd_line(
	    const char *line, const char *newline, attrlist_t *idlist, attrlist_t *props) = 0;

protected:
	~LineSink() = default;
};

// Lines that can't be selected aren't looked at where a scan can tell; plain lines are taken apart and compared where they
// lie; the general reader has the rest. Malformed lines are passed over.
class LineSelection {
public:
	// `idlist` may be NULL: every object is selected. The list has to outlive this.
	LineSelection(ostrel_db_t db, attrlist_t *idlist, bool exact, LineSink *sink);

	// Reads a file to its end. Errors: those of the file, mapped; OSTREL_NO_MEMORY; those of the sink.
	ostrel_error_t read(int fd);
	ostrel_error_t read(BlockReader *reader); // of LongLines::Drop
	// Goes through the lines of a block.
	ostrel_error_t take(const ostrel_block &block);

	// For the sink, of the line that it was given:
	// Reads a plain line by the general reader, and gives it on as an odd one.
	ostrel_error_t take_as_odd(const char *line, const char *newline) { return take_odd_line(line, newline); }
	// Where a byte is in the file.
	off_t offset_of(const char *byte) const { return block_.offset + (byte - block_.begin); }
	// Whether the newline is in the file.
	bool has_newline(const char *newline) const { return !block_.open || newline + 1 != block_.end; }

private:
	ostrel_error_t take_candidates();
	ostrel_error_t take_lines(char *begin, char *end);
	ostrel_error_t take_stretch(char *begin, char *end);
	ostrel_error_t take_plain_line(const char *newline);
	ostrel_error_t take_odd_line(const char *line, const char *newline);

	ostrel_db_t db_;
	attrlist_t *idlist_;
	boolean_t exact_;
	LineSink *sink_;
	FieldMatch match_;
	bool comparing_; // match_ can tell what idlist_ selects
	CandidateScan scan_;
	bool scanning_; // scan_ can tell where to look
	bool selected_; // the last line was
	ostrel_block block_ = {};
	StructureIndex index_;
	ostrel_fields fields_;
};

#endif
