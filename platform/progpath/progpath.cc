// The path of the running program, from the process file system.
#include <climits>
#include <cstring>
#include <unistd.h>

#include <meridon/progpath.h>

namespace {

// What the kernel appends to the name of a program whose file is gone.
constexpr char deleted[] = " (deleted)";
constexpr size_t deleted_length = sizeof(deleted) - 1;

struct ProgramPath {
	char text[PATH_MAX];
	bool known = false;

	ProgramPath()
	{
		ssize_t length = readlink("/proc/self/exe", text, sizeof(text) - 1);
		if (length <= 0)
			return;
		text[length] = '\0';
		known = true;
		char *mark = text + length - deleted_length;
		// A program may really bear such a name: then its file is there.
		if (static_cast<size_t>(length) > deleted_length && strcmp(mark, deleted) == 0 &&
		    access(text, F_OK) != 0)
			*mark = '\0';
	}
};

} // namespace

const char *getprogpath(void)
{
	static const ProgramPath path;
	return path.known ? path.text : nullptr;
}
