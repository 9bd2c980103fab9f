// Where the repository is kept: rows of nodes and of their versions, changed together or not at all.
//
// The daemon answers from memory (model.h), so a store is read once, at the start, and from then on only written: an update
// is durable before anything in memory changes and before its caller hears of it (updates.h). No row is ever read again
// while the daemon runs, so memory and store mustn't drift apart. That is what the rules below are for:
//
//   - A commit changes everything it names, or nothing. Nobody who opens the store sees a part of it, whatever ends the
//     process or the machine meanwhile.
//   - What was reported as committed is there after the next open().
//   - What was reported as failed isn't, and never will be: a later commit, or the next start, doesn't bring it back.
//   - If it can't be told which of both a commit came to, commit() doesn't return: it calls end_daemon() (log.h). The next
//     start reads what is there; clients see a connection that broke, which promises nothing. To go on would be to answer
//     from a memory that may be wrong for ever.
//
// An engine is one implementation of `Store`. One that keeps the repository in a file of this host also is a `StoreFile`,
// for what an operator does with a file. tests/store_conformance.h holds any engine against this page.
#ifndef REPOSITORY_STORE_H
#define REPOSITORY_STORE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <meridon/rpy.h>

namespace repository {

constexpr uint32_t store_format = 1;

// One change.
//   put_version    a new version `id` with `properties`, as they travel (rpy/wire.h): rpy::group_bytes_max at most
//   put_node       a new node `id`: its kind (rpy::Parent), parent, name, type and version. The parent, unless it is 0, and
//                  the version, unless it is 0, are there already or are put by a row before it
//   set_version    the node `id` holds `version` from now on
//   delete_node    the node `id`, below which nothing is left
//   delete_version the version `id`, which no node holds
// Ids are never 0, and an id that was deleted never comes again.
// Owns: nothing. The texts are the caller's, and stay where they are until the call is over.
struct Row {
	enum class What { put_node, set_version, delete_node, put_version, delete_version };
	What what;
	uint64_t id; // of the node or of the version; of a row that is put a provisional one: see Committed
	uint32_t kind = 0;
	uint64_t parent = 0;  // of a node that is put; 0: none
	uint64_t version = 0; // of a node that is put or whose version is set
	std::string_view name = {};
	std::string_view type = {};
	std::string_view properties = {};

	static Row set_version(uint64_t node, uint64_t version) { return {What::set_version, node, 0, 0, version}; }
	static Row delete_node(uint64_t node) { return {What::delete_node, node}; }
	static Row put_version(uint64_t version, std::string_view properties)
	{
		return {What::put_version, version, 0, 0, 0, {}, {}, properties};
	}
	static Row delete_version(uint64_t version) { return {What::delete_version, version}; }
};
using Rows = std::vector<Row>;

// What became of a commit.
struct Committed {
	Committed(rpy_error_t its_error = RPY_ERROR_NONE) : error(its_error) {}
	// The store holds what the caller's model doesn't show yet: once it does, the caller may prepare its rows again and
	// commit them. `if_given_up` is the update's error if the caller doesn't.
	static Committed stale(rpy_error_t if_given_up)
	{
		Committed made(if_given_up);
		made.is_stale = true;
		return made;
	}

	rpy_error_t error; // RPY_ERROR_NONE: all rows are durable. Otherwise none is.
	bool is_stale = false;
	uint64_t revision = 0; // the number of this commit: it rises with each, over all daemons of a store

	// The id that a node or a version got. A store that numbers its rows by itself puts the others here, by the provisional
	// id that the rows have; nodes and versions take theirs from one sequence.
	std::unordered_map<uint64_t, uint64_t> given;
	uint64_t id_of(uint64_t provisional) const
	{
		const auto found = given.find(provisional);
		return found == given.end() ? provisional : found->second;
	}
};

// What went wrong, for a log and for the starter of the daemon.
struct Failure {
	int error = 0; // an errno value; 0: nothing
	std::string text;
	explicit operator bool() const { return error != 0; }
};

// What a store in a file can do besides. It is part of the Store, and goes with it.
//
// Threads: any, once open() has returned. verify() and copy() keep commits waiting for as long as they take, and wait for
//          one that runs; bytes() does neither.
// Errors:  std::bad_alloc comes out of verify() and copy(). None of them changes the store.
class StoreFile {
public:
	// The size of the file; 0 if it can't be seen.
	virtual uint64_t bytes() = 0;
	// Checks the whole file, and appends a line for each finding: nothing was appended if it is sound. False if it can't be
	// checked at present, because somebody keeps it locked for instance.
	virtual bool verify(std::string *findings) = 0;
	// Gives what a file must hold to take this one's place: the last commit, whole. False, with *bytes untouched, if that
	// can't be had at present, or if the file isn't any more what this store committed to it.
	virtual bool copy(std::string *bytes) = 0;

protected:
	~StoreFile() = default;
};

class Store {
public:
	// No call is running then. What the store holds for itself, threads and connections, ends with it.
	virtual ~Store() = default;

