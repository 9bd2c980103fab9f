// The physical limits that the benchmarks are held against: the same bytes read, searched, parsed and written by code that
// does nothing else. They are written to be fast, or the comparison would flatter us.
#ifndef BENCH_LIMITS_H
#define BENCH_LIMITS_H

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>
#ifdef __SSE2__
#include <immintrin.h>
#endif

namespace limits {

constexpr size_t chunk_size = 65536;

// Counts the places where a text stands, without regard to case: it looks at the first, the last and a middle byte of 32
// places at once, and compares where all fit.
class Searcher {
public:
	explicit Searcher(std::string_view text) : text_(text) {}

	size_t count(const char *data, size_t length) const
	{
		if (length < text_.size())
			return 0;
		size_t found = 0;
		size_t at = 0;
		size_t last = length - text_.size();
#ifdef __SSE2__
		at = __builtin_cpu_supports("avx2") ? count_wide(data, last, &found) : 0;
#endif
		for (; at <= last; at++)
			found += strncasecmp(data + at, text_.data(), text_.size()) == 0;
		return found;
	}

private:
#ifdef __SSE2__
	// A byte of the text, to be looked for at its own distance. Letters are folded.
	struct Mark {
		Mark(std::string_view text, size_t at) : distance(at)
		{
			fold = isalpha(static_cast<unsigned char>(text[at])) != 0 ? 0x20 : 0;
			byte = static_cast<char>(text[at] | fold);
		}
		size_t distance;
		char fold;
		char byte;
	};

	__attribute__((target("avx2"))) size_t count_wide(const char *data, size_t last, size_t *found) const
	{
		const Mark marks[] = {Mark(text_, 0), Mark(text_, text_.size() - 1), Mark(text_, text_.size() / 2)};
		__m256i folds[3], bytes[3];
		for (int i = 0; i < 3; i++) {
			folds[i] = _mm256_set1_epi8(marks[i].fold);
			bytes[i] = _mm256_set1_epi8(marks[i].byte);
		}
		size_t at = 0;
		for (; at + 32 <= last + 1; at += 32) {
			const char *place = data + at;
			__m256i fits = _mm256_set1_epi8(-1);
			for (int i = 0; i < 3; i++) {
				__m256i bytes_there =
				    _mm256_loadu_si256(reinterpret_cast<const __m256i *>(place + marks[i].distance));
				fits = _mm256_and_si256(
				    fits, _mm256_cmpeq_epi8(_mm256_or_si256(bytes_there, folds[i]), bytes[i]));
			}
			unsigned mask = static_cast<unsigned>(_mm256_movemask_epi8(fits));
			for (; mask != 0; mask &= mask - 1)
				*found += strncasecmp(place + __builtin_ctz(mask), text_.data(), text_.size()) == 0;
		}
		return at;
	}
#endif

	std::string_view text_;
};

// Opens a file, reads it in chunks, and searches each.
inline size_t scan_file(const char *path, const Searcher &searcher)
{
	alignas(4096) static char chunk[chunk_size];
	int fd = open(path, O_RDONLY | O_CLOEXEC);
	size_t found = 0;
	for (ssize_t got; (got = read(fd, chunk, sizeof(chunk))) > 0;)
		found += searcher.count(chunk, static_cast<size_t>(got));
	close(fd);
	return found;
}

// Typed objects in one block that grows: for each name and value its length and bytes, for each number 8 bytes.
class Block {
public:
	Block() : bytes_(static_cast<char *>(malloc(first_room))), room_(first_room) {}
	Block(const Block &) = delete;
	Block &operator=(const Block &) = delete;
	~Block() { free(bytes_); }

	size_t size() const { return used_; }

	// Parses whole lines in the writer's form.
	void parse(const char *at, const char *end)
	{
		while (at < end) {
			if (room_ - used_ < 4096)
				grow();
			at = properties(identifiers(at));
		}
	}

private:
	static constexpr size_t first_room = 65536;

