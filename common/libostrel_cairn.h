/*
 * The repository back end: an object is a property group below a service or an instance, named by its path of names
 * ("object-pgname") and its path of types ("object-pgtype").
 *
 * Its sources. Each calls only those below it; the refresh thread alone takes resources from above, as an operation does.
 *
 *   libostrel_cairn_read.cc      objects from groups
 *   libostrel_cairn_rename.cc    a read, a write and a remove, and taking them back
 *   libostrel_cairn_write.cc     write and remove: find or create the group, commit, take back
 *   libostrel_cairn_entries.cc   the transaction that makes a group hold an object's properties
 *   libostrel_cairn.cc           an operation: its resources and its level; open and close
 *   libostrel_cairn_tree.cc      paths: finding, walking and creating groups
 *   libostrel_cairn_enclaves.cc  which resources serve an enclave; replacing them; holds
 *   libostrel_cairn_refresh.cc   the snapshot "running" and its thread
 *   libostrel_cairn_resources.cc building and freeing resources
 *   libostrel_cairn_pool.cc      the working objects of operations, and the pool that readers have of them
 *   libostrel_cairn_bind.cc      which daemon resources are bound to; private daemons
 *   libostrel_cairn_results.cc   results from the repository's errors
 *
 * Locks. In the order in which they are taken:
 *
 * 1. db_lock, by the dispatcher: updates run alone, so that the fields in ostrel_rpy_work_t of the resources, nsr_tx and
 *    nsr_temp need no lock. Reads run side by side, each on read resources of its own. Walks, reads of a hatch server and
 *    the refresh thread hold no db_lock at all; whatever they touch must not belong to the update.
 * 2. db_privlock, by RpyLock: where resources hang, their holds, their pool, their scope. Held for a look-up with its test
 *    of the connection, and while native resources are built; never for a call to the daemon of another enclave, which
 *    may take as long as it likes.
 * 3. RefreshGate::lock: which refresh thread goes on and how many run. Held for a few instructions; a close waits on it, with
 *    db_lock but without db_privlock, which the last pass may need.
 *
 * Owners. Resources live as long as they have a hold: of the handle (db_priv), of the list of the native resources, of each
 * operation and each pass. The last release frees them, on whatever thread. A close frees the native ones regardless of
 * holds, since no call may use the handle any more.
 *
 * What a failure leaves. A failed build leaves the resources before it in their place. A connection that breaks fails the
 * operation that runs on it; the next one builds new resources. A failed write takes back the groups that it created, a
 * failed rename the new object; what may still be carried out by a daemon that didn't answer is taken back only as far as
 * no other client has changed it since ("change" numbers, platform/rpy/wire.h).
 *
 * Forks. A child makes db_privlock, the pools, the gate and the refresh thread again at its first use of the handle
 * (ProcessMark of the handle). It keeps the resources, whose calls make connections of their own, and shares a private
 * daemon with its parent until both have given it up.
 */
#ifndef LIBOSTREL_CAIRN_H
#define LIBOSTREL_CAIRN_H

#include <atomic>
#include <ctime>

#include <meridon/rpy.h>

#include "base/clock.h"
#include "base/guards.h"
#include "base/thread_safety.h"
#include "libostrel_backend.h"
#include "libostrel_error.h"
#include "libostrel_handle.h"
#include "libostrel_idlist.h"
#include "libostrel_objects.h"
#include "libostrel_util.h"

#define OSTREL_ID_PGNAME "object-pgname"
#define OSTREL_ID_PGTYPE "object-pgtype"

inline constexpr size_t OSTREL_RPY_NAME_MAX = 256;             // bytes of a name, a type or a path, with its NUL
inline constexpr int OSTREL_RPY_MAX_DEPTH = 8;                 // levels of groups: depths 0 to 7
inline constexpr int OSTREL_RPY_MAX_READERS = 32;              // entries of a pool
inline constexpr int OSTREL_RPY_READ_WAITS = 20;               // seconds that a reader waits for an entry
inline constexpr int OSTREL_RPY_BUILD_TRIES = 20;              // for a private daemon that ends before the first call
inline constexpr int OSTREL_RPY_MAX_VALUES = 128;              // values of a property on reading
inline constexpr unsigned OSTREL_RPY_OBJECTS_START = 128;      // room for objects at the start of a read by type
inline constexpr int OSTREL_RPY_FOREIGN_SECONDS = 120;         // the longest operation in another enclave
inline constexpr size_t OSTREL_RPY_FOREIGN_BYTES = 256U << 20; // the most that a read in another enclave gives
inline constexpr int OSTREL_REFRESH_PERIOD = 5;                // seconds between two passes of the refresh thread
inline constexpr int OSTREL_REFRESH_QUIET = 5;                 // seconds without an update before a snapshot

