/*
 * The new file of an update: it is written beside the database, under the lock, and then renamed over it. Whatever fails or
 * kills the process, the database is the old file or the new one, and whole. All results are errno values.
 *
 * The calls in their order: lock(); find_database(), and with it the decision what to write; begin(); append() and copy();
 * commit(). The object's end releases the lock, and removes a temporary file that lock() made and begin() never used.
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
	~NewFile();

	/*
	 * Waits until no other update of `path` runs, and holds off others until commit() or this object's end. `enclave` is
	 * the database's; outside the global enclave it is ignored.
	 * Owns:   `path` is kept as a pointer and must outlive this object.
	 * Errors: EINVAL  the name is too long; as of FileLock::take()
	 */
	int lock(enclaveid_t enclave, const char *path);

	// Whether the temporary file is the left-over of an update that failed or was killed. The caller may discard() it and lock
	// again.
	bool was_left_behind() const { return lock_.fd() >= 0 && !lock_.is_unused(); }

	// Finds the status of the database as it is now; *exists is false if there is none.
	int find_database(struct stat *status, bool *exists) const;
	// The database of another enclave, which lock() has opened; empty in this enclave, and if there is no database.
	Fd take_database() { return std::move(database_); }

	/*
	 * Empties the temporary file and sets its mode: 0644, but in another enclave only if the file is new; or mode and
	 * owner of `like`, if that is given. About `expected` bytes will be written. Errors: ENOMEM; those of the calls made
	 */
	int begin(size_t expected, const struct stat *like = nullptr);

	// Appends bytes. Errors: those of the write.
	int append(const char *text, size_t length);

	// Appends the bytes [begin, end) of another file. Errors: those of the read and the write; EIO if the file is shorter.
	int copy(int from, off_t begin, off_t end);

	/*
	 * Syncs the file, renames it over the database while the lock is held, and syncs the directory.
	 * Errors: those of each step. If only the last step fails, the new file stands
	 */
	int commit();

	// Removes the temporary file. Errors are ignored: the next update uses a file that couldn't be removed.
	void discard() const;

	// Removes the database, and syncs its directory. Errors: as of commit()
	int remove_database();

private:
	int set_owner_and_mode(const struct stat *like) const;
	int write_all(const char *text, size_t length);
	int flush();
	int put_in_place();

	const char *path_ = nullptr;
	char temporary_[1024] = {};
	enclaveid_t enclave_ = 0; // 0: this process reaches the files by their paths
	FileLock lock_;
	Fd database_;
	bool begun_ = false;
	Heap<char> buffer_;
	size_t room_ = 0;
	size_t used_ = 0;
};

#endif
