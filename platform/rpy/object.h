// The repository's client: what its objects hold.
//
// Layers, each on those before it: wire.h (the bytes), requests.h (what client and daemon know of each request), error.h
// (rpy_error() of a thread), texts.h, handle.h (the connection), call.h (one request and its reply), request_batch.h (reads that
// share a call). The objects stand on these: binding.cc (handles), entities.cc, groups.cc, listings.cc, properties.cc, values.cc,
// transaction.cc, update_batch.cc, and maintenance.cc, which has none.
//
// Replies. The daemon isn't trusted, since that of another enclave may send anything. A reply is checked as a whole before an
// object points into it: magic, error number, every length, name, type and value. Walking through what was checked can't fail.
// Objects share the block of their reply, and the last one that is filled again or destroyed frees it: so a group object is one
// version of its group, whatever happens in the repository meanwhile.
//
// Failures. A call that fails sets rpy_error() of its thread, and leaves the objects that it was to fill as they were.
//
// Threads. A handle is shared by all threads; each other object is used by one thread at a time. Objects are destroyed before
// their handle. Forks: the calls of a child make connections of their own, and the batch of a handle is made again at the
// child's first read.
#ifndef MERIDON_RPY_OBJECT_H
#define MERIDON_RPY_OBJECT_H

#include <cstddef>
#include <cstdint>
#include <new>

#include "rpy/call.h"
#include "rpy/handle.h"

namespace rpy {

// Puts the group of a call's reply into an object.
bool fill_group(Call *call, rpy_propertygroup_t *pg);

} // namespace rpy

// What services, instances and snapshots are: an id and a name.
struct rpy_entity {
	rpy_handle_t *handle = nullptr;
	uint64_t id = 0; // 0 while it is empty
	char name[RPY_NAME_MAX] = "";

	void set(uint64_t its_id, std::string_view its_name);
};
struct rpy_scope : rpy_entity {};
struct rpy_service : rpy_entity {};
struct rpy_instance : rpy_entity {};
struct rpy_snapshot : rpy_entity {
	uint64_t instance = 0; // whose it is
};

struct rpy_propertygroup {
	rpy_handle_t *handle = nullptr;
	rpy::BlockRef block; // none while it is empty
	rpy::Group group;
	bool frozen = false; // of a snapshot
};

struct rpy_property {
	rpy_handle_t *handle = nullptr;
	rpy::BlockRef block;
	rpy::Property property;
};

struct rpy_value {
	rpy_handle_t *handle = nullptr;
	uint32_t type = RPY_TYPE_INVALID; // that, while it is empty
	uint64_t number = 0;
	rpy::Text text;
	size_t size = 0; // of the text
	rpy_transaction_entry_t *owner = nullptr;
	rpy_value_t *next = nullptr; // in its entry

	std::string_view view() const { return {text.get(), size}; }
};

enum class Walk { none, services, instances, snapshots, groups, properties, values };

struct rpy_iter {
	rpy_handle_t *handle = nullptr;
	Walk walk = Walk::none;
	rpy::BlockRef block; // what is walked: of groups a page, which keeps those after it
	rpy::Reader in;      // what is left of it
	uint32_t left = 0;   // its items
	uint32_t type = 0;   // of values
	uint64_t parent = 0; // of names
	bool frozen = false; // of groups
};

struct rpy_transaction {
	rpy_handle_t *handle = nullptr;
	rpy::BlockRef block; // of the group at the start; none while it isn't started
	rpy::Group group;
	rpy_transaction_entry_t *first = nullptr;
	rpy_transaction_entry_t *last = nullptr;
};

struct rpy_transaction_entry {
	rpy_handle_t *handle = nullptr;
	rpy_transaction_t *transaction = nullptr; // none while it is detached
	rpy_transaction_entry_t *next = nullptr;
	rpy::Change change = rpy::Change::create;
	uint32_t type = RPY_TYPE_INVALID;
	char name[RPY_NAME_MAX] = "";
	rpy_value_t *first = nullptr;
	rpy_value_t *last = nullptr;
};

struct rpy_batch {
	rpy_handle_t *handle = nullptr;
	rpy::Writer conditions, steps; // as they travel
	uint32_t condition_count = 0;
	uint32_t step_count = 0;
	uint64_t adds[RPY_BATCH_MAX / 64] = {}; // a bit for each step: whether it adds a group
};

namespace rpy {

// An empty object of a handle. NULL with rpy_error() if there is no handle, or no memory.
template <typename T>
T *make_object(rpy_handle_t *handle)
{
	if (handle == nullptr)
		return fail_null<T>(RPY_ERROR_INVALID_ARGUMENT);
	T *object = new (std::nothrow) T;
	if (object == nullptr)
		return fail_null<T>(RPY_ERROR_NO_MEMORY);
	object->handle = handle;
	return object;
}

// What groups hang below: a service, an instance, a snapshot or a group.
struct Top {
	rpy_handle_t *handle;
	Parent kind;
	uint64_t id;

	bool is_frozen() const { return kind == Parent::snapshot || kind == Parent::frozen; }
};
// False with rpy_error() if the object is none, or empty.
bool set_top(Top *top, Parent kind, const rpy_entity *entity);
bool set_top(Top *top, const rpy_propertygroup_t *pg);
bool is_set(const rpy_propertygroup_t *pg);

// Writes the entries of a transaction, as a commit has them. RPY_ERROR_TYPE_MISMATCH: a value has another type than its entry.
rpy_error_t put_entries(Writer *out, const rpy_transaction_t *transaction);

// Finds a property of a group. False if there is none.
bool find_property(const Group &group, std::string_view name, Property *found);

} // namespace rpy

#endif
