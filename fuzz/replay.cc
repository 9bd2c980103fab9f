// Runs a fuzzer's function over the files of directories, for builds without libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
	int files = 0;
	for (int i = 1; i < argc; i++) {
		for (const auto &entry : std::filesystem::recursive_directory_iterator(argv[i])) {
			if (!entry.is_regular_file())
				continue;
			std::ifstream in(entry.path(), std::ios::binary);
			std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
			// A sanitizer sees a read behind the last byte only if the block ends there.
			bytes.shrink_to_fit();
			// The name first, so that it stands above a crash.
			std::printf("%s\n", entry.path().c_str());
			std::fflush(stdout);
			LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
			files++;
		}
	}
	std::printf("%d files\n", files);
	return files > 0 ? 0 : 1;
}
