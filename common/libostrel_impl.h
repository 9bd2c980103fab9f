/*
 * What the sources of libostrel share and nobody else sees: the handle, the table of a back end, the helpers.
 */
#ifndef LIBOSTREL_IMPL_H
#define LIBOSTREL_IMPL_H

#include <cstdio>
#include <pthread.h>

#include "libostrel.h"

#define OSTREL_OBJECT_IDLIST "object-idlist"
#define OSTREL_OBJECT_PROPS "object-props"
#define OSTREL_OBJECT_COUNT "object-count"
#define OSTREL_OBJECT_LIST "object-list"
#define OSTREL_ID_DB_NAME "object-db-name"
#define OSTREL_ID_ID_STRING "object-id-string"
#define OSTREL_ID_ENCLAVE "object-db-enclave"
#define OSTREL_ID_RAWLINE "object-rawline"

// Results: raise where the library finds a failure, with file and line; forward unchanged afterwards.
ostrel_error_t ostrel_seterror_verbose(const char *file, int line, ostrel_error_t err);
#define SETERROR(err) ostrel_seterror_verbose(__FILE__, __LINE__, (err))
#define SETERRNO(err) ostrel_seterror_verbose(__FILE__, __LINE__, ostrel_errno2error(err))

typedef ostrel_error_t ostrel_opencmd_t(ostrel_db_t db);
typedef void ostrel_closecmd_t(ostrel_db_t db);
typedef ostrel_error_t ostrel_readcmd_t(
    ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t ***objs, unsigned int *count);
typedef ostrel_error_t ostrel_writecmd_t(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *props);
typedef ostrel_error_t ostrel_renamecmd_t(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *newidl);
typedef ostrel_error_t ostrel_removecmd_t(ostrel_db_t db, attrlist_t *idl, uint64_t flags);
typedef void ostrel_auditcmd_t(ostrel_db_t db, unsigned short event, attrlist_t *idl, ostrel_error_t result);
typedef ostrel_error_t ostrel_authcmd_t(ostrel_db_t db, boolean_t write);

// A back end. What an empty slot means stands at the dispatcher.
struct ostrel_db_cmds {
	ostrel_opencmd_t *dbc_open;
	ostrel_closecmd_t *dbc_close;
	ostrel_readcmd_t *dbc_read;
	ostrel_writecmd_t *dbc_write;
	ostrel_renamecmd_t *dbc_rename;
	ostrel_removecmd_t *dbc_remove;
	ostrel_auditcmd_t *dbc_audit;
	ostrel_authcmd_t *dbc_auth;
};

struct ostrel_db {
	char db_name[1024];
	uint64_t db_flags;
	enclaveid_t db_enclave;
	ostrel_db_cmds_t db_cmds;
	char db_read_auth[1024];
	char db_write_auth[1024];
	pthread_rwlock_t db_lock; // where both are held, db_lock comes before db_privlock
	pthread_mutex_t db_privlock;
	void *db_priv;
};

const char *ostrel_db_get_name(ostrel_db_t db);
ostrel_db_cmds_t ostrel_db_get_cmds(ostrel_db_t db);
uint64_t ostrel_db_get_flags(ostrel_db_t db);
enclaveid_t ostrel_db_get_enclaveid(ostrel_db_t db);
void *ostrel_db_get_priv(ostrel_db_t db);
void ostrel_db_set_priv(ostrel_db_t db, void *priv);
const char *ostrel_db_get_read_auth(ostrel_db_t db);
const char *ostrel_db_get_write_auth(ostrel_db_t db);
void ostrel_db_set_read_auth(ostrel_db_t db, const char *auth);
void ostrel_db_set_write_auth(ostrel_db_t db, const char *auth);
void ostrel_db_rdlock(ostrel_db_t db);
void ostrel_db_wrlock(ostrel_db_t db);
void ostrel_db_unlock(ostrel_db_t db);
void ostrel_db_lock_priv(ostrel_db_t db);
void ostrel_db_unlock_priv(ostrel_db_t db);

// Identifier lists
boolean_t ostrel_idlist_is_empty(attrlist_t *idl);
boolean_t ostrel_idlist_match(ostrel_db_t db, attrlist_t *idl, attrlist_t *objidl, boolean_t exact);

// Objects
ostrel_error_t ostrel_object_list_create(attrlist_t **objs, unsigned int count, attrlist_t **listp);
ostrel_error_t ostrel_object_list_get_objects(attrlist_t *list, attrlist_t ***objsp, unsigned int *countp);
char *ostrel_atl2str(attrlist_t *list, char *buf, size_t len);
ostrel_error_t grow_buf(void **bufp, int *countp, size_t size);
ostrel_error_t atl_add_entry_val(attrlist_t *dst, const char *name, attrlist_t *src);

// Flat files and raw files: the tables stand with the dispatcher, the operations in libostrel_files.cc
ostrel_readcmd_t ostrel_read_objects_from_file;
ostrel_readcmd_t ostrel_read_objects_from_rawfile;
ostrel_writecmd_t ostrel_write_object_to_file;
ostrel_renamecmd_t ostrel_rename_object_in_file;
ostrel_removecmd_t ostrel_remove_object_from_file;

// File operations in another enclave, in errno values
int ostrel_zopen(const char *path, int oflag, mode_t mode, enclaveid_t enclave, int *err);
FILE *ostrel_zfopen(const char *path, const char *mode, enclaveid_t enclave, int *err);
int ostrel_zrename(const char *from, const char *to, enclaveid_t enclave);
int ostrel_zunlink(const char *path, enclaveid_t enclave);

#endif
