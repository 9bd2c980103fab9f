/*
 * Finds the places of a block where a search value may stand, without splitting it into lines: most lines of a file are passed
 * over 32 bytes at a time. It may report a place too many, never one too few.
 */
#ifndef LIBOSTREL_FILES_SCAN_H
#define LIBOSTREL_FILES_SCAN_H

#include "libostrel_files_fields.h"

// Searches for the bytes of an identifier: `name=value`, and a byte that can close it.
class CandidateScan {
public:
	/*
	 * Chooses the identifiers to search for. False if none of the wanted ones will do: their values are empty, hold a
	 * backslash, or have bytes that the locale may take for equal to others, beyond the case of the 26 letters.
	 */
	bool prepare(const FieldMatch &match);

	/*
	 * Returns the first place from `from` on where a wanted identifier may stand, or `end`. Every line that is selected has
	 * such a place. Reads up to OSTREL_BLOCK_SLACK bytes after `end`.
	 */
	const char *next(const char *from, const char *end) const;

	// The caller reports that the line at the last place wasn't selected. After a few of these the scan changes to the next
	// wanted identifier: this one's value stands in many lines.
	void report_miss();

private:
	bool stands_at(const char *equals, const char *end) const;
	const char *next_fit(const char *from, const char *limit) const;

	ostrel_wanted needles_[ostrel_fields::identifiers_max];
	size_t count_ = 0;
	size_t current_ = 0; // the needle that is searched for
	unsigned misses_ = 0;
	bool with_case_ = false;
};

#endif
