/*
 * The undo record of an apply: which database, until when, and each object before and after. docs/formats/rollback-record.md has
 * the bytes.
 *
 * A record is written once, but for its first line, whose fields have fixed places: whether the apply was carried out, and until
 * when it waits. That line is changed in place, under the record's lock (pending.h). A record in which it was torn by a crash is
 * one of an earlier boot, and its two times don't matter any more.
 */
#ifndef LIBOSTRELX_RECORD_H
#define LIBOSTRELX_RECORD_H

#include "base/growing_array.h"
#include "base/guards.h"
#include "libostrelx.h"

// One object of an apply. The lists are the record's.
struct UndoObject {
	attrlist_t *idl;    // as it was stored, or as the batch gave it
	attrlist_t *before; // properties; NULL: there was no object
	attrlist_t *after;  // NULL: there is none
	uint64_t flags;     // of the write
};

// What a record says beside its objects. The texts are the record's.
struct UndoHead {
	const char *store; // "file", "repo", "hatch"
	const char *database;
	enclaveid_t enclave;
	uint64_t db_flags;
	uint32_t uid;
	const char *boot;
	const char *run; // NULL: none
};

// The first line.
struct UndoState {
	bool is_applied;      // false: perhaps it never was
	uint64_t deadline_ns; // CLOCK_BOOTTIME
	int64_t until;        // the same by the calendar
};

constexpr size_t boot_id_size = 37;

class UndoRecord {
public:
	UndoState state = {};
	UndoHead head = {};
	GrowingArray<UndoObject> objects;

	// Makes it of its parts, which are copied. Errors: OSTREL_NO_MEMORY
	ostrelx_error_t make(const UndoState &when, const UndoHead &parts, const GrowingArray<UndoObject> &changed);
	// Errors: OSTREL_INVALID_ARG  the file isn't a record; OSTREL_NO_MEMORY; OSTREL_FAILURE
	ostrelx_error_t read(int fd);
	// Errors: OSTREL_NO_MEMORY  also: no space; OSTREL_FAILURE
	ostrelx_error_t write(int fd) const;

	bool is_of_this_boot() const;
	bool is_due() const;
	uint32_t seconds_left() const;

private:
	ostrelx_error_t take_apart();
	AttrList list_;
};

// Writes the first line of a record. Errors: as write()
ostrelx_error_t undo_write_state(int fd, const UndoState &state);

// CLOCK_BOOTTIME, which goes on while the host sleeps.
uint64_t undo_now_ns();
// Sets both times of a state.
void undo_set_deadline(UndoState *state, unsigned seconds);
// The kernel's name of this boot. Errors: OSTREL_FAILURE
ostrelx_error_t undo_boot_id(char (&boot)[boot_id_size]);

// Whether two identifier lists single out the same object of one database. In the repository the path of names alone counts.
bool undo_same_object(attrlist_t *a, attrlist_t *b, bool folds);

#endif
