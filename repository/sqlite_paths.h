// The store's file as the file system shows it, without a look inside: whether its path still leads to it, what lies in
// its journal's place, and whether it can be written. And a private copy of it.
#ifndef REPOSITORY_SQLITE_PATHS_H
#define REPOSITORY_SQLITE_PATHS_H

#include <cstdint>
#include <string>

#include "signals.h"

namespace repository {

constexpr uint32_t store_application_id = 0x4341524e; // what a file of this kind says it is

class StorePath {
public:
	// `file` is open on the store and locked by this process. It stays the caller's.
	StorePath(const std::string &path, int file);

	const std::string &path() const { return path_; }
	const std::string &journal() const { return journal_; }
	const std::string &directory() const { return directory_; }
	int file() const { return file_; }

	// Whether the path leads to the file that is locked, and that has something in it. Nothing may be acknowledged into
	// a file that the next start wouldn't find.
	bool leads_to_file() const;
	// What is in the journal's place: nothing, what can be a journal, or what can't.
	enum class Journal { none, regular, other };
	Journal journal_state() const;
	// Whether the journal has something in it that a crash of SQLite's left there.
	bool has_live_journal() const;
	// Whether something lies in the journal's place that SQLite wouldn't roll back, but delete: a note of somebody's.
	bool has_foreign_journal() const;
	// Whether the file and its journal may be written, as far as that can be seen. A connection that was opened for
	// writing doesn't show that the mount or the file was made read-only since, and fails half-way through.
	bool takes_writes() const;
	// Whether a journal could be made as well, if there is none.
	bool takes_new_files() const;
	// Makes the names of the file and of its journal durable. SQLite does so and ignores the result. 0, or an errno value.
	int sync_directory() const;
	uint64_t bytes() const;

private:
	std::string journal_start() const;

	const std::string path_, journal_;
	const std::string directory_; // "." if the path names none
	const int file_;
};

// A copy of a store, with the journal that a crash left beside it, in a private directory that goes with the object. A
// journal that can't be rolled back in place, since nothing can be written there, is rolled back in the copy. SIGTERM is
// deferred meanwhile, so that the directory doesn't outlive the process.
class PrivateCopy {
public:
	explicit PrivateCopy(const StorePath &store);
	PrivateCopy(const PrivateCopy &) = delete;
	PrivateCopy &operator=(const PrivateCopy &) = delete;
	~PrivateCopy() { remove(); }

	// Whether it could be made.
	explicit operator bool() const { return !directory_.empty(); }
	std::string file() const { return directory_ + "/repository.db"; }

private:
	bool fill(const StorePath &store) const;
	void remove();

	EndDeferred until_removed_;
	std::string directory_;
};

} // namespace repository

#endif
