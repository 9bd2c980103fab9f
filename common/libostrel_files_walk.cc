// The walk over a flat file, in its own order. The file is read to its end before the first visit, so that a callback may update
// the database, and a read error never ends a walk half way. What is kept for the visits is the text of the selected lines; each
// object is made for its visit and freed after it. So a walk needs memory for the text, and not for all lists, which are several
// times larger.
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>

#include "base/guards.h"
#include "libostrel_error.h"
#include "libostrel_files.h"
#include "libostrel_files_blocks.h"
#include "libostrel_files_open.h"
#include "libostrel_files_select.h"
#include "libostrel_idlist.h"

// Whole lines, in chunks that are never moved, and of which each is as large as all before it.
class KeptText {
public:
	struct Chunk {
		Chunk *next;
		size_t size;
		size_t used;
		char *text() { return reinterpret_cast<char *>(this + 1); }
	};

	KeptText() = default;
	KeptText(const KeptText &) = delete;
	KeptText &operator=(const KeptText &) = delete;
	~KeptText()
	{
		while (first_ != nullptr) {
			Chunk *next = first_->next;
			free(first_);
			first_ = next;
		}
	}

	ostrel_error_t append(const char *text, size_t length)
	{
		if (last_ == nullptr || last_->size - last_->used < length) {
			if (ostrel_error_t bad = add_chunk(length))
				return bad;
		}
		// NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): add_chunk() has set last_
		memcpy(last_->text() + last_->used, text, length);
		last_->used += length;
		return OSTREL_SUCCESS;
	}
	// The file ends without a newline: the one after the last line was added.
	void set_open() { open_ = true; }
	bool is_open() const { return open_; }

	Chunk *first() const { return first_; }

private:
	static constexpr size_t huge_page = 2 << 20;

	ostrel_error_t add_chunk(size_t length);

	Chunk *first_ = nullptr;
	Chunk *last_ = nullptr;
	size_t size_ = 0;
	bool open_ = false;
};

// Large chunks ask for large pages: the faults of small ones would cost more than the parsing.
ostrel_error_t KeptText::add_chunk(size_t length)
{
	static constexpr size_t first_size = 8192;
	size_t size = size_ > first_size ? size_ : first_size;
	if (size < length)
		size = length;
	size += sizeof(Chunk) + OSTREL_BLOCK_SLACK;
	bool large = size >= 2 * huge_page;
	if (large)
		size = (size + huge_page - 1) & ~(huge_page - 1);
	Chunk *chunk = static_cast<Chunk *>(large ? aligned_alloc(huge_page, size) : malloc(size));
	if (chunk == nullptr)
		return SETERROR(OSTREL_NO_MEMORY);
	if (large)
		(void) madvise(chunk, size, MADV_HUGEPAGE); // small pages serve too
	*chunk = {nullptr, size - sizeof(Chunk) - OSTREL_BLOCK_SLACK, 0};
	(last_ != nullptr ? last_->next : first_) = chunk;
	last_ = chunk;
	size_ += chunk->size;
	return OSTREL_SUCCESS;
}

// Goes through kept text in blocks of the size of a file's.
class KeptBlocks {
public:
	explicit KeptBlocks(const KeptText &text) : text_(text), chunk_(text.first()) {}

	// False: there are no more.
	bool next(ostrel_block *block)
	{
		if (chunk_ == nullptr)
			return false;
		block->begin = chunk_->text() + done_;
		block->end = block_end(block->begin, chunk_->text() + chunk_->used);
		block->offset = 0;
		done_ += static_cast<size_t>(block->end - block->begin);
		if (done_ == chunk_->used) {
			chunk_ = chunk_->next;
			done_ = 0;
		}
		block->open = text_.is_open() && chunk_ == nullptr;
		return true;
	}

private:
	// No line is longer than a block.
	static char *block_end(char *begin, char *end)
	{
		if (end - begin <= OSTREL_BLOCK_SIZE)
			return end;
		size_t longest = OSTREL_BLOCK_SIZE + OSTREL_LINE_MAX;
		size_t window = static_cast<size_t>(end - begin) < longest ? static_cast<size_t>(end - begin) : longest;
		return static_cast<char *>(memrchr(begin, '\n', window)) + 1;
	}

	const KeptText &text_;
	KeptText::Chunk *chunk_;
	size_t done_ = 0; // bytes of the chunk
};

// Keeps every line of the file without looking at it.
static ostrel_error_t keep_all(int fd, KeptText *text)
{
	BlockReader reader(fd, LongLines::Drop);
	for (;;) {
		ostrel_block block;
		if (int error = reader.next(&block))
			return SETERRNO(error);
		if (block.begin == block.end)
			return OSTREL_SUCCESS;
		if (ostrel_error_t bad = text->append(block.begin, static_cast<size_t>(block.end - block.begin)))
			return bad;
		if (block.open)
			text->set_open();
	}
}

static ostrel_error_t keep_selected(int fd, ostrel_db_t db, attrlist_t *idlist, bool exact, KeptText *text)
{
	BlockReader reader(fd, LongLines::Drop);
	LineSelection selection(db, idlist, exact);
	for (SelectedLine line;;) {
		ostrel_error_t bad = selection.next(&reader, &line);
		if (bad != OSTREL_SUCCESS || !line.found())
			return bad;
		size_t length = static_cast<size_t>(line.newline + 1 - line.begin);
		if (length > OSTREL_LINE_MAX)
			text->set_open(); // such a line was accepted because its newline isn't the file's
		bad = text->append(line.begin, length);
		if (bad != OSTREL_SUCCESS)
			return bad;
	}
}

// Keeps the lines that are selected; of a whole file, comments and malformed lines as well.
static ostrel_error_t keep_text(ostrel_db_t db, attrlist_t *idlist, bool exact, KeptText *text)
{
	const char *path = ostrel_file_path(db, idlist);
	if (path == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	CancellationWaits cancellation;
	int error = 0;
	Fd file(ostrel_open_db_file(db, path, O_RDONLY | O_CLOEXEC, &error));
	if (!file)
		return SETERRNO(error);
	bool everything = idlist == nullptr || (!exact && ostrel_idlist_is_empty(idlist));
	return everything ? keep_all(file.get(), text) : keep_selected(file.get(), db, idlist, exact, text);
}

static ostrel_error_t visit_line(SelectedLine *line, ostrel_visit_t *visit, void *arg)
{
	AttrList object;
	ostrel_error_t bad = line->is_fast()
				 ? ostrel_make_object(line->fields, true, object.out())
				 : ostrel_object_create(line->idlist.get(), line->props.get(), object.out());
	return bad == OSTREL_SUCCESS ? visit(object.get(), arg) : SETERROR(bad);
}

static ostrel_error_t visit_text(ostrel_db_t db, const KeptText &text, ostrel_visit_t *visit, void *arg)
{
	LineSelection all(db, nullptr, false);
	KeptBlocks blocks(text);
	for (ostrel_block block; blocks.next(&block);) {
		all.begin(block);
		for (SelectedLine line;;) {
			if (ostrel_error_t bad = all.next_in_block(&line))
				return bad;
			if (!line.found())
				break;
			if (ostrel_error_t bad = visit_line(&line, visit, arg))
				return bad;
		}
	}
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_visit_objects_of_file(
    ostrel_db_t db, attrlist_t *idlist, uint64_t flags, ostrel_visit_t *visit, void *arg)
{
	KeptText text;
	if (ostrel_error_t bad = keep_text(db, idlist, (flags & OSTREL_FLAG_EXACT_MATCH) != 0, &text))
		return bad;
	return visit_text(db, text, visit, arg);
}
