/*
 * What the sources of libostrel share and nobody else sees: the handle, the table of a back end, the helpers.
 */
#ifndef LIBOSTREL_IMPL_H
#define LIBOSTREL_IMPL_H

#include <cstdio>
#include <cstdlib>

#include <meridon/peercred.h>
#include <meridon/trail.h>

#include "base/process_mark.h"
#include "base/thread_safety.h"
#include "libostrel.h"

#define OSTREL_OBJECT_IDLIST "object-idlist"
#define OSTREL_OBJECT_PROPS "object-props"
#define OSTREL_OBJECT_COUNT "object-count"
#define OSTREL_OBJECT_LIST "object-list"
#define OSTREL_ID_DB_NAME "object-db-name"
#define OSTREL_ID_ID_STRING "object-id-string"
#define OSTREL_ID_ENCLAVE "object-db-enclave"
#define OSTREL_ID_RAWLINE "object-rawline"

struct ostrel_error_info {
	ostrel_error_t error_code;
	const char *error_desc; // in English; ostrel_strerror() translates
};
#define OSTREL_ERROR_COUNT 10
extern const struct ostrel_error_info ostrel_errors[OSTREL_ERROR_COUNT];

// Results: raise where the library finds a failure, with file and line; forward unchanged afterwards.
ostrel_error_t ostrel_seterror_verbose(const char *file, int line, ostrel_error_t err);
#define SETERROR(err) ostrel_seterror_verbose(ostrel_source_name(__FILE__), __LINE__, (err))
#define SETERRNO(err) SETERROR(ostrel_errno2error(err))

// The name of a source without its folders, the same wherever and however it was compiled.
consteval const char *ostrel_source_name(const char *path)
{
	const char *name = path;
	for (; *path != '\0'; path++) {
		if (*path == '/')
			name = path + 1;
	}
	return name;
}

typedef ostrel_error_t ostrel_opencmd_t(ostrel_db_t db);
typedef void ostrel_closecmd_t(ostrel_db_t db);
typedef ostrel_error_t ostrel_readcmd_t(
    ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t ***objs, unsigned int *count);
typedef ostrel_error_t ostrel_writecmd_t(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *props);
typedef ostrel_error_t ostrel_renamecmd_t(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *newidl);
typedef ostrel_error_t ostrel_removecmd_t(ostrel_db_t db, attrlist_t *idl, uint64_t flags);
typedef void ostrel_auditcmd_t(ostrel_db_t db, unsigned short event, attrlist_t *idl, ostrel_error_t result);
typedef ostrel_error_t ostrel_authcmd_t(ostrel_db_t db, boolean_t write);
// Gets one object with its properties; anything but OSTREL_SUCCESS ends the visit. It may change the object, not free it.
typedef ostrel_error_t ostrel_visit_t(attrlist_t *object, void *arg);
typedef ostrel_error_t ostrel_visitcmd_t(
    ostrel_db_t db, attrlist_t *idl, uint64_t flags, ostrel_visit_t *visit, void *arg);
typedef bool ostrel_stayscmd_t(ostrel_db_t db, attrlist_t *idl);

