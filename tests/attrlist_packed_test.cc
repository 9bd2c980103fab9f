// The packed form: what comes back, byte for byte, and what is refused.
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "alloc_fault.h"
#include "base/guards.h"
#include "list_text.h"
#include "scratch.h"
#include "test_paths.h"

namespace {

namespace fs = std::filesystem;

const fs::path corpus = fs::path(TEST_SOURCE_DIR) / "fuzz/corpus/attrlist_unpack";

struct Golden {
	std::string name;
	std::string bytes;
};

// The files of a folder of the fuzzer's corpus.
std::vector<Golden> golden(const char *folder)
{
	std::vector<Golden> all;
	fs::path path = corpus / folder;
	for (const auto &entry : fs::directory_iterator(path))
		all.push_back({entry.path().filename(), file_text(entry.path())});
	EXPECT_GE(all.size(), 10U) << path;
	return all;
}

std::string pack(attrlist_t *list)
{
	Heap<char> bytes;
	size_t size = 0;
	EXPECT_EQ(attrlist_pack(list, bytes.out(), &size, ATL_ENCODE_XDR, 0), 0);
	return {bytes.get(), size};
}

// From a block that ends with the last byte, so that a sanitizer sees a read behind it.
int unpack(const std::string &bytes, AttrList &list)
{
	std::vector<char> block(bytes.begin(), bytes.end());
	block.reserve(1);
	return attrlist_unpack(block.data(), block.size(), list.out(), 0);
}

TEST(PackedList, AnObjectHasTheseBytes)
{
	AttrList object, copy;
	ASSERT_EQ(unpack(file_text(corpus / "accepted/object"), object), 0);
	EXPECT_EQ(list_text(object.get()),
	    "object-idlist:19={linkname:9='net123';zone:9='z26';};"
	    "object-props:19={mtu:14=4711;on:24=1;tags:17='lan,site7','role123';ctr:15=5123456789012;};");
	SKIP_WITHOUT_ALLOC_FAULTS();
	const HeapUse before = heap_use();
	ASSERT_EQ(attrlist_dup(object.get(), copy.out(), 0), 0);
	// Its line in a database has 114 bytes; all objects of a walk may cost four times their lines.
	EXPECT_LE(heap_use().bytes - before.bytes, 114 * 37 / 10);
}

// Each in one block, of exactly the size of a copy's.
TEST(PackedList, AcceptedFilesComeBackByteForByte)
{
	for (const Golden &file : golden("accepted")) {
		SCOPED_TRACE(file.name);
		// At every alignment, with nothing behind the last byte.
		for (size_t shift = 0; shift < 8; shift++) {
			std::vector<char> room(shift + file.bytes.size());
			std::copy(file.bytes.begin(), file.bytes.end(), room.begin() + static_cast<ptrdiff_t>(shift));
			AttrList list, copy;
			const HeapUse before = heap_use();
			ASSERT_EQ(attrlist_unpack(room.data() + shift, file.bytes.size(), list.out(), 0), 0);
			const HeapUse unpacked = heap_use();
			ASSERT_EQ(attrlist_dup(list.get(), copy.out(), 0), 0);
			const HeapUse copied = heap_use();
			EXPECT_EQ(pack(list.get()), file.bytes);
			EXPECT_EQ(list_text(list.get()).find("lost"), std::string::npos);
			EXPECT_EQ(pack(copy.get()), file.bytes);
			EXPECT_EQ(unpacked.bytes - before.bytes, copied.bytes - unpacked.bytes);
			EXPECT_LE(unpacked.bytes - before.bytes, static_cast<long>(9 * file.bytes.size()));
			EXPECT_EQ(unpacked.blocks - before.blocks, AllocFault::available() ? 1 : 0);
			EXPECT_EQ(copied.blocks - unpacked.blocks, AllocFault::available() ? 1 : 0);
		}
	}
}

TEST(PackedList, RefusedFilesTakeNoMemory)
{
	for (const Golden &file : golden("refused")) {
		SCOPED_TRACE(file.name);
		AttrList list;
		EXPECT_EQ(unpack(file.bytes, list), EINVAL);
		EXPECT_FALSE(list);
		// A name that stands twice is found while the list is built.
		if (!AllocFault::available() || file.name.find("duplicate") == 0)
			continue;
		AllocFault fault(1);
		int error = attrlist_unpack(file.bytes.data(), file.bytes.size(), list.out(), 0);
		fault.stop();
		EXPECT_EQ(error, EINVAL);
		EXPECT_FALSE(fault.fired());
	}
}

TEST(PackedList, EveryTruncationIsRefused)
{
	for (const Golden &file : golden("accepted")) {
		size_t end = std::min<size_t>(file.bytes.size(), 2000);
		for (size_t size = 0; size < end; size++) {
			AttrList list;
			std::string cut(file.bytes, 0, size);
			ASSERT_EQ(unpack(cut, list), EINVAL) << file.name << " " << size;
		}
	}
}

// Whatever is accepted means what it says: it's written again with the same bytes.
TEST(PackedList, ChangedBytesAreRefusedOrReadAsTheyStand)
{
	int accepted = 0, refused = 0;
	for (const Golden &file : golden("accepted")) {
		size_t end = std::min<size_t>(file.bytes.size(), 1000);
		for (size_t at = 0; at < end; at++)
			for (int value : {0, 1, 2, 9, 19, 20, 0x7f, 0x80, 0xff}) {
				std::string changed = file.bytes;
				changed[at] = static_cast<char>(value);
				AttrList list;
				int error = unpack(changed, list);
				ASSERT_TRUE(error == 0 || error == EINVAL);
				(error == 0 ? accepted : refused)++;
				if (error == 0) {
					ASSERT_EQ(pack(list.get()), changed) << file.name << " " << at << " " << value;
				}
			}
	}
	EXPECT_GT(accepted, 1000);
	EXPECT_GT(refused, 1000);
}

} // namespace
