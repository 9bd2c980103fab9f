// Obsolete files: whatever in a directory matches a pattern is renamed, so that nothing uses it any longer.
#undef NDEBUG // the assertion below is the only thing that finds two calls at once: it stays in every build
#include <cassert>
#include <cerrno>
#include <cstring>
#include <dirent.h>

#include <meridon/regcmp.h>

#include "base/guards.h"
#include "libostrel_log.h"
#include "libostrel_obsolete.h"

// How the pattern reaches the selection, which is given an entry and nothing else. NULL between calls.
char *ostrel_file_regexp;

namespace {

constexpr size_t path_size = 1024;

struct EntryList {
	dirent **entries = nullptr;
	int count = 0;

	EntryList() = default;
	EntryList(const EntryList &) = delete;
	EntryList &operator=(const EntryList &) = delete;
	~EntryList()
	{
		for (int i = 0; i < count; i++)
			free(entries[i]);
		free(entries);
	}
};

// Takes the compiled pattern out of the process-wide variable again, on every way out.
class PatternInUse {
public:
	explicit PatternInUse(const char *pattern)
	{
		assert(ostrel_file_regexp == NULL); // NOLINT(modernize-use-nullptr): the text is what people will see
		ostrel_file_regexp = regcmp(pattern, nullptr);
	}
	~PatternInUse()
	{
		free(ostrel_file_regexp);
		ostrel_file_regexp = nullptr;
	}
	PatternInUse(const PatternInUse &) = delete;
	PatternInUse &operator=(const PatternInUse &) = delete;
};

bool set_aside(const char *dir, const char *name)
{
	char from[path_size], to[path_size];
	int length = snprintf(from, sizeof(from), "%s/%s", dir, name);
	if (length < 0 || static_cast<size_t>(length) >= sizeof(from))
		return false;
	length = snprintf(to, sizeof(to), "%s.%s", from, "obsolete");
	if (length < 0 || static_cast<size_t>(length) >= sizeof(to))
		return false;
	return rename(from, to) == 0;
}

} // namespace

int ostrel_file_select(const struct dirent *entry)
{
	return regex(ostrel_file_regexp, entry->d_name) != nullptr ? 1 : 0;
}

void ostrel_make_files_obsolete(const char *dir, const char *pattern)
{
	CancellationWaits cancellation;
	PatternInUse in_use(pattern);
	if (ostrel_file_regexp == nullptr) {
		ostrel_log(
		    LOG_ERR, "Rename obsolete files in %s failed: pattern %s: %s", dir, pattern, strerror(errno));
		return;
	}
	EntryList list;
	list.count = scandir(dir, &list.entries, ostrel_file_select, nullptr);
	if (list.count < 0) {
		if (errno != ENOENT) // a directory that isn't there has nothing to set aside
			ostrel_log(LOG_ERR, "Rename obsolete files in %s failed: %s", dir, strerror(errno));
		return;
	}
	for (int i = 0; i < list.count; i++) {
		if (!set_aside(dir, list.entries[i]->d_name))
			ostrel_log(LOG_ERR, "Rename obsolete file %s/%s failed", dir, list.entries[i]->d_name);
	}
}
