/*
 * The repository back end: an object is a property group below a service or an instance, named by its path of names
 * ("object-pgname") and its path of types ("object-pgtype").
 *
 * Its sources: libostrel_cairn.cc (resources: their making, holds and end), _bind (which daemon), _refresh (the snapshot
 * "running"), _tree (paths and groups), _read and _write (objects).
 */
#ifndef LIBOSTREL_CAIRN_H
#define LIBOSTREL_CAIRN_H

#include <atomic>
#include <ctime>

#include <meridon/rpy.h>

#include "base/guards.h"
#include "libostrel_impl.h"

#define OSTREL_ID_PGNAME "object-pgname"
#define OSTREL_ID_PGTYPE "object-pgtype"

inline constexpr size_t OSTREL_RPY_NAME_MAX = 256;             // bytes of a name, a type or a path, with its NUL
inline constexpr int OSTREL_RPY_MAX_DEPTH = 8;                 // levels of groups: depths 0 to 7
inline constexpr int OSTREL_RPY_MAX_READERS = 32;              // entries of a pool
inline constexpr int OSTREL_RPY_READ_WAITS = 20;               // seconds that a reader waits for an entry
inline constexpr int OSTREL_RPY_BUILD_TRIES = 20;              // for a private daemon that ends before the first call
inline constexpr int OSTREL_RPY_MAX_VALUES = 128;              // values of a property on reading
inline constexpr unsigned OSTREL_RPY_OBJECTS_START = 128;      // places for objects at the start of a read by type
inline constexpr int OSTREL_RPY_FOREIGN_SECONDS = 120;         // what an operation in another enclave takes at most
inline constexpr size_t OSTREL_RPY_FOREIGN_BYTES = 256U << 20; // what a read in another enclave gives at most
inline constexpr int OSTREL_REFRESH_PERIOD = 5;                // seconds between two passes of the refresh thread
inline constexpr int OSTREL_REFRESH_QUIET = 5;                 // seconds without an update before a snapshot

struct RefreshGate;

// A private daemon that these resources started: a descriptor of its process, which needs neither the enclave's record nor its
// files, and the lifeline, a socket that all forked copies of the resources share with it. It ends when none of them is left.
struct PrivateDaemon {
	Fd process;
	Fd lifeline;       // open as long as these resources are there
	Fd end;            // the daemon's end: hangs up when no lifeline is open any more
	bool is_inherited; // this process is a forked child: the daemon is its parent's, as long as that one has it
};

// The root directory of an enclave.
struct EnclaveRoot {
	enum { unknown, missing, there } state;
	dev_t device;
	ino_t inode;
};

// What one operation works with. Updates have one, in the resources, and readers each one of the pool.
struct ostrel_rpy_work_t {
	char nsr_pgname[OSTREL_RPY_NAME_MAX]; // the current group's path of names, as the repository spells it
	char nsr_pgtype[OSTREL_RPY_NAME_MAX]; // its path of types
	int nsr_pgdepth;                      // its depth
	rpy_propertygroup_t *nsr_pg[OSTREL_RPY_MAX_DEPTH];
	int nsr_pgiterstate[OSTREL_RPY_MAX_DEPTH]; // groups that the iterator has yielded; 0 while it isn't under way
	rpy_iter_t *nsr_pgiter[OSTREL_RPY_MAX_DEPTH];
	rpy_property_t *nsr_prop;
	rpy_iter_t *nsr_propiter;
	rpy_value_t *nsr_val;
	rpy_iter_t *nsr_valiter;
	boolean_t nsr_svclevelop; // whether it works on the service
	time_t nsr_until;         // when it is given up, by the clock that nobody sets; 0 in the process's own enclave
	rpy_service_t *nsr_svc;   // the service, which nobody fills once the resources are there
	rpy_instance_t *nsr_op_inst; // the instance: the database's, or this work's own, filled for each operation
};

// A reader's. It belongs to the pool of its resources.
struct ostrel_rpy_read_resources_t : ostrel_rpy_work_t {
	boolean_t nsr_inuse;
	rpy_instance_t *nsr_own_inst; // for an instance of a service-level database
	rpy_scope_t *nsr_scope;       // for the test of the connection
	ostrel_rpy_read_resources_t *nsr_list_node;
};

/*
 * A connection to a repository, with all that is made for it: what a database holds for one enclave. The native ones,
 * those of the database's own enclave, lie in db_priv; those of other enclaves in a list of the native ones, in the order
 * of the enclaves. Resources bound to a private daemon of another enclave lie in neither place, and go with the
 * operation that they were made for.
 *
 * db_privlock guards the places, the holds, the pool and nsr_scope. The work, the transaction and nsr_temp belong to the
 * update that runs, which has db_lock for itself. Everything else is set before anybody else sees the resources.
 */
