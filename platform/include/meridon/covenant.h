/*
 * Process covenants: the grouping in which a forked child runs, apart from its parent's.
 *
 * A covenant is a process group of its own, so that what is aimed at the parent's group (a terminal's interrupt, a
 * kill of the group) doesn't reach the child; its id is the group's. It is made by a fork while a template is active
 * in the calling thread, and ends with its processes. The kernel reports no events to a covenant's holder, and a
 * hardware error ends the one process that meets it: a template that asks for anything else is refused.
 *
 * Rules for every call, unless its comment says otherwise:
 *   Errors:  0, or an errno value; nothing is changed on failure. Never ENOENT or ENOTDIR.
 *            EBADF   the descriptor isn't open
 *            EINVAL  the descriptor isn't a template's, or the value isn't supported
 *   Threads: any. What is active, and which covenant is the latest, belong to the calling thread.
 */
#ifndef MERIDON_COVENANT_H
#define MERIDON_COVENANT_H

#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The path of the template. There is no such file: covenant_open() supplies what it names. */
#define COVENANT_PROCESS_TEMPLATE "/system/covenant/process/template"

#define COVENANT_TYPE_PROCESS 1 /* the one type of covenant */

#define COVENANT_EV_HWERR 0x20U   /* an event: a hardware error */
#define COVENANT_PR_PGRPONLY 0x4U /* a parameter: a fatal event is confined to the process group */

typedef int32_t covenant_id_t;

/*
 * Opens a new template, with no events and no parameters set.
 * `path` is COVENANT_PROCESS_TEMPLATE and `oflag` is O_RDWR, O_CLOEXEC or not; anything else is EINVAL.
 * Returns a descriptor, or -1 with errno: EINVAL, EMFILE, ENFILE, ENOMEM.
 * Owns:   the descriptor is new and closed on exec; close() it.
 */
int covenant_open(const char *path, int oflag);

/* Sets the events that are critical: 0, none. */
int cv_tmpl_set_critical(int fd, uint32_t events);
/* Sets the events that are only told: 0, none. */
int cv_tmpl_set_informative(int fd, uint32_t events);
/* Sets the events that end the covenant's process: COVENANT_EV_HWERR or 0. */
int cv_pr_tmpl_set_fatal(int fd, uint32_t events);
/* Sets the parameters: COVENANT_PR_PGRPONLY or 0. Without it a fork makes no covenant. */
int cv_pr_tmpl_set_param(int fd, uint32_t params);

/*
 * From now on the calling thread's forks put the new process into a new covenant, as the template says at this
 * moment. A template that was active before isn't any more.
 */
int cv_tmpl_activate(int fd);

/* Ends what cv_tmpl_activate() began. EINVAL if another template is active, or none. */
int cv_tmpl_clear(int fd);

/*
 * Gives the id of the covenant that the calling thread's last fork made. `type` is COVENANT_TYPE_PROCESS.
 * Returns 0, or -1 with errno: EINVAL for another type, or ESRCH if there is none.
 * After a plain fork() it may wait for the child's first steps, for a second at most.
 */
int covenant_latest(int type, covenant_id_t *idp);

/*
 * The calling thread gives up the covenant: it isn't its latest any more. Its processes go on undisturbed.
 * Returns 0, or -1 with errno: ESRCH if it isn't the latest.
 */
int covenant_abandon_id(covenant_id_t id);

/*
 * Forks for a library that runs inside somebody else's process. Like fork(), but the child belongs to the caller
 * alone: its end sends no signal, an ignored SIGCHLD doesn't lose its status, and no wait() for any child of the
 * process picks it up. Wait for it with waitid(P_PID, pid, &info, WEXITED | __WALL).
 *
 * No handler of pthread_atfork() runs, and locks stay as they are: until it ends or starts a program, the child only
 * makes calls that are safe in a signal handler, and never setuid() or its relatives, which would wait for threads
 * that the child doesn't have. Its signal mask is the caller's. The active template counts as for fork().
 *
 * Returns the child's id in the parent and 0 in the child, or -1 with errno.
 */
pid_t covenant_fork(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
