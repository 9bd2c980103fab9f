/*
 * libostrel: one interface to the persistent configuration of network daemons, wherever it is kept.
 *
 * A caller opens a database by name, together with the table of a back end, and reads, writes, renames, removes and
 * walks objects. An object is a pair of attribute lists: the identifiers that single it out, and its properties.
 * The order of calls is open, then any operation from any thread, then close.
 *
 * A program may have global functions of the platform's names, `regex` or `fattach` say: the library never calls them.
 *
 * No signal makes an operation fail or leaves open what became of it, whether its handler restarts calls or not; nor does a
 * stop, a freezer or a debugger. A forked child may use every handle, whatever its parent's threads do, also in another
 * namespace of process ids; one that shares its parent's memory (vfork()) uses none.
 */
#ifndef LIBOSTREL_H
#define LIBOSTREL_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <meridon/attrlist.h>
#include <meridon/enclave.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- Results ---- */

/*
 * What every operation says, unless it is stated otherwise: the returned value is the whole report, there is no
 * last-error state. The numbers cross process boundaries and stay as they are.
 */
typedef enum ostrel_error MERIDON_ENUM32 {
	OSTREL_SUCCESS = 0,
	OSTREL_EPERM = 1,       /* permission denied */
	OSTREL_INVALID_ARG = 2, /* a bad argument, or an operation that this kind of database doesn't have */
	OSTREL_EXISTS = 3,
	OSTREL_NOT_FOUND = 4,
	OSTREL_WALK_HALTED = 5, /* a walk's callback stopped it */
	OSTREL_NO_MEMORY = 6,   /* also no space on the device */
	OSTREL_FAILURE = 7,     /* anything that has no value of its own */
	OSTREL_NOTSUP = 8,
	OSTREL_NEEDS_RETRY = 9 /* the store can't take the update now; nothing was changed */
} ostrel_error_t;

/*
 * Gives the text of a result, translated by dgettext() in the domain "meridon_lib_libostrel"; "<unknown error>" for a
 * value that is none of the ten.
 *
 * Owns:    the text is the library's, constant, and not to be freed.
 * Threads: any. Depends on the locale of the process.
 */
const char *ostrel_strerror(ostrel_error_t err);

/*
 * Gives the result that stands for an errno value.
 *
 *   0                 OSTREL_SUCCESS        EFAULT, EINVAL  OSTREL_INVALID_ARG
 *   EPERM, EACCES     OSTREL_EPERM          EEXIST          OSTREL_EXISTS
 *   ENOENT, ENOTDIR   OSTREL_NOT_FOUND      ENOTSUP         OSTREL_NOTSUP
 *   ENOMEM, ENOSPC    OSTREL_NO_MEMORY      all else, negative values too: OSTREL_FAILURE
 *
 * Threads: any.
 */
ostrel_error_t ostrel_errno2error(int err);

/*
 * Gives the errno value that stands for a result. Not the inverse of ostrel_errno2error(): OSTREL_EPERM is EACCES, and
 * OSTREL_FAILURE, OSTREL_NEEDS_RETRY and unknown values are EINVAL like OSTREL_INVALID_ARG.
 *
 *   OSTREL_SUCCESS      0         OSTREL_NOT_FOUND    ENOENT
 *   OSTREL_EPERM        EACCES    OSTREL_WALK_HALTED  ECANCELED
 *   OSTREL_INVALID_ARG  EINVAL    OSTREL_NO_MEMORY    ENOMEM
 *   OSTREL_EXISTS       EEXIST    OSTREL_NOTSUP       ENOTSUP
 *
 * Threads: any.
 */
int ostrel_error2errno(ostrel_error_t err);

/* ---- Databases ---- */

/*
 * A handle of an open database. Many threads may use one at once. Nobody counts references: after ostrel_db_close() it
 * is gone, so a database stays open for as long as any call on it runs, and as any update that was taken over for a
 * later retry is in flight. No operation of this library is a cancellation point, though a walk's callback may be one; a
 * thread whose cancellation is asynchronous may call none of them.
 */
typedef struct ostrel_db *ostrel_db_t;
/* A back end: what kind of place a database lies in. There are the ones below and no others. */
typedef const struct ostrel_db_cmds *ostrel_db_cmds_t;

#define OSTREL_DB_NAME_MAX 1023 /* bytes of a database's name, without its terminator */

/*
 * Flags. There are two words, that of the open and that of each operation, and the same bit differs between them. Bits
 * without a name below have no meaning; an open drops them.
 */
