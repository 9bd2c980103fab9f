/*
 * Replacing a database file: a complete new file is written beside it and renamed over it. Whatever fails or kills the
 * process on the way, the database is the old file or the new one, and whole. Whoever replaces it holds the lock of its
 * updates from the moment at which it decides what to write. All results are errno values.
 */
#ifndef LIBOSTREL_FILES_NEWFILE_H
#define LIBOSTREL_FILES_NEWFILE_H

#include <cstddef>
#include <sys/stat.h>

#include "base/guards.h"
#include "libostrel.h"
#include "libostrel_files_lock.h"

class NewFile {
public:
	NewFile() = default;
	NewFile(const NewFile &) = delete;
	NewFile &operator=(const NewFile &) = delete;
	// Without a begin() all is as before the lock().
	~NewFile();

	/*
	 * Waits until no other update of `path` runs, and keeps others waiting while this object lives. `enclave` is the
	 * database's; it counts in the global enclave alone.
	 * Owns:   `path` is kept as a pointer and has to outlive this.
	 * Errors: EINVAL  the name is too long; as of FileLock::take()
	 */
	int lock(enclaveid_t enclave, const char *path);

	// Whether the temporary file isn't this update's own: some other one ended without it. It may be discarded, and the lock
	// taken again.
	bool was_left_behind() const { return lock_.fd() >= 0 && !lock_.is_unused(); }

	// The status of the database as it is now; *exists is false if there is none.
	int find_database(struct stat *status, bool *exists) const;
	// The database of another enclave, open since it was locked; none if there is none.
	Fd take_database() { return std::move(database_); }

	/*
	 * Empties the temporary file and gives it its mode: 0644, in another enclave for a new file alone; or mode and
	 * owner of `like`. About `expected` bytes will be written. Errors: ENOMEM; those of the calls made.
	 */
	int begin(size_t expected, const struct stat *like = nullptr);

	// Puts bytes behind those written before. Errors: those of the write.
	int append(const char *text, size_t length);

	// Puts the bytes [begin, end) of another file behind those written before. Errors: those of the read and the write;
	// EIO if the file is shorter.
	int copy(int from, off_t begin, off_t end);

	/*
	 * Brings all to the disk, renames the file over the database, and brings the rename to the disk.
	 * Errors: those of each step. If only the last step fails, the new file stands.
	 */
	int commit();

	// Removes the temporary file. Errors aren't told: what can't be removed is used by the next update.
	void discard() const;

	// Removes the database. Errors: as of commit().
	int remove_database();

private:
	int set_owner_and_mode(const struct stat *like) const;
	int write_all(const char *text, size_t length);
	int flush();
	int put_in_place();

	const char *path_ = nullptr;
	char temporary_[1024] = {};
	enclaveid_t enclave_ = 0; // 0: reached by its path in this process
	FileLock lock_;
	Fd database_;
	bool begun_ = false;
	Heap<char> buffer_;
	size_t room_ = 0;
	size_t used_ = 0;
};

#endif
