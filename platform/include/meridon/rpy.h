/*
 * The service repository: the configuration of a host's services, kept by the repository daemon.
 *
 * A scope holds services, a service holds instances. Services and instances hold property groups, and groups hold
 * groups; a group has a name, a type and properties, a property a name, a type and values of it. An instance has
 * snapshots, which are frozen copies of its persistent groups.
 *
 * Rules that hold for every call below, unless its comment says otherwise:
 *   Status:  0, or -1 with rpy_error(). Lengths: -1 on failure. Steps of an iterator: 1 for an item, 0 at the end, -1 on
 *            failure. Creating calls: NULL on failure.
 *   Errors:  rpy_error() tells why the last failing call of this thread failed; a success leaves it alone. A call that
 *            needs the daemon fails with
 *            RPY_ERROR_NOT_BOUND          the handle isn't bound
 *            RPY_ERROR_CONNECTION_BROKEN  the daemon that the handle was bound to has gone, or hasn't answered for 60 s;
 *                                         a daemon that came after it is reached by a new bind alone. A change may be
 *                                         carried out all the same: _rpy_is_open() tells
 *            RPY_ERROR_INTERNAL           the daemon doesn't speak as one, or couldn't do it
 *            RPY_ERROR_NO_RESOURCES       descriptors have run out, or the answer is larger than any may be: 264 MiB, a
 *                                         listing a sixteenth of the memory that the process may have
 *            RPY_ERROR_NO_MEMORY, RPY_ERROR_PERMISSION_DENIED
 *            and, where something is changed,
 *            RPY_ERROR_BACKEND_READONLY   the store can't be written at present
 *            RPY_ERROR_NO_RESOURCES       the disk is full
 *            Objects that a failing call would have filled are as they were. An empty object where a filled one is
 *            needed is RPY_ERROR_NOT_SET, objects of two handles RPY_ERROR_HANDLE_MISMATCH, a NULL or a bad text
 *            RPY_ERROR_INVALID_ARGUMENT.
 *   Owns:    objects are the caller's, are empty when created, can be filled again and again, and go with their destroy
 *            call, which takes NULL. They must go before their handle. Texts and buffers stay the caller's.
 *   Threads: several threads may use one handle at once, each with objects of its own; an object that nobody fills or
 *            destroys may be read by all. Binding, unbinding and destroying a handle exclude all other use of it.
 *   Cancel:  none of them is a cancellation point.
 *   Signals: none of them makes a call fail or leaves its fate open, whether its handler restarts calls or not; nor does
 *            a stop, a freezer or a debugger. The wait goes on to the same end; after a stop beyond it, for a second more.
 *   Forks:   a handle may be used on both sides, also by a child that no handler of pthread_atfork() ran in, or that is
 *            in another namespace of process ids.
 */
#ifndef MERIDON_RPY_H
#define MERIDON_RPY_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <meridon/attrlist.h> /* MERIDON_ENUM32 */

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

#define RPY_CLIENT_VERSION 1
#define RPY_NAME_MAX 256 /* bytes of a name or type, its NUL included; they have no '/' */
#define RPY_SCOPE_LOCAL "localhost"
#define RPY_PG_FLAG_TEMPORARY 1U /* the group lives as long as the daemon, and is in no snapshot */
#define RPY_BATCH_MAX 1024       /* conditions of a batch, and steps */
#define RPY_CALL_SECONDS 60      /* how long a call of the daemon may take, in all */