#define OSTREL_DB_CASE_SENSITIVE 0x2 /* at open: identifiers are compared with case */
#define OSTREL_FLAG_EXACT_MATCH 0x1  /* an operation: all identifiers must be the same, no more and no fewer */
#define OSTREL_FLAG_WITH_PROPS 0x2   /* an operation: objects come with their properties */
#define OSTREL_FLAG_TEMPORARY 0x4    /* an operation: what the repository creates for it isn't persistent */

/*
 * Flat text files, one object a line. The database's name is the path of the file.
 * Takes all operations. An update replaces the file whole, by a rename of the path followed by ".new". Updates of one file,
 * by any handles, threads, processes and enclaves, are carried out one after another, with a lock on that temporary file;
 * programs that change the file in other ways aren't kept out, nor is anybody on a file system without locks. An update has
 * these results of its own:
 *          OSTREL_EPERM        also: the temporary file is somebody else's, in a directory that isn't owned by root or the
 *                              process's user, or that others can write to; its owner would keep the database
 *          OSTREL_INVALID_ARG  a list is NULL; an object of the new file can't be written so that it is read back the
 *                              same: it has no identifiers, a pair that a line can't hold, or too long a text; the
 *                              path, or what is at the temporary one, isn't a plain file
 *          OSTREL_NO_MEMORY    also: no space on the device
 *          OSTREL_FAILURE      the path is a directory; another update didn't end within 60 s; the file was changed in
 *                              place meanwhile; a read, write or sync failed. If that was the sync of the directory, the
 *                              new file stands, though a crash may bring the old one back
 */
extern ostrel_db_cmds_t ostrel_files_db_cmds;

/*
 * Raw text files, read line by line: one object a line, with the line's number as the identifier object-rawline and its
 * text as the property of that name. The database's name is the path of the file.
 * Takes reads and walks; updates are OSTREL_INVALID_ARG.
 */
extern ostrel_db_cmds_t ostrel_rawfiles_db_cmds;

/*
 * A database of another process, which serves it with ostrel_hatchserver_create(). The database's name is the path of
 * the server's hatch. Each operation is one call of it, carried out there by the rights of the calling thread's real
 * user, and gives the server's result. The open fails if nothing is at the path. A server that was restarted is found
 * again by the next operation.
 *
 * Takes all operations that the served database takes, with these results of its own:
 *          OSTREL_EPERM        the user doesn't hold the right, or the list leads out of the served database and the
 *                              user doesn't hold ostrel.elsewhere
 *          OSTREL_INVALID_ARG  also: an update by another user than root whose identifiers have no text form
 *          OSTREL_FAILURE      there is no server: a plain file, or the server went before or during the call (an
 *                              update may then have been carried out)
 *          OSTREL_NOT_FOUND    also: nothing is at the path any more
 */
extern ostrel_db_cmds_t ostrel_hatches_db_cmds;

/*
 * The service repository of a host. The database's name is a locator: `name[/name...]`, a service, or
 * `name[/name...]:instance`, an instance of one. It has to exist, and the repository daemon has to answer, for
 * ostrel_db_open() to succeed. In another enclave whose own daemon isn't up a private one is started for the operation.
 *
 * An object is a property group, and groups nest, 8 levels deep at most. Its identifiers are two paths, of one component
 * for each level: "object-pgname", the names, and "object-pgtype", the types. A name is found without regard to case, if
 * not with it, unless the database was opened with OSTREL_DB_CASE_SENSITIVE. A walk goes by type, where a component is a
 * type, or its beginning followed by a `*`. "object-db-name" in a list names the service of an instance, or an instance
 * of the service; "object-db-enclave" another enclave.
 *
 * Numbers come back as 64-bit arrays; a stored property keeps its type, and takes no attribute of another kind. Types
 * beyond booleans, numbers and strings aren't taken. A write creates the levels that are missing, of the types in
 * "object-pgtype". A rename within one tree can't put a group below itself, and one of a group that holds groups is
 * refused: removing the old one would take them along. So is one that asks for another spelling or other types where the
 * group is. An instance's snapshot "running" follows its updates in 5 to 10 seconds, and at the close; a forked child begins
 * to take snapshots with its first operation.
 *
 * A service or instance that was deleted and made again is found by the next operation. A private daemon of another enclave
 * ends with the handle that started it, its last copy in forked children, or their processes; operations of others that are
 * under way come to their end first, and the next ones start another. An enclave that gets another root directory gets another
 * repository: the next operation goes there.
 *
 * Errors beside those of each operation:
 *          OSTREL_INVALID_ARG  neither path in the list, a path of more than 8 components or more than 255 bytes, a `*` in
 *                              a name, more than 128 values in a property that is read, a type that isn't taken
 *          OSTREL_EPERM        the repository doesn't let this user
 *          OSTREL_NEEDS_RETRY  a read found 32 others at work for 20 s; updates of a store that is read-only for the
 *                              moment are deferred instead
 *          OSTREL_FAILURE      no daemon, or it went during the operation, or didn't answer for 60 s: the next one looks
 *                              for it again. An update of an object that was there may be carried out all the same. What
 *                              a write has made goes as soon as the daemon comes to it; if it goes away in between, an
 *                              object without properties may stay. After a rename both objects may be there, never none
 * Threads: any number of reads and walks beside each other; updates one by one.
 */
