/*
 * libostrel: one interface to the persistent configuration of network daemons, wherever it is kept.
 *
 * A caller opens a database by name, together with the table of a back end, and reads, writes, renames, removes and
 * walks objects. An object is a pair of attribute lists: the identifiers that single it out, and its properties.
 * The order of calls is open, then any operation from any thread, then close.
 */
#ifndef LIBOSTREL_H
#define LIBOSTREL_H

#include <stdint.h>
#include <sys/types.h>

#include <meridon/attrlist.h>
#include <meridon/enclave.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- Results ---- */

typedef enum ostrel_error MERIDON_ENUM32 {
	OSTREL_SUCCESS = 0,
	OSTREL_EPERM = 1,
	OSTREL_INVALID_ARG = 2,
	OSTREL_EXISTS = 3,
	OSTREL_NOT_FOUND = 4,
	OSTREL_WALK_HALTED = 5,
	OSTREL_NO_MEMORY = 6,
	OSTREL_FAILURE = 7,
	OSTREL_NOTSUP = 8,
	OSTREL_NEEDS_RETRY = 9
} ostrel_error_t;

const char *ostrel_strerror(ostrel_error_t err);
ostrel_error_t ostrel_errno2error(int err);
int ostrel_error2errno(ostrel_error_t err);

/* ---- Databases ---- */

typedef struct ostrel_db *ostrel_db_t;
typedef const struct ostrel_db_cmds *ostrel_db_cmds_t;

#define OSTREL_DB_NAME_MAX 1023 /* bytes of a database's name, without its terminator */

#define OSTREL_DB_CASE_SENSITIVE 0x2 /* at open: identifiers are compared with case */
#define OSTREL_FLAG_EXACT_MATCH 0x1  /* an operation: all identifiers must be the same, no more and no fewer */
#define OSTREL_FLAG_WITH_PROPS 0x2   /* an operation: objects come with their properties */
#define OSTREL_FLAG_TEMPORARY 0x4    /* what the repository creates isn't persistent */

extern ostrel_db_cmds_t ostrel_files_db_cmds;
extern ostrel_db_cmds_t ostrel_rawfiles_db_cmds;

typedef int ostrel_walkcb_t(ostrel_db_t db, attrlist_t *idl, attrlist_t *props, uint64_t flags, void *arg);
typedef int ostrel_sortcb_t(attrlist_t **a, attrlist_t **b);

ostrel_error_t ostrel_db_open(
    const char *name, enclaveid_t enclave, ostrel_db_cmds_t cmds, uint64_t flags, ostrel_db_t *dbp);
void ostrel_db_close(ostrel_db_t db);
ostrel_error_t ostrel_db_read(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t **objl);
ostrel_error_t ostrel_db_write(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *objl);
ostrel_error_t ostrel_db_rename(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *newidl);
ostrel_error_t ostrel_db_remove(ostrel_db_t db, attrlist_t *idl, uint64_t flags);
ostrel_error_t ostrel_db_walk(ostrel_db_t db, attrlist_t *idl, uint64_t flags, ostrel_walkcb_t *cb,
    ostrel_sortcb_t *sortcb, void *arg, int *cbret);
ostrel_error_t ostrel_db_get_object_props(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t **props);
ostrel_error_t ostrel_db_check_auth(ostrel_db_t db, boolean_t write);

/* ---- Identifier lists ---- */

#define OSTREL_IDSTR_SIZE 256 /* room for the text of an identifier list, with its terminator */

ostrel_error_t ostrel_idlist_init(attrlist_t **idlp, const char *db_name);
ostrel_error_t ostrel_idlist_add(attrlist_t *idl, const char *name, const char *value);
ostrel_error_t ostrel_idlist_add_enclaveid(attrlist_t *idl, enclaveid_t enclave);
ostrel_error_t ostrel_idlist_get(attrlist_t *idl, const char *name, char **valuep);
ostrel_error_t ostrel_idlist_get_enclaveid(attrlist_t *idl, enclaveid_t *enclavep);
ostrel_error_t ostrel_idlist_get_db_name(attrlist_t *idl, char **namep);
ostrel_error_t ostrel_idlist_remove(attrlist_t *idl, const char *name);
ostrel_error_t ostrel_idlist2idstr(attrlist_t *idl, char *buf);

/* ---- Objects ---- */

ostrel_error_t ostrel_object_create(attrlist_t *idl, attrlist_t *props, attrlist_t **objp);
ostrel_error_t ostrel_object_get(attrlist_t *obj, attrlist_t **idlp, attrlist_t **propsp);

int ostrel_atl_get_one_boolean(attrlist_t *list, const char *name, boolean_t *valuep);
int ostrel_atl_get_one_int32(attrlist_t *list, const char *name, int32_t *valuep);
int ostrel_atl_get_one_int64(attrlist_t *list, const char *name, int64_t *valuep);
int ostrel_atl_get_one_uint32(attrlist_t *list, const char *name, uint32_t *valuep);
int ostrel_atl_get_one_uint64(attrlist_t *list, const char *name, uint64_t *valuep);
int ostrel_atl_get_one_string(attrlist_t *list, const char *name, char **valuep);

int ostrel_atp_get_one_boolean(attrpair_t *pair, boolean_t *valuep);
int ostrel_atp_get_one_int32(attrpair_t *pair, int32_t *valuep);
int ostrel_atp_get_one_int64(attrpair_t *pair, int64_t *valuep);
int ostrel_atp_get_one_uint32(attrpair_t *pair, uint32_t *valuep);
int ostrel_atp_get_one_uint64(attrpair_t *pair, uint64_t *valuep);
int ostrel_atp_get_one_string(attrpair_t *pair, char **valuep);

int ostrel_atl_add_one_boolean(attrlist_t *list, const char *name, boolean_t value);
int ostrel_atl_add_one_int32(attrlist_t *list, const char *name, int32_t value);
int ostrel_atl_add_one_int64(attrlist_t *list, const char *name, int64_t value);
int ostrel_atl_add_one_uint32(attrlist_t *list, const char *name, uint32_t value);
int ostrel_atl_add_one_uint64(attrlist_t *list, const char *name, uint64_t value);
int ostrel_atl_add_one_string(attrlist_t *list, const char *name, const char *value);

/* ---- Text ---- */

char *ostrel_tokenize_by_unescaped_delim(char *str, char delim, char **next);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