struct RefreshGate;

// ---- The lock ----

// What db_privlock guards here is spread over structures that reach it by different pointers (db, res->nsr_db), which the
// analysis can't see to be the same. So it has one name, which RpyLock holds along with the lock: a thread works on one
// database at a time.
struct CAPABILITY("mutex") RpyLockName {
	// For resources that no other thread knows: new ones, and those that are being freed.
	void not_shared() const ASSERT_CAPABILITY(this) {}
};
inline constexpr RpyLockName rpy_lock;

class SCOPED_CAPABILITY RpyLock {
public:
	explicit RpyLock(ostrel_db_t db) ACQUIRE(db->db_privlock, rpy_lock) NO_THREAD_SAFETY_ANALYSIS : db_(db)
	{
		ostrel_db_lock_priv(db_);
	}
	~RpyLock() RELEASE() NO_THREAD_SAFETY_ANALYSIS { ostrel_db_unlock_priv(db_); }
	RpyLock(const RpyLock &) = delete;
	RpyLock &operator=(const RpyLock &) = delete;

private:
	ostrel_db_t db_;
};

// ---- Resources ----

// A private daemon that these resources started. It is held by a descriptor of its process, which needs neither the
// enclave's record nor its files, and by the lifeline, a socket that all forked copies of the resources share with it: it
// ends when none of them is left.
struct PrivateDaemon {
	Fd process;
	Fd lifeline;       // open as long as these resources are there
	Fd end;            // the daemon's end: hangs up when no lifeline is open any more
	bool is_inherited; // this process is a forked child: the daemon is its parent's, as long as the parent has it
};

// The root directory of an enclave.
struct EnclaveRoot {
	enum { unknown, missing, there } state;
	dev_t device;
	ino_t inode;
};

// What one operation works with. Updates have one, in the resources; each reader has one of the pool.
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
	boolean_t nsr_svclevelop;               // whether it works on the service
	Deadline nsr_until = Deadline::never(); // when it is given up; never in the process's own enclave
	rpy_service_t *nsr_svc;                 // the service; never filled again once the resources are there
	rpy_instance_t *nsr_op_inst; // the instance: the database's, or this work's own, filled for each operation
};

// A reader's. It belongs to the pool of its resources.
struct ostrel_rpy_read_resources_t : ostrel_rpy_work_t {
	boolean_t nsr_inuse GUARDED_BY(rpy_lock);
	rpy_instance_t *nsr_own_inst; // for an instance of a service-level database
	rpy_scope_t *nsr_scope;       // for the test of the connection
	ostrel_rpy_read_resources_t *nsr_list_node GUARDED_BY(rpy_lock);
};

