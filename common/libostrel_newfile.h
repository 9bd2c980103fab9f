/*
 * Replacing a database file: a complete new file is written beside it and renamed over it. Whatever fails or kills the
 * process on the way, the database is the old file or the new one, and whole.
 */
#ifndef LIBOSTREL_NEWFILE_H
#define LIBOSTREL_NEWFILE_H

#include <cstddef>

#include "base/guards.h"
#include "libostrel_impl.h"

class NewFile {
public:
	NewFile() = default;
	NewFile(const NewFile &) = delete;
	NewFile &operator=(const NewFile &) = delete;
	~NewFile() = default;

	/*
	 * Opens the temporary file of `path` in the place that `db` names, and empties it. Only a regular file with one
	 * name is taken for one that an earlier update left. About `expected` bytes will be written.
	 * Owns:   `path` is kept as a pointer and has to outlive this.
	 * Errors: OSTREL_INVALID_ARG  the name is too long, or something else is in the file's place
	 *         those of the open, mapped
	 */
	ostrel_error_t open(ostrel_db_t db, const char *path, size_t expected);

	// Puts bytes behind those written before. Errors: those of the write, mapped.
	ostrel_error_t append(const char *text, size_t length);

	// Puts the bytes [begin, end) of another file behind those written before. Errors: those of the read and the
	// write, mapped; OSTREL_FAILURE if the file is shorter.
	ostrel_error_t copy(int from, off_t begin, off_t end);

	/*
	 * Brings all to the disk, closes the file, renames it over the database, and brings the rename to the disk.
	 * Errors: those of each step, mapped. If only the last step fails, the new file stands.
	 */
	ostrel_error_t commit();

private:
	ostrel_error_t open_temporary();
	int write_all(const char *text, size_t length);
	int flush();
	int put_in_place();

	const char *path_ = nullptr;
	char temporary_[1024];
	enclaveid_t enclave_ = 0; // 0: reached by its path in this process
	Fd fd_;
	Heap<char> buffer_;
	size_t room_ = 0;
	size_t used_ = 0;
};

// Removes the file and brings that to the disk. Errors: errno values.
int ostrel_unlink_durably(const char *path);

#endif