	// Receives the store's content: all versions, in any order, then all nodes by id, which has parents come before what
	// hangs below them. The texts live as long as the call that hands them over.
	struct Loader {
		std::function<void(uint64_t id, std::string_view properties)> version;
		std::function<bool(const Row &node)> node; // a put_node row; false if no tree can have it
	};

	// Opens the store, makes an empty one if there is none, checks it, and reads it as of one moment. *next becomes the next
	// free id, 2 in a new store: the one that the last commit left. Comes first, and once.
	//
	// Errors:  EIO     it is damaged, not a repository, of another format, or holds a node that the loader refused
	//          EACCES, ENOMEM, EINVAL, EROFS: an empty one can't be made. The text names the store and the cause.
	//          std::bad_alloc and std::system_error, as memory or a thread can't be had; what the loader throws
	//          After a failure nothing but the destructor may be called. The loader may have received a part.
	// Limits:  a store that can't be written is opened all the same. What a crash left of a commit is taken back first,
	//          without a write to a place that takes none.
	virtual Failure open(const Loader &loader, uint64_t *next) = 0;

	// Makes all rows durable, in their order, and with them `next`, the next free id, which is above all ids in use. Returns
	// the ids that were given, if the store numbers its rows by itself.
	//
	// Threads: one at a time, the leader of the updates, who holds no lock. Beside it any thread may call writable(), and
	//          what StoreFile has.
	// Errors:  nothing was changed by any of these, and the next commit may work:
	//          is_stale                     others were faster: Committed::stale(). Never in a store that only this process writes
	//          RPY_ERROR_BACKEND_READONLY   the store can't be written at present. Clients try again
	//          RPY_ERROR_NO_RESOURCES       a disk, a quota or a limit is full, or a text is larger than the engine takes
	//          RPY_ERROR_NO_MEMORY, RPY_ERROR_PERMISSION_DENIED
	//          RPY_ERROR_INTERNAL           anything else: a row doesn't fit what the store holds (an id that is there or
	//                                       isn't, two children of one kind and name), somebody else has written to the
	//                                       store since it was read, or has put something in its place. The log says which
	//          It doesn't return if it can't tell what became of the rows, as said at the head. Nor does it throw.
	// Limits:  any number of rows. It may wait for others that use the store, 5 s at most.
	virtual Committed commit(const Rows &rows, uint64_t next) = 0;

	// Whether a commit could be made now, as far as that can be seen without one: for a status. Threads: any.
	virtual bool writable() = 0;

	// The file that the store lies in; NULL if there is none on this host.
	virtual StoreFile *file() { return nullptr; }
};

// What lies where a SQLite store is to be, seen without SQLite, which writes as it opens: it takes back what a crash left of a
// transaction, and makes a database of a file of a few bytes.
enum class SqliteFile {
	empty,     // a store can be made of it
	store,     // says that it is one; open() looks closer
	unsettled, // with a journal that a crash left: what it is shows when that has been rolled back
	foreign,   // something else's, or not to be read
};
SqliteFile look_at_sqlite_file(const std::string &path, int file);

// The store in a SQLite file.
//
// `file` is open on `path` and locked by this process (holder.h), so that no other daemon writes to it, and stays so as long as the
// store lives. It tells whether the path still leads there: a file that was replaced is neither written nor copied.
// Limits: one in a process, since SQLite's access to the files is one for all (sqlite_vfs.h).
std::unique_ptr<Store> make_sqlite_store(const std::string &path, int file);

} // namespace repository

#endif