// A connection to a repository, with all that is made for it: what a database holds for one enclave. The native ones, those
// of the database's own enclave, hang in db_priv; those of other enclaves in a list of the native ones, in the order of the
// enclaves' ids. Resources bound to a private daemon of another enclave hang in neither, and go with the operation that they
// were made for.
//
// What isn't guarded and isn't the update's is set before any other thread sees the resources.
struct ostrel_rpy_resources_t : ostrel_rpy_work_t {
	ostrel_db_t nsr_db;
	uint64_t nsr_refcnt GUARDED_BY(rpy_lock); // holds. At 0 the resources are destroyed
	char *nsr_locator;
	rpy_handle_t *nsr_handle;
	rpy_scope_t *nsr_scope PT_GUARDED_BY(rpy_lock); // filled by the test of the connection
	rpy_instance_t *nsr_inst; // the database's; for a service-level database the one that an update named last
	rpy_snapshot_t *nsr_snap; // the refresh's
	rpy_transaction_t *nsr_tx;
	boolean_t nsr_issvc; // the database is a service
	boolean_t nsr_temp;  // groups that the running update makes are non-persistent
	int nsr_num_readers GUARDED_BY(rpy_lock);
	ostrel_rpy_read_resources_t *nsr_read_resources GUARDED_BY(rpy_lock); // the pool, the oldest entry first
	CondVar nsr_reader_left;                                              // an entry came free
	enclaveid_t nsr_enclaveid;
	ostrel_rpy_resources_t *nsr_enclave_resources GUARDED_BY(rpy_lock); // of native ones: those of other enclaves
	ostrel_rpy_resources_t *nsr_enclave_node GUARDED_BY(rpy_lock);      // the next in such a list
	uint64_t nsr_cache_hits GUARDED_BY(rpy_lock);
	std::atomic<bool> nsr_deleted;        // the service or instance was: no operation begins on these any more
	EnclaveRoot nsr_root;                 // as it was before the bind
	boolean_t nsr_private_configd;        // bound to a private daemon
	pid_t nsr_private_configd_pid;        // its process, if this process started it; else 0
	PrivateDaemon nsr_private_daemon;     // what ends it then
	RefreshGate *nsr_gate;                // of native ones of an instance; lives as long as the database is open
	uint64_t nsr_refresh_thread;          // the number of their refresh thread at the gate; 0 if there is none
	std::atomic<time_t> nsr_last_refresh; // seconds since the Epoch: when the snapshot was begun; 0 if it wasn't
	std::atomic<time_t> nsr_last_tx;      // when the last update was committed; 0 if there was none
};

// The native resources of a database; NULL before its open and after its close.
ostrel_rpy_resources_t *ostrel_native_rpy_resources(ostrel_db_t db) REQUIRES(rpy_lock);

// ---- Results (libostrel_cairn_results.cc) ----

ostrel_error_t rpy_error_to_ostrel_error(rpy_error_t error);
// The result for the call that has just failed: never OSTREL_SUCCESS.
ostrel_error_t ostrel_rpy_failure();

// ---- Building and freeing (libostrel_cairn_resources.cc) ----

// Frees resources without a place and without a daemon of their own, built in whole or in part. No NULL.
void ostrel_free_rpy_resources(ostrel_rpy_resources_t *res);
using NewResources = Handle<ostrel_rpy_resources_t, ostrel_free_rpy_resources>;
// Builds resources of an enclave, without a place and without a hold. Takes as long as the enclave's daemon does.
// Errors: those of the binding; OSTREL_NOT_FOUND and others that look up the database's service or instance
ostrel_error_t ostrel_build_rpy_resources(ostrel_db_t db, enclaveid_t enclave, NewResources *out);

// ---- Working objects and the pool (libostrel_cairn_pool.cc) ----

// Makes the client objects of one operation. False if one can't be had; the second frees those that are there.
bool ostrel_create_rpy_work(rpy_handle_t *handle, ostrel_rpy_work_t *work);
void ostrel_destroy_rpy_work(ostrel_rpy_work_t *work);

// Takes a free entry, or makes one. OSTREL_NEEDS_RETRY if the pool is full and all are in use.
ostrel_error_t ostrel_take_rpy_read_resources(ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t **rresp)
    REQUIRES(rpy_lock);
// The same, and waits for an entry if need be. A caller that has db_lock for reading is without it meanwhile.
ostrel_error_t ostrel_get_rpy_read_resources(ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t **rresp)
    EXCLUDES(rpy_lock);
void ostrel_give_back_rpy_read_resources(ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t *rres)
    REQUIRES(rpy_lock);
void ostrel_destroy_rpy_read_resources(ostrel_rpy_resources_t *res) REQUIRES(rpy_lock);
// In a forked child. Entries that threads of the parent use stay as they are, and lost.
void ostrel_forget_rpy_read_resources(ostrel_rpy_resources_t *res) REQUIRES(rpy_lock);

// ---- The resources of enclaves (libostrel_cairn_enclaves.cc) ----

