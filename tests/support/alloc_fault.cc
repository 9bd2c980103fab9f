// malloc and its family, over those of libc.
#include "alloc_fault.h"

#include <cerrno>
#include <cstdint>
#include <malloc.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OWN_ALLOCATOR 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define OWN_ALLOCATOR 0
#endif
#endif
#ifndef OWN_ALLOCATOR
#define OWN_ALLOCATOR 1
#endif

namespace {

struct State {
	long until_fault; // 0: none planned
	bool all_after;
	bool *fired;
	HeapUse use;
};

thread_local constinit State state = {0, false, nullptr, {0, 0}};

} // namespace

AllocFault::AllocFault(int nth, After after)
{
	state.until_fault = nth;
	state.all_after = after == After::Fail;
	state.fired = &fired_;
}

void AllocFault::stop()
{
	state.until_fault = 0;
	state.fired = nullptr;
}

bool AllocFault::available()
{
	return OWN_ALLOCATOR != 0;
}

AllocFaultPause::AllocFaultPause() : until_fault_(state.until_fault)
{
	state.until_fault = 0;
}

AllocFaultPause::~AllocFaultPause()
{
	state.until_fault = until_fault_;
}

HeapUse heap_use()
{
	return state.use;
}

#if OWN_ALLOCATOR

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *memory);
}

namespace {

bool fails()
{
	if (state.until_fault == 0 || --state.until_fault > 0)
		return false;
	if (state.all_after)
		state.until_fault = 1;
	*state.fired = true;
	errno = ENOMEM;
	return true;
}

// malloc keeps one word of its own with each block.
long bytes_of(void *memory)
{
	return static_cast<long>(malloc_usable_size(memory) + sizeof(size_t));
}

// Counts a block that was taken, with 1, or given back, with -1.
void *counted(void *memory, long times = 1)
{
	if (memory != nullptr) {
		state.use.blocks += times;
		state.use.bytes += times * bytes_of(memory);
	}
	return memory;
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

void *malloc(size_t size) noexcept
{
	return fails() ? nullptr : counted(__libc_malloc(size));
}

void *calloc(size_t count, size_t size) noexcept
{
	return fails() ? nullptr : counted(__libc_calloc(count, size));
}

void *realloc(void *memory, size_t size) noexcept
{
	if (fails())
		return nullptr;
	const HeapUse before = state.use;
	(void) counted(memory, -1);
	void *moved = __libc_realloc(memory, size);
	if (moved == nullptr && size != 0)
		state.use = before; // the old block stays
	return counted(moved);
}

void *memalign(size_t alignment, size_t size) noexcept
{
	return fails() ? nullptr : counted(__libc_memalign(alignment, size));
}

void *aligned_alloc(size_t alignment, size_t size) noexcept
{
	return memalign(alignment, size);
}

int posix_memalign(void **memory, size_t alignment, size_t size) noexcept
{
	if (alignment % sizeof(void *) != 0 || (alignment & (alignment - 1)) != 0 || alignment == 0)
		return EINVAL;
	void *made = memalign(alignment, size);
	if (made == nullptr)
		return ENOMEM;
	*memory = made;
	return 0;
}

void free(void *memory) noexcept
{
	(void) counted(memory, -1);
	__libc_free(memory);
}
}
#pragma GCC visibility pop

#endif
