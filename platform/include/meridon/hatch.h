/*
 * Hatches: calls between processes of one host. A server makes a hatch and attaches it to a file; a client opens the
 * file and calls. Each call runs the hatch's handler on a thread of the server's, and gives the client its reply.
 *
 * Rules that hold for every call below, unless its comment says otherwise:
 *   Errors:  0, or -1 with errno.
 *   Threads: any, any number at once, on one descriptor too. None of them is a cancellation point.
 *   Signals: no call ends for a signal, whatever its handler says, nor for a stop, a freezer or a debugger: it waits on.
 *   Users:   a connection is used by the real user who made it. After a change of that the next call makes one.
 *   Forks:   a forked child makes connections of its own, and serves none of its parent's hatches: there the
 *            descriptors of those are EBADF. A child that a handler forks is no handler, and ends if it returns from one.
 *            It has no tickets, and of its parent's pending calls it can do nothing but cancel its copies.
 *   Needs:   /proc, on the client's side.
 */
#ifndef MERIDON_HATCH_H
#define MERIDON_HATCH_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <meridon/peercred.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A descriptor in a call. No hatch carries any: the type is there for the argument lists. */
typedef struct hatch_desc {
	uint32_t d_attributes;
	int d_descriptor;
} hatch_desc_t;

/* A call: what is sent, and where the reply lies. See hatch_call(). */
typedef struct hatch_arg {
	char *data_ptr;
	size_t data_size;
	hatch_desc_t *desc_ptr;
	unsigned int desc_num;
	char *rbuf;
	size_t rsize;
} hatch_arg_t;

typedef struct {
	pid_t di_target; /* the server's process id as seen from here; 0 if it can't be seen or has gone */
	unsigned int di_attributes;
} hatch_info_t;

#define HATCH_REVOKED 0x8U      /* in di_attributes: the hatch was revoked, or its server has gone */
#define HATCH_REFUSE_DESC 0x40U /* in di_attributes, and for hatch_create(): calls that pass descriptors are refused */

#define HATCH_PARAM_DATA_MIN 3 /* the fewest bytes that a call on channel 0 must have; 0 at first */

#define HATCH_NEVER_WAITS 0x1U /* for hatch_channel(): a handler that is quick, or calls hatch_will_wait() */

/*
 * Handlers of one hatch that run at once; calls beyond wait. A user other than root and the server's own has 4 for each
 * processor, at least 8 and at most 64: handlers must not wait for further calls of the same user.
 */
#define HATCH_THREADS_MAX 256

/*
 * What clients may make a server hold: their requests, the lists unpacked out of them and their replies take at most a
 * quarter of the memory that the process may have, all hatches together, and at least 32 MiB. The memory that it may have
 * is the least of the machine's, the bounds of its control group and the parents of that, and RLIMIT_AS. A user other than
 * root and the server's own has a share of that: as much as is left when as much again is there for each user that holds
 * something. Beyond it that user's calls are refused with ENOMEM, and nobody else's.
 */

/*
 * What a hatch runs for each call, with the cookie that the hatch was made with. `arg` points to `arg_size` bytes, is
 * aligned for any type and may be written to; it lives until the handler ends. `descs` is NULL and `ndescs` 0.
 *
 * A handler ends with hatch_return(). One that simply returns has given no reply, and its caller gets ECONNABORTED.
 * It runs on a thread with a stack of 2 MiB and with the signal mask of the thread that attached the hatch. It must
 * not end its thread.
 */
typedef void hatch_handler_t(void *cookie, char *arg, size_t arg_size, hatch_desc_t *descs, unsigned int ndescs);

/* ---- Serving ---- */

/*
 * Makes a hatch and returns its descriptor. `attributes` is HATCH_REFUSE_DESC or 0; no hatch takes descriptors either way.
 *
 * Owns:    the descriptor is the caller's until hatch_revoke(), which closes it. It is close-on-exec.
 * Errors:  EINVAL  no handler, or an unknown attribute
 *          ENOMEM, EMFILE, ENFILE
 */
int hatch_create(hatch_handler_t *handler, void *cookie, unsigned int attributes);

/*
 * Gives a hatch a further handler, for the calls on `channel`: a second language on the same path, ended by the same revoke.
 * Channel 0 is the handler of hatch_create(). A client's call on a channel that has none is hung up on, as by a server that
 * knows no channels: hatch_call_channel() there is ENOSYS. A channel can be given at any time, and stays.
 *
 * `flags` is 0 or HATCH_NEVER_WAITS: no other thread is made ready before the handler runs. A handler that waits all the same,
 * for a disk, a lock or another call, keeps everybody waiting, unless it calls hatch_will_wait() before.
 *
 * Errors:  EBADF   not a hatch of this process
 *          EEXIST  the channel has a handler
 *          EINVAL  no handler, or an unknown flag
 *          ENOMEM
 */
