// One request to the daemon and its reply. A reply is one block of bytes that is never changed: groups, properties and
// iterators share it and point into it, so that walking needs neither the daemon nor a copy.
#ifndef MERIDON_RPY_CALL_H
#define MERIDON_RPY_CALL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "base/clock.h"
#include "rpy/error.h"
#include "rpy/requests.h"
#include "rpy/wire.h"

namespace rpy {

// The bytes of a reply, counted.
struct Block {
	std::atomic<uint32_t> holds{1};
	size_t size = 0;
	Block *next_page = nullptr; // the next page of a listing: it lives as long as this one
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

	// A second hold on a block. Takes NULL.
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

// Whether the daemon that a handle is bound to is there, without a call: a daemon holds its hatch as long as it lives.
// Gives RPY_ERROR_NONE, or what is wrong.
rpy_error_t find_daemon(const rpy_handle_t *handle);

// The time and the bytes that one call, or all calls of a listing, may take, whatever the daemon does.
class Budget {
public:
	explicit Budget(size_t bytes = reply_max);

	// False if it is used up.
	bool left(int *seconds, size_t *bytes) const;
	void take(size_t bytes) { bytes_ -= bytes < bytes_ ? bytes : bytes_; }

private:
	Deadline end_;
	size_t bytes_;
};
// The bytes of a whole listing: a sixteenth of the memory that the process may have, and at least one reply.
size_t listing_max();

// One request and its reply. On failure rpy_error() is set.
class Call {
public:
	explicit Call(Op its_op) : op(its_op)
	{
		out.u32(magic);
		out.u32(static_cast<uint32_t>(op));
	}

	// Sends what was written. Errors: as rpy_error() says.
	bool send(rpy_handle_t *handle);
	bool send(rpy_handle_t *handle, Budget *budget);
	// The same for a change that must not take effect once it has failed here. If the daemon may carry it out all the same, `undo`
	// follows it: over the same connection, which the daemon serves in order, or, if that has gone, in a call of its own.
	bool send_before(rpy_handle_t *handle, Call *undo);

	// The steps of these. ready() and take() set rpy_error() when they give false; the others give RPY_ERROR_NONE or what is
	// wrong, and leave rpy_error() as it is.
	bool ready(const rpy_handle_t *handle) const;
	bool take(rpy_error_t error);
	rpy_error_t exchange(rpy_handle_t *handle, Budget *budget);
	rpy_error_t keep(std::string_view bytes);
	rpy_error_t take_head();
	// Whether the reply was sound. To be called when all of it has been taken.
	bool sound();

	const Op op;
	Writer out;
	Reader in;
	BlockRef reply;
	bool is_open = false; // a change that failed here, which the daemon may have made, or may still make
};

} // namespace rpy

#endif
