// Where the repository is kept: rows of nodes and of their versions, changed together or not at all. Everything that an
// update or a reader needs lies in memory, so the store is read once, at the start. Another engine takes SQLite's place
// behind this page.
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

// A change of one row. Its texts belong to the caller of the commit and live until the commit is over.
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

	// The id that a node or a version got. A store that numbers its rows by itself puts the others here, by the provisional
	// id that the rows have; nodes and versions take theirs from one sequence.
	std::unordered_map<uint64_t, uint64_t> given;
	uint64_t id_of(uint64_t provisional) const
	{
		const auto found = given.find(provisional);
		return found == given.end() ? provisional : found->second;
	}
};

// What went wrong, for a log and for whoever starts the daemon.
struct Failure {
	int error = 0; // an errno value; 0: nothing
	std::string text;
	explicit operator bool() const { return error != 0; }
};

class Store {
public:
	virtual ~Store() = default;

	// What is read at the start, in this order: all versions, then all nodes, parents before what hangs below them.
	struct Loader {
		std::function<void(uint64_t id, std::string_view properties)> version;
		std::function<bool(const Row &node)> node; // false if it can't be
	};
	// Opens the store, makes an empty one if there is no file, checks it, and reads it. `next` is the next free id.
	virtual Failure open(const Loader &loader, uint64_t *next) = 0;

	// Makes all rows durable, and `next`, the next free id, with them; or changes nothing. The rows are in an order in which
	// each finds what it needs: a parent is put before what hangs below it and deleted after it. An id that was deleted never
	// comes again. The thread that leads the updates calls it, one commit at a time, with no lock held.
	virtual Committed commit(const Rows &rows, uint64_t next) = 0;

	virtual bool writable() = 0;
	virtual uint64_t bytes() = 0;
	// A line for each finding. False if it can't be checked at present.
	virtual bool verify(std::string *findings) = 0;
	virtual bool copy(std::string *bytes) = 0;
};

// `file` is open on the store and locked by this process; it tells whether the path still leads there.
std::unique_ptr<Store> make_sqlite_store(const std::string &path, int file);

} // namespace repository

#endif