extern ostrel_db_cmds_t ostrel_cairn_db_cmds;

/*
 * Called by ostrel_db_walk() for one object: with the handle, the object's identifiers and properties, the flags as the
 * walk's caller gave them, and the walk's `arg`. Anything but 0 halts the walk.
 *
 * Owns:    both lists are the walk's and go when the callback returns; it may change them, and copies what it keeps.
 * Threads: the caller of the walk. No lock is held, so it may use the same database, and update it.
 */
typedef int ostrel_walkcb_t(ostrel_db_t db, attrlist_t *idl, attrlist_t *props, uint64_t flags, void *arg);

/*
 * Compares two objects for ostrel_db_walk(), as qsort() asks for it: negative, 0 or positive. Each argument points to
 * an element of the array of objects; ostrel_object_get() looks inside.
 */
typedef int ostrel_sortcb_t(attrlist_t **a, attrlist_t **b);

/*
 * Opens the database `name` of the enclave `enclave` in the back end `cmds`. Whether the store is there is looked at
 * now or at the first operation, as the back end does it; each operation opens a file again.
 *
 * Owns:    *dbp is new; close it with ostrel_db_close(). Untouched on failure. `name` is copied.
 * Errors:  OSTREL_INVALID_ARG  `name`, `cmds` or `dbp` is NULL, or the name is too long
 *          OSTREL_NO_MEMORY
 *          any error of the back end's own open
 * Threads: any.
 * Limits:  OSTREL_DB_NAME_MAX. Of `flags` only OSTREL_DB_CASE_SENSITIVE and OSTREL_FLAG_TEMPORARY count.
 */
ostrel_error_t ostrel_db_open(
    const char *name, enclaveid_t enclave, ostrel_db_cmds_t cmds, uint64_t flags, ostrel_db_t *dbp);

/*
 * Closes a database and frees its handle. Waits for operations that hold the handle's lock, if the back end has
 * anything to close; the caller sees to it that no other call on the handle runs or comes. NULL does nothing.
 *
 * Owns:    takes the handle back.
 * Errors:  none can be reported.
 * Threads: any, once.
 */
void ostrel_db_close(ostrel_db_t db);

/*
 * Reads the one object that `idl` selects, compared exactly: all its identifiers, no more and no fewer.
 *
 * Owns:    *objl is new: the object's properties; free it with attrlist_free(). Untouched on failure. `objl` may be
 *          NULL. `idl` gains every stored identifier, in its stored spelling; it is unchanged on failure. (If memory
 *          runs out there, the read succeeds all the same, and `idl` may lack some.)
 * Errors:  OSTREL_NOT_FOUND    no object matches
 *          OSTREL_INVALID_ARG  several match, `db` is NULL, or the back end doesn't read
 *          OSTREL_NO_MEMORY
 *          any error of the back end
 * Threads: any. Takes the handle's lock for reading; readers share it and can keep an update waiting.
 */
ostrel_error_t ostrel_db_read(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t **objl);

/*
 * Creates the object `idl` with the properties `objl`, or replaces all properties of the one that is there.
 *
 * Success of an update that the store couldn't take at once means that it was taken over: a thread of the library
 * repeats it, once a second and at most 100 times, and its final result reaches nobody. The lists were copied then.
 *
 * Owns:    both lists stay the caller's.
 * Errors:  OSTREL_INVALID_ARG  `db` is NULL, or the database is read only
 *          OSTREL_NO_MEMORY
 *          any error of the back end; nothing was changed
 * Threads: any. Takes the handle's lock for writing.
 */
