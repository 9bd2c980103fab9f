/*
 * Reads a text file as blocks of whole lines, by read(2) into one buffer. A read error is never taken for the end of the file.
 *
 * A line that one read cuts in two is completed by the next: its beginning, the tail, is moved to the front of the buffer's
 * room, so that it lies right before the bytes that follow. Every read therefore goes to the same aligned place.
 */
#ifndef LIBOSTREL_FILES_BLOCKS_H
#define LIBOSTREL_FILES_BLOCKS_H

#include <cstddef>
#include <sys/types.h>

// The bytes that one read asks for. A block holds at most these, and a tail from the read before.
#define OSTREL_BLOCK_SIZE 65536
// The bytes of the longest line that can be an object, newline included.
#define OSTREL_LINE_MAX 2047
// So many bytes after a block may be read; what they hold is undefined. Code that looks at 64 bytes at a time needs them.
#define OSTREL_BLOCK_SLACK 64

// What becomes of a line that is longer than OSTREL_LINE_MAX and doesn't end within its block.
enum class LongLines { Drop, Keep };

// A run of whole lines, each with its newline. The caller may change the bytes; they are valid until the next block.
struct ostrel_block {
	char *begin;
	char *end;    // begin == end: the file has ended
	off_t offset; // of `begin` in the file
	bool open;    // the file ends without a newline: the one after the last line was added

	// How long a line is in the file, its newline included.
	size_t size_of(const char *line, const char *newline) const
	{
		return static_cast<size_t>(newline - line) + (open && newline + 1 == end ? 0 : 1);
	}
};

class BlockReader {
public:
	// Reads from `fd`, which stays the caller's.
	BlockReader(int fd, LongLines long_lines) : fd_(fd), long_lines_(long_lines) {}
	BlockReader(const BlockReader &) = delete;
	BlockReader &operator=(const BlockReader &) = delete;
	~BlockReader();

	// For a reader that is made before its file is open.
	void set_file(int fd) { fd_ = fd; }

	/*
	 * Fetches the next block; at the end of the file it is empty.
	 * Errors: errno values: ENOMEM; EINVAL for a device that doesn't end within the first block; those of read()
	 * Limits: with LongLines::Drop the buffer never grows; with Keep it grows to the longest line
	 */
	int next(ostrel_block *block);

	// At the end of the file: its whole text, if a single read brought it and no newline was added. Else NULL.
	const char *whole_text() const { return reads_ == 1 && !added_newline_ ? memory_ + head_ : nullptr; }

private:
	int make_room();
	int read_block(size_t *length);
	void split_off_tail(size_t length, ostrel_block *block);
	void keep_tail(char *from, char *to);
	void end_file(ostrel_block *block);

	int fd_;
	LongLines long_lines_;
	char *memory_ = nullptr; // `head_` bytes for a tail, then `room_` bytes for one read, then OSTREL_BLOCK_SLACK
	size_t head_ = 0;
	size_t room_ = 0;
	char *tail_ = nullptr; // the beginning of a line that ends in a later block
	size_t tail_length_ = 0;
	off_t offset_ = 0; // of the next byte to be read
	size_t reads_ = 0; // those that brought something
	bool added_newline_ = false;
	bool dropping_ = false; // the rest of a line that is too long
	bool checked_kind_ = false;
	int spare_ = -1; // the index of the spare buffer that memory_ is, if it is one
};

#endif