int hatch_channel(int hatch, uint32_t channel, hatch_handler_t *handler, void *cookie, unsigned int flags);

/*
 * Has the hatch's threads wait for a descriptor too, without one more thread: `ready` runs with `cookie` on one of them when
 * there is something to read, and again as long as there is; never on two at once. It may answer parked calls and may
 * wait, and must not revoke the hatch. A hatch that isn't attached yet begins when it is.
 *
 * NULL for `ready` ends that, before the descriptor is closed: when it returns, `ready` doesn't run any more and what the
 * cookie points to can be given up, unless `ready` itself makes the call. hatch_revoke() ends it too.
 *
 * Owns:    the descriptor stays the caller's
 * Errors:  EBADF   not a hatch of this process, or fd isn't open
 *          EEXIST  the descriptor is a source of this hatch
 *          ENOENT  it is none, with NULL for `ready`
 *          EPERM   nobody can wait for such a descriptor
 *          ENOMEM, ENOSPC
 */
int hatch_source(int hatch, int fd, void (*ready)(void *cookie), void *cookie);

/*
 * Sets a parameter. HATCH_PARAM_DATA_MIN is the only one: calls on channel 0 with fewer bytes are refused with ENOBUFS, and the
 * handler doesn't run.
 *
 * Errors:  EBADF   not a hatch of this process
 *          EINVAL  another parameter
 */
int hatch_setparam(int hatch, int parameter, size_t value);

/*
 * Attaches a hatch to an existing file, so that open() on `path` yields the hatch, and begins to serve.
 *
 * The file stays a regular file with its owner and mode, and holds a record that names the hatch; a socket lies beside
 * it. What a dead server left there is cleared away. Processes that open the path need read permission for it, and
 * nothing else: who may do what is the handler's to decide.
 *
 * Errors:  EBADF   not a hatch of this process
 *          EBUSY   the file holds a living hatch, or something that isn't a hatch at all; or this hatch is attached
 *          EINVAL  not a regular file
 *          what the file system says about the path; ENOMEM, EMFILE, ENFILE, EAGAIN (no thread)
 * Limits:  the directory must be writable; its path may be as long as the system allows
 */
int fattach(int hatch, const char *path);

/*
 * Drops the attachment of a path, of any process: the file is an empty one again. Descriptors of the path that are open
 * see HATCH_REVOKED. The hatch itself lives on, and can be attached again.
 *
 * Errors:  EINVAL  the file holds no hatch's record
 *          what the file system says about the path
 */
int fdetach(const char *path);

/*
 * Ends a hatch for all clients. New calls are refused at once, and calls that have not begun fail; the attached file is
 * empty again, if it is still this hatch's. Returns when no handler of this hatch runs any more, the calling one
 * excepted, no source's `ready` and no hatch_answer(), so that what the cookies point to can be given up. Replies of
 * handlers that run and answers on their way still reach their clients unless sending would have to wait. Calls that are parked
 * end, as those of a server that has gone.
 *
 * Owns:    closes the descriptor.
 * Errors:  EBADF  not a hatch of this process, or revoked already
 */
int hatch_revoke(int hatch);

/*
 * Answers a parked call: the client gets `size` bytes from `data`, as by hatch_return(). Any thread may, also one that runs a
 * handler. It never waits for the client: what that doesn't take at once is copied, counted as the client's, and sent by the
 * hatch's threads. That the client goes meanwhile is a success.
 *
 * An answer that comes before the handler has parked its call is kept, and sent then. It is lost if the handler ends with
 * hatch_return() instead.
 *
 * Owns:    `data` stays the caller's
 * Errors:  EBADF   not a hatch of this process, or revoked
 *          ENOENT  no such call any more: it was answered, its client has gone, or the connection was needed for another
 *          EFAULT  data is NULL and size isn't 0
 *          ENOMEM  the call isn't parked yet, and the answer can't be kept; the ticket stands
 */
int hatch_answer(int hatch, uint64_t ticket, const char *data, size_t size);

/*
 * Whether a ticket stands: its call runs or is parked, and has no answer yet. Clients come and go: who keeps a list of tickets looks
 * through it now and then, as when it has twice as many as after the last look.
 *
 * Errors:  EBADF, ENOENT, as hatch_answer()
 */
