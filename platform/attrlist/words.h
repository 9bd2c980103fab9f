// Short names and texts are copied and compared by words: a call for a handful of bytes costs more than the bytes.
#ifndef MERIDON_ATTRLIST_WORDS_H
#define MERIDON_ATTRLIST_WORDS_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <endian.h>

namespace atl {

template <typename T>
inline T load(const void *from)
{
	T value;
	memcpy(&value, from, sizeof(value));
	return value;
}

template <typename T>
inline void store(void *to, T value)
{
	memcpy(to, &value, sizeof(value));
}

// A word of which the first `length` bytes of memory count.
inline uint64_t keep_head(uint64_t word, size_t length)
{
	if (length >= sizeof(word))
		return word;
#if __BYTE_ORDER == __LITTLE_ENDIAN
	return word & ((uint64_t{1} << (8 * length)) - 1);
#else
	return length == 0 ? 0 : word & ~(~uint64_t{0} >> (8 * length));
#endif
}

// The first 8 bytes of a text, with zeros after a shorter one; reads no byte beyond `length`.
inline uint64_t load_head(const char *text, size_t length)
{
	if (length >= 8)
		return load<uint64_t>(text);
#if __BYTE_ORDER == __LITTLE_ENDIAN
	// From both ends: what is read twice falls on the same place.
	if (length >= 4)
		return load<uint32_t>(text) | static_cast<uint64_t>(load<uint32_t>(text + length - 4))
						  << (8 * (length - 4));
	if (length >= 2)
		return load<uint16_t>(text) | static_cast<uint64_t>(load<uint16_t>(text + length - 2))
						  << (8 * (length - 2));
	return length == 1 ? static_cast<unsigned char>(*text) : 0;
#else
	uint64_t head = 0;
	memcpy(&head, text, length);
	return head;
#endif
}

// Copies exactly so many bytes by words, and fills the last word with zeros: `to` has room for 7 bytes more. A reader
// by words that follows at once finds each word in one piece.
inline void copy_padded(void *to, const void *from, size_t size)
{
	auto *out = static_cast<char *>(to);
	auto *in = static_cast<const char *>(from);
	if (size > 64) {
		memcpy(to, from, size);
		return;
	}
	for (; size >= 8; size -= 8, in += 8, out += 8)
		store(out, load<uint64_t>(in));
	if (size > 0)
		store(out, load_head(in, size));
}

// Copies exactly so many bytes.
inline void copy_bytes(void *to, const void *from, size_t size)
{
	auto *out = static_cast<char *>(to);
	auto *in = static_cast<const char *>(from);
	if (size > 16) {
		memcpy(to, from, size);
	} else if (size >= 8) {
		auto first = load<uint64_t>(in), last = load<uint64_t>(in + size - 8);
		store(out, first);
		store(out + size - 8, last);
	} else if (size >= 4) {
		auto first = load<uint32_t>(in), last = load<uint32_t>(in + size - 4);
		store(out, first);
		store(out + size - 4, last);
	} else if (size > 0) {
		out[0] = in[0];
		out[size / 2] = in[size / 2];
		out[size - 1] = in[size - 1];
	}
}

// Copies at least so many bytes, and at most 7 more: both sides have room for them.
inline void copy_words(void *to, const void *from, size_t size)
{
	if (size > 64) {
		memcpy(to, from, size);
		return;
	}
	for (size_t at = 0; at < size; at += 8)
		store(static_cast<char *>(to) + at, load<uint64_t>(static_cast<const char *>(from) + at));
}

// Whether a text has its first terminator at `length`; text[length] is known to be one, and `room` bytes can be read.
inline bool ends_at(const char *text, size_t length, size_t room)
{
#if __BYTE_ORDER == __LITTLE_ENDIAN
	if (length < 8 && room >= 8) {
		auto word = load<uint64_t>(text);
		uint64_t zeros = (word - 0x0101010101010101U) & ~word & 0x8080808080808080U;
		return static_cast<size_t>(__builtin_ctzl(zeros)) / 8 == length;
	}
#endif
	(void) room;
	return strlen(text) == length;
}

} // namespace atl

#endif
