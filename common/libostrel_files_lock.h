/*
 * The lock that keeps updates of one database file apart, whichever handle, thread, process or enclave they come from. It
 * lies on the temporary file beside the database, never on the database, and goes with its holder, however that one ends.
 * Everything here reports in errno values and makes system calls alone: a forked child may use it.
 */
#ifndef LIBOSTREL_FILES_LOCK_H
#define LIBOSTREL_FILES_LOCK_H

#include <sys/stat.h>

class FileLock {
public:
	FileLock() = default;
	FileLock(const FileLock &) = delete;
	FileLock &operator=(const FileLock &) = delete;
	~FileLock() { release(); }

	/*
	 * Opens the temporary file at this path, or makes it, and waits until no other holds it. What is in it stays.
	 * Errors: ETIMEDOUT  it was held for 60 s
	 *         EINVAL     a link, a file with a second name, or no regular file is in its place; EISDIR a directory
	 *         EACCES     somebody else's file is, in a directory that others than root and this user may change; or
	 *                    one that may not be opened, and no update of its owner's has ended within a second
	 *         those of the calls made
	 * A file system without locks doesn't keep updates apart, and isn't an error.
	 */
	int take(const char *path, uid_t system = 0);
	// Hands the descriptor to another process, or takes it over there, with the lock on it.
	int give_away();
	void adopt(int fd);
	// Unlocks, and then closes: a child that some thread forked may have the descriptor still.
	void release();

	int fd() const { return fd_; }
	// Whether the file was made for a lock, and never used.
	bool is_unused() const { return (found_.st_mode & S_ISVTX) != 0 && found_.st_size == 0; }
	// As it was when it was locked.
	const struct stat &found() const { return found_; }

private:
	int open_or_make(const char *path);
	int try_to_lock() const;
	int look(const char *path);
	int check(const char *path, uid_t system) const;

	int fd_ = -1;
	struct stat found_ = {};
};

// Whether both are the same file.
inline bool ostrel_same_file(const struct stat &a, const struct stat &b)
{
	return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

#endif