ostrel_error_t ostrel_db_write(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *objl);

/*
 * Gives the object `idl` the identifiers `newidl`; its properties stay. Nobody looks whether an object of the new
 * identifiers is there: flat files then hold two, the repository overwrites it. What ostrel_db_write() says about
 * updates that are taken over holds here too.
 *
 * Owns:    both lists stay the caller's; in the repository `idl` gains the stored identifiers, as in a read.
 * Errors:  OSTREL_INVALID_ARG  `db` is NULL, or the database is read only
 *          OSTREL_NOT_FOUND    there is no such object
 *          OSTREL_NO_MEMORY
 *          any error of the back end; nothing was changed
 * Threads: any. Takes the handle's lock for writing.
 */
ostrel_error_t ostrel_db_rename(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *newidl);

/*
 * Removes the object `idl`. NULL means the whole database, file and all, to flat files, and nothing to the others. What
 * ostrel_db_write() says about updates that are taken over holds here too.
 *
 * Owns:    the list stays the caller's.
 * Errors:  OSTREL_INVALID_ARG  `db` is NULL, or the database is read only
 *          OSTREL_NOT_FOUND    there is no such object
 *          OSTREL_NO_MEMORY
 *          any error of the back end; nothing was changed
 * Threads: any. Takes the handle's lock for writing.
 */
ostrel_error_t ostrel_db_remove(ostrel_db_t db, attrlist_t *idl, uint64_t flags);

/*
 * Calls `cb` for every object that `idl` selects: those that have at least these identifiers, with these values, where
 * an empty value stands for any. NULL selects what the back end takes it for, all objects in flat files. With
 * OSTREL_FLAG_EXACT_MATCH the selection is that of a read. The order is the back end's, or that of `sortcb`.
 *
 * Owns:    `idl` stays the caller's, unchanged. `sortcb` and `cbret` may be NULL.
 * Errors:  OSTREL_WALK_HALTED  a callback returned something other than 0; it stands in *cbret, which nothing else
 *          writes
 *          OSTREL_INVALID_ARG  `db` or `cb` is NULL, or the back end doesn't read
 *          any error of the back end
 *          No object at all is a success.
 * Threads: any. Takes no lock; the back end reads all objects before the first callback, and an update beside it does
 *          no harm.
 */
ostrel_error_t ostrel_db_walk(ostrel_db_t db, attrlist_t *idl, uint64_t flags, ostrel_walkcb_t *cb,
    ostrel_sortcb_t *sortcb, void *arg, int *cbret);

/*
 * Reads the one object that `idl` selects, like ostrel_db_read(), for some properties: each pair of *props, whose value
 * doesn't matter, is replaced by the stored pair of that name, with its type, or removed if the object has none.
 *
 * Owns:    *props is and stays the caller's list. Unchanged if the read fails.
 * Errors:  those of ostrel_db_read(); OSTREL_INVALID_ARG also if `props` or *props is NULL
 *          OSTREL_NO_MEMORY    pairs that were done stay done
 * Threads: any. Takes the handle's lock for reading.
 */
ostrel_error_t ostrel_db_get_object_props(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t **props);

/*
 * Asks the back end whether the caller may read (B_FALSE) or update (B_TRUE). Only a back end behind which another
 * process owns the database has such a question; in all others this succeeds, and so it does for NULL.
 *
 * Errors:  OSTREL_EPERM        no
 *          any error of the back end
 * Threads: any. Takes no lock.
 */
ostrel_error_t ostrel_db_check_auth(ostrel_db_t db, boolean_t write);

/* ---- Identifier lists ---- */

/*
 * An identifier list is an attribute list of text keys, the same for what is stored with an object and for a search.
 * What the keys are called is the caller's business, but for these: object-db-name and object-id-string identify
 * nothing and are passed over wherever identifiers are compared, counted or written; object-db-enclave is a number,
 * counts, and equals nothing; object-pgname, object-pgtype and object-rawline have a meaning to one back end each.
 *
 * Threads, for all calls of this group: one thread at a time uses a list.
 */

#define OSTREL_IDSTR_SIZE 256 /* room for the text of an identifier list, with its terminator */

/*
 * Makes an identifier list. With a `db_name`, which may be NULL, an operation with this list goes to the store of that
 * name in place of the handle's.
 *
 * Owns:    *idlp is new; free it with attrlist_free(). Untouched on failure.
 * Errors:  OSTREL_INVALID_ARG  `idlp` is NULL
 *          OSTREL_NO_MEMORY
 */
