/*
 * libostrelx: what a daemon needs to live with configuration that others change: versions and batches, so that no update is
 * lost; watches; updates that roll themselves back; history. It works on handles of ostrel_db_open(), of each back end.
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
 *          OSTREL_NOTSUP       a raw file; an older server or daemon
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

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
