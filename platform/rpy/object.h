// What the repository's client objects hold. A reply of the daemon is one block of bytes that is never changed; groups,
// properties and iterators share it and point into it, so that walking needs neither the daemon nor a copy.
#ifndef MERIDON_RPY_OBJECT_H
#define MERIDON_RPY_OBJECT_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

#include <meridon/enclave.h>

#include "base/guards.h"
#include "rpy/together.h"
#include "rpy/wire.h"

namespace rpy {

// The bytes of a reply, counted.
struct Block {
	std::atomic<uint32_t> holds{1};
	size_t size = 0;
	Block *next_page = nullptr; // the page behind it, in a listing: it lives as long as this one
	char *data() { return reinterpret_cast<char *>(this + 1); }
};

Block *make_block(size_t size);
void drop_block(Block *block);

// One hold on a block.
class BlockRef {
public:
	BlockRef() = default;
	explicit BlockRef(Block *block) : block_(block) {}
	BlockRef(const BlockRef &other) : block_(other.block_)
	{
		if (block_ != nullptr)
			block_->holds.fetch_add(1, std::memory_order_relaxed);
	}
	BlockRef(BlockRef &&other) noexcept : block_(other.release()) {}
	BlockRef &operator=(BlockRef other) noexcept
	{
		std::swap(block_, other.block_);
		return *this;
	}
	~BlockRef() { drop_block(block_); }

	// Another hold on a block that somebody holds. Takes NULL.
	static BlockRef share(Block *block)
	{
		if (block != nullptr)
			block->holds.fetch_add(1, std::memory_order_relaxed);
		return BlockRef(block);
	}
	Block *get() const { return block_; }
	Block *operator->() const { return block_; }
	explicit operator bool() const { return block_ != nullptr; }
	Block *release() { return std::exchange(block_, nullptr); }

private:
	Block *block_ = nullptr;
};

// A text in memory of its own.
using Text = Handle<char, free_heap>;
bool copy_text(std::string_view from, Text *to);

// ---- Errors ----

int fail(rpy_error_t error);
// Of a change that the daemon may carry out all the same.
int fail_open(rpy_error_t error);

template <typename T>
T *fail_null(rpy_error_t error)
{
	(void) fail(error);
	return nullptr;
}

// ---- The daemon ----

// Whether the daemon that a handle is bound to is there, without a call: it holds its hatch as long as it lives.
// RPY_ERROR_NONE, or what is wrong.
rpy_error_t find_daemon(const rpy_handle_t *handle);

// What one call, or all calls of a listing, may take: no daemon is waited for any longer, or believed for more bytes.
class Budget {
public:
	explicit Budget(size_t bytes = reply_max);

	// False if it is used up.
	bool left(int *seconds, size_t *bytes) const;
	void take(size_t bytes) { bytes_ -= bytes < bytes_ ? bytes : bytes_; }

private:
	int64_t end_; // by the clock that nobody sets, in ns
	size_t bytes_;
};
// Of a whole listing: a sixteenth of the machine's memory, and at least one reply.
size_t listing_max();

// One request and its reply. On failure rpy_error() is set.
class Call {
public:
	explicit Call(Op op)
	{
		out.u32(magic);
		out.u32(static_cast<uint32_t>(op));
	}

	// Sends what was written. Errors: as rpy_error() says.
	bool send(rpy_handle_t *handle);
	bool send(rpy_handle_t *handle, Budget *budget);
	// The same for a change that must not come about once it has failed here. If it may all the same, `undo` follows it: over
	// its own connection, which the daemon serves in order, or, where that has gone, in a call of its own.
	bool send_before(rpy_handle_t *handle, Call *undo);
	// The same as send() for a read of one group, which may share a call with those of other threads.
	bool send_read(rpy_handle_t *handle);

	// The steps of these. Each gives RPY_ERROR_NONE or what is wrong, and leaves rpy_error() alone.
	rpy_error_t exchange(rpy_handle_t *handle, Budget *budget);
	rpy_error_t keep(std::string_view bytes);
	rpy_error_t take_head();
	// To be asked when all of a reply is taken: whether it was sound.
	bool sound();

	Writer out;
	Reader in;
	BlockRef reply;
	bool is_open = false; // the daemon may carry it out, or have done so, though it failed here

private:
	bool ready(const rpy_handle_t *handle) const;
	bool take(rpy_error_t error);
};

// Exchanges a read for its reply, in a call of its own or one of several threads.
rpy_error_t exchange_together(rpy_handle_t *handle, Call *call);

// Copies a text out, cut to fit. Gives its length.
ssize_t give_text(std::string_view text, char *buffer, size_t size);

// A name or type that a caller gives; empty if it can't be one.
std::string_view name_of(const char *text);

// The group of a call's reply, into an object.
bool fill_group(Call *call, rpy_propertygroup_t *pg);

} // namespace rpy

struct rpy_handle {
	Fd hatch; // none while unbound
	rpy::Text path;
	enclaveid_t enclave = ENCLAVE_ID_GLOBAL; // where the path lies; the global one if that isn't known
	pid_t daemon = 0;                        // who served the hatch when it was bound; 0 if that can't be seen
	uint64_t binder = 0;                     // and this process then
	uint64_t change = 0;                     // what changes are part of; 0: each stands alone
	rpy::Together together;
};

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
	rpy::BlockRef block; // what is walked: of groups a page, which holds those behind it
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

namespace rpy {

// Finds a property of a group. False if there is none.
bool find_property(const Group &group, std::string_view name, Property *found);

} // namespace rpy

#endif
