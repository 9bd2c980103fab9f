/*
 * The lock that makes updates of one database file take turns, whichever handle, thread, process or enclave they come from: an
 * open-file-description lock on the temporary file beside the database, never on the database. The kernel releases it when its
 * holder ends, however that happens.
 *
 * The holder renames the locked file over the database, or leaves it where it is. So a lock counts only while the path still
 * leads to the locked file; a waiter that gets one on a file that has moved begins again.
 *
 * Everything here returns errno values and makes only system calls: a forked child may use it.
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
	 * Opens the temporary file at this path, or makes it, and waits for the lock. The file's content stays. `system` is a
	 * user whose files are trusted like root's; 0: there is none.
	 * Errors: ETIMEDOUT  another update held the lock for 60 s
	 *         EINVAL     in its place is a link, a file with a second name, or no regular file; EISDIR: a directory
	 *         EACCES     the file is another user's, in a directory that users beside root and this one may change; or it
	 *                    can't be opened, and its owner hasn't changed anything for a second
	 *         those of the calls made
	 * On a file system without locks updates don't take turns; that is no error.
	 */
	int take(const char *path, uid_t system = 0);
	// Gives up the descriptor, to be sent to another process, and takes one over there. The lock stays on it.
	int give_away();
	void adopt(int fd);
	// Unlocks before it closes: a child forked by another thread may still have the descriptor, and with it the lock.
	void release();

	int fd() const { return fd_; }
	// Whether the file was made for this or an earlier lock, and nothing was written to it.
	bool is_unused() const { return (found_.st_mode & S_ISVTX) != 0 && found_.st_size == 0; }
	// The file's status when it was locked.
	const struct stat &found() const { return found_; }

private:
	int open_or_make(const char *path);
	int try_to_lock() const;
	int find_file(const char *path);
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