typedef enum rpy_error MERIDON_ENUM32 {
	RPY_ERROR_NONE = 1000,
	RPY_ERROR_NOT_BOUND = 1001,
	RPY_ERROR_NOT_SET = 1002,
	RPY_ERROR_NOT_FOUND = 1003,
	RPY_ERROR_TYPE_MISMATCH = 1004,
	RPY_ERROR_IN_USE = 1005,
	RPY_ERROR_CONNECTION_BROKEN = 1006,
	RPY_ERROR_INVALID_ARGUMENT = 1007,
	RPY_ERROR_NO_MEMORY = 1008,
	RPY_ERROR_CONSTRAINT_VIOLATED = 1009,
	RPY_ERROR_EXISTS = 1010,
	RPY_ERROR_NO_SERVER = 1011,
	RPY_ERROR_NO_RESOURCES = 1012,
	RPY_ERROR_PERMISSION_DENIED = 1013,
	RPY_ERROR_BACKEND_ACCESS = 1014,
	RPY_ERROR_HANDLE_MISMATCH = 1015,
	RPY_ERROR_HANDLE_DESTROYED = 1016,
	RPY_ERROR_VERSION_MISMATCH = 1017,
	RPY_ERROR_BACKEND_READONLY = 1018,
	RPY_ERROR_DELETED = 1019,
	RPY_ERROR_TEMPLATE_INVALID = 1020,
	RPY_ERROR_CONFLICT = 1021,
	RPY_ERROR_CALLBACK_FAILED = 1080,
	RPY_ERROR_INTERNAL = 1101
} rpy_error_t;

typedef enum rpy_type MERIDON_ENUM32 {
	RPY_TYPE_INVALID = 0,
	RPY_TYPE_BOOLEAN = 1,
	RPY_TYPE_COUNT = 2,   /* unsigned, 64 bits */
	RPY_TYPE_INTEGER = 3, /* signed, 64 bits */
	RPY_TYPE_TIME = 4,    /* this and all that follow are kept as texts; only an opaque value may hold a NUL */
	RPY_TYPE_ASTRING = 5,
	RPY_TYPE_OPAQUE = 6,
	RPY_TYPE_USTRING = 100,
	RPY_TYPE_URI = 200,
	RPY_TYPE_LOCATOR = 201,
	RPY_TYPE_HOST = 300,
	RPY_TYPE_HOSTNAME = 301,
	RPY_TYPE_NET_ADDR_V4 = 302,
	RPY_TYPE_NET_ADDR_V6 = 303,
	RPY_TYPE_NET_ADDR = 304
} rpy_type_t;

typedef struct rpy_handle rpy_handle_t;
typedef struct rpy_scope rpy_scope_t;
typedef struct rpy_service rpy_service_t;
typedef struct rpy_instance rpy_instance_t;
typedef struct rpy_snapshot rpy_snapshot_t;
typedef struct rpy_propertygroup rpy_propertygroup_t;
typedef struct rpy_property rpy_property_t;
typedef struct rpy_value rpy_value_t;
typedef struct rpy_iter rpy_iter_t;
typedef struct rpy_transaction rpy_transaction_t;
typedef struct rpy_transaction_entry rpy_transaction_entry_t;
typedef struct rpy_batch rpy_batch_t;

/* Why the last failing call of this thread failed; RPY_ERROR_NONE before any did. */
rpy_error_t rpy_error(void);
/* 1 if what that call asked for may be carried out all the same, now or later: it was sent, and no answer came. */
int _rpy_is_open(void);
/*
 * 1 if the daemon that the handle was bound to is known to have ended, so that nothing is carried out any more that it was
 * asked for. Waits up to 5 s for one that has given up its hatch.
 */
int _rpy_daemon_has_ended(const rpy_handle_t *handle);
/* A number for a change of several steps, which nobody else draws; 0 if none can be had. */
uint64_t _rpy_new_change(void);
/* The groups that are made, and the commits, over this handle are part of that change from now on; 0: of none. Not beside them. */
void _rpy_handle_set_change(rpy_handle_t *handle, uint64_t change);

/* A short text for an error number, also for one that is none. Static; never NULL. */
const char *rpy_strerror(rpy_error_t error);

/* ---- Handles ---- */

/* A new, unbound handle. Errors: RPY_ERROR_VERSION_MISMATCH, RPY_ERROR_NO_MEMORY */
rpy_handle_t *rpy_handle_create(uint32_t version);
void rpy_handle_destroy(rpy_handle_t *handle);

/*
 * Decorates a handle for its next binds. A later decoration replaces an earlier one, a NULL value takes it back.
 *   "hatch_path"  a text: the path of the daemon's hatch, at most 1023 bytes
 *   "enclave"     a count: the id of the enclave whose root the path begins with. It is opened nowhere but there.
 * Errors: RPY_ERROR_INVALID_ARGUMENT, RPY_ERROR_TYPE_MISMATCH, RPY_ERROR_IN_USE if the handle is bound, RPY_ERROR_NO_MEMORY
 */