ostrel_error_t ostrel_idlist_init(attrlist_t **idlp, const char *db_name);

/*
 * Adds a key at the end, in place of one of that name. In a search an empty value stands for any; NULL is an empty
 * value.
 *
 * Owns:    name and value are copied.
 * Errors:  OSTREL_INVALID_ARG  `idl` or `name` is NULL, or the name is object-db-name or object-id-string
 *          OSTREL_NO_MEMORY    nothing was changed
 */
ostrel_error_t ostrel_idlist_add(attrlist_t *idl, const char *name, const char *value);

/*
 * Adds the enclave in which to look for the object, in place of the handle's. Only the repository reads it; elsewhere
 * such a list selects nothing.
 *
 * Errors:  OSTREL_INVALID_ARG  `idl` is NULL
 *          OSTREL_NO_MEMORY    nothing was changed
 */
ostrel_error_t ostrel_idlist_add_enclaveid(attrlist_t *idl, enclaveid_t enclave);

/*
 * Gives the value of a text key.
 *
 * Owns:    *valuep lies in the list: valid until the list is changed or freed. Untouched on failure.
 * Errors:  OSTREL_NOT_FOUND    there is no text key of that name
 *          OSTREL_INVALID_ARG  an argument is NULL
 */
ostrel_error_t ostrel_idlist_get(attrlist_t *idl, const char *name, char **valuep);

/*
 * Gives what ostrel_idlist_add_enclaveid() added.
 *
 * Owns:    *enclavep is untouched on failure.
 * Errors:  OSTREL_NOT_FOUND    the list names no enclave
 *          OSTREL_INVALID_ARG  an argument is NULL
 */
ostrel_error_t ostrel_idlist_get_enclaveid(attrlist_t *idl, enclaveid_t *enclavep);

/*
 * Gives the `db_name` with which the list was made.
 *
 * Owns:    *namep lies in the list: valid until the list is changed or freed. Untouched on failure.
 * Errors:  OSTREL_NOT_FOUND    it was made without one
 *          OSTREL_INVALID_ARG  an argument is NULL
 */
ostrel_error_t ostrel_idlist_get_db_name(attrlist_t *idl, char **namep);

/*
 * Removes a text key.
 *
 * Errors:  OSTREL_NOT_FOUND    there is no text key of that name; the enclave is no text
 *          OSTREL_INVALID_ARG  an argument is NULL
 */
ostrel_error_t ostrel_idlist_remove(attrlist_t *idl, const char *name);

/*
 * Writes the identifiers as text, "key=value;" for each in list order, with nothing escaped. A NULL list, or one that
 * identifies nothing, is the empty text.
 *
 * Owns:    `buf` is the caller's and has room for OSTREL_IDSTR_SIZE bytes. On failure it holds what fitted.
 * Errors:  OSTREL_INVALID_ARG  the text doesn't fit, a pair is no text, or `buf` is NULL
 * Limits:  OSTREL_IDSTR_SIZE - 1 bytes of text
 */
ostrel_error_t ostrel_idlist2idstr(attrlist_t *idl, char *buf);

/* ---- Objects ---- */

/*
 * Makes an object, an attribute list of the nested lists object-idlist and object-props. Without `props`, which may be
 * NULL, it has no second list, and ostrel_object_get() refuses it.
 *
 * Owns:    *objp is new; free it with attrlist_free(). Untouched on failure. Both lists are copied.
 * Errors:  OSTREL_INVALID_ARG  `idl` or `objp` is NULL, or a list is nested too deeply to fit into another
 *          OSTREL_NO_MEMORY
 * Threads: one thread at a time uses a list.
 */
ostrel_error_t ostrel_object_create(attrlist_t *idl, attrlist_t *props, attrlist_t **objp);

/*
 * Takes an object apart. Either of `idlp` and `propsp` may be NULL, but the object must have both lists.
 *
 * Owns:    *idlp and *propsp are new; free them with attrlist_free(). On failure *idlp is NULL, *propsp untouched.
 * Errors:  OSTREL_NOT_FOUND    the object lacks one of its lists
 *          OSTREL_INVALID_ARG  `obj` is NULL, or both `idlp` and `propsp` are
 *          OSTREL_NO_MEMORY
 * Threads: one thread at a time uses a list.
 */
ostrel_error_t ostrel_object_get(attrlist_t *obj, attrlist_t **idlp, attrlist_t **propsp);

