/*
 * The two sides of an update of a flat file: the old file, and what the new one will hold.
 */
#ifndef LIBOSTREL_FILES_CONTENT_H
#define LIBOSTREL_FILES_CONTENT_H

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

#include "base/growing_array.h"
#include "base/guards.h"
#include "libostrel_error.h"
#include "libostrel_files_newfile.h"
#include "libostrel_files_open.h"
#include "libostrel_files_select.h"
#include "libostrel_version.h"

// Read once to decide, and once more to copy from it, unless it is so short that one read brought it all.
class OldFile {
public:
	// Only a regular file is replaced; the open doesn't wait for anything else. A missing file is no failure: see exists().
	ostrel_error_t open(ostrel_db_t db, const char *path)
	{
		int error = 0;
		fd_.reset(ostrel_open_db_file(db, path, O_RDONLY | O_NONBLOCK | O_CLOEXEC, &error));
		if (!fd_) {
			ostrel_error_t result = ostrel_errno2error(error);
			return result == OSTREL_NOT_FOUND ? OSTREL_SUCCESS : SETERROR(result);
		}
		return check_kind();
	}
	// As open(), with a file that is open already.
	ostrel_error_t adopt(Fd fd)
	{
		fd_ = std::move(fd);
		return check_kind();
	}
	void close() { fd_.reset(); }
	bool exists() const { return static_cast<bool>(fd_); }
	bool is(const struct stat &file) const { return exists() && ostrel_same_file(file, opened_); }
	size_t size() const { return static_cast<size_t>(opened_.st_size); }

	ostrel_error_t next(LineSelection *lines, SelectedLine *line)
	{
		reader_.set_file(fd_.get());
		return lines->next(&reader_, line);
	}
	ostrel_error_t copy(off_t begin, off_t end, NewFile *to) const
	{
		const char *text = reader_.whole_text();
		int error = text != nullptr ? to->append(text + begin, static_cast<size_t>(end - begin))
					    : to->copy(fd_.get(), begin, end);
		return error == 0 ? OSTREL_SUCCESS : SETERRNO(error);
	}

	// The version of the whole database. A missing one has that of no bytes.
	ostrel_error_t version(ObjectVersion *version) const
	{
		Digest digest = ostrel_digest(nullptr, 0);
		if (int error = exists() ? ostrel_digest_file(fd_.get(), &digest) : 0)
			return SETERRNO(error);
		ostrel_print_digest("f", digest, version);
		return OSTREL_SUCCESS;
	}

	// Databases are replaced whole. One that another program changed in place meanwhile may have been read in two versions.
	ostrel_error_t check_unchanged() const
	{
		if (!exists() || reader_.whole_text() != nullptr)
			return OSTREL_SUCCESS;
		struct stat now;
		if (fstat(fd_.get(), &now) != 0)
			return SETERRNO(errno);
		bool same = now.st_size == opened_.st_size && now.st_mtim.tv_sec == opened_.st_mtim.tv_sec &&
			    now.st_mtim.tv_nsec == opened_.st_mtim.tv_nsec;
		return same ? OSTREL_SUCCESS : SETERRNO(EBUSY);
	}

private:
	ostrel_error_t check_kind()
	{
		if (fstat(fd_.get(), &opened_) != 0)
			return SETERRNO(errno);
		if (S_ISREG(opened_.st_mode))
			return OSTREL_SUCCESS;
		return SETERRNO(S_ISDIR(opened_.st_mode) ? EISDIR : EINVAL);
	}

	Fd fd_;
	struct stat opened_ = {};
	BlockReader reader_{-1, LongLines::Drop};
};

// A stretch of the new file: bytes of the old file, or of the lines that the update formats.
struct Stretch {
	bool copied;
	off_t begin;
	off_t end;
};

class NewContent {
public:
	// Adds bytes of the old file.
	ostrel_error_t copy(off_t begin, off_t end) { return add({true, begin, end}); }
	// Adds the line of an object. One that can't be written isn't a failure yet: see writable().
	ostrel_error_t add_object(attrlist_t *idlist, attrlist_t *props);
	bool writable() const { return writable_; }

	ostrel_error_t write(const OldFile &old_file, NewFile *file) const;

private:
	// A stretch that goes on where the last one ends is joined to it.
	ostrel_error_t add(const Stretch &stretch)
	{
		if (!stretches_.empty()) {
			Stretch &last = stretches_.back();
			if (last.copied == stretch.copied && last.end == stretch.begin) {
				last.end = stretch.end;
				return OSTREL_SUCCESS;
			}
		}
		return stretches_.append(stretch) ? OSTREL_SUCCESS : SETERROR(OSTREL_NO_MEMORY);
	}

	GrowingArray<Stretch> stretches_;
	GrowingArray<char> text_; // the formatted lines
	bool writable_ = true;
};

// Whether the bytes of a line in the old file are what the writer would make of it.
inline bool ostrel_stays_as_it_stands(const SelectedLine &line, const LineSelection &lines)
{
	return line.is_fast() && ostrel_is_as_written(*line.fields, line.newline) && lines.has_newline(line.newline);
}

#endif
