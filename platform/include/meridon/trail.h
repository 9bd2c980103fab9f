/*
 * The audit trail: records of who did what to which object, and whether it worked, in the kernel's audit log.
 *
 *     trl_session_data_t *session;
 *     if (trl_start_session(&session, NULL, 0) == 0) {
 *             trl_event_data_t *event = NULL;
 *             if (trl_set_user(session, uid, gid, uid, gid, NULL, TRL_NEW) == 0)
 *                     event = trl_alloc_event(session, TRL_ostrel_update);
 *             if (event != NULL) {
 *                     event->trl_ostrel_update.parent_file = file;
 *                     event->trl_ostrel_update.object_name = object;
 *                     (void) trl_put_event(event, TRL_SUCCESS, 0);
 *             }
 *             trl_free_event(event);
 *             (void) trl_end_session(session);
 *     }
 *
 * The calling thread needs the privilege "proc_audit" (<meridon/elevate.h>) from the start of the session until the
 * last record. ostrel-audit(7) describes the record.
 */
#ifndef MERIDON_TRAIL_H
#define MERIDON_TRAIL_H

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef unsigned short trl_event_t;

/* The events that there are. */
#define TRL_ostrel_update 134 /* an object was written or renamed */
#define TRL_ostrel_remove 135 /* an object was removed */

/* The outcome of what is recorded. */
#define TRL_SUCCESS 0
#define TRL_FAILURE (-1)

/* The one mode of trl_set_user(): the session gets this user. */
#define TRL_NEW 0

typedef struct trl_session_data trl_session_data_t;
typedef struct trl_terminal trl_terminal_t; /* there are none on this platform */

/* An object of a database. The texts stay the caller's; NULL counts as the empty text. */
typedef struct trl_object {
	char *parent_file; /* the database's name */
	char *object_name; /* the identifiers, as text */
} trl_object_t;

/* What is to be recorded; the member that bears the event's name counts. */
typedef union trl_event_data {
	trl_object_t trl_ostrel_update;
	trl_object_t trl_ostrel_remove;
} trl_event_data_t;

/* The most bytes of a record's text, values encoded as described at trl_put_event(). */
#define TRL_TEXT_MAX 4095

/*
 * Is told of a record: its event, its object, and its outcome as trl_put_event() got them.
 *
 * Owns:    the object and its texts are the record's, and go when the call returns.
 */
typedef void trl_watcher_t(void *cookie, trl_event_t event, const trl_object_t *object, int status, int retval);

/*
 * Sets the one watcher of this process, in place of the one before. It is told of each record that trl_put_event() is
 * asked to write, before that, whether the kernel takes it or not. While there is a watcher, a session can be started on a
 * host without a way to the audit log, too.
 *
 * NULL takes the watcher back: when this returns, no call of it runs, nor comes any more.
 *
 * Owns:    nothing; `cookie` is given to each call.
 * Errors:  none.
 * Threads: any. The watcher is called on any thread that writes a record, one call at a time; it can't be cancelled there.
 *          It calls neither this function nor trl_put_event(), which would wait for its own end.
 * Forks:   a forked child has no watcher, until it sets one.
 */
void trl_watch(trl_watcher_t *watcher, void *cookie);

/*
 * Keeps a way to the audit log open, for sessions that begin when this process or the host has no descriptor left: else
 * a client that takes them all would be rid of its records. Such sessions come one after another. The calls go in pairs, and may
 * nest; a program that does updates for others makes the first one before it begins.
 *
 * Owns:    one descriptor, from the first trl_keep_way() to the last trl_leave_way().
 * Errors:  none can be reported: without a way to the log none is kept.
 * Threads: any.
 * Forks:   a forked child keeps none, until it calls this itself.
 */
void trl_keep_way(void);
void trl_leave_way(void);

/*
 * Opens a way to the audit log. `imported` and `flags` mean nothing here: NULL and 0.
 *
 * Owns:    *session is new, one descriptor; end it with trl_end_session(). Untouched on failure.
 * Errors:  -1 with errno  EINVAL   session is NULL, or one of the others isn't NULL or 0
 *                         ENOTSUP  this host has no libaudit.so.1
 *                         ENOMEM, or what opening a socket to the kernel's audit gave
 *          ENOTSUP and what the socket gave are those of trl_put_event() instead, if there is a watcher
 * Threads: any. A session is used by one thread at a time.
 */
int trl_start_session(trl_session_data_t **session, const void *imported, unsigned int flags);

/*
 * Says who acts in this session. The real ids are what a record shows. `terminal` is NULL.
 *
 * Errors:  -1 with errno EINVAL  session is NULL, terminal isn't, or another mode than TRL_NEW
 */
int trl_set_user(trl_session_data_t *session, uid_t euid, gid_t egid, uid_t ruid, gid_t rgid,
    const trl_terminal_t *terminal, int mode);

/*
 * Gives the data of one event to be filled in, zeroed.
 *
 * Owns:    the result is new; free it with trl_free_event(), before the session ends.
 * Errors:  NULL with errno  EINVAL  session is NULL, or there is no such event
 *                           ENOMEM
 */
trl_event_data_t *trl_alloc_event(const trl_session_data_t *session, trl_event_t event);

/*
 * Writes one record, and returns once the kernel has taken it. A host whose audit is off takes it and keeps nothing.
 *
 * `status` is TRL_SUCCESS or TRL_FAILURE; `retval` is a number that says more. In the record, a text with a blank, a
 * quotation mark, an equals sign, a control character or a byte beyond ASCII is a row of hexadecimal digits, any other
 * stands in double quotes: no text can look like a field of the record, or end it.
 *
 * Errors:  -1 with errno  EINVAL    event is NULL, or its session has no user yet
 *                         EMSGSIZE  the record would be longer than TRL_TEXT_MAX
 *                         EPERM     the calling thread doesn't hold the privilege
 *                         ECONNREFUSED  this user namespace has no audit
 *                         or what the kernel said
 */
int trl_put_event(const trl_event_data_t *event, int status, int retval);

/* Frees what trl_alloc_event() gave. NULL does nothing. */
void trl_free_event(trl_event_data_t *event);

/* Ends a session. NULL does nothing. Gives 0. */
int trl_end_session(trl_session_data_t *session);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