/*
 * Give the value of a property of one value, which is stored as an array: from a list by its name, or from a pair. The
 * pair must hold the array form of exactly this type.
 *
 * Owns:    a text lies in the list and is valid until the list is changed or freed. *valuep is untouched on failure.
 * Errors:  errno values, 0 for success
 *          ENOENT  from a list: there is no array of that name and type; from both: the array is empty
 *          EINVAL  the array has several values, an argument is NULL; from a pair: it is of another type
 * Threads: one thread at a time uses a list.
 */
int ostrel_atl_get_one_boolean(attrlist_t *list, const char *name, boolean_t *valuep);
int ostrel_atl_get_one_int32(attrlist_t *list, const char *name, int32_t *valuep);
int ostrel_atl_get_one_int64(attrlist_t *list, const char *name, int64_t *valuep);
int ostrel_atl_get_one_uint32(attrlist_t *list, const char *name, uint32_t *valuep);
int ostrel_atl_get_one_uint64(attrlist_t *list, const char *name, uint64_t *valuep);
int ostrel_atl_get_one_string(attrlist_t *list, const char *name, char **valuep);

/* The same from a pair. */
int ostrel_atp_get_one_boolean(attrpair_t *pair, boolean_t *valuep);
int ostrel_atp_get_one_int32(attrpair_t *pair, int32_t *valuep);
int ostrel_atp_get_one_int64(attrpair_t *pair, int64_t *valuep);
int ostrel_atp_get_one_uint32(attrpair_t *pair, uint32_t *valuep);
int ostrel_atp_get_one_uint64(attrpair_t *pair, uint64_t *valuep);
int ostrel_atp_get_one_string(attrpair_t *pair, char **valuep);

/*
 * Add a property of one value, as an array of one element, in place of a pair of that name.
 *
 * Owns:    name and value are copied.
 * Errors:  errno values, 0 for success
 *          EINVAL  an argument is NULL
 *          ENOMEM  nothing was changed
 * Threads: one thread at a time uses a list.
 */
int ostrel_atl_add_one_boolean(attrlist_t *list, const char *name, boolean_t value);
int ostrel_atl_add_one_int32(attrlist_t *list, const char *name, int32_t value);
int ostrel_atl_add_one_int64(attrlist_t *list, const char *name, int64_t value);
int ostrel_atl_add_one_uint32(attrlist_t *list, const char *name, uint32_t value);
int ostrel_atl_add_one_uint64(attrlist_t *list, const char *name, uint64_t value);
int ostrel_atl_add_one_string(attrlist_t *list, const char *name, const char *value);

/* ---- Text ---- */

char *ostrel_tokenize_by_unescaped_delim(char *str, char delim, char **next);

/* ---- Conversion of property lists ---- */

#define OSTREL_PROP_VALUES_MAX 128 /* values of one property that a conversion takes or makes */
#define OSTREL_PROP_TEXT_MAX 511   /* bytes of a delimited text, without its terminator */

/* One named value. A table of values ends with an entry whose name is NULL. */
typedef struct ostrel_valdesc {
	char *nvd_name;        /* the value's name in the store; "?" marks a number that isn't stored */
	char *nvd_description; /* the caller's own */
	uint64_t nvd_val;      /* the number; in a bitfield, one or more bits */
} ostrel_valdesc_t;

#define OSTREL_PROP_BITFIELD 0x1   /* the number is a set of bits, and npd_vals names the bits */
#define OSTREL_PROP_DELIMITED 0x2  /* one text with values between delimiters; stored as an array of these values */
#define OSTREL_PROP_NO_CONVERT 0x4 /* the property is left alone, whatever else the descriptor says */

/* One property. A table of properties ends with an entry whose name is NULL. What the library doesn't read is the
 * caller's own. It changes nothing in either structure, nor what they point to. */
typedef struct ostrel_propdesc {
	char *npd_name;                     /* the property's name in the list */
	char *npd_description;              /* not read */
	uint64_t npd_type;                  /* the stored type: DATA_TYPE_BOOLEAN, _INT64, _UINT64 or _STRING;
						      DATA_TYPE_UNKNOWN leaves it alone on the way to the store */
	uint_t npd_min_vals;                /* not read */
	uint_t npd_max_vals;                /* not read */
	int64_t npd_min_range;              /* not read */
	int64_t npd_max_range;              /* not read */
	uint64_t npd_flags;                 /* OSTREL_PROP_* */
	char *npd_delimiters;               /* the delimiter characters of a delimited property */
	ostrel_valdesc_t *npd_legacy_names; /* not read */
	ostrel_valdesc_t *npd_vals;         /* the names of values, or NULL */
	uint_t npd_version;                 /* not read */
	ostrel_valdesc_t npd_stability;     /* not read */
} ostrel_propdesc_t;

