/*
 * libostrelx: what a daemon needs to live with configuration that others change: versions and batches, so that no update is
 * lost; watches; and what else stands below. It works on handles of ostrel_db_open(). Flat files have versions, batches and
 * watches, raw files all of these but batches; another store may lack an operation, which is OSTREL_NOTSUP then.
 *
 * Rules for every call, unless its comment says otherwise:
 *   Results: those of libostrel.h, and the two below. The returned value is the whole report.
 *   Threads: any, any number at once on one database. A batch or a watch is used by one thread at a time.
 *   Later:   nothing is taken over to be repeated: a store that can't be written is OSTREL_NEEDS_RETRY, and nothing was changed.
 *   Owns:    arguments stay the caller's and are copied where they are kept.
 *   Others:  a server, a daemon or a libostrel that knows none of this is OSTREL_NOTSUP, and everything else goes on with it.
 *            So is an operation that a store doesn't have: the comments say which.
 */
#ifndef LIBOSTRELX_H
#define LIBOSTRELX_H

#include <libostrel.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- Results ---- */

typedef int32_t ostrelx_error_t; /* an ostrel_error_t, or one of these */
#define OSTRELX_CONFLICT 32      /* a condition doesn't hold: somebody changed it meanwhile; nothing was changed */
#define OSTRELX_NOTHING 33       /* no event at present */

/* As ostrel_strerror(), for these two as well. */
const char *ostrelx_strerror(ostrelx_error_t error);

/* ---- Versions ---- */

/*
 * A version is a printable text without blanks. Two versions of one object are equal if and only if its identifiers and
 * properties are the same: an object that was changed and changed back has its old version again. It is the same text in each
 * store and on both sides of a hatch.
 */
#define OSTRELX_VERSION_SIZE 64 /* room for a version, NUL included */

/*
 * Reads the one object that `idl` singles out, as ostrel_db_read(), with its version: both are of one moment.
 *
 * Owns:    *props is new; free it with attrlist_free(). `props` may be NULL.
 * Errors:  those of ostrel_db_read()
 */
ostrelx_error_t ostrelx_read(
    ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t **props, char version[OSTRELX_VERSION_SIZE]);

/*
 * Gives the version of the whole database: it changes with anything in it. In the repository that is the instance or service of
 * the database's name.
 *
 * Errors:  OSTREL_NOTSUP; those of reading the database
 */
ostrelx_error_t ostrelx_db_version(ostrel_db_t db, char version[OSTRELX_VERSION_SIZE]);

/* ---- Batches: conditions and steps, all or none ---- */

typedef struct ostrelx_batch *ostrelx_batch_t;

#define OSTRELX_BATCH_MAX 65536 /* conditions and steps of a batch; 64 MiB packed. In the repository 1,024 */

/* Makes an empty batch. Owns: *batchp is new; free it with ostrelx_batch_free(), which takes NULL. Errors: OSTREL_NO_MEMORY */
ostrelx_error_t ostrelx_batch_create(ostrelx_batch_t *batchp);
void ostrelx_batch_free(ostrelx_batch_t batch);

/*
 * Adds a condition: the one object that `idl` singles out has this version ("": there is none; "*": there is one), or the whole
 * database has. All conditions are looked at before the first step, against one state of the store.
 *
 * Errors:  OSTREL_INVALID_ARG  a list is missing, or the text can't be a version
 *          OSTREL_NO_MEMORY    also: the batch is full
 */
ostrelx_error_t ostrelx_batch_expect(ostrelx_batch_t batch, attrlist_t *idl, const char *version);
ostrelx_error_t ostrelx_batch_expect_db(ostrelx_batch_t batch, const char *version);

/*
 * Adds a step. Steps are carried out in their order, each as the function of libostrel.h that bears its name. A step that
 * names another file (object-db-name) or another enclave than the handle's can't be in a batch on a file.
 *
 * Errors:  OSTREL_INVALID_ARG  a list is missing
 *          OSTREL_NO_MEMORY    also: the batch is full
 */
ostrelx_error_t ostrelx_batch_write(ostrelx_batch_t batch, attrlist_t *idl, uint64_t flags, attrlist_t *props);
ostrelx_error_t ostrelx_batch_rename(ostrelx_batch_t batch, attrlist_t *idl, uint64_t flags, attrlist_t *newidl);
ostrelx_error_t ostrelx_batch_remove(ostrelx_batch_t batch, attrlist_t *idl, uint64_t flags);

