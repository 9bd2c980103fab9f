// A directory of a test's own, and files in it.
#ifndef TESTS_SCRATCH_H
#define TESTS_SCRATCH_H

#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

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

inline std::string file_text(const std::string &path)
{
	std::ifstream file(path, std::ios::binary);
	return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// How many descriptors the process has open.
inline int open_descriptors()
{
	int count = 0;
	DIR *directory = opendir("/proc/self/fd");
	while (readdir(directory) != nullptr)
		count++;
	closedir(directory);
	return count - 3; // the two dots, and the directory's own
}

#endif
