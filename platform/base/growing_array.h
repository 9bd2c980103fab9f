// The growing array: elements that can be moved as bytes, in one block of the heap. A full block doubles.
#ifndef MERIDON_BASE_GROWING_ARRAY_H
#define MERIDON_BASE_GROWING_ARRAY_H

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

// For elements that own nothing.
template <typename T>
inline void keep_element(T)
{}

// Owns its block and what its elements own, which `FreeElement` releases. All that can fail returns false when memory has
// run out, and then has changed nothing.
template <typename T, auto FreeElement = keep_element<T>>
class GrowingArray {
	static_assert(std::is_trivially_copyable_v<T>, "elements are moved as bytes");

public:
	GrowingArray() = default;
	GrowingArray(const GrowingArray &) = delete;
	GrowingArray &operator=(const GrowingArray &) = delete;
	~GrowingArray()
	{
		for (T &element : *this)
			FreeElement(element);
		free(elements_);
	}

	size_t size() const { return size_; }
	bool empty() const { return size_ == 0; }
	T *begin() const { return elements_; }
	T *end() const { return elements_ + size_; }
	T &operator[](size_t i) const { return elements_[i]; }
	T &back() const { return elements_[size_ - 1]; }

	// Frees what the elements own and keeps the block.
	void clear()
	{
		for (T &element : *this)
			FreeElement(element);
		size_ = 0;
	}

	// Makes room for `count` more elements. After the first success there is a block, also if nothing was asked for.
	bool make_room(size_t count = 1)
	{
		if (elements_ != nullptr && count <= room_ - size_)
			return true;
		const size_t needed = size_ + count;
		const size_t doubled = elements_ == nullptr ? first_room : 2 * room_;
		return resize(needed > doubled ? needed : doubled);
	}
	// The place after the last element, once there is room. What stands there becomes an element by added().
	T *place() const { return elements_ + size_; }
	void added() { size_++; }

	bool append(const T *elements, size_t count)
	{
		if (!make_room(count))
			return false;
		memcpy(place(), elements, count * sizeof(T));
		size_ += count;
		return true;
	}
	bool append(const T &element) { return append(&element, 1); }

	// Gives room that isn't used back. An empty array keeps its block, with room for one element.
	bool cut_to_size() { return resize(size_ > 0 ? size_ : 1); }

	// Hands the block with its elements to the caller, who frees them. NULL if there is no block.
	T *release()
	{
		size_ = room_ = 0;
		return std::exchange(elements_, nullptr);
	}

private:
	static constexpr size_t first_room = 128;

	bool resize(size_t room)
	{
		size_t bytes;
		if (__builtin_mul_overflow(room, sizeof(T), &bytes))
			return false;
		T *block = static_cast<T *>(realloc(elements_, bytes));
		if (block == nullptr)
			return false;
		elements_ = block;
		room_ = room;
		return true;
	}

	T *elements_ = nullptr;
	size_t size_ = 0;
	size_t room_ = 0;
};

#endif
