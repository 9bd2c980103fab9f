/*
 * The differ: what a watch has handed out, as digests beside the identifiers, and what changed since.
 *
 * One reading after the other: begin(), see() for each object that the store holds, next_removed() until there is no more. What it
 * keeps is what it reported, so it may leave out what didn't change.
 */
#ifndef LIBOSTRELX_DIFFER_H
#define LIBOSTRELX_DIFFER_H

#include <cstddef>
#include <cstdint>

#include "base/guards.h"
#include "libostrel_version.h"

class Differ {
public:
	~Differ();
	Differ() = default;
	Differ(const Differ &) = delete;
	Differ &operator=(const Differ &) = delete;

	// Begins a reading. One that wasn't finished counts for nothing but what was reported in it.
	void begin();
	/*
	 * Sees an object. *is_new: it is to be handed out, since it wasn't there or had another content.
	 * Of two objects with the same identifiers the last one counts: a store may hold both, a watcher can't tell them apart.
	 * Errors: OSTREL_NO_MEMORY  nothing was noted; the reading has to begin again
	 */
	ostrel_error_t see(attrlist_t *idl, attrlist_t *props, bool *is_new);
	/*
	 * Gives an object that the whole reading hasn't seen, and forgets it. *idl is NULL if there is no more.
	 * Owns: *idl is new. Errors: OSTREL_NO_MEMORY  nothing was forgotten
	 */
	ostrel_error_t next_removed(attrlist_t **idl);
	// Forgets everything.
	void clear();

	size_t size() const { return count_; }
	// The digest of all contents, whatever their order.
	Digest content() const { return sum_; }

private:
	struct Entry {
		Digest content;
		char *ids;        // in the form of pack_identifiers()
		uint32_t size;    // of that
		uint32_t reading; // that saw it last
	};

	uint64_t hash_of(const Entry &entry) const;
	size_t find(const char *ids, size_t size) const;
	bool make_room();
	bool grow_index();
	void erase(uint32_t entry);
	void erase_slot(size_t slot);
	void count_in(const Entry &entry);
	void count_out(const Entry &entry);

	Entry *entries_ = nullptr; // without gaps
	size_t count_ = 0;
	size_t room_ = 0;
	uint32_t *index_ = nullptr; // numbers of entries; open addressing, a power of two
	size_t slots_ = 0;
	size_t removal_ = 0; // next_removed() has looked at the entries from here on
	uint32_t reading_ = 0;
	Digest sum_ = {0, 0};
};

#endif
