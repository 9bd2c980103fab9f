/*
 * The fast road through lines: a line is taken apart where it lies, nothing copied, nothing changed.
 *
 * It knows the plain lines only, those that the writer leaves and a little more. Of every other line it says that it is
 * odd, and the general reader of libostrel_lines.h decides. A plain line gives the same object on both roads.
 */
#ifndef LIBOSTREL_FIELDS_H
#define LIBOSTREL_FIELDS_H

#include <cstddef>
#include <cstdint>

#include "libostrel_blocks.h"
#include "libostrel_impl.h"

// Where the bytes are that the format gives a meaning: one bit for each byte of a block.
class StructureIndex {
public:
	// Indexes the bytes of [begin, end), at most those of a block. Up to OSTREL_BLOCK_SLACK bytes behind are read.
	void build(const char *begin, const char *end);

private:
	friend class StructureCursor;
	static constexpr size_t bytes_max = OSTREL_BLOCK_SIZE + OSTREL_LINE_MAX + OSTREL_BLOCK_SLACK;

	const char *begin_;
	uint64_t bits_[bytes_max / 64 + 1];
};

// Goes from one of these bytes to the next.
class StructureCursor {
public:
	StructureCursor(const StructureIndex &index, const char *at) : begin_(index.begin_), words_(index.bits_)
	{
		seek(at);
	}

	// The first such byte at `at` or behind it is the next.
	void seek(const char *at)
	{
		size_t distance = static_cast<size_t>(at - begin_);
		word_ = distance / 64;
		bits_ = words_[word_] & (~uint64_t{0} << (distance % 64));
	}
	// There has to be one.
	const char *next()
	{
		while (bits_ == 0)
			bits_ = words_[++word_];
		const char *found = begin_ + word_ * 64 + static_cast<size_t>(__builtin_ctzll(bits_));
		bits_ &= bits_ - 1;
		return found;
	}

private:
	const char *begin_;
	const uint64_t *words_;
	size_t word_;
	uint64_t bits_;
};

// A plain line in its parts, which point into the line and into these fields.
struct ostrel_fields {
	static constexpr size_t identifiers_max = 16;
	static constexpr size_t properties_max = 32;
	static constexpr size_t values_max = 128;

	attrdraft_t identifiers[identifiers_max]; // strings
	attrtext_t identifier_values[identifiers_max];
	attrdraft_t properties[properties_max]; // arrays
	attrtext_t texts[values_max];           // with their backslashes
	int64_t numbers[values_max];            // packed as the elements of their types
	uint_t identifier_count;
	uint_t property_count;
	uint_t text_count;
	uint_t number_count; // each takes 8 bytes of room
	const char *begin;   // of the object
	bool has_escapes;    // in texts
	bool as_written;     // the writer would make the same bytes of it
};

/*
 * Takes apart the line at `line`, of which `cursor` is at the first byte, and the newline is there. False if it is odd.
 * Of a plain line *newline is the end, and the cursor stands behind it; else the cursor stands anywhere in the line.
 */
bool ostrel_take_apart(const char *line, StructureCursor *cursor, ostrel_fields *fields, const char **newline);

// Whether the writer makes the very bytes of the line from its object, and refuses none of them.
bool ostrel_is_as_written(const ostrel_fields &fields);

// Makes the object. Takes the backslashes out of the texts, where they lie: the line can't be taken apart again.
ostrel_error_t ostrel_make_object(ostrel_fields *fields, bool with_props, attrlist_t **object);

// One identifier that is searched for.
struct ostrel_wanted {
	attrtext_t name;
	attrtext_t value;
};

// A search list in the form in which plain lines are compared with it.
class FieldMatch {
public:
	// False if the list can't be compared this way: too many identifiers, or one that isn't a text. The list has to
	// outlive this.
	bool prepare(ostrel_db_t db, attrlist_t *idlist, bool exact);
	// As ostrel_idlist_match() of the identifiers.
	bool selects(const ostrel_fields &fields) const;

	size_t count() const { return count_; }
	const ostrel_wanted &wanted(size_t i) const { return wanted_[i]; }
	bool with_case() const { return with_case_; }

private:
	ostrel_wanted wanted_[ostrel_fields::identifiers_max];
	size_t count_ = 0;
	bool exact_ = false;
	bool with_case_ = false;
};

#endif
