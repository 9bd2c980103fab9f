/*
 * Reading a text file in blocks of whole lines, with plain read(2) and a buffer that is kept.
 * A read error is never taken for the end of the file.
 */
#ifndef LIBOSTREL_FILES_BLOCKS_H
#define LIBOSTREL_FILES_BLOCKS_H

#include <cstddef>
#include <sys/types.h>

// Bytes asked for by one read; a block has no more than these and the beginning of a line from before.
#define OSTREL_BLOCK_SIZE 65536
// Bytes of a line that are taken, newline included.
#define OSTREL_LINE_MAX 2047
// Bytes behind a block that may be read, though nothing is said of what they hold.
#define OSTREL_BLOCK_SLACK 64

// What becomes of lines that are longer than OSTREL_LINE_MAX and reach beyond a block.
enum class LongLines { Drop, Keep };

// A run of whole lines, each with its newline. The bytes may be changed until the next block.
struct ostrel_block {
	char *begin;
	char *end;    // begin == end: the file has ended
	off_t offset; // of `begin` in the file
	bool open;    // the newline of the last line isn't the file's: the file ends without one

	// The bytes of a line in the file, its newline included.
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

	// For a reader that is there before the file is open.
	void set_file(int fd) { fd_ = fd; }

	/*
	 * Gives the next block, or one without bytes at the end of the file.
	 * Errors: errno values: ENOMEM; EINVAL for a device that doesn't end within the first block; those of read()
	 * Limits: LongLines::Drop never holds more than OSTREL_BLOCK_SIZE and a line
	 */
	int next(ostrel_block *block);

	// At the end of the file: its text, if one read brought it all and nothing was added. Else NULL.
	const char *whole_text() const { return reads_ == 1 && !added_newline_ ? memory_ + head_ : nullptr; }

private:
	int prepare();
	int fill(size_t *length);
	void take_lines(size_t length, ostrel_block *block);
	void keep_tail(char *from, char *to);
	void end_file(ostrel_block *block);

	int fd_;
	LongLines long_lines_;
	char *memory_ = nullptr; // head room for a tail, then room for one read, then slack
	size_t head_ = 0;        // bytes of head room
	size_t room_ = 0;        // bytes of one read
	char *tail_ = nullptr;   // the beginning of a line that goes on in the next block
	size_t tail_length_ = 0;
	off_t offset_ = 0; // of the next byte to be read
	size_t reads_ = 0; // that brought something
	bool added_newline_ = false;
	bool dropping_ = false;
	bool looked_at_kind_ = false;
	int spare_ = -1; // the kept buffer that memory_ is, if it is one
};

#endif