// A back end: what it receives and must return, slot by slot. An empty slot (NULL) means what stands in brackets.
struct ostrel_db_cmds {
	// At the end of ostrel_db_open(), on a complete handle that the caller can't see yet, with no lock held. Makes
	// the private data. If it fails, the handle goes; what was allocated is to be released before. [nothing to do]
	ostrel_opencmd_t *dbc_open;
	// With db_lock held for writing; releases db_priv. The handle goes afterwards. [nothing to do, and no lock
	// taken]
	ostrel_closecmd_t *dbc_close;
	// With db_lock held for reading from ostrel_db_read(), with no lock from ostrel_db_walk() and a hatch server:
	// it must stand by itself beside updates in other threads. On success it has stored an array (malloc family;
	// NULL or valid if the count is 0) of objects made with ostrel_object_create(), which belong to the caller:
	// Objects below. On failure nobody looks at the two, and nothing is left behind. [OSTREL_INVALID_ARG]
	ostrel_readcmd_t *dbc_read;
	// These three with db_lock held for writing. They own no list. One that has to read through ostrel_db_read()
	// gives the lock up before and takes it again afterwards. OSTREL_NEEDS_RETRY: nothing was changed, and the same
	// call is to be repeated later. [OSTREL_INVALID_ARG: a database without them is read only]
	ostrel_writecmd_t *dbc_write;
	ostrel_renamecmd_t *dbc_rename;
	ostrel_removecmd_t *dbc_remove;
	// Right after each of these three, whatever it returned, under the same hold of the lock; the event is
	// TRL_ostrel_update for a write or a rename, with the old identifiers, TRL_ostrel_remove for a remove. [no record]
	ostrel_auditcmd_t *dbc_audit;
	// With no lock held; B_TRUE for an update. [OSTREL_SUCCESS without any test]
	ostrel_authcmd_t *dbc_auth;
	// For a walk in the store's order: as dbc_read with properties, but the objects are made one by one, so that
	// they needn't all be in memory. What can fail in the store has been done before the first visit, and the
	// objects are those of one moment. Gives what the visit gave. [dbc_read serves]
	ostrel_visitcmd_t *dbc_visit = nullptr;
	// For a hatch server, with no lock held: whether an operation with this list, which may be NULL, stays in the
	// handle's database, and goes to no other file, level, instance or enclave. What isn't certain doesn't stay.
	// [no list with one of the keys that choose these stays]
	ostrel_stayscmd_t *dbc_stays = nullptr;
};

// The handle. Nothing in it changes after open but db_priv, the authorization texts (set once, when a server is made)
// and the locks.
struct ostrel_db {
	char db_name[OSTREL_DB_NAME_MAX + 1];
	uint64_t db_flags;
	enclaveid_t db_enclave;
	ostrel_db_cmds_t db_cmds; // never NULL in an open handle
	char db_read_auth[1024];  // empty: none needed
	char db_write_auth[1024];
	RwLock db_lock ACQUIRED_BEFORE(db_privlock);
	Mutex db_privlock; // guards what lies behind db_priv
	void *db_priv;     // the back end's; NULL until it sets it
	// Whose locks these are: threads of a forked child's parent may have held them.
	ProcessMark db_lock_process;
	ProcessMark db_priv_process;
};

// With a NULL handle the first three give NULL, NULL and 0, and the privlock's two do nothing; the others need a
// handle.
const char *ostrel_db_get_name(ostrel_db_t db);
ostrel_db_cmds_t ostrel_db_get_cmds(ostrel_db_t db);
uint64_t ostrel_db_get_flags(ostrel_db_t db);
inline bool ostrel_is_case_sensitive(ostrel_db_t db)
{
	return (ostrel_db_get_flags(db) & OSTREL_DB_CASE_SENSITIVE) != 0;
}
enclaveid_t ostrel_db_get_enclaveid(ostrel_db_t db);
void *ostrel_db_get_priv(ostrel_db_t db);
void ostrel_db_set_priv(ostrel_db_t db, void *priv);
const char *ostrel_db_get_read_auth(ostrel_db_t db);
const char *ostrel_db_get_write_auth(ostrel_db_t db);
// A text is cut to 1023 bytes; NULL empties the field.
void ostrel_db_set_read_auth(ostrel_db_t db, const char *auth);
void ostrel_db_set_write_auth(ostrel_db_t db, const char *auth);
void ostrel_db_rdlock(ostrel_db_t db) ACQUIRE_SHARED(db->db_lock);
void ostrel_db_wrlock(ostrel_db_t db) ACQUIRE(db->db_lock);
void ostrel_db_unlock(ostrel_db_t db) RELEASE_GENERIC(db->db_lock);
// Whether this thread is inside ostrel_db_read() of that handle, and so has db_lock for reading.
bool ostrel_db_is_read_locked_here(ostrel_db_t db);
void ostrel_db_lock_priv(ostrel_db_t db) ACQUIRE(db->db_privlock);
void ostrel_db_unlock_priv(ostrel_db_t db) RELEASE(db->db_privlock);

