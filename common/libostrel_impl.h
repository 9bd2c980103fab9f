/*
 * All that is private in the library, under one roof: for libostrel.cc, and for tests that look inside. Every other source
 * includes the headers of the layers below it by name, as tests/layers_test.py holds.
 *
 * The rule for errors
 *
 * A function that can fail returns an ostrel_error_t. There is no last-error state, nothing is thrown, and every
 * allocation is looked at. A failure takes three steps at most:
 *
 *   Raise    Where the library finds a failure it returns SETERROR(result), or SETERRNO(errno value). The trace point
 *            "seterror" gets file and line, so a tracer sees where the failure arose, and not the calls that handed it on.
 *   Forward  A result from below is returned as it is. It has been raised, and isn't raised again.
 *   Convert  What a platform call reports as an errno value becomes a result once, by ostrel_errno2error(), at the call.
 *            The opposite, ostrel_error2errno(), isn't its inverse, and only a function that owes its caller an errno
 *            value takes it.
 *
 * The exceptions, each for a reason:
 *
 *   Small helpers don't raise: identifier lists, objects, lines, grow_buf(), atl_add_entry_val(), and what reads a
 *   repository error (ostrel_rpy_failure()). They can't know whether their failure is one to the caller: a line that
 *   doesn't parse is passed over. The caller raises what it reports. Hatch code doesn't raise either: on the server the
 *   operation has raised its failure, and in the client the place would be the transport's every time.
 *
 *   Some functions return an int, 0 or an errno value: the one-value accessors and the two conversions, whose callers mix them
 *   with calls on attribute lists; file operations (libostrel_zio.h, FileLock, NewFile, BlockReader), since a forked
 *   child hands its status on as a number; ostrel_make_hatch_call(); ostrel_start_thread().
 *
 *   An answer isn't a failure, and isn't raised: OSTREL_NOT_FOUND of a read that selects no object, OSTREL_WALK_HALTED by
 *   a callback or at the end of an iteration, OSTREL_NEEDS_RETRY of a store. An update thread does raise what its attempts
 *   give: their result reaches no caller.
 *
 *   What has no result can't report: an audit record, a log message, a snapshot and a close fail silently, and leave the
 *   operation's own result alone. So does the merge of the stored identifiers after a read that found its object.
 */
#ifndef LIBOSTREL_IMPL_H
#define LIBOSTREL_IMPL_H

#include "libostrel_attempt.h"
#include "libostrel_audit.h"
#include "libostrel_auth.h"
#include "libostrel_backend.h"
#include "libostrel_deferred.h"
#include "libostrel_error.h"
#include "libostrel_files.h"
#include "libostrel_handle.h"
#include "libostrel_hatches.h"
#include "libostrel_idlist.h"
#include "libostrel_objects.h"
#include "libostrel_read.h"
#include "libostrel_thread.h"
#include "libostrel_util.h"
#include "libostrel_zio.h"

// For the analysis: an update takes the handle's lock, which isn't recursive.
extern "C" {
ostrel_error_t ostrel_db_write(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *objl) EXCLUDES(db->db_lock);
ostrel_error_t ostrel_db_rename(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *newidl)
    EXCLUDES(db->db_lock);
ostrel_error_t ostrel_db_remove(ostrel_db_t db, attrlist_t *idl, uint64_t flags) EXCLUDES(db->db_lock);
}

#endif