/*
 * Carries a batch out: all of it, or nothing. When it returns OSTREL_SUCCESS all of it is durable. Readers and watches see it at
 * once as a whole in a file, and object by object in the repository. Each step leaves an audit record with the batch's result.
 *
 * A result of OSTREL_FAILURE from a server or daemon that went during the call is the only one after which the batch may have
 * been carried out. Read then, and commit the same conditions again: they tell.
 *
 * Owns:    the batch stays the caller's and can be committed again. *failed is the number of the condition or step that failed,
 *          conditions first, from 0; -1 if it was none of them. `failed` may be NULL.
 * Errors:  OSTRELX_CONFLICT    a condition doesn't hold
 *          OSTREL_INVALID_ARG  no step; a step that this batch can't have
 *          OSTREL_NOTSUP       a raw file; a store, a server or a daemon that has no batches
 *          those of the steps
 */
ostrelx_error_t ostrelx_commit(ostrel_db_t db, ostrelx_batch_t batch, int *failed);

/*
 * Changes one object so that no other writer's change is lost: reads it, has `change` alter the properties, and writes them if
 * the object is still the one that was read; else it begins again.
 *
 * `change` may be called several times, with no lock held. `exists` is B_FALSE and `props` empty for an object that isn't there.
 * `idl` has the stored identifiers then as ostrel_db_read() leaves them. Anything but 0 ends the call without a change and
 * stands in *stopped, which may be NULL. Properties that `change` leaves as they are aren't written.
 *
 * Errors:  OSTRELX_CONFLICT    others changed the object 100 times in a row
 *          OSTREL_WALK_HALTED  `change` ended it
 *          those of ostrelx_read() but OSTREL_NOT_FOUND, and of ostrelx_commit()
 */
typedef int ostrelx_changecb_t(attrlist_t *idl, attrlist_t *props, boolean_t exists, void *arg);
ostrelx_error_t ostrelx_modify(
    ostrel_db_t db, attrlist_t *idl, uint64_t flags, ostrelx_changecb_t *change, void *arg, int *stopped);

/* ---- Watches ---- */

typedef struct ostrelx_watch *ostrelx_watch_t;

typedef enum ostrelx_event_kind MERIDON_ENUM32 {
	OSTRELX_EVENT_RESET =
	    1, /* forget everything: all objects follow. The first event, unless a token could be resumed */
	OSTRELX_EVENT_PUT = 2,     /* an object is there, with these properties */
	OSTRELX_EVENT_REMOVE = 3,  /* an object isn't there any more, or isn't selected any more */
	OSTRELX_EVENT_SYNCED = 4,  /* what came so far is a state of the store: act on it, keep `token` */
	OSTRELX_EVENT_CHANGED = 5, /* OSTRELX_WATCH_BARE: something may have changed */
	OSTRELX_EVENT_LOST =
	    6 /* no server, no daemon, no right, no inotify watches: `error`. What is held may be old, until a SYNCED */
} ostrelx_event_kind_t;

typedef struct ostrelx_event {
	ostrelx_event_kind_t kind;
	ostrelx_error_t error;
	attrlist_t *idl;     /* PUT, REMOVE */
	attrlist_t *props;   /* PUT */
	const char *version; /* PUT */
	const char *token;   /* SYNCED */
} ostrelx_event_t;

#define OSTRELX_WATCH_BARE 0x10000 /* no contents: RESET and CHANGED alone; nothing is read, nothing is kept */
#define OSTRELX_TOKEN_SIZE 64      /* room for a token, NUL included */

