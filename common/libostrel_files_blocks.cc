// Blocks of whole lines.
#include "libostrel_files_blocks.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

// A few buffers live as long as the process. With a buffer from malloc for each read, its pages would go back to the kernel
// and be fetched again every time. A reader that finds no spare one free allocates its own.
static constexpr size_t first_head = 4096;
static constexpr size_t buffer_size = first_head + OSTREL_BLOCK_SIZE + OSTREL_BLOCK_SLACK;
static constexpr int spare_count = 4;
alignas(4096) static char spares[spare_count][buffer_size];
static std::atomic<bool> spare_taken[spare_count];

static_assert(first_head > OSTREL_LINE_MAX, "the tail of a line that can be an object fits");

static int take_spare()
{
	for (int i = 0; i < spare_count; i++)
		if (!spare_taken[i].exchange(true, std::memory_order_acquire))
			return i;
	return -1;
}

BlockReader::~BlockReader()
{
	if (spare_ >= 0)
		spare_taken[spare_].store(false, std::memory_order_release);
	else
		free(memory_);
}

// Makes room for the tail, and for a read after it. A long line doubles the room, so that its bytes are moved only a few times.
int BlockReader::make_room()
{
	if (memory_ == nullptr) {
		head_ = first_head;
		room_ = OSTREL_BLOCK_SIZE;
		spare_ = take_spare();
		memory_ = spare_ >= 0 ? spares[spare_] : static_cast<char *>(malloc(buffer_size));
		return memory_ != nullptr ? 0 : ENOMEM;
	}
	if (tail_length_ <= head_) {
		if (tail_length_ > 0)
			memmove(memory_ + head_ - tail_length_, tail_, tail_length_);
		tail_ = memory_ + head_ - tail_length_;
		return 0;
	}
	size_t head = 2 * tail_length_;
	size_t room = 2 * tail_length_ + OSTREL_BLOCK_SIZE;
	char *grown = static_cast<char *>(malloc(head + room + OSTREL_BLOCK_SLACK));
	if (grown == nullptr)
		return ENOMEM;
	memcpy(grown + head - tail_length_, tail_, tail_length_);
	tail_ = grown + head - tail_length_;
	if (spare_ >= 0)
		spare_taken[spare_].store(false, std::memory_order_release);
	else
		free(memory_);
	spare_ = -1;
	memory_ = grown;
	head_ = head;
	room_ = room;
	return 0;
}

int BlockReader::read_block(size_t *length)
{
	ssize_t got;
	do
		got = read(fd_, memory_ + head_, room_);
	while (got < 0 && errno == EINTR);
	if (got < 0)
		return errno;
	*length = static_cast<size_t>(got);
	reads_ += got > 0;
	if (*length < OSTREL_BLOCK_SIZE || checked_kind_)
		return 0;
	// The file goes on after a full block: a device such as /dev/zero would never end.
	checked_kind_ = true;
	struct stat kind;
	if (fstat(fd_, &kind) != 0)
		return errno;
	return S_ISCHR(kind.st_mode) || S_ISBLK(kind.st_mode) ? EINVAL : 0;
}

void BlockReader::keep_tail(char *from, char *to)
{
	tail_ = from;
	tail_length_ = static_cast<size_t>(to - from);
	if (long_lines_ == LongLines::Drop && tail_length_ > OSTREL_LINE_MAX) {
		tail_length_ = 0;
		dropping_ = true;
	}
}

// Splits the tail of before and the bytes just read into whole lines and a new tail.
void BlockReader::split_off_tail(size_t length, ostrel_block *block)
{
	char *fresh = memory_ + head_;
	char *end = fresh + length;
	char *begin = fresh - tail_length_;
	offset_ += static_cast<off_t>(length);
	block->begin = block->end = begin;
	block->open = false;
	if (dropping_) {
		char *newline = static_cast<char *>(memchr(fresh, '\n', length));
		if (newline == nullptr)
			return;
		dropping_ = false;
		begin = newline + 1;
		fresh = begin;
	}
	char *last = static_cast<char *>(memrchr(fresh, '\n', static_cast<size_t>(end - fresh)));
	char *after = last != nullptr ? last + 1 : begin;
	block->begin = begin;
	block->end = after;
	block->offset = offset_ - (end - begin);
	keep_tail(after, end);
}

// The last line, if the file ends without a newline.
void BlockReader::end_file(ostrel_block *block)
{
	block->begin = memory_ + head_ - tail_length_;
	block->end = memory_ + head_;
	block->offset = offset_ - static_cast<off_t>(tail_length_);
	block->open = tail_length_ > 0;
	if (block->open) {
		*block->end++ = '\n';
		added_newline_ = true;
	}
	tail_length_ = 0;
}

int BlockReader::next(ostrel_block *block)
{
	for (;;) {
		if (int error = make_room())
			return error;
		size_t length = 0;
		if (int error = read_block(&length))
			return error;
		if (length == 0) {
			end_file(block);
			return 0;
		}
		split_off_tail(length, block);
		if (block->begin != block->end)
			return 0;
	}
}