// Whether the caller with this credential may read, or update, by the authorization text of the handle; a NULL handle
// and an empty text are open to everybody. Errors: OSTREL_EPERM  no, or an unknown user; what the user database failed
// with
ostrel_error_t ostrel_db_check_read_auth(ostrel_db_t db, const peercred_t *cred);
ostrel_error_t ostrel_db_check_write_auth(ostrel_db_t db, const peercred_t *cred);
// Whether it may leave the served database as well. The same errors.
ostrel_error_t ostrel_check_elsewhere_auth(const peercred_t *cred);

// For the analysis: what takes the handle's lock isn't called by who holds it, since the lock isn't recursive.
extern "C" {
ostrel_error_t ostrel_db_read(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t **objl) EXCLUDES(db->db_lock);
ostrel_error_t ostrel_db_write(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *objl) EXCLUDES(db->db_lock);
ostrel_error_t ostrel_db_rename(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *newidl)
    EXCLUDES(db->db_lock);
ostrel_error_t ostrel_db_remove(ostrel_db_t db, attrlist_t *idl, uint64_t flags) EXCLUDES(db->db_lock);
}

// Identifier lists
// True for NULL, and for a list of nothing but object-db-name and object-id-string.
boolean_t ostrel_idlist_is_empty(attrlist_t *idl);
// Whether the search list `idl` selects an object with the identifiers `objidl`. Values are compared with case if the
// handle was opened so. Without `exact` it is a subset test, in which an empty value matches any; with it, both lists
// have the same keys with the same values, in any order. What can't be compared isn't selected.
boolean_t ostrel_idlist_match(ostrel_db_t db, attrlist_t *idl, attrlist_t *objidl, boolean_t exact);
// Whether it has a text form, which a record needs.
bool ostrel_idlist_has_text(attrlist_t *idl);
// The dbc_stays of a back end for which the name and the enclave of the handle, to the letter, are its own database.
ostrel_stayscmd_t ostrel_idlist_stays;
// Whether a list has a key that chooses a file, level, instance or enclave, whatever its value.
bool ostrel_idlist_chooses(attrlist_t *idl);

// Objects
// Gives the two lists that lie in an object, in place, nothing copied. Errors: OSTREL_NOT_FOUND  one of the two is
// missing
ostrel_error_t ostrel_object_look(attrlist_t *obj, attrlist_t **idlp, attrlist_t **propsp);
// Packs an array of objects into one list. Owns: objects are copied; *listp is new, NULL on failure.
ostrel_error_t ostrel_object_list_create(attrlist_t **objs, unsigned int count, attrlist_t **listp);
// Takes the objects out again. Owns: *objsp is a new array (malloc family) of copies, never NULL; `objsp` may be NULL
// if only the count is wanted. Errors: OSTREL_NOT_FOUND  no objects in the list
ostrel_error_t ostrel_object_list_get_objects(attrlist_t *list, attrlist_t ***objsp, unsigned int *countp);
// One line of text, "name=value,value;" for each pair, cut where `buf` ends. Arrays of 64-bit integers, strings and
// booleans have a value text (at most 511 bytes), all else is shown by name. Gives `buf`.
char *ostrel_atl2str(attrlist_t *list, char *buf, size_t len);
// Doubles a heap array of *countp elements of `size` bytes; the new half isn't zeroed. *countp is at least 1.
// Errors: OSTREL_NO_MEMORY  nothing changed, the old array stays valid
ostrel_error_t grow_buf(void **bufp, int *countp, size_t size);
// Replaces the pair `name` of `dst`, or adds it, by the copy of the one in `src`.
ostrel_error_t atl_add_entry_val(attrlist_t *dst, const char *name, attrlist_t *src);

// Owns an array of objects in the form in which dbc_read gives it.
class Objects {
public:
	Objects() = default;
	Objects(const Objects &) = delete;
	Objects &operator=(const Objects &) = delete;
	~Objects()
	{
		// A call that failed may have stored its count ahead of the array.
		for (unsigned int i = 0; objs_ != nullptr && i < count_; i++)
			attrlist_free(objs_[i]);
		free(objs_);
	}