/*
 * Watches the objects that `idl` selects, as a walk does; NULL: all. `token` is what an earlier watch of the same selection gave,
 * or NULL. `flags` are OSTRELX_WATCH_BARE, and those of a walk.
 *
 * What a watch promises, between what was handed out up to one SYNCED (S1) and up to the next one (S2):
 *   - S2 is what the store held: a file's whole content at one moment, in the repository each object at a moment between the two.
 *   - It never goes back: no object of S2 is older than in S1.
 *   - It gets there: if nothing changes any more, a SYNCED with all changes comes, whatever was missed, overflowed or restarted
 *     meanwhile. Not promised is each state in between: changes are coalesced, and what was changed and changed back needn't show.
 *   - An object comes once between two SYNCED, but for a RESET, after which only what follows counts.
 *   - Of a file: an update that was acknowledged before a call of ostrelx_watch_next() that gives OSTRELX_NOTHING is in what was
 *     handed out. Elsewhere it comes soon after.
 * With a token nothing but SYNCED comes at first, if the selection holds what it held then; else RESET and everything.
 * Of several objects with the same identifiers one is kept, and may be handed out again at each change of the database.
 *
 * Opening reads nothing and waits for nobody. A file that isn't there holds no object; it is watched for.
 * LOST comes once for each reason, and the watch goes on trying, each 5 s at the latest. SYNCED tells when it is over, also if
 * nothing has changed. If inotify has no more watches to give, what is held after a SYNCED may be 5 s old.
 *
 * Of a file, too, the watch looks each 5 s alone where a directory of its path may be passed and not read. Not seen before the
 * next look are a mount over such a directory, and changes by mmap(), by another host, below an overlay, or by another name of
 * the file.
 *
 * Forks:   a watch stays its process's. A child may close it, which the parent doesn't notice; next() is OSTREL_INVALID_ARG there.
 * Owns:    *watchp is new; close it before the database. `idl` and `token` are copied.
 * Errors:  OSTREL_NOTSUP; OSTREL_NO_MEMORY; OSTREL_INVALID_ARG; what making its descriptors gave
 * Limits:  100 bytes and the identifiers' text for each object that is watched; while events wait to be taken, their contents too.
 *          Six descriptors, one of them inotify's: a user has 128 of those as a rule
 */
ostrelx_error_t ostrelx_watch_open(
    ostrel_db_t db, attrlist_t *idl, uint64_t flags, const char *token, ostrelx_watch_t *watchp);

/*
 * Gives the descriptor to wait on for POLLIN, one for the watch's whole life: an epoll set, so that poll(), epoll and every event
 * loop take it. It is level-triggered: readable as long as next() may have something, and at first. Not to be read, closed or
 * passed on. -1 for NULL.
 */
int ostrelx_watch_fd(ostrelx_watch_t watch);

/*
 * Gives the next event. It doesn't wait for changes; it reads the store, which takes the time that a walk does.
 *
 * Owns:    the event's lists and texts are the watch's, until the next call. The caller may change them.
 * Errors:  OSTRELX_NOTHING; OSTREL_NO_MEMORY: call it again, nothing is lost, though everything may come again after a RESET
 */
ostrelx_error_t ostrelx_watch_next(ostrelx_watch_t watch, ostrelx_event_t *event);

/* Ends a watch. Takes NULL. */
void ostrelx_watch_close(ostrelx_watch_t watch);

/* ---- History: the repository; other stores are OSTREL_NOTSUP ---- */

typedef enum ostrelx_change MERIDON_ENUM32 {
	OSTRELX_ADDED = 1,
	OSTRELX_CHANGED = 2,
	OSTRELX_REMOVED = 3,
	OSTRELX_REVERTED = 4 /* by going back to a snapshot */
} ostrelx_change_t;

/* One change of one object. Later versions of the library may add members at the end. */
typedef struct ostrelx_history_entry {
	uint64_t revision; /* of the commit; it grows, with gaps */
	uint32_t part;     /* of that commit, from 0 */
	ostrelx_change_t what;
	int64_t at_ns; /* nanoseconds since 1970 */
	uid_t uid;     /* who asked for it, as the kernel said */
	uid_t behalf;  /* for whom: what a server of root's said; only if has_behalf */
	boolean_t has_behalf;
	boolean_t is_hidden; /* the properties aren't for this caller, and are NULL */
	attrlist_t *idl;
	attrlist_t *before; /* the properties before and after it; NULL: there was no object */
	attrlist_t *after;
} ostrelx_history_entry_t;

/*
 * Calls `cb` for each recorded change after the revision `since`, oldest first, of the objects that `idl` selects; NULL: all.
 * Anything but 0 from `cb` ends the call.
 *
 * Owns:    the entry and its lists are the library's until `cb` returns. `cb` may use the handle.
 * Errors:  OSTREL_WALK_HALTED  `cb` ended it
 *          OSTREL_NOTSUP       the store keeps no history; an older server or daemon
 *          OSTREL_EPERM        no right to read; those of a walk
 */
typedef int ostrelx_historycb_t(const ostrelx_history_entry_t *entry, void *arg);
ostrelx_error_t ostrelx_history(ostrel_db_t db, attrlist_t *idl, uint64_t since, ostrelx_historycb_t *cb, void *arg);

