/*
 * The fast road through lines: a line is taken apart where it lies, nothing copied, nothing changed.
 *
 * It knows the plain lines only, those that the writer leaves and a little more. Of every other line it says that it is
 * odd, and the general reader of libostrel_lines.h decides. A plain line gives the same object on both roads.
 */
#ifndef LIBOSTREL_FILES_FIELDS_H
#define LIBOSTREL_FILES_FIELDS_H

#include <cstddef>
#include <cstdint>

#include "libostrel.h"
#include "libostrel_files_blocks.h"

// Where the bytes are that the format gives a meaning: one bit for each byte of a stretch of text.
class StructureIndex {
public:
	static constexpr size_t bytes_max = 16384;

	// Indexes the bytes of [begin, end), bytes_max of them at most. Up to OSTREL_BLOCK_SLACK bytes behind are read.
	void build(const char *begin, const char *end);

private:
	friend class StructureCursor;

	const char *begin_;
	uint64_t bits_[bytes_max / 64];
};

// Goes from one of these bytes to the next.
class StructureCursor {
public:
	StructureCursor() = default;
	explicit StructureCursor(const StructureIndex &index) : at_(index.begin_), word_(index.bits_), bits_(*word_) {}

	// There has to be one.
	const char *next()
	{
		while (bits_ == 0)
			next_word();
		const char *found = at_ + __builtin_ctzll(bits_);
		bits_ &= bits_ - 1;
		return found;
	}
	// Passes over those before `at`; one at `at` or behind it has to be there.
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

// A plain line in its parts, which point into the line and into these fields.
struct ostrel_fields {
	static constexpr size_t identifiers_max = 16;
	static constexpr size_t properties_max = 32;
	static constexpr size_t values_max = 128;

	attrdraft_t identifiers[identifiers_max]; // strings
	attrtext_t identifier_values[identifiers_max];
	attrdraft_t properties[properties_max]; // arrays, whose elements are values
	attrtext_t values[values_max];          // of all types, as they stand in the line
	uint_t identifier_count;
	uint_t property_count;
	uint_t value_count;
	const char *begin; // of the object
	bool has_escapes;  // in values
	bool as_written;   // the writer would make the same bytes of it

	// What is left of the line before, which the next one is likely to resemble: its first identifiers and properties.
	uint_t known_identifiers;
	uint_t known_properties;
	uint16_t property_heads[properties_max]; // bytes of `name=type`

	// To be called before the text of the line before goes away.
	void forget() { known_identifiers = known_properties = 0; }
};

/*
 * Takes apart the line at `line`, of which `cursor` is at the first byte, and the newline is there. False if it is odd.
 * Of a plain line *newline is the end, and the cursor stands behind it; else the cursor stands anywhere in the line.
 */
bool ostrel_take_apart(const char *line, StructureCursor *cursor, ostrel_fields *fields, const char **newline);

// Whether the writer makes the very bytes of the line from its object, and refuses none of them.
bool ostrel_is_as_written(const ostrel_fields &fields, const char *newline);

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
	bool prepare(bool with_case, attrlist_t *idlist, bool exact);
	// As ostrel_idlist_match() of the identifiers.
	bool selects(const ostrel_fields &fields) const;

	size_t count() const { return count_; }
	const ostrel_wanted &wanted(size_t i) const { return wanted_[i]; }
	bool with_case() const { return with_case_; }
	// Whether ASCII bytes are equal only if they are the same, or the same letter.
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
