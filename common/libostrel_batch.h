/*
 * A batch: conditions and steps that a store carries out together, all or none.
 *
 * Items stand in two groups, conditions and steps, each in the order in which they were added. The number of an item, which
 * a result names, counts the conditions first.
 */
#ifndef LIBOSTREL_BATCH_H
#define LIBOSTREL_BATCH_H

#include <cstddef>

#include "base/growing_array.h"
#include "libostrel.h"
#include "libostrel_version.h"

enum class BatchKind : uint32_t {
	ExpectObject = 1,   // the object that `idl` singles out has this version; "" is none, "*" any
	ExpectDatabase = 2, // the database has this version
	Write = 3,          // `list` is the properties
	Rename = 4,         // `list` is the new identifiers
	Remove = 5
};

inline bool ostrel_is_condition(BatchKind kind)
{
	return kind == BatchKind::ExpectObject || kind == BatchKind::ExpectDatabase;
}

// One condition or step. Its lists belong to the batch.
struct BatchItem {
	BatchKind kind;
	attrlist_t *idl;  // NULL for ExpectDatabase
	attrlist_t *list; // NULL but for Write and Rename
	uint64_t flags;   // of the step, as for the operation
	ObjectVersion version;
};

void ostrel_free_batch_item(BatchItem &item);

class Batch {
public:
	static constexpr size_t items_max = 65536;
	static constexpr size_t packed_max = size_t{64} << 20;

	/*
	 * Adds an item. The lists are copied.
	 * Errors: OSTREL_INVALID_ARG  a list that the kind needs is missing; a version that is too long or has blanks
	 *         OSTREL_NO_MEMORY    also: more than items_max items
	 */
	ostrel_error_t expect(attrlist_t *idl, const char *version);
	ostrel_error_t expect_database(const char *version);
	ostrel_error_t write(attrlist_t *idl, uint64_t flags, attrlist_t *props);
	ostrel_error_t rename(attrlist_t *idl, uint64_t flags, attrlist_t *newidl);
	ostrel_error_t remove(attrlist_t *idl, uint64_t flags);

	size_t condition_count() const { return conditions_.size(); }
	size_t step_count() const { return steps_.size(); }
	const BatchItem &condition(size_t i) const { return conditions_[i]; }
	const BatchItem &step(size_t i) const { return steps_[i]; }

	// The batch as one list, for a wire or a record, and back. Owns: *listp is new; unpack() needs an empty batch, and copies.
	// Errors: OSTREL_NO_MEMORY; OSTREL_INVALID_ARG  not such a list, or beyond the limits
	ostrel_error_t pack(attrlist_t **listp) const;
	ostrel_error_t unpack(attrlist_t *list);

private:
	using Items = GrowingArray<BatchItem, ostrel_free_batch_item>;
	ostrel_error_t add(BatchKind kind, attrlist_t *idl, uint64_t flags, attrlist_t *list, const char *version);
	ostrel_error_t unpack_item(attrlist_t *item);

	Items conditions_;
	Items steps_;
};

#endif