/*
 * Makes the batch that takes a revision back, with the conditions that nothing it changed was changed since. It changes nothing
 * itself: ostrelx_commit() does, and the undo is a revision of its own, which can be undone, too.
 *
 * Owns:    *batchp is new; free it with ostrelx_batch_free(). Untouched on failure.
 * Errors:  OSTREL_NOT_FOUND    there is no such revision, or it isn't kept any more
 *          OSTREL_NOTSUP       as of ostrelx_history()
 *          OSTREL_EPERM        the values aren't for this caller
 */
ostrelx_error_t ostrelx_undo(ostrel_db_t db, uint64_t revision, ostrelx_batch_t *batchp);
/* ---- Updates that roll themselves back ---- */

/*
 * An apply is a commit that is taken back by itself unless somebody confirms it in time: for changes that may cut off whoever
 * makes them. Its way back, an undo record, is durable before its first step. A guard looks after the records: ostrelx_guard(),
 * which the service manager starts as soon as there is one. Neither the caller's death nor the guard's, nor a restart of either,
 * loses the way back, and a boot takes back at once what no confirm has come for before it.
 *
 * Records lie in /var/lib/ostrel/pending for root, else in $XDG_STATE_HOME/ostrel/pending (~/.local/state), and are for their
 * user alone, as are these calls. They hold the values that the apply replaced, and those that it wrote, until its end.
 *
 * Confirming is one removal of the record, rolling back begins with one rename of it: the kernel lets one of the two win.
 */

#define OSTRELX_APPLY_ID_SIZE 17        /* room for the name of an apply, NUL included */
#define OSTRELX_APPLY_SECONDS_MAX 86400 /* so nothing can be left over for longer */

/*
 * Commits a batch that is rolled back after `seconds`, or at the next boot, unless ostrelx_confirm() comes first. The time runs
 * from the call on; up to 5 s of it go by while a guard is waited for. `run`, unless NULL, is a command that is handed to whoever
 * rolls it back, to be run then.
 *
 * What is recorded of each object is what this commit replaced: it carries conditions of its own for that, and begins again if
 * another writer is faster.
 *
 * Owns:    `id` has room for OSTRELX_APPLY_ID_SIZE bytes. *failed is as of ostrelx_commit(); `failed` may be NULL.
 * Errors:  those of ostrelx_commit(), and nothing is pending then. If that is OSTREL_FAILURE, some of which leave open whether
 *          the batch was carried out, the guard takes back at once what was
 *          OSTREL_INVALID_ARG  also: `seconds` is 0 or above OSTRELX_APPLY_SECONDS_MAX; a rename to identifiers that an object has
 *                              already; a relative path in another enclave
 *          OSTREL_EXISTS       one of the objects is in an apply that is pending already, whose name `id` is then
 *          OSTREL_NOTSUP       also: within 5 s there was no guard; nothing was applied
 *          OSTREL_EPERM        also: the directory of the records, or the one above it, is somebody else's, or open to others
 */
ostrelx_error_t ostrelx_apply(ostrel_db_t db, ostrelx_batch_t batch, unsigned seconds, const char *run,
    char id[OSTRELX_APPLY_ID_SIZE], int *failed);

/*
 * Lets an apply stand: nothing takes it back any more once this has returned OSTREL_SUCCESS.
 *
 * Errors:  OSTREL_NOT_FOUND    nothing of that name is pending: it was confirmed, or its rollback has begun
 *          OSTREL_INVALID_ARG  `id` can't be a name
 *          OSTREL_FAILURE      the record is removed, but the directory couldn't be synced: a crash may bring it back
 */
ostrelx_error_t ostrelx_confirm(const char *id);

/*
 * Puts the rollback of an apply off: it comes `seconds` from now, sooner or later than before.
 *
 * Errors:  those of ostrelx_confirm(); OSTREL_INVALID_ARG also for `seconds` as in ostrelx_apply()
 */
ostrelx_error_t ostrelx_confirm_later(const char *id, unsigned seconds);

/* What a rollback does to one object, or did. The lists are the library's until the callback returns. */
typedef struct ostrelx_undone {
	attrlist_t *idl;
	attrlist_t *found; /* the properties before the rollback; NULL: there was no object */
	attrlist_t *left;  /* the properties after it; NULL: there is none */
	attrlist_t *kept;  /* what others changed since the apply, and it had not: stays */
	attrlist_t
	    *overruled; /* what the apply had changed, and others since: is taken back all the same, if by force */
} ostrelx_undone_t;
typedef void ostrelx_undonecb_t(const ostrelx_undone_t *undone, void *arg);