int hatch_ticket_check(int hatch, uint64_t ticket);

/* ---- Within a handler ---- */

/*
 * Ends the call and hands `size` bytes from `data` to the client. On success it doesn't come back: what the handler
 * holds must be released before, and no object with a destructor may be alive. That the client has gone is a success.
 *
 * Errors:  EINVAL   not in a handler, or in a child that a handler forked
 *          ENOTSUP  descriptors
 *          EFAULT   data is NULL and size isn't 0
 */
int hatch_return(const char *data, size_t size, hatch_desc_t *descs, unsigned int ndescs);

/*
 * Names the running call, so that it can be answered after it is parked, or before. A second time it is the same ticket. Tickets are
 * never 0, and no two calls of a process's hatch have the same. One ends with its answer or with its call. Take it and put it
 * where those who answer look, then look at what the client waits for, then park: nothing is missed.
 *
 * Errors:  EINVAL  not in a handler, or ticket is NULL
 *          ENOMEM  or that is more than the caller may have now. Each ticket counts as HATCH_TICKET_BYTES of the user's share
 */
#define HATCH_TICKET_BYTES 1024
int hatch_ticket(uint64_t *ticket);

/*
 * Ends the handler without an answer, as hatch_return() does. The call stays open, and costs its connection, its ticket and no
 * thread. The connection counts as any other of its user's. It may be dropped for another's sake after those that are idle: its
 * client gets ECANCELED, has missed nothing, and asks again. A client that hangs up is found, and the ticket ends.
 *
 * Errors:  EINVAL  not in a handler, or the call has no ticket
 */
int hatch_park(void);

/*
 * For a handler of a HATCH_NEVER_WAITS channel that is about to wait: has another thread ready for the other clients first.
 * Elsewhere in a handler it does nothing.
 *
 * Errors:  EINVAL  not in a handler
 */
int hatch_will_wait(void);

/*
 * Gives `size` bytes of memory for a reply that is too large for a stack. It belongs to the handler's thread: it is not
 * freed, is lost with hatch_return(), and each call takes back what the last one gave. The bytes aren't zeroed.
 *
 * Errors:  NULL with errno  EINVAL  not in a handler
 *                           ENOMEM  or that is more than the caller may have now
 */
void *hatch_reply_memory(size_t size);

/*
 * Counts `bytes` of memory, which a handler is about to take for its caller, as the caller's, until the call ends. What
 * the layer sees by itself is counted without it: the request, a list that is unpacked, memory for the reply.
 *
 * Errors:  EINVAL  not in a handler
 *          ENOMEM  that is more than the caller may have now
 * Limits:  the first 64 KiB of a call are free
 */
int hatch_charge(size_t bytes);

/*
 * Gives the credential of the caller of the running call: what the kernel said of the thread that sent it.
 *
 * Owns:    *cred is new; free it with peercred_free(). Untouched on failure.
 * Errors:  EINVAL  not in a handler, or cred is NULL
 *          ENOMEM
 */
int hatch_peercred(peercred_t **cred);

/* ---- Calling ---- */

/*
 * Calls the hatch that `hatch`, an open descriptor of an attached path, stands for, and waits for the reply.
 *
 * Sends `data_size` bytes from `data_ptr`. On success `data_ptr` and `data_size` describe the reply. A reply that fits
 * in the `rsize` bytes at `rbuf` lies there. Any other one lies in a fresh mapping: `rbuf` and `rsize` describe it then,
 * and the caller gives it up with munmap(rbuf, rsize). `rsize` is the reply's length there, and munmap() rounds it up.
 * A reply without data leaves `rbuf` and `rsize` alone.
 *
 * Owns:    a fresh mapping is the caller's. On failure there is none, `arg` is as it was, and the bytes of the caller's
 *          own buffer may have changed.
 * Errors:  EBADF         no hatch, or none any more: not an open descriptor, a plain file, a server that has gone before
 *                        or during the call. Never ENOENT, ENOTDIR, EACCES, EPERM, EEXIST or EINVAL.
 *          ECONNABORTED  the handler gave no reply
 *          ENOBUFS       fewer bytes than the hatch takes
 *          ENOTSUP       descriptors
 *          EPROTO        the other end doesn't speak as a hatch does
 *          EFAULT        arg is NULL, or data_ptr is NULL and data_size isn't 0
 *          ENOMEM        here, or of the server, which can't have so much of this user's now; also when it says so in the
 *                        middle of the request. The call wasn't carried out then
 *          ECANCELED     the server had parked the call, and needed its connection: ask again
 *          EMFILE, ENFILE
 * Limits:  requests and replies of any length that memory allows
 */
