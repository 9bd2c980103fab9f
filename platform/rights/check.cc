// The check: who asks, whether the file counts, and what the user database says of groups. Every way out but the last
// is a "no".
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <meridon/peercred.h>

#include "base/files.h"
#include "base/guards.h"
#include "base/users.h"
#include "rights/rights.h"

namespace rights {
namespace {

constexpr size_t file_max = 1U << 20;
constexpr int groups_max = 65536;

class User final : public Holder {
public:
	// False if the name isn't that of the user with this id.
	bool find(const char *name, uid_t uid)
	{
		UserEntry user;
		if (user.find(getpwnam_r, name) != 0 || !user || user->pw_uid != uid)
			return false;
		name_ = name;
		first_group_ = user->pw_gid;
		return true;
	}
	bool is_user(std::string_view name) override { return name == name_; }
	bool in_group(std::string_view name) override
	{
		gid_t wanted;
		if (!group_id(name, &wanted) || (!groups_ && !read_groups()))
			return false;
		const gid_t *end = groups_.get() + count_;
		return std::find(static_cast<const gid_t *>(groups_.get()), end, wanted) != end;
	}

private:
	static bool group_id(std::string_view name, gid_t *id)
	{
		char text[256];
		if (name.size() >= sizeof text)
			return false;
		memcpy(text, name.data(), name.size());
		text[name.size()] = '\0';
		GroupEntry group;
		if (group.find<const char *>(getgrnam_r, text) != 0 || !group)
			return false;
		*id = group->gr_gid;
		return true;
	}
	bool read_groups()
	{
		for (int room = 64; room <= groups_max; room *= 2) {
			groups_.reset(static_cast<gid_t *>(malloc(static_cast<size_t>(room) * sizeof(gid_t))));
			count_ = room;
			if (!groups_)
				return false;
			if (getgrouplist(name_, first_group_, groups_.get(), &count_) >= 0)
				return true;
		}
		groups_.reset();
		return false;
	}

	const char *name_ = nullptr;
	gid_t first_group_ = 0;
	Heap<gid_t> groups_;
	int count_ = 0;
};

bool can_be_trusted(const struct stat &st)
{
	return S_ISREG(st.st_mode) && (st.st_uid == 0 || st.st_uid == geteuid()) &&
	       (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool read_file(Heap<char> *text, size_t *size)
{
	char path[PATH_MAX];
	if (meridon_path("etc/meridon/rights", path) != 0)
		return false;
	Fd file(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
	struct stat st;
	if (!file || fstat(file.get(), &st) == -1 || !can_be_trusted(st) || static_cast<size_t>(st.st_size) > file_max)
		return false;
	size_t room = static_cast<size_t>(st.st_size) + 1;
	text->reset(static_cast<char *>(malloc(room)));
	if (!*text)
		return false;
	ssize_t got = meridon_read_all(file.get(), text->get(), room);
	*size = got < 0 ? 0 : static_cast<size_t>(got);
	return got >= 0;
}

bool check(const char *right, const char *name, uid_t uid)
{
	if (!is_right(right))
		return false;
	Heap<char> text;
	size_t size;
	if (!read_file(&text, &size))
		return false;
	User user;
	return user.find(name, uid) && grants({text.get(), size}, right, user);
}

} // namespace
} // namespace rights

int chkrightattr_peercred(const char *auth, const char *user, const peercred_t *cred)
{
	CancellationWaits cancellation;
	if (auth == nullptr || *auth == '\0' || user == nullptr || cred == nullptr)
		return 0;
	uid_t uid = peercred_getruid(cred);
	if (uid == static_cast<uid_t>(-1))
		return 0;
	return uid == 0 || rights::check(auth, user, uid) ? 1 : 0;
}