	// Large blocks lie in large pages: faults would cost more than the parsing.
	void grow()
	{
		constexpr size_t huge_page = 2 << 20;
		room_ *= 2;
		bool large = room_ >= 2 * huge_page;
		char *grown = static_cast<char *>(large ? aligned_alloc(huge_page, room_) : malloc(room_));
		if (grown == nullptr)
			abort();
		if (large)
			(void) madvise(grown, room_, MADV_HUGEPAGE);
		memcpy(grown, bytes_, used_);
		free(bytes_);
		bytes_ = grown;
	}
	template <typename T>
	void put(T value)
	{
		memcpy(bytes_ + used_, &value, sizeof(value));
		used_ += sizeof(value);
	}
	// Copies up to a delimiter and gives what stands behind it.
	const char *text(const char *at, char delim)
	{
		char *to = bytes_ + used_ + sizeof(uint16_t);
		char *start = to;
		while (*at != delim)
			*to++ = *at++;
		put(static_cast<uint16_t>(to - start));
		used_ += static_cast<size_t>(to - start);
		return at + 1;
	}
	const char *identifiers(const char *at)
	{
		while (*at != '\t')
			at = text(text(at, '='), ';');
		return at + 1;
	}
	const char *properties(const char *at)
	{
		while (*at != '\n') {
			at = text(at, '=');
			char kind = *at;
			put(kind);
			while (*at != ',' && *at != ';')
				at++;
			size_t count_at = used_;
			uint16_t count = 0;
			put(count);
			for (; *at == ','; count++)
				at = kind == 's' ? string(at + 1) : kind == 'b' ? boolean(at + 1) : number(at + 1);
			memcpy(bytes_ + count_at, &count, sizeof(count));
			at++;
		}
		return at + 1;
	}
	const char *string(const char *at)
	{
		char *to = bytes_ + used_ + sizeof(uint16_t);
		char *start = to;
		while (*at != ',' && *at != ';') {
			at += *at == '\\';
			*to++ = *at++;
		}
		put(static_cast<uint16_t>(to - start));
		used_ += static_cast<size_t>(to - start);
		return at;
	}
	const char *boolean(const char *at)
	{
		put(static_cast<int32_t>(*at == 't'));
		return at + (*at == 't' ? 4 : 5);
	}
	const char *number(const char *at)
	{
		bool negative = *at == '-';
		at += negative;
		int64_t value = 0;
		for (; *at >= '0' && *at <= '9'; at++)
			value = value * 10 + (*at - '0');
		put(negative ? -value : value);
		return at;
	}

	char *bytes_;
	size_t room_;
	size_t used_ = 0;
};

// Reads a file in chunks and parses it into one block; gives the block's size.
inline size_t parse_file(const char *path)
{
	static char chunk[4096 + chunk_size];
	int fd = open(path, O_RDONLY | O_CLOEXEC);
	Block block;
	size_t tail = 0;
	for (ssize_t got; (got = read(fd, chunk + 4096, chunk_size)) > 0;) {
		const char *begin = chunk + 4096 - tail;
		const char *end = chunk + 4096 + got;
		const char *last = static_cast<const char *>(memrchr(begin, '\n', static_cast<size_t>(end - begin)));
		block.parse(begin, last + 1);
		tail = static_cast<size_t>(end - last - 1);
		memcpy(chunk + 4096 - tail, last + 1, tail);
	}
	close(fd);
	return block.size();
}

// Replaces a file durably by bytes that are there already.
inline void replace_file(const std::string &path, const std::string &directory, std::string_view bytes)
{
	std::string temporary = path + ".new";
	int fd = open(temporary.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
	for (size_t done = 0; done < bytes.size();) {
		ssize_t written = write(fd, bytes.data() + done, bytes.size() - done);
		if (written <= 0)
			abort();
		done += static_cast<size_t>(written);
	}
	if (fsync(fd) != 0 || close(fd) != 0 || rename(temporary.c_str(), path.c_str()) != 0)
		abort();
	int parent = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	if (fsync(parent) != 0 || close(parent) != 0)
		abort();
}

} // namespace limits

#endif