	unsigned int count() const { return count_; }
	attrlist_t *&operator[](unsigned int i) { return objs_[i]; }
	// `count` empty places, in a valid array also for 0; false if memory ran out.
	bool alloc(unsigned int count)
	{
		objs_ = static_cast<attrlist_t **>(calloc(count > 0 ? count : 1, sizeof(attrlist_t *)));
		count_ = objs_ != nullptr ? count : 0;
		return objs_ != nullptr;
	}
	// For dbc_read; after its failure forget() what it may have left there.
	attrlist_t ***out() { return &objs_; }
	unsigned int *out_count() { return &count_; }
	void forget()
	{
		objs_ = nullptr;
		count_ = 0;
	}
	// Frees one object ahead of the others.
	void drop(unsigned int i)
	{
		attrlist_free(objs_[i]);
		objs_[i] = nullptr;
	}
	// Gives the array up, with all that is in it.
	attrlist_t **release()
	{
		attrlist_t **objs = objs_;
		forget();
		return objs;
	}

private:
	attrlist_t **objs_ = nullptr;
	unsigned int count_ = 0;
};

// Leaves a record of an update in the audit trail, under the ids of the client that the calling thread serves, or else of
// the process: what was updated, and whether it worked. It has no result: what goes wrong costs the record, silently.
ostrel_auditcmd_t ostrel_audit;

// Flat files and raw files: the tables stand with the dispatcher, the operations in libostrel_files.cc
ostrel_readcmd_t ostrel_read_objects_from_file;
ostrel_readcmd_t ostrel_read_objects_from_rawfile;
ostrel_writecmd_t ostrel_write_object_to_file;
ostrel_renamecmd_t ostrel_rename_object_in_file;
ostrel_removecmd_t ostrel_remove_object_from_file;
ostrel_visitcmd_t ostrel_visit_objects_of_file;

// Hatches: as above, in libostrel_hatches.cc
ostrel_opencmd_t ostrel_hatch_db_open;
ostrel_closecmd_t ostrel_hatch_db_close;
ostrel_readcmd_t ostrel_read_objects_from_hatch;
ostrel_writecmd_t ostrel_write_object_to_hatch;
ostrel_renamecmd_t ostrel_rename_object_in_hatch;
ostrel_removecmd_t ostrel_remove_object_from_hatch;
ostrel_authcmd_t ostrel_hatch_check_auth;

// File operations in another enclave, in errno values
int ostrel_zopen(const char *path, int oflag, mode_t mode, enclaveid_t enclave, int *err);
FILE *ostrel_zfopen(const char *path, const char *mode, enclaveid_t enclave, int *err);
int ostrel_zrename(const char *from, const char *to, enclaveid_t enclave);
int ostrel_zunlink(const char *path, enclaveid_t enclave);

// Deferred updates. The first two are never deferred.
typedef enum ostrel_op MERIDON_ENUM32 {
	OSTREL_OP_READ = 0,
	OSTREL_OP_WALK = 1,
	OSTREL_OP_WRITE = 2,
	OSTREL_OP_RENAME = 3,
	OSTREL_OP_REMOVE = 4
} ostrel_op_t;

// What a deferred update carries; it belongs to the update's thread.
typedef struct ostrel_update_arg {
	ostrel_op_t nua_op;
	ostrel_db_t nua_db; // a plain pointer: the database stays open until the update has ended
	attrlist_t *nua_idl;
	uint64_t nua_flags;
	attrlist_t *nua_objl; // properties of a write, new identifiers of a rename, NULL for a remove
} ostrel_update_arg_t;

// Hands an update to a thread of its own, which tries it at once and then once a second, 100 times at most. Called with
// no lock held. Owns: the lists are copied. Errors: OSTREL_NEEDS_RETRY  the caller is such a thread itself, whose loop
// goes on; what copying a list or making a thread gave; OSTREL_INVALID_ARG  `idl` is NULL
ostrel_error_t ostrel_create_update_thread(
    ostrel_op_t op, ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *objl);
// Starts a detached thread that takes no signals: those are for the caller's threads. It has its name, where there is a
// /proc, before this comes back. 0 or an errno value.
int ostrel_start_thread(void *(*run)(void *), void *arg, const char *name);
// The thread's function; `arg` is an ostrel_update_arg_t, which it frees.
void *ostrel_update_thread(void *arg);

#endif
