// File operations in another enclave: open, rename and unlink, each done by a forked child that enters the enclave.
// Everything here reports in errno values. With the enclave number 0 all of it runs in the calling process.
#ifndef LIBOSTREL_ZIO_H
#define LIBOSTREL_ZIO_H

#include <cstdio>
#include <sys/types.h>

#include "base/guards.h"
#include "libostrel.h"
#include "libostrel_files_lock.h"

// The owner of a file that is new in an enclave.
#define OSTREL_ZFILE_UID 17
#define OSTREL_ZFILE_GID 65

// The operations. 0 or an errno value, which an open stores in *err.
int ostrel_zopen(const char *path, int oflag, mode_t mode, enclaveid_t enclave, int *err);
FILE *ostrel_zfopen(const char *path, const char *mode, enclaveid_t enclave, int *err);
int ostrel_zrename(const char *from, const char *to, enclaveid_t enclave);
int ostrel_zunlink(const char *path, enclaveid_t enclave);

// ---- What they are made of ----

struct zopen_arg_t {
	const char *zopen_modestr; // a stream mode, which decides the flags; or NULL
	int zopen_oflag;
	mode_t zopen_mode;
	int *zopen_pipe; // [0] is received from by the parent, [1] is sent into by the child
	int zopen_fd;    // the result: the open file in the calling process
};

struct zrename_arg_t {
	const char *zrename_newname;
};

struct zlock_arg_t {
	const char *zlock_database;
	int zlock_end; // what the child sends into
};

union zfoparg_t {
	zopen_arg_t zfop_openarg;
	zrename_arg_t zfop_renamearg;
	zlock_arg_t zfop_lockarg;
};

// What a callback is called with. The two truth values are equal where the operation is to be done: in the calling
// process for a file of the global enclave, in the child for a file of another one.
struct zfarg_t {
	boolean_t zfarg_inglobalenclave;  // this process is the caller, and not a child inside the enclave
	boolean_t zfarg_finglobalenclave; // the file is in the global enclave
	const char *zfarg_filename;
	zfoparg_t *zfarg_oparg; // NULL for an unlink
};

// Gives 0 or an error number. In a child it makes nothing but system calls.
typedef int zfcb_t(zfarg_t *arg);

zfcb_t ostrel_zopen_cb;
zfcb_t ostrel_zunlink_cb;
zfcb_t ostrel_zrename_cb;

/*
 * Forks a child that lives in a covenant of its own, in the enclave if `enter` is true, and waits for its end.
 *
 *   enclave 0                   0, and *pid is 0: nothing was forked
 *   the child                   0, and *pid is 0
 *   the parent                  the child's exit status, and *pid is the child's id
 *   a failure without a child   an error number, and *pid is 0
 *
 * A child that a signal ended counts as a failure: the signal's number, or EINTR where callers would take that number
 * for an error that they act on. A child that can't enter ends with the error number of enclave_enter().
 *
 * The child has the rules of covenant_fork(): calls that are safe in a signal handler alone. SIGCHLD has its default
 * action there, whatever the caller made of it, so that the child can wait for children of its own.
 */
int ostrel_zfork(enclaveid_t enclave, boolean_t enter, pid_t *pid);

// Ends a child of ostrel_zfork() with that status; in any other process it returns.
void ostrel_zexit(enclaveid_t enclave, pid_t pid, int status);
// In a child: ends it after so many seconds, which its parent takes for a failure.
void ostrel_zlimit(unsigned int seconds);

// Runs a callback in the enclave, and then, if that went well, in the calling process.
int ostrel_zfop(const char *path, enclaveid_t enclave, zfcb_t *cb, zfoparg_t *oparg);

// The same with a pipe for the descriptor that an open gives.
int ostrel_zopen_impl(const char *path, enclaveid_t enclave, zfcb_t *cb, zfoparg_t *oparg);

/*
 * Takes the lock of a database's updates in another enclave. A temporary file that is new gets its owner there.
 * Owns:   *lock is taken; *database is the file as it is then, open for reading, or none if there is none
 * Errors: as of FileLock::take(), of the open, and of ostrel_zfork()
 */
int ostrel_zlock(const char *temporary, const char *database_path, enclaveid_t enclave, FileLock *lock, Fd *database);

#endif