int rpy_handle_decorate(rpy_handle_t *handle, const char *name, rpy_value_t *value);

/*
 * Binds a handle to the daemon behind its hatch: the decorated path, or the repository of the enclave that the process
 * is in. A path below the root of a registered enclave is resolved inside that root, whatever links lie on it; a caller
 * that knows the enclave says so by a decoration, since the registry may change meanwhile. After a failure it can be tried again.
 * Errors: RPY_ERROR_NO_SERVER        no daemon serves there, or the decorated enclave isn't there
 *         RPY_ERROR_IN_USE           bound already
 *         RPY_ERROR_PERMISSION_DENIED, RPY_ERROR_NO_RESOURCES, RPY_ERROR_NO_MEMORY
 */
int rpy_handle_bind(rpy_handle_t *handle);

/* Drops the connection. Objects stay, and need a new bind for what needs the daemon. Errors: RPY_ERROR_NOT_BOUND */
int rpy_handle_unbind(rpy_handle_t *handle);

/*
 * Fills the scope of that name; "localhost" is the only one. Tells whether the daemon is still there, without a call: a
 * daemon that is there and doesn't answer is found out by the next call.
 * Errors: RPY_ERROR_NOT_FOUND
 */
int rpy_handle_get_scope(rpy_handle_t *handle, const char *name, rpy_scope_t *scope);

/*
 * Splits a locator, `name[/name...]` or `name[/name...]:instance`, in place. The outs may be NULL; *instance is NULL if
 * the locator has no instance part. They point into `locator`.
 * Errors: RPY_ERROR_INVALID_ARGUMENT
 */
int rpy_parse_svc_locator(char *locator, const char **service, const char **instance);

/*
 * Looks a locator up, and fills those of the objects that are given and that it names. `flags` is 0; no locator names a
 * group or a property. Fills all or none.
 * Errors: RPY_ERROR_NOT_FOUND, RPY_ERROR_INVALID_ARGUMENT
 */
int rpy_handle_decode_locator(rpy_handle_t *handle, const char *locator, rpy_scope_t *scope, rpy_service_t *service,
    rpy_instance_t *instance, rpy_propertygroup_t *group, rpy_property_t *property, uint32_t flags);

/* New, empty objects. Errors: RPY_ERROR_NO_MEMORY, RPY_ERROR_INVALID_ARGUMENT */
rpy_scope_t *rpy_scope_create(rpy_handle_t *handle);
rpy_service_t *rpy_service_create(rpy_handle_t *handle);
rpy_instance_t *rpy_instance_create(rpy_handle_t *handle);
rpy_snapshot_t *rpy_snapshot_create(rpy_handle_t *handle);
rpy_propertygroup_t *rpy_pg_create(rpy_handle_t *handle);
rpy_property_t *rpy_property_create(rpy_handle_t *handle);
rpy_value_t *rpy_value_create(rpy_handle_t *handle);
rpy_iter_t *rpy_iter_create(rpy_handle_t *handle);
rpy_transaction_t *rpy_transaction_create(rpy_handle_t *handle);
rpy_transaction_entry_t *rpy_entry_create(rpy_handle_t *handle);

void rpy_scope_destroy(rpy_scope_t *scope);
void rpy_service_destroy(rpy_service_t *service);
void rpy_instance_destroy(rpy_instance_t *instance);
void rpy_snapshot_destroy(rpy_snapshot_t *snapshot);
void rpy_pg_destroy(rpy_propertygroup_t *pg);
void rpy_property_destroy(rpy_property_t *property);
void rpy_value_destroy(rpy_value_t *value);
void rpy_iter_destroy(rpy_iter_t *iter);
void rpy_transaction_destroy(rpy_transaction_t *transaction); /* its entries stay, detached */

/* ---- Services, instances, snapshots ---- */

/* Names, as rpy_pg_get_name(). */
ssize_t rpy_service_get_name(const rpy_service_t *service, char *buffer, size_t size);
ssize_t rpy_instance_get_name(const rpy_instance_t *instance, char *buffer, size_t size);
ssize_t rpy_snapshot_get_name(const rpy_snapshot_t *snapshot, char *buffer, size_t size);

