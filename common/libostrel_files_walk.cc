// A walk over a flat file in its own order. The text of the selected lines is kept, and each object is made when its turn
// comes and freed after the visit: memory follows the text, not the lists. The file is read to its end before the first
// visit, so that a callback may update it, and a read error leaves nothing half walked.
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>

#include "base/guards.h"
#include "libostrel_files.h"
#include "libostrel_files_select.h"

// Whole lines, in chunks that grow with the text.
class KeptText {
public:
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
	// The last line isn't ended by a newline in the file.
	void set_open() { open_ = true; }

	// Gives the text to a selection, in blocks of its size.
	ostrel_error_t give(LineSelection *selection)
	{
		for (Chunk *chunk = first_; chunk != nullptr; chunk = chunk->next) {
			char *begin = chunk->text();
			char *chunk_end = begin + chunk->used;
			while (begin < chunk_end) {
				char *end = block_end(begin, chunk_end);
				bool last = end == chunk_end && chunk == last_;
				if (ostrel_error_t bad = selection->take({begin, end, 0, open_ && last}))
					return bad;
				begin = end;
			}
		}
		return OSTREL_SUCCESS;
	}

private:
	struct Chunk {
		Chunk *next;
		size_t size;
		size_t used;
		char *text() { return reinterpret_cast<char *>(this + 1); }
	};
	static constexpr size_t huge_page = 2 << 20;

	ostrel_error_t add_chunk(size_t length);

	// No line is longer than a block.
	static char *block_end(char *begin, char *end)
	{
		if (end - begin <= OSTREL_BLOCK_SIZE)
			return end;
		size_t longest = OSTREL_BLOCK_SIZE + OSTREL_LINE_MAX;
		size_t window = static_cast<size_t>(end - begin) < longest ? static_cast<size_t>(end - begin) : longest;
		return static_cast<char *>(memrchr(begin, '\n', window)) + 1;
	}

	Chunk *first_ = nullptr;
	Chunk *last_ = nullptr;
	size_t size_ = 0;
	bool open_ = false;
};

// Chunks double what is there. Large ones ask for large pages: faults would cost more than the parsing.
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

// Keeps the selected lines.
class TextSink final : public LineSink {
public:
	explicit TextSink(KeptText *text) : text_(text) {}

	ostrel_error_t plain_line(ostrel_fields *fields, const char *newline) override
	{
		return keep(fields->begin, newline);
	}
	ostrel_error_t odd_line(const char *line, const char *newline, attrlist_t *, attrlist_t *) override
	{
		return keep(line, newline);
	}

private:
	ostrel_error_t keep(const char *line, const char *newline)
	{
		size_t length = static_cast<size_t>(newline + 1 - line);
		if (length > OSTREL_LINE_MAX)
			text_->set_open(); // only without its newline was it short enough
		return text_->append(line, length);
	}

	KeptText *text_;
};

// Makes each object and has it visited.
class VisitSink final : public LineSink {
public:
	VisitSink(ostrel_visit_t *visit, void *arg) : visit_(visit), arg_(arg) {}

	ostrel_error_t plain_line(ostrel_fields *fields, const char *) override
	{
		AttrList object;
		if (ostrel_error_t bad = ostrel_make_object(fields, true, object.out()))
			return SETERROR(bad);
		return visit_(object.get(), arg_);
	}
	ostrel_error_t odd_line(const char *, const char *, attrlist_t *idlist, attrlist_t *props) override
	{
		AttrList object;
		if (ostrel_error_t bad = ostrel_object_create(idlist, props, object.out()))
			return SETERROR(bad);
		return visit_(object.get(), arg_);
	}

private:
	ostrel_visit_t *visit_;
	void *arg_;
};

// Every line of the file, not looked at yet.
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
	TextSink sink(text);
	return LineSelection(db, idlist, exact, &sink).read(fd);
}

// The text of the lines that are selected, and perhaps of others.
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

ostrel_error_t ostrel_visit_objects_of_file(
    ostrel_db_t db, attrlist_t *idlist, uint64_t flags, ostrel_visit_t *visit, void *arg)
{
	KeptText text;
	if (ostrel_error_t bad = keep_text(db, idlist, (flags & OSTREL_FLAG_EXACT_MATCH) != 0, &text))
		return bad;
	VisitSink sink(visit, arg);
	LineSelection all(db, nullptr, false, &sink);
	return text.give(&all);
}
