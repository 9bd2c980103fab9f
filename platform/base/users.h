// Look-ups in the user database and the group database. A header alone, so that libostrel and the daemon use the same.
#ifndef MERIDON_BASE_USERS_H
#define MERIDON_BASE_USERS_H

#include <cerrno>
#include <cstdlib>
#include <grp.h>
#include <pwd.h>

#include "base/guards.h"

// An entry (struct passwd or struct group), and the memory of its texts: on the stack, unless the entry is a large one.
template <typename Entry>
class DatabaseEntry {
public:
	DatabaseEntry() = default;
	DatabaseEntry(const DatabaseEntry &) = delete;
	DatabaseEntry &operator=(const DatabaseEntry &) = delete;

	// Calls one of the functions getpwuid_r(), getpwnam_r(), getgrnam_r(), with a buffer that is doubled as long as it is
	// too small. The functions' own result counts: they leave errno alone.
	// Errors: 0, with or without an entry; an errno value, with none: ENOMEM, ERANGE for an entry beyond the bound.
	template <typename Key>
	int find(int (*look_up)(Key, Entry *, char *, size_t, Entry **), Key key)
	{
		int error = look_up(key, &entry_, first_, sizeof first_, &found_);
		for (size_t size = 2 * sizeof first_; error == ERANGE && size <= size_max; size *= 2) {
			grown_.reset(static_cast<char *>(malloc(size)));
			if (!grown_)
				return ENOMEM;
			// NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the memory is grown_'s
			error = look_up(key, &entry_, grown_.get(), size, &found_);
		}
		return error;
	}
	explicit operator bool() const { return found_ != nullptr; }
	const Entry *operator->() const { return found_; }

private:
	static constexpr size_t size_max = 570U << 11; // 1.1 MiB

	Entry entry_;
	Entry *found_ = nullptr;
	char first_[570];
	Heap<char> grown_;
};

using UserEntry = DatabaseEntry<struct passwd>;
using GroupEntry = DatabaseEntry<struct group>;

// The user that the kernel puts in place of one that has no number in this user namespace: nobody's own.
inline constexpr uid_t overflow_user = 65534;

#endif