/* Errors: RPY_ERROR_EXISTS, RPY_ERROR_DELETED if the service has gone */
int rpy_scope_add_service(rpy_scope_t *scope, const char *name, rpy_service_t *service);
int rpy_service_add_instance(rpy_service_t *service, const char *name, rpy_instance_t *instance);

/* Deletes a service or an instance. With `all` 0 one that holds instances, groups or snapshots is RPY_ERROR_IN_USE. */
int _rpy_service_delete(rpy_service_t *service, int all);
int _rpy_instance_delete(rpy_instance_t *instance, int all);

/* Listings in the order in which things were made, complete before the call gives 0. Errors: RPY_ERROR_NO_RESOURCES */
int rpy_iter_scope_services(rpy_iter_t *iter, const rpy_scope_t *scope);
int rpy_iter_service_instances(rpy_iter_t *iter, const rpy_service_t *service);
int rpy_iter_instance_snapshots(rpy_iter_t *iter, const rpy_instance_t *instance);
int rpy_iter_next_service(rpy_iter_t *iter, rpy_service_t *service);
int rpy_iter_next_instance(rpy_iter_t *iter, rpy_instance_t *instance);
int rpy_iter_next_snapshot(rpy_iter_t *iter, rpy_snapshot_t *snapshot);

/* Errors: RPY_ERROR_NOT_FOUND */
int rpy_instance_get_snapshot(const rpy_instance_t *instance, const char *name, rpy_snapshot_t *snapshot);

/* Makes a snapshot of the instance's present persistent groups. Errors: RPY_ERROR_EXISTS, RPY_ERROR_DELETED */
int _rpy_snapshot_take_new(const rpy_instance_t *instance, const char *name, rpy_snapshot_t *snapshot);

/*
 * Makes a filled snapshot of the instance hold its present persistent groups.
 * Errors: RPY_ERROR_INVALID_ARGUMENT  it is another instance's
 *         RPY_ERROR_DELETED
 */
int _rpy_snapshot_take_attach(const rpy_instance_t *instance, rpy_snapshot_t *snapshot);

/* Makes the instance hold what the snapshot holds: its persistent groups are made again. Errors: RPY_ERROR_DELETED */
int _rpy_snapshot_revert(rpy_snapshot_t *snapshot);
int _rpy_snapshot_delete(rpy_snapshot_t *snapshot);

/* ---- Property groups ---- */

/*
 * Fill `pg` with the group of that name, with case, directly below the given thing.
 * Errors: RPY_ERROR_NOT_FOUND, RPY_ERROR_DELETED if what it hangs below has gone
 */
int rpy_service_get_pg(const rpy_service_t *service, const char *name, rpy_propertygroup_t *pg);
int rpy_instance_get_pg(const rpy_instance_t *instance, const char *name, rpy_propertygroup_t *pg);
int rpy_snapshot_get_pg(const rpy_snapshot_t *snapshot, const char *name, rpy_propertygroup_t *pg);
int rpy_pg_get_pg(const rpy_propertygroup_t *parent, const char *name, rpy_propertygroup_t *pg);

/*
 * Create a group, without properties, and fill `pg` with it. `flags` is 0 or RPY_PG_FLAG_TEMPORARY. `pg` may be `parent`.
 * After a failure the group isn't there, or goes as soon as the daemon has made it; it stays only if the daemon goes away in
 * between, or if somebody has put something into it.
 * Errors: RPY_ERROR_EXISTS
 *         RPY_ERROR_CONSTRAINT_VIOLATED  a persistent group below a temporary one; anything in a snapshot
 *         RPY_ERROR_DELETED              what it would hang below has gone
 */
int rpy_service_add_pg(
    rpy_service_t *service, const char *name, const char *type, uint32_t flags, rpy_propertygroup_t *pg);
int rpy_instance_add_pg(
    rpy_instance_t *instance, const char *name, const char *type, uint32_t flags, rpy_propertygroup_t *pg);
int rpy_pg_add_pg(
    rpy_propertygroup_t *parent, const char *name, const char *type, uint32_t flags, rpy_propertygroup_t *pg);

/*
 * Copy a name or type into a buffer of `size` bytes, cut to fit and with a NUL, and give its whole length. A NULL buffer
 * of size 0 asks for the length alone.
 */