/*
 * Converts the properties of a list to the form in which they are stored, in place. `descs` is the first descriptor of
 * a table and `size` the bytes from one descriptor to the next, so that the descriptors may lie at the start of larger
 * entries; the table ends with an entry whose first field is NULL. For each descriptor whose property is in the list,
 * the first rule that applies:
 *   - OSTREL_PROP_NO_CONVERT, or DATA_TYPE_UNKNOWN as its type: unchanged
 *   - OSTREL_PROP_DELIMITED and a string array of one text: the text is split at each run of delimiters; a text beyond
 *     OSTREL_PROP_TEXT_MAX is cut there; one without any value stays as it is
 *   - a string array, and a type other than DATA_TYPE_STRING: each text becomes a value of that type, "true" and "false"
 *     in any case or a number for a boolean, numbers as C writes them (0x10, 010) for the other two
 *   - a uint64_t array with npd_vals: each number becomes the name of the first value that equals it; with
 *     OSTREL_PROP_BITFIELD, the names of all values that have a bit of it. A property of nothing but "?" is removed
 *   - a uint64_t array without npd_vals, of DATA_TYPE_STRING: each number becomes a decimal text
 *
 * Owns:    nothing is kept; names are copied into the list.
 * Errors:  0, or an errno value. The first failure ends the conversion, and a message at LOG_DEBUG tells the reason: the
 *          property is as it was, those before it in the table stay converted.
 *          EINVAL  `props` or `descs` is NULL, or `size` is 0 (without a message); a text that isn't a value of its type;
 *                  a number or a bit without a name; more values or names than OSTREL_PROP_VALUES_MAX; a delimited
 *                  property without delimiters; an unknown npd_type with a string array
 *          ENOMEM  memory ran out
 * Threads: any; the list belongs to one at a time, the table is only read.
 * Limits:  OSTREL_PROP_VALUES_MAX, OSTREL_PROP_TEXT_MAX
 */
int ostrel_proplist_convert_to_persist(attrlist_t *props, size_t size, const void *descs);

/*
 * The way back: converts string arrays, and nothing else, by the same table. For each descriptor whose property is a
 * string array in the list, and which has no OSTREL_PROP_NO_CONVERT:
 *   - OSTREL_PROP_DELIMITED: the texts become one, with the whole of npd_delimiters between them
 *   - npd_vals: each text becomes the numbers of all values that bear its name, in any case; with OSTREL_PROP_BITFIELD,
 *     all of them together one number
 * Any other property stays as it is, also one of more than OSTREL_PROP_VALUES_MAX texts, or whose joined text would
 * exceed OSTREL_PROP_TEXT_MAX: that leaves a message and is no failure.
 *
 * Owns:    nothing is kept.
 * Errors:  as above
 *          EINVAL  `props` or `descs` is NULL, or `size` is 0 (without a message); a text that no value bears as its
 *                  name; names that repeat in the table and give more than OSTREL_PROP_VALUES_MAX numbers; a delimited
 *                  property without delimiters
 *          ENOMEM  memory ran out
 * Threads: as above.
 * Limits:  as above.
 */
int ostrel_proplist_convert_from_persist(attrlist_t *props, size_t size, const void *descs);

/* The number of entries before the end of a table of values; 0 for NULL. Threads: any. */
int ostrel_valdescs_count(const ostrel_valdesc_t *vals);

/* ---- Files ---- */

/*
 * Sets files aside: renames each entry of the directory `dir` whose name matches `pattern` to the same name with
 * ".obsolete" appended. The pattern is an extended regular expression, as regcmp() takes it, and may match anywhere in
 * the name. Directories are renamed too; a name that ends in ".obsolete" gets another one if it matches. An entry of the
 * new name is replaced. It works in the enclave of the calling process.
 *
 * Owns:    nothing is kept. Neither argument is NULL.
 * Errors:  in the log only, at LOG_ERR: a pattern that doesn't compile or a directory that can't be read (nothing is
 *          renamed then), and each entry that couldn't be renamed. A directory that doesn't exist is no error.
 * Threads: one call at a time in the whole process; a second one at the same time aborts.
 * Limits:  paths of 1023 bytes, old and new; an entry beyond is left where it is, with a message
 */