struct ostrel_rpy_resources_t : ostrel_rpy_work_t {
	ostrel_db_t nsr_db;
	uint64_t nsr_refcnt; // one hold for the place, one for each operation and pass. At 0 they are destroyed
	char *nsr_locator;
	rpy_handle_t *nsr_handle;
	rpy_scope_t *nsr_scope;   // filled by the test of the connection alone, which has db_privlock
	rpy_instance_t *nsr_inst; // the database's; for a service-level database the one that an update named last
	rpy_snapshot_t *nsr_snap; // the refresh's
	rpy_transaction_t *nsr_tx;
	boolean_t nsr_issvc; // the database is a service
	boolean_t nsr_temp;  // groups that the running update makes are non-persistent
	int nsr_num_readers;
	ostrel_rpy_read_resources_t *nsr_read_resources; // the pool, the oldest entry first
	pthread_cond_t nsr_reader_left;                  // an entry came free
	enclaveid_t nsr_enclaveid;
	ostrel_rpy_resources_t *nsr_enclave_resources; // of native ones: those of other enclaves
	ostrel_rpy_resources_t *nsr_enclave_node;      // the next in such a list
	uint64_t nsr_cache_hits;
	std::atomic<bool> nsr_deleted;        // the service or instance was: nobody else takes these
	EnclaveRoot nsr_root;                 // as it was before the bind
	boolean_t nsr_private_configd;        // bound to a private daemon
	pid_t nsr_private_configd_pid;        // its process, if this process started it; else 0
	PrivateDaemon nsr_private_daemon;     // what ends it then
	RefreshGate *nsr_gate;                // of native ones of an instance; lives as long as the database is open
	uint64_t nsr_refresh_thread;          // the number of their refresh thread at the gate; 0 if there is none
	std::atomic<time_t> nsr_last_refresh; // seconds since the Epoch: when the snapshot was begun; 0 if it wasn't
	std::atomic<time_t> nsr_last_tx;      // when the last update was committed; 0 if there was none
};

// ---- Results ----

ostrel_error_t rpy_error_to_ostrel_error(rpy_error_t error);
// The result for the call that has just failed: never OSTREL_SUCCESS.
ostrel_error_t ostrel_rpy_failure();

// ---- What an operation is about ----

ostrel_error_t ostrel_db_info(ostrel_db_t db, attrlist_t *idl, const char **name, enclaveid_t *enclave);
// Either pointer may be NULL; a key that isn't there leaves its target alone. OSTREL_INVALID_ARG if neither is.
ostrel_error_t ostrel_idlist2pginfo(attrlist_t *idl, char **pgname, char **pgtype);

// ---- Resources ----

// Builds native resources and puts them in their place, with the place's hold alone.
ostrel_error_t ostrel_create_rpy_resources(ostrel_db_t db, ostrel_rpy_resources_t **resp) REQUIRES(db->db_privlock);
// Destroys them whatever their holds. Takes NULL, and what was built only in part.
void ostrel_destroy_rpy_resources(ostrel_db_t db, ostrel_rpy_resources_t *res) REQUIRES(db->db_privlock);
// Gives resources of an enclave, whose connection is alive, with a hold for the caller.
ostrel_error_t ostrel_get_rpy_resources_for_enclave(ostrel_db_t db, enclaveid_t enclave, ostrel_rpy_resources_t **resp)
    EXCLUDES(db->db_privlock);
// Gives up a hold, and an entry of the pool. Takes NULL for both.
void ostrel_rele_rpy_resources(ostrel_db_t db, ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t *rres)
    EXCLUDES(db->db_privlock);
void ostrel_rele_rpy_resources_locked(ostrel_db_t db, ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t *rres)
    REQUIRES(db->db_privlock);
// A condition whose waits end by the clock that nobody sets. False if it can't be had.
bool ostrel_init_monotonic(pthread_cond_t *condition);
// The order of a list of enclaves: -1, 0 or 1.
int cmp_resources_by_enclaveid(const ostrel_rpy_resources_t *a, const ostrel_rpy_resources_t *b);

// The resources that an operation holds, given back at its end.
class RpyOperation {
public:
	explicit RpyOperation(ostrel_db_t db);
	RpyOperation(const RpyOperation &) = delete;
	RpyOperation &operator=(const RpyOperation &) = delete;
	~RpyOperation() { ostrel_rele_rpy_resources(db_, res_, rres_); }

	// The resources of the enclave that `idl` names, at the level that it names. An update holds db_lock for writing.
	ostrel_error_t begin_update(attrlist_t *idl, bool temp);
	ostrel_error_t begin_read(attrlist_t *idl);
	// Finds the group of a path of names, as ostrel_rpy_get_real_pg(), after a renewal if need be.
	ostrel_error_t find(attrlist_t *idl, const char *pgname);
	// After a look-up that failed: whether the service or instance was deleted. If it was made again, the operation has new
	// resources now, and the caller begins anew.
	bool renew(attrlist_t *idl);

	ostrel_rpy_resources_t *res() const { return res_; }
	ostrel_rpy_work_t *work() const { return rres_ != nullptr ? static_cast<ostrel_rpy_work_t *>(rres_) : res_; }

private:
	bool take_ready(enclaveid_t enclave);