ssize_t rpy_pg_get_name(const rpy_propertygroup_t *pg, char *buffer, size_t size);
ssize_t rpy_pg_get_type(const rpy_propertygroup_t *pg, char *buffer, size_t size);
int rpy_pg_get_flags(const rpy_propertygroup_t *pg, uint32_t *flags);
/* How many bytes its properties take, about, or -1. */
ssize_t _rpy_pg_get_bytes(const rpy_propertygroup_t *pg);

/*
 * Brings a group object to the group's latest version: 1 if there was a newer one, 0 if not.
 * Errors: RPY_ERROR_DELETED  the group has gone, also if one of its name was made since
 */
int rpy_pg_update(rpy_propertygroup_t *pg);

/* Deletes a group and the groups below it. Errors: RPY_ERROR_DELETED, RPY_ERROR_CONSTRAINT_VIOLATED in a snapshot */
int rpy_pg_delete(rpy_propertygroup_t *pg);

/*
 * The same, but only if all of them were made, and last changed, as part of this change: what others have made or committed
 * there since is theirs. The daemon knows that as long as it runs.
 * Errors: RPY_ERROR_IN_USE if others were there, RPY_ERROR_NOT_FOUND if it has gone; as above
 */
int _rpy_pg_withdraw(rpy_propertygroup_t *pg, uint64_t change);

/*
 * Set the iterator before the first group directly below the given thing: those that are kept in the order in which they
 * were made, then the temporary ones. The listing is complete, with all properties, before the call gives 0, so that a step doesn't fail because a daemon died.
 * Errors: RPY_ERROR_DELETED
 */
int rpy_iter_service_pgs(rpy_iter_t *iter, const rpy_service_t *service);
int rpy_iter_instance_pgs(rpy_iter_t *iter, const rpy_instance_t *instance);
int rpy_iter_snapshot_pgs(rpy_iter_t *iter, const rpy_snapshot_t *snapshot);
int rpy_iter_pg_pgs(rpy_iter_t *iter, const rpy_propertygroup_t *pg);

/*
 * The same, of those groups alone that fit: `name` is compared without regard to case (of ASCII), `type` with case, and a
 * '*' in it stands for any end. At most one of them is given.
 */
int _rpy_iter_service_pgs_like(rpy_iter_t *iter, const rpy_service_t *service, const char *name, const char *type);
int _rpy_iter_instance_pgs_like(rpy_iter_t *iter, const rpy_instance_t *instance, const char *name, const char *type);
int _rpy_iter_pg_pgs_like(rpy_iter_t *iter, const rpy_propertygroup_t *pg, const char *name, const char *type);

/* Errors: RPY_ERROR_NOT_SET if the iterator wasn't set for groups */
int rpy_iter_next_pg(rpy_iter_t *iter, rpy_propertygroup_t *pg);

/* ---- Properties and values: of the version that the group object holds, without asking the daemon ---- */

/* Errors: RPY_ERROR_NOT_FOUND */
int rpy_pg_get_property(const rpy_propertygroup_t *pg, const char *name, rpy_property_t *property);
int rpy_iter_pg_properties(rpy_iter_t *iter, const rpy_propertygroup_t *pg);
int rpy_iter_next_property(rpy_iter_t *iter, rpy_property_t *property);

/* As rpy_pg_get_name(). */
ssize_t rpy_property_get_name(const rpy_property_t *property, char *buffer, size_t size);
int rpy_property_type(const rpy_property_t *property, rpy_type_t *type);

/* The one value. Errors: RPY_ERROR_NOT_FOUND if there is none, RPY_ERROR_CONSTRAINT_VIOLATED if there are several */
int rpy_property_get_value(const rpy_property_t *property, rpy_value_t *value);
int rpy_iter_property_values(rpy_iter_t *iter, const rpy_property_t *property);
int rpy_iter_next_value(rpy_iter_t *iter, rpy_value_t *value);

