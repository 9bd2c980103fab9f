// A directory of a test's own, and files in it.
#ifndef TESTS_SCRATCH_H
#define TESTS_SCRATCH_H

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
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
	DIR *directory = opendir(path.c_str());
	while (const dirent *entry = directory == nullptr ? nullptr : readdir(directory)) {
		if (std::string_view(entry->d_name) != "." && std::string_view(entry->d_name) != "..")
			names.emplace_back(entry->d_name);
	}
	if (directory != nullptr)
		(void) closedir(directory);
	return names;
}

inline std::string link_text(const std::string &path)
{
	char text[PATH_MAX];
	const ssize_t length = readlink(path.c_str(), text, sizeof(text));
	return {text, length > 0 ? static_cast<size_t>(length) : 0};
}

// How many descriptors the process has open.
inline int open_descriptors()
{
	return static_cast<int>(entries_of("/proc/self/fd").size()) - 1; // the directory's own
}

#endif
