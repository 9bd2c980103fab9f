/*
 * The directory of the undo records, and who may do what in it when.
 *
 *   pending/ID          an apply that waits for its confirmation
 *   pending/ID.rolling  one whose rollback has begun
 *   guard               the guard holds a lock on it, for as long as it lives
 *   rolled-back/ID      empty: when that one was rolled back, for a day
 *   unusable-NAME       what lay in pending/ and isn't a record of this user's
 *
 * Nothing but records lies in pending/: the service manager starts a guard while it isn't empty. All of it is beside it.
 *
 * Steps that decide: confirming is the unlink of ID, rolling back begins with the rename of ID. One of the two finds it. Neither
 * needs a lock. The locks below only keep the others apart:
 *   the directory's (flock)  overlaps are looked for and a record is made under it, and a guard ends under it: so a new record
 *                            is seen by the guard that lives, or finds none
 *   a record's (flock)       an apply holds it until it is carried out or has failed, whoever changes its time or rolls it back
 *                            from before the look at the time to the end. It dies with its holder.
 * The directory's is taken first, never while a record's is held but by an apply that has just made its own.
 */
#ifndef LIBOSTRELX_PENDING_H
#define LIBOSTRELX_PENDING_H

#include <climits>

#include "base/guards.h"
#include "record.h"

using ApplyId = char[OSTRELX_APPLY_ID_SIZE];

// The name of what lies in the directory: of a record an id, with or without ".rolling".
struct RecordName {
	char text[NAME_MAX + 1];
};

// Whether a text can be the name of an apply.
bool undo_is_id(const char *text);

// A record's file, locked. The lock goes with it, also if a forked child has the descriptor still.
class RecordFile {
public:
	RecordFile() = default;
	explicit RecordFile(int fd) : fd_(fd) {}
	RecordFile(RecordFile &&) noexcept = default;
	RecordFile &operator=(RecordFile &&other) noexcept
	{
		release();
		fd_ = std::move(other.fd_);
		return *this;
	}
	~RecordFile() { release(); }
	int get() const { return fd_.get(); }
	void release();

private:
	Fd fd_;
};

class PendingDirectory {
public:
	/*
	 * Opens it, and makes it first if `make`.
	 * Errors: OSTREL_NOT_FOUND  it isn't there; OSTREL_EPERM  it is somebody else's, or open to others, or so is the one above
	 *         it; OSTREL_NO_MEMORY; OSTREL_FAILURE
	 */
	ostrelx_error_t open(bool make);
	~PendingDirectory() { unlock(); }

	// The directory's lock. Errors: OSTREL_FAILURE  others held it for a minute
	ostrelx_error_t lock();
	void unlock();

	// ---- Records ----

	// The names of all that lies there, records or not.
	ostrelx_error_t list(GrowingArray<RecordName> *names) const;
	/*
	 * Opens a record, and locks it if `wait_ns` isn't negative.
	 * Errors: OSTREL_NOT_FOUND; OSTREL_EPERM  it isn't this user's alone; OSTREL_NEEDS_RETRY  locked by another for that long
	 */
	ostrelx_error_t open_record(const char *name, int64_t wait_ns, RecordFile *file) const;
	// Makes a record durable, under a name that it chooses. Needs the lock. *file is locked.
	ostrelx_error_t add(const UndoRecord &record, ApplyId &id, RecordFile *file);
	// Removes it, durably. Errors: OSTREL_NOT_FOUND; OSTREL_FAILURE  also: it is removed, and the sync failed
	ostrelx_error_t remove(const char *name) const;
	// The step that decides. Errors: OSTREL_NOT_FOUND  it was confirmed
	ostrelx_error_t begin_rolling(const char *id) const;
	// Takes that step back, where nothing else was done.
	void end_rolling(const char *id) const;
	void set_aside(const char *name) const;

	void note_rolled_back(const char *id) const;
	ostrelx_error_t rolled_back_at(const char *id, int64_t *when) const;

	// ---- The guard ----

	bool has_guard() const;
	// Errors: OSTREL_EXISTS  somebody else is the guard
	ostrelx_error_t become_guard();
	void end_guard();

private:
	bool leads_to(const char *name, int fd) const;
	int sync() const;

	Fd base_;
	Fd records_;
	Fd guard_;
	bool is_locked_ = false;
};

#endif
