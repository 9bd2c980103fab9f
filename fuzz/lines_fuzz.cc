// Any bytes as a database file. The path that the library takes through it must give what the general reader gives line by
// line, and what the writer takes must come back as it was.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "base/guards.h"
#include "libostrel_lines.h"

namespace {

void demand(bool condition)
{
	if (!condition)
		abort();
}

std::string packed(attrlist_t *list)
{
	Heap<char> bytes;
	size_t size = 0;
	demand(attrlist_pack(list, bytes.out(), &size, ATL_ENCODE_XDR, 0) == 0);
	return {bytes.get(), size};
}

// What the general reader makes of each line. A line that is longer than its buffer is no object.
std::vector<std::string> plain_read(std::string_view text)
{
	std::vector<std::string> objects;
	while (!text.empty()) {
		size_t newline = text.find('\n');
		size_t next = newline == std::string_view::npos ? text.size() : newline + 1;
		std::string line(text.substr(0, newline));
		text.remove_prefix(next);
		const char *begin = line.c_str() + strspn(line.c_str(), " \t\v\f\r");
		if (next >= OSTREL_LINE_SIZE || *begin == '#' || *begin == '\0')
			continue;
		AttrList ids, props;
		if (ostrel_line2attrlist(line.data() + (begin - line.c_str()), ids.out(), props.out()) ==
		    OSTREL_SUCCESS)
			objects.push_back(packed(ids.get()) + packed(props.get()));
	}
	return objects;
}

int collect(ostrel_db_t, attrlist_t *ids, attrlist_t *props, uint64_t, void *arg)
{
	static_cast<std::vector<std::string> *>(arg)->push_back(packed(ids) + packed(props));
	return 0;
}

// A file in memory that a database can be opened on.
class File {
public:
	explicit File(std::string_view text) : fd_(memfd_create("lines", MFD_CLOEXEC))
	{
		demand(write(fd_, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
		std::string path = "/proc/self/fd/" + std::to_string(fd_);
		demand(ostrel_db_open(path.c_str(), 0, ostrel_files_db_cmds, 0, &db_) == OSTREL_SUCCESS);
	}
	File(const File &) = delete;
	File &operator=(const File &) = delete;
	~File()
	{
		ostrel_db_close(db_);
		(void) close(fd_);
	}
	std::vector<std::string> walk(attrlist_t *search) const
	{
		std::vector<std::string> objects;
		demand(ostrel_db_walk(db_, search, 0, collect, nullptr, &objects, nullptr) == OSTREL_SUCCESS);
		return objects;
	}

	void each(ostrel_walkcb_t *cb) const
	{
		demand(ostrel_db_walk(db_, nullptr, 0, cb, nullptr, nullptr, nullptr) == OSTREL_SUCCESS);
	}

private:
	int fd_;
	ostrel_db_t db_ = nullptr;
};

// An object that the writer takes is one line, which reads back as one object with the same identifiers. That line is then
// the writer's own, and is written again as it stands.
int write_again(ostrel_db_t, attrlist_t *ids, attrlist_t *props, uint64_t, void *)
{
	char idstr[1024];
	ostrel_line first, second;
	if (ostrel_check_identifiers(ids) != OSTREL_SUCCESS || ostrel_idlist2idstr(ids, idstr) != OSTREL_SUCCESS ||
	    ostrel_format_line(&first, idstr, props) != OSTREL_SUCCESS)
		return 0;
	std::string line(first.text, first.length);
	demand(!line.empty() && line.find('\n') == line.size() - 1);
	line.pop_back();
	AttrList ids_again, props_again;
	demand(ostrel_line2attrlist(line.data(), ids_again.out(), props_again.out()) == OSTREL_SUCCESS);
	demand(packed(ids_again.get()) == packed(ids));
	demand(ostrel_format_line(&second, idstr, props_again.get()) == OSTREL_SUCCESS);
	demand(std::string_view(second.text, second.length) == std::string_view(first.text, first.length));
	return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::string_view text(reinterpret_cast<const char *>(data), size);
	std::vector<std::string> expected = plain_read(text);
	File file(text);
	demand(file.walk(nullptr) == expected);

	// Each selection is a part of the whole, in the same order.
	AttrList search;
	demand(ostrel_idlist_init(search.out(), nullptr) == OSTREL_SUCCESS);
	demand(ostrel_idlist_add(search.get(), "a", "") == OSTREL_SUCCESS);
	size_t at = 0;
	for (const std::string &object : file.walk(search.get())) {
		while (at < expected.size() && expected[at] != object)
			at++;
		demand(at++ < expected.size());
	}

	file.each(write_again);
	return 0;
}