/* Errors: RPY_ERROR_NOT_SET, RPY_ERROR_TYPE_MISMATCH if the value has another type */
int rpy_value_type(const rpy_value_t *value, rpy_type_t *type);
int rpy_value_get_boolean(const rpy_value_t *value, uint8_t *byte);
int rpy_value_get_count(const rpy_value_t *value, uint64_t *number);
int rpy_value_get_integer(const rpy_value_t *value, int64_t *number);
ssize_t rpy_value_get_astring(const rpy_value_t *value, char *buffer, size_t size); /* as rpy_pg_get_name() */
/* The bytes of a value that isn't a number: their length, and as many of them as fit; no NUL after them. */
ssize_t rpy_value_get_bytes(const rpy_value_t *value, void *buffer, size_t size);

/* They can't fail; a byte other than 0 is true. */
void rpy_value_set_boolean(rpy_value_t *value, uint8_t byte);
void rpy_value_set_count(rpy_value_t *value, uint64_t number);
void rpy_value_set_integer(rpy_value_t *value, int64_t number);
/* Errors: RPY_ERROR_INVALID_ARGUMENT, RPY_ERROR_NO_MEMORY */
int rpy_value_set_astring(rpy_value_t *value, const char *text);
int rpy_value_set_bytes(rpy_value_t *value, rpy_type_t type, const void *bytes, size_t size);
/* Sets a value of any type from text: "true" or "1" and "false" or "0", decimal numbers, else the text itself. */
int rpy_value_set_from_string(rpy_value_t *value, rpy_type_t type, const char *text);

/* ---- Transactions ---- */

/* Empties a transaction: its entries are detached and stay the caller's, unless it frees them. */
int rpy_transaction_reset(rpy_transaction_t *transaction);
/* Frees all entries of a transaction with their values. Takes NULL. */
void rpy_transaction_destroy_children(rpy_transaction_t *transaction);

/* Starts a transaction on the version that the group object holds. Errors: RPY_ERROR_IN_USE if it was started before */
int rpy_transaction_start(rpy_transaction_t *transaction, const rpy_propertygroup_t *pg);

/*
 * Attach an entry that creates, changes or deletes a property.
 * Errors: RPY_ERROR_EXISTS, RPY_ERROR_NOT_FOUND  of the version at the start
 *         RPY_ERROR_TYPE_MISMATCH                a change to another type
 *         RPY_ERROR_IN_USE                       an entry for this property, or the entry, is attached already
 *         RPY_ERROR_NOT_SET                      the transaction wasn't started
 */
int rpy_transaction_property_new(
    rpy_transaction_t *transaction, rpy_transaction_entry_t *entry, const char *name, rpy_type_t type);
int rpy_transaction_property_change(
    rpy_transaction_t *transaction, rpy_transaction_entry_t *entry, const char *name, rpy_type_t type);
int rpy_transaction_property_delete(rpy_transaction_t *transaction, rpy_transaction_entry_t *entry, const char *name);

/* Adds a value; the entry owns it then. Errors: RPY_ERROR_TYPE_MISMATCH, RPY_ERROR_IN_USE if another entry owns it */
int rpy_entry_add_value(rpy_transaction_entry_t *entry, rpy_value_t *value);
void rpy_entry_destroy_children(rpy_transaction_entry_t *entry); /* frees its values; takes NULL */
void rpy_entry_destroy(rpy_transaction_entry_t *entry);          /* detaches it first; its values stay */

/*
 * Commits: 1 if all entries took effect at once and are durable (of a temporary group: are there), 0 if the group has
 * another version by now and nothing took effect, -1 on failure.
 * Errors: RPY_ERROR_DELETED, RPY_ERROR_NOT_SET if it wasn't started, and those of every change
 */
int rpy_transaction_commit(rpy_transaction_t *transaction);

/*
 * Starts a transaction on a group that isn't there yet and has no properties: for rpy_batch_commit_new().
 * Errors: RPY_ERROR_IN_USE if it was started before
 */
int rpy_transaction_start_new(rpy_transaction_t *transaction);

/* ---- Batches ---- */

/*
 * A batch is several updates in one: conditions, and steps that are carried out in their order if all conditions hold, all of
 * them or none. Nobody sees a part of it, and all of it is durable at once. Each step is what the call of its own is, with its
 * rules; it meets the repository as the steps before it leave it.
 *
 * A new batch is empty; what is put into it is copied. Each call that puts something in fails with
 *         RPY_ERROR_NO_RESOURCES  there are RPY_BATCH_MAX of its kind
 *         RPY_ERROR_CONSTRAINT_VIOLATED  a group of a snapshot
 */