// Builds native resources and puts them in their place, with the place's hold alone.
ostrel_error_t ostrel_create_rpy_resources(ostrel_db_t db, ostrel_rpy_resources_t **resp) REQUIRES(rpy_lock);
// Destroys them whatever their holds. Takes NULL.
void ostrel_destroy_rpy_resources(ostrel_rpy_resources_t *res) REQUIRES(rpy_lock);
// The resources of an enclave, if they are there; those of enclaves that have gone are given up on the way.
ostrel_rpy_resources_t *ostrel_find_rpy_resources(ostrel_db_t db, enclaveid_t enclave) REQUIRES(rpy_lock);
// Gives resources of an enclave, whose connection is alive, with a hold for the caller.
ostrel_error_t ostrel_get_rpy_resources_for_enclave(ostrel_db_t db, enclaveid_t enclave, ostrel_rpy_resources_t **resp)
    EXCLUDES(rpy_lock);
// Whether an operation can begin on the resources: the enclave's root is the same, and the daemon that they are bound to
// still serves, as far as can be told without waiting for it. Fills `scope`.
bool ostrel_rpy_is_usable(const ostrel_rpy_resources_t *res, const EnclaveRoot &root, rpy_scope_t *scope);
// Gives up a hold, and an entry of the pool. Takes NULL for both.
void ostrel_rele_rpy_resources(ostrel_db_t db, ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t *rres)
    EXCLUDES(rpy_lock);
void ostrel_rele_rpy_resources_locked(ostrel_rpy_resources_t *res, ostrel_rpy_read_resources_t *rres)
    REQUIRES(rpy_lock);
// The order of a list of enclaves: -1, 0 or 1.
int cmp_resources_by_enclaveid(const ostrel_rpy_resources_t *a, const ostrel_rpy_resources_t *b);

// ---- Binding (libostrel_cairn_bind.cc) ----

// Binds the handle of new resources: to the enclave's own daemon, else to a private one, which is started if need be.
// Errors: those of the repository and of fork; OSTREL_FAILURE  no daemon, and none that could be started
ostrel_error_t ostrel_bind_cairn_configd(enclaveid_t enclave, ostrel_rpy_resources_t *res);
// Whether these resources are bound to a private daemon though the enclave's own answers now.
bool ostrel_native_configd_inenclave_ready(const ostrel_rpy_resources_t *res);
// Resources that replace others may have found the private daemon that those started: it is theirs now.
void ostrel_inherit_private_configd(ostrel_rpy_resources_t *res, ostrel_rpy_resources_t *before);
// Gives up the private daemon that these resources started: it ends with them, or with the last copy in a forked child.
// Unbinds the connection first, and waits for the daemon's end.
void ostrel_end_private_configd(ostrel_rpy_resources_t *res);
// Looks at the root directory of an enclave other than the global one. May block.
EnclaveRoot ostrel_look_at_root(enclaveid_t enclave);

// ---- Refresh (libostrel_cairn_refresh.cc) ----

// Notes an update for the refresh thread. To be called after each one that was committed.
void ostrel_request_refresh_cairn(ostrel_rpy_resources_t *res);
// Whether an update waits for its snapshot.
bool ostrel_refresh_is_pending(const ostrel_rpy_resources_t *res);
// Takes the snapshot "running" if there is an update since the last one, and either quiet time has gone by or `force`.
void ostrel_refresh_cairn(ostrel_rpy_resources_t *res, bool force);
// Starts the refresh thread of new native resources, and lets that of the ones before them end. Without memory or a
// thread they have none.
void ostrel_start_refresh(ostrel_rpy_resources_t *res, const ostrel_rpy_resources_t *before);
// Passes an update that waits for its snapshot on to the resources that replace these, whose connection may have broken.
void ostrel_hand_refresh_on(ostrel_rpy_resources_t *res, ostrel_rpy_resources_t *before);
// Lets the refresh thread of resources end. Doesn't wait: the caller may be that thread.
void ostrel_stop_refresh(ostrel_rpy_resources_t *res);
// Waits until no refresh thread of a database runs any more; none can start after that. Takes NULL.
void ostrel_close_refresh(RefreshGate *gate) EXCLUDES(rpy_lock);
// In a forked child, which has none of the threads that are at the gate. Takes NULL.
void ostrel_renew_refresh_gate(RefreshGate *gate);
// Takes NULL. No refresh thread may run any more.
void ostrel_free_refresh_gate(RefreshGate *gate);