	ostrel_db_t db_;
	ostrel_rpy_resources_t *res_ = nullptr;
	ostrel_rpy_read_resources_t *rres_ = nullptr;
};

// ---- Binding ----

// Binds the handle of new resources: to the enclave's own daemon, else to a private one, which is started if need be.
// Errors: those of the repository and of fork; OSTREL_FAILURE  no daemon, and none that could be started
ostrel_error_t ostrel_bind_cairn_configd(enclaveid_t enclave, ostrel_rpy_resources_t *res);
// Whether these resources are bound to a private daemon though the enclave's own answers now.
bool ostrel_native_configd_inenclave_ready(const ostrel_rpy_resources_t *res);
// Resources that replace others may have found the private daemon that those started: it is theirs now.
void ostrel_inherit_private_configd(ostrel_rpy_resources_t *res, ostrel_rpy_resources_t *before);
// Gives up the private daemon that these resources started: it ends with them, in a forked child with the last copy. Waits for
// its end, and drops the connection before.
void ostrel_end_private_configd(ostrel_rpy_resources_t *res);
// Looks at the root directory of an enclave other than the global one, which may take its time.
EnclaveRoot ostrel_look_at_root(enclaveid_t enclave);

// ---- Refresh ----

// Notes an update for the refresh thread. After each one that was committed.
void ostrel_request_refresh_cairn(ostrel_rpy_resources_t *res);
// Whether an update waits for its snapshot.
bool ostrel_refresh_is_pending(const ostrel_rpy_resources_t *res);
// Takes the snapshot "running" if there is an update since the last one, and either quiet time has gone by or `force`.
void ostrel_refresh_cairn(ostrel_rpy_resources_t *res, bool force);
// Starts the refresh thread of new native resources, and lets that of the ones before them end. Without memory or a
// thread they have none.
void ostrel_start_refresh(ostrel_rpy_resources_t *res, const ostrel_rpy_resources_t *before);
// An update that waits for its snapshot waits on with the resources that replace these, whose connection may have broken.
void ostrel_hand_refresh_on(ostrel_rpy_resources_t *res, ostrel_rpy_resources_t *before);
// Lets the refresh thread of resources end. Doesn't wait: it may be the caller.
void ostrel_stop_refresh(ostrel_rpy_resources_t *res);
// Waits until no refresh thread of a database runs any more; none can start then. Takes NULL. Not with db_privlock held,
// which the last pass may need.
void ostrel_close_refresh(RefreshGate *gate);
// In a forked child, which has none of the threads that are at the gate. Takes NULL.
void ostrel_renew_refresh_gate(RefreshGate *gate);
// Takes NULL. No refresh thread may run any more.
void ostrel_free_refresh_gate(RefreshGate *gate);

// ---- The tree of groups ----

// A path in its components.
struct RpyPath {
	char text[OSTREL_RPY_NAME_MAX];
	char *component[OSTREL_RPY_MAX_DEPTH];
	int count;

	// Errors: OSTREL_INVALID_ARG  a path too long, of too many components, or of none
	ostrel_error_t set(const char *path);
	// The same for what a walk goes by: one without components fits nothing.
	ostrel_error_t set_pattern(const char *path);
};

// What a creation made: depths `first` to `last`, none if `first` is -1.
struct RpyCreation {
	int first = -1;
	int last = -1;
};

// Whether an operation in another enclave has had its time: its daemon may have answers for ever.
bool ostrel_rpy_is_over(const ostrel_rpy_work_t *work);
char *strip_leading_and_terminating_delims(char *str, char delim);
rpy_propertygroup_t *ostrel_res_pg_curr(const ostrel_rpy_work_t *work);
// Makes the group of a depth the current one.
ostrel_error_t ostrel_rpy_set_pg(ostrel_rpy_work_t *work, int depth);
// Begins a walk: the next step starts at the first group.
void ostrel_rpy_iter_reset(ostrel_rpy_work_t *work);
// Makes the next group that fits the current one. Exactly one of the paths is given: of names, compared without regard to
// case, or of type patterns. OSTREL_WALK_HALTED when there is none left.
ostrel_error_t ostrel_rpy_iter_next_pg(ostrel_rpy_work_t *work, const RpyPath *name, const RpyPath *type);
// Finds a group by its path of names: with case first, then without, unless the database regards it.
ostrel_error_t ostrel_rpy_get_real_pg(ostrel_db_t db, ostrel_rpy_work_t *work, const char *name);
// Creates what is missing of a path, for an update. *made tells what this call created, also when it fails.
ostrel_error_t ostrel_rpy_add_pg(ostrel_rpy_resources_t *res, const char *name, const char *type, RpyCreation *made);

// ---- Slots ----

ostrel_opencmd_t ostrel_open_cairn;
ostrel_closecmd_t ostrel_close_cairn;
ostrel_readcmd_t ostrel_read_objects_from_cairn;
ostrel_writecmd_t ostrel_write_object_to_cairn;
ostrel_renamecmd_t ostrel_rename_object_in_cairn;
ostrel_removecmd_t ostrel_remove_object_from_cairn;

#endif