#define OSTRELX_ROLLBACK_FORCE 0x1  /* takes back too what others have changed since, as the guard does */
#define OSTRELX_ROLLBACK_IF_DUE 0x2 /* only if its time has passed, or the host was booted since */
#define OSTRELX_ROLLBACK_PLAN 0x4   /* tells what it would do, and does nothing */

/*
 * Takes an apply back, in one batch, property by property: what the apply changed goes back, whatever else others did to the
 * objects stays. An object that the apply made goes, unless others added to it; one that it removed is made again, unless
 * others made one; one that others removed is made again. An apply that was never carried out takes nothing back.
 *
 * Calls `cb`, which may be NULL, for each object that changes, or that others have changed; all of them come before the record
 * goes. If this is cut short by a death, it is carried out again, and `cb` may be called again.
 *
 * Errors:  OSTRELX_CONFLICT    without OSTRELX_ROLLBACK_FORCE: others changed what the apply had changed, too. `cb` was called
 *                              for these objects, nothing was changed, and it is pending as before
 *          OSTREL_NOT_FOUND    nothing of that name is pending, or none that is due
 *          OSTREL_NEEDS_RETRY  the apply, or another rollback of it, is at work now
 *          OSTREL_INVALID_ARG  `id` can't be a name; also: an object of the apply is there twice
 *          OSTREL_EPERM        also: the record isn't this user's alone
 *          those of opening and reading the database, and of ostrelx_commit(): the guard tries again
 */
ostrelx_error_t ostrelx_rollback(const char *id, uint64_t flags, ostrelx_undonecb_t *cb, void *arg);

typedef enum ostrelx_pending_state MERIDON_ENUM32 {
	OSTRELX_PENDING_WAITING = 1,
	OSTRELX_PENDING_EXPIRED = 2,    /* its time has passed */
	OSTRELX_PENDING_OTHER_BOOT = 3, /* the host was booted since */
	OSTRELX_PENDING_ROLLING = 4     /* its rollback has begun */
} ostrelx_pending_state_t;

/* An apply that is pending. All texts are the library's until the callback returns. */
typedef struct ostrelx_pending_apply {
	const char *id;
	const char *store;    /* "file", "repo" or "hatch" */
	const char *database; /* the name of the open; a path is absolute */
	enclaveid_t enclave;
	uid_t uid;
	uint32_t objects;
	uint32_t seconds_left; /* rounded up */
	int64_t
	    until; /* by the calendar, in seconds since 1970: for people; a change of the time of day moves nothing */
	ostrelx_pending_state_t state;
	const char *run; /* NULL: none */
} ostrelx_pending_t;
typedef int ostrelx_pendingcb_t(const ostrelx_pending_t *pending, void *arg);

/*
 * Calls `cb` for each apply of this user that is pending. Anything but 0 halts it.
 *
 * Errors:  OSTREL_WALK_HALTED; OSTREL_NO_MEMORY; OSTREL_EPERM as ostrelx_apply(). Records that can't be read are passed over.
 */
ostrelx_error_t ostrelx_pending(ostrelx_pendingcb_t *cb, void *arg);

/*
 * Tells when an apply was rolled back, in seconds since 1970. Kept for a day.
 *
 * Errors:  OSTREL_NOT_FOUND    it wasn't, or longer ago; OSTREL_INVALID_ARG
 */
ostrelx_error_t ostrelx_rolled_back(const char *id, int64_t *when);

/* What a guard tells: what it did to an object, that it rolled an apply back (OSTREL_SUCCESS), or why it can't now. */
typedef struct ostrelx_guarded {
	const char *id;
	const ostrelx_pending_t *pending; /* NULL for a record that can't be read, which was set aside */
	const ostrelx_undone_t *undone;   /* NULL: this is the result of the whole */
	ostrelx_error_t result;
} ostrelx_guarded_t;
typedef void ostrelx_guardedcb_t(const ostrelx_guarded_t *guarded, void *arg);

/*
 * Guards this user's pending applies until there is none: rolls back, by force, what is due. One process guards; others wait in
 * case it dies. Looks at the records once a second; what can't be rolled back now is tried again then, and told once for each result.
 * `linger` is how many seconds it waits for a first record.
 *
 * Errors:  OSTREL_EPERM as ostrelx_apply(); OSTREL_NO_MEMORY and OSTREL_FAILURE if it can't look
 */
ostrelx_error_t ostrelx_guard(unsigned linger, ostrelx_guardedcb_t *cb, void *arg);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