rpy_batch_t *rpy_batch_create(rpy_handle_t *handle);
void rpy_batch_destroy(rpy_batch_t *batch);
int rpy_batch_reset(rpy_batch_t *batch); /* makes it empty */

/* Conditions: the group is there and has the version that `pg` holds; there is no group of that name directly below a thing. */
int rpy_batch_expect_version(rpy_batch_t *batch, const rpy_propertygroup_t *pg);
int rpy_batch_expect_absent_in_service(rpy_batch_t *batch, const rpy_service_t *service, const char *name);
int rpy_batch_expect_absent_in_instance(rpy_batch_t *batch, const rpy_instance_t *instance, const char *name);
int rpy_batch_expect_absent_in_pg(rpy_batch_t *batch, const rpy_propertygroup_t *pg, const char *name);

/*
 * Steps. Each call gives the step's number, from 0 on. By it other steps name the group that it adds: the last call adds a group
 * below that of an earlier step. Errors: RPY_ERROR_NOT_FOUND if that step adds none
 */
int rpy_batch_service_add_pg(
    rpy_batch_t *batch, const rpy_service_t *service, const char *name, const char *type, uint32_t flags);
int rpy_batch_instance_add_pg(
    rpy_batch_t *batch, const rpy_instance_t *instance, const char *name, const char *type, uint32_t flags);
int rpy_batch_pg_add_pg(
    rpy_batch_t *batch, const rpy_propertygroup_t *pg, const char *name, const char *type, uint32_t flags);
int rpy_batch_new_add_pg(rpy_batch_t *batch, int step, const char *name, const char *type, uint32_t flags);

/*
 * Carries out what is attached to the transaction. The group has to have the version of the transaction's start when the batch
 * begins; that is a condition. The second commits to the group that an earlier step adds.
 * Errors: RPY_ERROR_NOT_SET if it wasn't started, RPY_ERROR_TYPE_MISMATCH as for rpy_transaction_commit(), RPY_ERROR_NOT_FOUND
 *         if that step adds none, RPY_ERROR_INVALID_ARGUMENT if the transaction was started for the other call
 */
int rpy_batch_commit(rpy_batch_t *batch, const rpy_transaction_t *transaction);
int rpy_batch_commit_new(rpy_batch_t *batch, int step, const rpy_transaction_t *transaction);

/* Deletes a group with the groups below it; with `all` 0 one that has any there is RPY_ERROR_IN_USE. */
int rpy_batch_delete_pg(rpy_batch_t *batch, const rpy_propertygroup_t *pg, int all);

/*
 * Carries the batch out: 1 if all of it took effect and is durable, 0 if a condition doesn't hold and nothing took effect, -1 on
 * failure. The batch stays as it is, and can be run again.
 * *failed, which may be NULL, becomes the number of the condition or step that didn't hold or failed, counted from the first
 * condition on, steps after conditions; -1 if it is none of them.
 * *revision, which may be NULL, becomes the number of the commit; 0 if it changed nothing that is kept.
 * Errors: those of the steps, and of every change
 *         RPY_ERROR_VERSION_MISMATCH  the daemon is older and knows no batches
 */
int rpy_batch_run(rpy_batch_t *batch, int *failed, uint64_t *revision);

/* ---- The daemon ---- */

typedef struct rpy_status {
	pid_t rs_pid;       /* as seen from here; 0 if it can't be seen */
	uint32_t rs_format; /* of the store */
	int rs_writable;    /* whether the store can be written at present */
	uint64_t rs_groups;
	uint64_t rs_bytes;  /* of the store */
	char rs_file[1024]; /* the store's path as the daemon sees it */
} rpy_status_t;

int _rpy_status(rpy_handle_t *handle, rpy_status_t *status);

/*
 * Checks the whole store: *findings is a text with a line for each finding, empty if there is none.
 * Owns: *findings is new; free it with free().
 */
int _rpy_verify(rpy_handle_t *handle, char **findings);

/* A consistent copy of the store, as a file of it holds it. Owns: *bytes is new; free it with free(). */
int _rpy_backup(rpy_handle_t *handle, void **bytes, size_t *size);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