int hatch_call(int hatch, hatch_arg_t *arg);

/*
 * The same for a caller that doesn't trust the server: a call that isn't over after `seconds`, whatever the server does,
 * fails, and one whose reply has more than `reply_max` bytes; each may have been carried out or not. 0 seconds wait without
 * end, 0 bytes are no bound; a negative number is EFAULT. A process that was stopped for longer than that still gets the
 * reply that lies there, or comes within a second.
 *
 * Errors:  as hatch_call(), ETIMEDOUT, and EMSGSIZE for a reply that is too long
 */
int hatch_call_bounded(int hatch, hatch_arg_t *arg, int seconds, size_t reply_max);

/*
 * hatch_call_bounded() on another channel than 0, with no bound for the reply. On channel 0 it is hatch_call_bounded().
 *
 * Errors:  those, and ENOSYS: the server lives and serves, and has no such channel. Nothing was carried out. A server that
 *          went is EBADF
 */
int hatch_call_channel(int hatch, uint32_t channel, int seconds, hatch_arg_t *arg);

/* ---- Calls that wait: one thread, any number of them ---- */

/*
 * A call that was begun and isn't finished. It has a connection of its own. One thread at a time uses it. A program has no
 * bound for them but its descriptors.
 */
typedef struct hatch_pending hatch_pending_t;

/* Connecting and sending wait for the server for so many seconds at most; so does a reply that has begun for its end. */
#define HATCH_PENDING_SECONDS 10

/*
 * Begins a call: connects, sends the request and returns. The reply is fetched by hatch_finish().
 *
 * Owns:    *pending is new; free it with hatch_cancel(). Untouched on failure. `arg` is only read, and data_ptr and data_size
 *          are all of it that counts.
 * Errors:  as hatch_call(), EFAULT also for a NULL `pending`; ETIMEDOUT
 */
int hatch_begin(int hatch, uint32_t channel, const hatch_arg_t *arg, hatch_pending_t **pending);

/*
 * The descriptor to poll for reading before hatch_finish(). It is good for nothing else, is the same for the life of
 * `pending`, and -1 in a forked child.
 */
int hatch_pending_fd(const hatch_pending_t *pending);

/*
 * Fetches the reply as hatch_call() hands it out, if it has come. It never waits. After a success, or ECONNABORTED or ENOBUFS,
 * the connection can be used again by hatch_again(); after any other error but EAGAIN it can't.
 *
 * Errors:  EAGAIN     it hasn't come, or not all of it: poll, and call again
 *          EBADF      the server went, or hung up: look at hatch_info(). A server that lives may not know the channel;
 *                     hatch_call_channel() tells
 *          ECANCELED  the server needed the connection for another client: nothing was missed. It hangs up then
 *          EINVAL     nothing is pending: the reply was fetched already
 *          ETIMEDOUT  the reply has begun, and isn't whole after HATCH_PENDING_SECONDS
 *          others as hatch_call()
 */
int hatch_finish(hatch_pending_t *pending, hatch_arg_t *arg);

/*
 * Makes the next call over the connection of one that is finished, on the same channel.
 *
 * Errors:  EBUSY  the last one isn't finished
 *          EBADF  the server has closed the connection, or the process has another user: cancel, and begin again. Nothing
 *                 was carried out, unless the request is larger than 256 KiB
 *          as hatch_begin()
 */
int hatch_again(hatch_pending_t *pending, const hatch_arg_t *arg);

/* Frees it. What hasn't been finished is given up: a server finds that out at once. NULL is no error. */
void hatch_cancel(hatch_pending_t *pending);

/*
 * Tells about a hatch: `hatch` is a descriptor of an attached path, or one from hatch_create() in this process.
 *
 * HATCH_REVOKED in di_attributes says that the hatch was revoked or its server has gone: found without a call. A
 * descriptor that was opened after that is no hatch, but one of the plain file that stays; neither is one that no call
 * here has seen alive, unless another attachment has replaced it.
 *
 * Errors:  EBADF   not a hatch
 *          EFAULT  info is NULL
 */
int hatch_info(int hatch, hatch_info_t *info);

/*
 * Closes the connections to this hatch that are kept for later calls, as when its descriptor is about to be closed.
 * Later calls connect again. A process keeps at most 32 connections in all, and never more to one hatch than it had calls
 * to it at once. What isn't a hatch is left alone.
 */
void hatch_forget(int hatch);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
