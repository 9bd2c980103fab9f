// The bounds of the machine, of control groups and of the process itself.
#include "base/memory_bound.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <sys/resource.h>
#include <unistd.h>

#include "base/clock.h"
#include "base/files.h"

namespace {

constexpr size_t groups_max = 16384; // bytes of /proc/self/cgroup

std::atomic<size_t> known_bound;
std::atomic<int64_t> read_at; // in seconds, never 0

// Where a version of control groups is mounted, and what its files for the bound are called.
struct Version {
	std::string_view controller; // as /proc/self/cgroup has it; version 2 has none
	const char *mounts[2];
	const char *file;
};

constexpr Version versions[] = {
    {"", {"/sys/fs/cgroup", "/sys/fs/cgroup/unified"}, "memory.max"},
    {"memory", {"/sys/fs/cgroup/memory", nullptr}, "memory.limit_in_bytes"},
};

// The number in a file; SIZE_MAX if it says "max", or isn't there.
size_t read_bound(const char *path)
{
	char text[32];
	ssize_t len = meridon_read_file(path, text, sizeof text);
	std::string_view number(text, len > 0 ? static_cast<size_t>(len) : 0);
	if (!number.empty() && number.back() == '\n')
		number.remove_suffix(1);
	uint64_t bound;
	return meridon_parse_number(number, SIZE_MAX, &bound) ? bound : SIZE_MAX;
}

// The least bound of a group and its parents, up to the mount: that one is the group itself where its name isn't seen.
size_t bound_of_group(const char *root, const char *mount, std::string_view group, const char *file)
{
	size_t least = SIZE_MAX;
	for (;;) {
		char path[PATH_MAX];
		int len = snprintf(
		    path, sizeof path, "%s%s%.*s/%s", root, mount, static_cast<int>(group.size()), group.data(), file);
		if (len > 0 && len < static_cast<int>(sizeof path))
			least = std::min(least, read_bound(path));
		if (group.empty())
			return least;
		group = group.substr(0, group.rfind('/'));
	}
}

bool has_word(std::string_view list, std::string_view word)
{
	while (!list.empty()) {
		size_t comma = std::min(list.find(','), list.size());
		if (list.substr(0, comma) == word)
			return true;
		list.remove_prefix(std::min(comma + 1, list.size()));
	}
	return false;
}

// A line of /proc/self/cgroup: a number, the controllers, the group, with colons between.
size_t bound_of_line(const char *root, std::string_view line)
{
	size_t first = line.find(':');
	size_t second = first == line.npos ? line.npos : line.find(':', first + 1);
	if (second == line.npos || !line.substr(second + 1).starts_with('/'))
		return SIZE_MAX;
	std::string_view controllers = line.substr(first + 1, second - first - 1);
	std::string_view group = line.substr(second + 1);
	if (group == "/")
		group = "";
	size_t least = SIZE_MAX;
	for (const Version &version : versions) {
		if (version.controller.empty() ? !controllers.empty() : !has_word(controllers, version.controller))
			continue;
		for (const char *mount : version.mounts) {
			if (mount != nullptr)
				least = std::min(least, bound_of_group(root, mount, group, version.file));
		}
	}
	return least;
}

size_t bound_of_groups(const char *root)
{
	char path[PATH_MAX], text[groups_max];
	if (snprintf(path, sizeof path, "%s/proc/self/cgroup", root) >= static_cast<int>(sizeof path))
		return SIZE_MAX;
	ssize_t len = meridon_read_file(path, text, sizeof text);
	std::string_view lines(text, len > 0 ? static_cast<size_t>(len) : 0);
	size_t least = SIZE_MAX;
	while (!lines.empty()) {
		size_t end = std::min(lines.find('\n'), lines.size());
		least = std::min(least, bound_of_line(root, lines.substr(0, end)));
		lines.remove_prefix(std::min(end + 1, lines.size()));
	}
	return least;
}

size_t bound_of_machine()
{
	long pages = sysconf(_SC_PHYS_PAGES), page = sysconf(_SC_PAGESIZE);
	return pages > 0 && page > 0 ? static_cast<size_t>(pages) * static_cast<size_t>(page) : SIZE_MAX;
}

size_t bound_of_process()
{
	struct rlimit limit;
	return getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY ? limit.rlim_cur : SIZE_MAX;
}

} // namespace

size_t read_memory_bound(const char *root)
{
	return std::min({bound_of_machine(), bound_of_groups(root), bound_of_process()});
}

size_t memory_bound()
{
	const int64_t now = now_ns() / second_ns + 1;
	if (read_at.load(std::memory_order_acquire) == now)
		return known_bound;
	const size_t bound = read_memory_bound("");
	known_bound = bound;
	read_at.store(now, std::memory_order_release);
	return bound;
}
