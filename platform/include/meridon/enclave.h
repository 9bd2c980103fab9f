/*
 * Enclaves: the operating system's isolated environments, each a root directory, and, if one of its processes is
 * known as its leader, that process's namespaces. 0 is the global enclave.
 *
 * The registry of a host holds one record for each of its enclaves.
 *
 * None of the calls below is a cancellation point.
 */
#ifndef MERIDON_ENCLAVE_H
#define MERIDON_ENCLAVE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <meridon/attrlist.h> /* MERIDON_ENUM32 */

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef int32_t enclaveid_t;

#define ENCLAVE_ID_GLOBAL 0
#define ENCLAVE_ID_MAX 9999   /* of an enclave in the registry */
#define ENCLAVE_NAME_MAX 63   /* bytes of a name, without its terminator */
#define ENCLAVE_ROOT_MAX 1023 /* bytes of a root's path, without its terminator */

/* The state of an enclave. The numbers are fixed. Its word is the name in lower case, such as "shutting_down". */
typedef enum enclave_state MERIDON_ENUM32 {
	ENCLAVE_STATE_CONFIGURED = 0,
	ENCLAVE_STATE_INCOMPLETE = 1,
	ENCLAVE_STATE_UNAVAILABLE = 2,
	ENCLAVE_STATE_INSTALLED = 3,
	ENCLAVE_STATE_READY = 4,
	ENCLAVE_STATE_RUNNING = 5,
	ENCLAVE_STATE_SHUTTING_DOWN = 6,
	ENCLAVE_STATE_DOWN = 7,
	ENCLAVE_STATE_MOUNTED = 8,
	ENCLAVE_STATE_INVALID = 9 /* no state: a record that can't be read, a word that names none */
} enclave_state_t;

/* ---- The calling process ---- */

/*
 * The enclave of the calling process, 0 for the global one. Looked up once, and again by enclave_enter().
 * Errors:  -1 if the mark of the enclave is there but can't be read: this process isn't in the global enclave, but
 *          nobody knows where
 * Threads: any
 */
enclaveid_t getenclaveid(void);

/*
 * Moves the calling process into an enclave for the rest of its life: into its leader's namespaces, if it has a
 * leader, and into its root, so that paths resolve inside it. The working directory is the root afterwards, and the
 * environment no longer has MERIDON_ROOT, which means something outside alone. Entering the process's own enclave
 * does nothing.
 *
 * It is meant for the child of a fork, and makes system calls alone. After a failure the process may stand between
 * the enclaves, and should end.
 *
 * Errors:  -1 with errno, which is never ENOENT or ENOTDIR: a caller would read them as a missing file
 *          EINVAL  no enclave has that id
 *          ESRCH   its state isn't ready, running or shutting down; its record can't be understood; its root is
 *                  missing; its leader has ended
 *          EPERM   the process lacks the privilege, or is in an enclave already; the record could have been
 *                  written by others than root and the process's user
 *          others of open(), setns() and chroot()
 * Threads: only in a process of one thread
 */
int enclave_enter(enclaveid_t id);

/* ---- Other enclaves, as processes see them ---- */

#define ENCLAVE_ATTR_ROOT 1 /* the root's path, seen from the global enclave */

/*
 * Copies an attribute of an enclave into `buffer`, with a NUL, and gives the number of bytes with it. The root of the
 * global enclave, and that of the process's own, is "/", below the environment's MERIDON_ROOT.
 * Errors:  -1 with errno, which is never ENOENT or ENOTDIR
 *          EINVAL  no enclave has that id, or there is no such attribute
 *          ERANGE  the buffer is too small
 *          ESRCH   the enclave's record can't be understood
 *          EPERM   the record can't be read, or could have been written by others
 * Threads: any
 */
ssize_t enclave_getattr(enclaveid_t id, int attribute, void *buffer, size_t size);

/* The name of an enclave, "global" for 0. Gives the bytes with the NUL; errors as enclave_getattr(). */
ssize_t getenclavenamebyid(enclaveid_t id, char *buffer, size_t length);

/* The state of the enclave of that name: 0, or -1 with errno EINVAL if there is none, or as enclave_getattr(). */
int enclave_get_state(const char *name, enclave_state_t *state);

/*
 * Opens a path for reading. One that lies below the root of a registered enclave is resolved inside that root, so that no
 * link on it leads out. Nothing is waited for: a FIFO, a device or a terminal is opened at most.
 * Owns:    the descriptor is the caller's; it is close-on-exec
 * Errors:  -1 with errno of openat2(), or ENOMEM
 * Threads: any
 */
int _enclave_open(const char *path);

