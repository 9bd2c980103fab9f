/*
 * The fast path through a line: it is taken apart where it lies, without a copy or a change.
 *
 * It accepts the lines that the writer leaves, and a little more. Any other line it refuses, and the caller takes the general
 * path, the reader of libostrel_lines.h, which alone decides what the format means. A line that the fast path accepts gives
 * the same object on both; tests/files_paths_test.cc compares them.
 *
 * Where the time goes: the bytes that have a meaning are found 64 at a time (StructureIndex), so that the parser steps from one
 * to the next; and a line that begins as the one before did takes over its names and types unread (`known_`).
 */
#ifndef LIBOSTREL_FILES_FIELDS_H
#define LIBOSTREL_FILES_FIELDS_H

#include <cstddef>
#include <cstdint>

#include "libostrel.h"
#include "libostrel_files_blocks.h"

// Marks the bytes that the format gives a meaning: one bit for each byte of a stretch of text.
class StructureIndex {
public:
	static constexpr size_t bytes_max = 16384;

	// Indexes [begin, end), at most bytes_max bytes. Reads up to OSTREL_BLOCK_SLACK bytes after it.
	void build(const char *begin, const char *end);

private:
	friend class StructureCursor;

	const char *begin_;
	uint64_t bits_[bytes_max / 64];
};

// Steps from one marked byte to the next. It has no end of its own: the caller knows that a newline is ahead.
class StructureCursor {
public:
	StructureCursor() = default;
	explicit StructureCursor(const StructureIndex &index) : at_(index.begin_), word_(index.bits_), bits_(*word_) {}

	// Requires that a marked byte is ahead.
	const char *next()
	{
		while (bits_ == 0)
			next_word();
		const char *found = at_ + __builtin_ctzll(bits_);
		bits_ &= bits_ - 1;
		return found;
	}
	// Skips the marked bytes before `at`. Requires that there is one at `at` or after it.
	void skip_to(const char *at)
	{
		while (at - at_ >= 64)
			next_word();
		if (at > at_)
			bits_ &= ~uint64_t{0} << (at - at_);
	}

private:
	void next_word()
	{
		at_ += 64;
		bits_ = *++word_;
	}

	const char *at_ = nullptr; // of the first bit
	const uint64_t *word_ = nullptr;
	uint64_t bits_ = 0;
};

// A line in its parts, which point into the line and into this structure.
struct ostrel_fields {
	static constexpr size_t identifiers_max = 16;
	static constexpr size_t properties_max = 32;
	static constexpr size_t values_max = 128;

	attrdraft_t identifiers[identifiers_max]; // strings
	attrtext_t identifier_values[identifiers_max];
	attrdraft_t properties[properties_max]; // arrays; their elements are `values`
	attrtext_t values[values_max];          // of every type, as they stand in the line
	uint_t identifier_count;
	uint_t property_count;
	uint_t value_count;
	const char *begin; // of the object
	bool has_escapes;  // in values
	bool as_written;   // the writer would make the same bytes of it, if it didn't refuse it for a length

	// How many identifiers and properties of the line before are still here: the next line is likely to begin alike.
	uint_t known_identifiers;
	uint_t known_properties;
	uint16_t property_heads[properties_max]; // bytes of `name=type`

	// Must be called before the text of the line before goes away.
	void forget() { known_identifiers = known_properties = 0; }
};

/*
 * Takes apart the line at `line`, which ends in a newline; `cursor` stands at its first byte. False if the line is one for the
 * general path; the cursor then stands anywhere in the line. On success *newline is the line's end, and the cursor stands after it.
 */
bool ostrel_take_apart(const char *line, StructureCursor *cursor, ostrel_fields *fields, const char **newline);

// Whether the writer would make exactly these bytes of the line's object.
bool ostrel_is_as_written(const ostrel_fields &fields, const char *newline);

// Makes the object. Removes the backslashes of the values in place: the line can't be taken apart again.
ostrel_error_t ostrel_make_object(ostrel_fields *fields, bool with_props, attrlist_t **object);

// One identifier of a search list.
struct ostrel_wanted {
	attrtext_t name;
	attrtext_t value;
};

// A search list in the form in which the fast path compares lines with it.
class FieldMatch {
public:
	// False if the list can't be compared this way: too many identifiers, or one that isn't a text. The list must outlive
	// this object.
	bool prepare(bool with_case, attrlist_t *idlist, bool exact);
	// The answer of ostrel_idlist_match() for the line's identifiers.
	bool selects(const ostrel_fields &fields) const;

	size_t count() const { return count_; }
	const ostrel_wanted &wanted(size_t i) const { return wanted_[i]; }
	bool with_case() const { return with_case_; }
	// Whether the comparison takes ASCII bytes for equal only if they are the same, or one letter in both cases.
	bool usual_case() const { return usual_case_; }

private:
	bool ends_differ(char a, char b) const;

	ostrel_wanted wanted_[ostrel_fields::identifiers_max];
	size_t count_ = 0;
	bool exact_ = false;
	bool with_case_ = false;
	bool usual_case_ = false;
};

#endif
