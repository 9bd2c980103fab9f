/*
 * Peer credentials: who the other end of a call is, as the kernel said it, and which rights that user holds.
 */
#ifndef MERIDON_PEERCRED_H
#define MERIDON_PEERCRED_H

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct peercred peercred_t;

/*
 * The real user and group id, and the process id, of the thread that sent the message.
 *
 * The ids are those of the sending thread at the moment of sending, translated into this process's namespaces. A
 * process id says who called, for a log: it may be reused, so nothing is decided by it. 0 if it can't be seen here.
 *
 * Errors:  (uid_t) -1, (gid_t) -1, (pid_t) -1 with errno EINVAL  cred is NULL
 *          Any other value is an id, also one above 2^31: the type has no sign.
 * Threads: any.
 */
uid_t peercred_getruid(const peercred_t *cred);
gid_t peercred_getrgid(const peercred_t *cred);
pid_t peercred_getpid(const peercred_t *cred);

/* Frees a credential. NULL does nothing. */
void peercred_free(peercred_t *cred);

/*
 * Tells whether a user holds a right: 1 if so, 0 if not. Whatever is unclear is a 0.
 *
 * `auth` is the name of a right, such as "ostrel.write", of letters, digits, '.', '-' and '_'. `user` is the login
 * name that belongs to the credential's real user id; a name that doesn't belong to it holds nothing. Real user id 0
 * holds every right. All others hold what the file etc/meridon/rights says (below MERIDON_ROOT, if that is set):
 *
 *     # comment
 *     alice: ostrel.read, ostrel.write
 *     %netadm: ostrel.*
 *
 * A line names a user, or after '%' a group, and the rights; '*' at the end of a right stands for any continuation.
 * A line that can't be read whole grants nothing. The file counts only if it is a regular file of root or of this
 * process's user that neither group nor others can write.
 *
 * Errors:  none of its own: 0. A NULL argument is 0.
 * Threads: any.
 * Limits:  a file of at most 1 MiB; a larger one grants nothing.
 */
int chkrightattr_peercred(const char *auth, const char *user, const peercred_t *cred);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
