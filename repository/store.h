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
#include <vector>

#include <meridon/rpy.h>

namespace repository {

constexpr uint32_t store_format = 1;

// A change of one row. The texts belong to whoever made it, and live until the commit is over.
struct Row {
	enum class What { put_node, set_version, delete_node, put_version, delete_version };
	What what;
	uint64_t id;
	uint32_t kind = 0;
	uint64_t parent = 0; // 0: none
	uint64_t version = 0;
	std::string_view name = {};
	std::string_view type = {};
	std::string_view properties = {};
};
using Rows = std::vector<Row>;

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

	// Makes all rows durable, and the next free id with them. RPY_ERROR_NONE, or nothing was changed.
	virtual rpy_error_t commit(const Rows &rows, uint64_t next) = 0;

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
