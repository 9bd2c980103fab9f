// A directory of a test's own, and files in it.
#ifndef TESTS_SCRATCH_H
#define TESTS_SCRATCH_H

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

class Scratch {
public:
	explicit Scratch(const char *parent = "/tmp")
	{
		std::string name = std::string(parent) + "/ostrel-test-XXXXXX";
		if (mkdtemp(name.data()) == nullptr)
			abort();
		directory_ = name;
	}
	Scratch(const Scratch &) = delete;
	Scratch &operator=(const Scratch &) = delete;
	~Scratch()
	{
		std::error_code ignored;
		std::filesystem::remove_all(directory_, ignored);
	}

	std::string path(const std::string &name) const { return directory_ + "/" + name; }
	const std::string &directory() const { return directory_; }

	// The path of the file that now holds the text.
	std::string write(const std::string &name, const std::string &text) const
	{
		std::ofstream(path(name), std::ios::binary | std::ios::trunc) << text;
		return path(name);
	}
	bool has(const std::string &name) const
	{
		struct stat found;
		return lstat(path(name).c_str(), &found) == 0;
	}

private:
	std::string directory_;
};

// These three never fail, also for what goes while they look, as a process does: they give what they have seen.

// Without C++ streams: their buffer throws where the process of a file has ended meanwhile.
inline std::string file_text(const std::string &path)
{
	std::string text;
	char block[4096];
	FILE *file = fopen(path.c_str(), "re");
	for (size_t length; file != nullptr && (length = fread(block, 1, sizeof(block), file)) > 0;)
		text.append(block, length);
	if (file != nullptr)
		(void) fclose(file);
	return text;
}

inline std::vector<std::string> entries_of(const std::string &path)
{
	std::vector<std::string> names;
	std::error_code gone;
	for (std::filesystem::directory_iterator at(path, gone), end; at != end; at.increment(gone))
		names.push_back(at->path().filename());
	return names;
}

inline std::string link_text(const std::string &path)
{
	std::error_code gone;
	return std::filesystem::read_symlink(path, gone);
}

// How many descriptors the process has open.
inline int open_descriptors()
{
	return static_cast<int>(entries_of("/proc/self/fd").size()) - 1; // the directory's own
}

#endif
