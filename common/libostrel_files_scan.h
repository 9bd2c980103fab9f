/*
 * Finding the lines of a block that may hold a search value, without looking at the lines.
 */
#ifndef LIBOSTREL_FILES_SCAN_H
#define LIBOSTREL_FILES_SCAN_H

#include "libostrel_files_fields.h"

// Finds identifiers by their bytes: `name=value` and what closes it.
class CandidateScan {
public:
	/*
	 * Picks what is searched for among the wanted identifiers. False if none will do: values that are empty, that have a
	 * backslash, or that the locale may compare otherwise than byte by byte but for the case of the 26 letters.
	 */
	bool prepare(const FieldMatch &match);

	/*
	 * The first place from `from` on where a wanted identifier may stand; `end` if there is none. No line that is selected
	 * lacks such a place. Up to OSTREL_BLOCK_SLACK bytes behind `end` are read.
	 */
	const char *next(const char *from, const char *end) const;

	// Tells that the last place led to nothing. A value that stands in many lines is given up for the next one.
	void disappointed();

private:
	bool stands_at(const char *equals, const char *end) const;
	const char *next_fit(const char *from, const char *limit) const;

	ostrel_wanted needles_[ostrel_fields::identifiers_max];
	size_t count_ = 0;
	size_t current_ = 0;
	unsigned disappointments_ = 0;
	bool with_case_ = false;
};

#endif