void ostrel_make_files_obsolete(const char *dir, const char *pattern);

/* ---- Serving a database ---- */

#define OSTREL_AUTH_MAX 1023 /* bytes of an authorization's name, without its terminator */

/*
 * Serves an open database to other processes, which open `path` with ostrel_hatches_db_cmds. A caller needs the right
 * `read_auth` to read and `write_auth` to update (see chkrightattr_peercred()); NULL or an empty name lets everybody.
 * A request that leads elsewhere, by an object-db-name or object-db-enclave that isn't the handle's own, also needs the
 * right "ostrel.elsewhere". The handle's own enclave is taken out of a request. An update whose identifiers have no text
 * form, and so would leave no record, is OSTREL_INVALID_ARG but for root. A caller that may update may also remove the whole
 * database.
 *
 * The directory of the path is made if it isn't there, and gets mode 0755 and the owner 16:65 in any case; the file gets
 * mode 0644, and may be left over from an earlier server, even one that lives: its clients come here then. A path
 * without a directory means the current one.
 *
 * Owns:    *hatch_fd is the server; end it with ostrel_hatchserver_destroy(). Untouched on failure. The texts are
 *          copied. `db` stays the caller's, and open until then; a handle has one server at a time.
 * Errors:  OSTREL_INVALID_ARG  an argument but the rights is NULL or empty, the database's name is empty; or what is at
 *                              the path isn't a regular file with one name
 *          OSTREL_EPERM        the directory's owner can't be changed: serving needs privilege
 *          OSTREL_FAILURE      the file holds something that is no hatch
 *          OSTREL_NO_MEMORY
 *          OSTREL_NOT_FOUND    also: the directory is a link, in one that other users may write to
 *          what the file system says about the path
 *          `db` has the new rights also after a failure.
 * Threads: one for each handle. Calls are served on threads of the platform's, up to HATCH_THREADS_MAX at once.
 * Limits:  OSTREL_AUTH_MAX: a longer name is cut there. The directory is that of the first 1023 bytes of the path.
 */
ostrel_error_t ostrel_hatchserver_create(
    const char *path, const char *read_auth, const char *write_auth, ostrel_db_t db, int *hatch_fd);

/*
 * Ends a server: its clients' calls fail from now on, those that run have ended when this returns, and the file is
 * gone. With a hatch_fd of -1 it removes the file only.
 *
 * Owns:    takes hatch_fd back. The database stays open.
 * Errors:  none can be reported.
 * Threads: any, once.
 */
void ostrel_hatchserver_destroy(const char *path, int hatch_fd);

/* ---- Log ---- */

#define OSTREL_LOG_TEXT_MAX 1023 /* bytes of a message that ostrel_log() makes; what is longer is cut */

/*
 * Chooses where messages go: "msglog" (the message device, and syslog), "syslog" or "stderr". The type that was chosen
 * before is closed first; the chosen one is left as it is. A name that isn't one of the three, case counting, chooses
 * nothing. NULL does nothing.
 *
 * Until a type is chosen, each message looks for its name in the environment variable "OSTREL_LOG", and is dropped
 * without it.
 *
 * Errors:  none. A message device that can't be opened leaves the syslog half of "msglog".
 * Threads: any. Waits for messages on their way to the type that is closed, but not for those on standard error.
 */
void ostrel_log_open(const char *name);

/* Closes the chosen type. The next message looks for a type as if none had been chosen. Threads: as above. */
void ostrel_log_close(void);

/*
 * Writes one message. `priority` is one of syslog's. On the message device and on standard error it is a line of the
 * program's path, the priority as a number, and the text. A message is one record of the device, of fewer than 1024 bytes:
 * where that isn't enough, the path is shortened before the text is. errno stays as it was.
 *
 * Owns:    nothing is kept. The text isn't NULL.
 * Errors:  none; what can't be written is lost.
 * Threads: any. A message waits where its output does, a full pipe for instance, and holds up nothing else: no fork(),
 *          and no message in a child that is forked meanwhile. Handlers of pthread_atfork() may call all four operations.
 * Signals: a signal handler may call none of the four, unless it can't have interrupted one of them nor any function of
 *          the C library that isn't async-signal-safe: it would wait for what the interrupted thread holds.
 * Limits:  OSTREL_LOG_TEXT_MAX for ostrel_log(); ostrel_log_fmt() writes the text whole, but for the device's limit
 */
void ostrel_log(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));
void ostrel_log_fmt(int priority, const char *text);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