/*
 * The same for a path of that enclave, its root and a path inside: in one look at the record, so that it is never opened
 * anywhere else, also if the record goes meanwhile.
 * Errors:  -1 with errno of openat2(); EINVAL if no enclave has that id or its root isn't the path's; or as
 *          enclave_getattr()
 */
int _enclave_open_in(enclaveid_t id, const char *path);

/*
 * Whether a process lives in an enclave: its root directory is the enclave's, and if the enclave has a leader, its mount
 * and user namespaces are the leader's. Gives 1 or 0, and 0 for all that is unclear.
 * Threads: any
 */
int _enclave_has_process(enclaveid_t id, pid_t pid);

/*
 * Keeps others who ask for the same out of an enclave's set-up, within this host, for as long as the descriptor is open.
 * Waits for them at most `seconds`.
 * Owns:    the descriptor is the caller's; it is close-on-exec
 * Errors:  -1 with errno: EAGAIN if the time is over, EPERM without the right to write the registry, or as
 *          enclave_getattr()
 * Threads: any
 */
int _enclave_hold(enclaveid_t id, int seconds);

/*
 * Gives the capabilities that the processes of an enclave have at most, the bit 1 << CAP_... for each: the bounding set of
 * its leader, or all if it has none.
 * Errors:  -1 with errno: ESRCH if its leader has ended, or as enclave_getattr()
 * Threads: any
 */
int _enclave_capabilities(enclaveid_t id, uint64_t *capabilities);

/*
 * Takes all capabilities but these from the calling thread, and from what it will execute, which can't get others by any
 * file's mode (no_new_privs). Makes system calls alone.
 * Errors:  -1 with errno
 * Threads: any
 */
int _enclave_confine(uint64_t capabilities);

/* ---- The registry ---- */

/* A record of the registry. */
typedef struct enclave_info {
	enclaveid_t ei_id;
	enclave_state_t ei_state;
	char ei_name[ENCLAVE_NAME_MAX + 1]; /* letters, digits, '.', '_', '-'; the first is a letter */
	char ei_root[ENCLAVE_ROOT_MAX + 1]; /* an absolute path of the host, without control characters */
	pid_t ei_leader;                    /* 0 if there is none */
	uint64_t ei_leader_start;           /* its start time, against a reused pid; 0 if there is no leader */
} enclave_info_t;

/*
 * What holds for the calls below, unless a comment says otherwise:
 *   Errors:  0, or an errno value; nothing is changed on failure, and *info is untouched
 *            EINVAL  a NULL argument, an id outside of 1 to ENCLAVE_ID_MAX, a field that breaks its rule above
 *            ENOENT  no record of that id or name
 *            EBADMSG the record can't be understood
 *            EACCES  the process lacks the permission; EPERM if the record isn't root's or its own user's, or is
 *                    writable by others
 *            others of the system calls that read and write files
 *   Threads: any, and any process: an update is one rename, durable when the call returns, and updates wait for
 *            each other
 */

int enclave_registry_get(enclaveid_t id, enclave_info_t *info);

/* Finds a record by its name. */
int enclave_registry_find(const char *name, enclave_info_t *info);

/*
 * Lists all records by id. One that can't be read is listed with its id and ENCLAVE_STATE_INVALID alone.
 * Owns:   *infos is new, free it with free(); not NULL, also if there are none
 * Errors: ENOMEM
 */
int enclave_registry_list(enclave_info_t **infos, size_t *count);

/* Whether a record may be written: 0, or EINVAL. Nothing is looked up. */
int enclave_registry_check(const enclave_info_t *info);

/* Adds a record. EEXIST if its id or its name is taken. */
int enclave_registry_add(const enclave_info_t *info);

/* Replaces the record of that id, also one that can't be understood. EEXIST if another one has its name. */
int enclave_registry_replace(const enclave_info_t *info);

/* Removes a record. What lies in the enclave's root stays. */
int enclave_registry_remove(enclaveid_t id);

/*
 * Gives the start time of a process, in clock ticks since boot.
 * Errors: ESRCH if there is no such process, or it has ended; ENOTSUP without /proc
 */
int enclave_leader_start(pid_t pid, uint64_t *startp);

/* Whether the record names a leader that lives: a process of that id, and with that start time. Not an errno value. */
int enclave_leader_alive(const enclave_info_t *info);

/* The word of a state; "invalid" for what isn't one. Owns: constant text. */
const char *enclave_state_name(enclave_state_t state);

/* The state of a word; ENCLAVE_STATE_INVALID if it names none. */
enclave_state_t enclave_state_by_name(const char *word);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
