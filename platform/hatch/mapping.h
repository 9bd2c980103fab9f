// Owns a private mapping of memory.
#ifndef MERIDON_HATCH_MAPPING_H
#define MERIDON_HATCH_MAPPING_H

#include <cstddef>
#include <cstdint>
#include <sys/mman.h>
#include <utility>

namespace hatch {

inline constexpr size_t page_size = 4096;

constexpr size_t round_to_page(size_t size)
{
	return (size + page_size - 1) & ~(page_size - 1);
}

// Whether a mapping gets all its pages at once: far cheaper than one by one, for memory that will be used whole.
enum class Fill { now, on_use };

// Gives a part of a mapping its pages. It only saves time: a failure shows when the memory is used.
inline void fill_pages(char *data, size_t size)
{
	auto address = reinterpret_cast<uintptr_t>(data);
	uintptr_t start = address & ~(page_size - 1);
	(void) madvise(reinterpret_cast<void *>(start), size + (address - start), MADV_POPULATE_WRITE);
}

class Mapping {
public:
	Mapping() = default;
	Mapping(Mapping &&other) noexcept
	    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0))
	{}
	Mapping &operator=(Mapping &&other) noexcept
	{
		reset();
		data_ = std::exchange(other.data_, nullptr);
		size_ = std::exchange(other.size_, 0);
		return *this;
	}
	Mapping(const Mapping &) = delete;
	Mapping &operator=(const Mapping &) = delete;
	~Mapping() { reset(); }

	// Maps `size` bytes, after giving up what was held. An absurd size fails.
	bool map(size_t size, Fill fill)
	{
		reset();
		int flags = MAP_PRIVATE | MAP_ANONYMOUS | (fill == Fill::now ? MAP_POPULATE : 0);
		void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, -1, 0);
		if (memory == MAP_FAILED)
			return false;
		data_ = static_cast<char *>(memory);
		size_ = size;
		return true;
	}
	// Makes it larger. False: it stays as it is.
	bool grow(size_t size)
	{
		void *memory = mremap(data_, size_, size, MREMAP_MAYMOVE);
		if (memory == MAP_FAILED)
			return false;
		data_ = static_cast<char *>(memory);
		size_ = size;
		return true;
	}
	void reset()
	{
		if (data_ != nullptr)
			(void) munmap(data_, size_);
		data_ = nullptr;
		size_ = 0;
	}
	// Gives up the memory: the caller unmaps it.
	char *release()
	{
		size_ = 0;
		return std::exchange(data_, nullptr);
	}

	char *data() const { return data_; }
	size_t size() const { return size_; }
	explicit operator bool() const { return data_ != nullptr; }

private:
	char *data_ = nullptr;
	size_t size_ = 0;
};

} // namespace hatch

#endif