// ---- Operations (libostrel_cairn.cc) ----

ostrel_error_t ostrel_db_info(ostrel_db_t db, attrlist_t *idl, const char **name, enclaveid_t *enclave);
// Either pointer may be NULL; a key that isn't there leaves its target alone. OSTREL_INVALID_ARG if neither is.
ostrel_error_t ostrel_idlist2pginfo(attrlist_t *idl, char **pgname, char **pgtype);

// The resources that an operation holds, given back at its end.
class RpyOperation {
public:
	explicit RpyOperation(ostrel_db_t db);
	RpyOperation(const RpyOperation &) = delete;
	RpyOperation &operator=(const RpyOperation &) = delete;
	~RpyOperation() { ostrel_rele_rpy_resources(db_, res_, rres_); }

	// The resources of the enclave that `idl` names, at the level that it names. An update holds db_lock for writing.
	ostrel_error_t begin_update(attrlist_t *idl, uint64_t flags);
	// The same for an update of a group that is there: finds it, too. Reports no missing path or group.
	ostrel_error_t begin_update_at(attrlist_t *idl, uint64_t flags);
	ostrel_error_t begin_read(attrlist_t *idl);
	// Finds the group of a path of names, as ostrel_rpy_get_real_pg(), after a renewal if need be.
	ostrel_error_t find(attrlist_t *idl, const char *pgname);
	// After a look-up that failed: whether the service or instance was deleted. If it was made again, the operation has new
	// resources now, and the caller begins again.
	bool renew(attrlist_t *idl);

	ostrel_rpy_resources_t *res() const { return res_; }
	ostrel_rpy_work_t *work() const { return rres_ != nullptr ? static_cast<ostrel_rpy_work_t *>(rres_) : res_; }

private:
	bool take_ready(enclaveid_t enclave);

	ostrel_db_t db_;
	ostrel_rpy_resources_t *res_ = nullptr;
	ostrel_rpy_read_resources_t *rres_ = nullptr;
};

// Whether an operation in another enclave has used up its time: its daemon may go on answering for ever.
bool ostrel_rpy_is_over(const ostrel_rpy_work_t *work);

// ---- The tree of groups (libostrel_cairn_tree.cc) ----

// A path in its components.
struct RpyPath {
	char text[OSTREL_RPY_NAME_MAX];
	char *component[OSTREL_RPY_MAX_DEPTH];
	int count;

	// Errors: OSTREL_INVALID_ARG  a path too long, of too many components, or of none
	ostrel_error_t set(const char *path);
	// The same for the pattern of a walk: one without components fits nothing.
	ostrel_error_t set_pattern(const char *path);
};

// What a creation made: depths `first` to `last`, none if `first` is -1.
struct RpyCreation {
	int first = -1;
	int last = -1;
};

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

// ---- Updates (libostrel_cairn_entries.cc, libostrel_cairn_write.cc) ----

// Starts the transaction of an update again on the current group, so that a commit makes the group hold exactly `props`. A
// group that is `created` by this update has nothing to be deleted. The entries stay with the transaction:
// rpy_transaction_destroy_children().
ostrel_error_t ostrel_rpy_build_transaction(ostrel_rpy_resources_t *res, attrlist_t *props, bool created);

// How a remove failed.
struct RpyRemoveFate {
	bool is_open = false;      // it may be carried out all the same
	bool daemon_ended = false; // not by the daemon that was asked, at any rate
};

// The two steps that updates are made of. A write is part of a change (platform/rpy/wire.h), by which it can be withdrawn.
ostrel_error_t ostrel_rpy_write(ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t *props, uint64_t change);
ostrel_error_t ostrel_rpy_remove(ostrel_db_t db, attrlist_t *idl, uint64_t flags, RpyRemoveFate *fate);

// ---- Slots ----

ostrel_opencmd_t ostrel_open_cairn;
ostrel_closecmd_t ostrel_close_cairn;
ostrel_readcmd_t ostrel_read_objects_from_cairn;
ostrel_writecmd_t ostrel_write_object_to_cairn;
ostrel_renamecmd_t ostrel_rename_object_in_cairn;
ostrel_removecmd_t ostrel_remove_object_from_cairn;

#endif
