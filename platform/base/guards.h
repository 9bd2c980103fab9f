// Guards that hold a resource and give it up on every way out. One template for C handles, one for descriptors.
#ifndef MERIDON_BASE_GUARDS_H
#define MERIDON_BASE_GUARDS_H

#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <unistd.h>
#include <utility>

#include <meridon/attrlist.h>

// Owns a pointer that `Free` takes back; Free must accept NULL.
template <typename T, auto Free>
class Handle {
public:
	Handle() = default;
	explicit Handle(T *value) : value_(value) {}
	Handle(Handle &&other) noexcept : value_(other.release()) {}
	Handle &operator=(Handle &&other) noexcept
	{
		reset(other.release());
		return *this;
	}
	Handle(const Handle &) = delete;
	Handle &operator=(const Handle &) = delete;
	~Handle() { reset(); }

	T *get() const { return value_; }
	T *operator->() const { return value_; }
	explicit operator bool() const { return value_ != nullptr; }
	// For functions that fill a pointer: gives up what was held first.
	T **out()
	{
		reset();
		return &value_;
	}
	T *release() { return std::exchange(value_, nullptr); }
	void reset(T *value = nullptr)
	{
		T *old = std::exchange(value_, value);
		if (old != nullptr)
			Free(old);
	}

private:
	T *value_ = nullptr;
};

inline void free_heap(void *memory)
{
	::free(memory);
}
// The result of a close here is of no interest: a stream that was written is closed by hand, with close_checked().
inline void close_stream(FILE *stream)
{
	(void) ::fclose(stream);
}

using AttrList = Handle<attrlist_t, attrlist_free>;
using Stream = Handle<FILE, close_stream>;
template <typename T>
using Heap = Handle<T, free_heap>;

// Owns a file descriptor.
class Fd {
public:
	Fd() = default;
	explicit Fd(int fd) : fd_(fd) {}
	Fd(Fd &&other) noexcept : fd_(other.release()) {}
	Fd &operator=(Fd &&other) noexcept
	{
		reset(other.release());
		return *this;
	}
	Fd(const Fd &) = delete;
	Fd &operator=(const Fd &) = delete;
	~Fd() { reset(); }

	int get() const { return fd_; }
	explicit operator bool() const { return fd_ >= 0; }
	int release() { return std::exchange(fd_, -1); }
	void reset(int fd = -1)
	{
		int old = std::exchange(fd_, fd);
		if (old >= 0)
			(void) ::close(old);
	}

private:
	int fd_ = -1;
};

// While it lives the calling thread isn't cancelled: a cancelled thread runs no guard, so that whatever it holds, a lock
// above all, would be held for ever. The cancellation waits.
class CancellationWaits {
public:
	CancellationWaits() { (void) pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
	~CancellationWaits() { (void) pthread_setcancelstate(before_, nullptr); }
	CancellationWaits(const CancellationWaits &) = delete;
	CancellationWaits &operator=(const CancellationWaits &) = delete;

private:
	int before_;
};

#endif
