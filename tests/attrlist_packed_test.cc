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

struct Golden {
	std::string name;
	std::string bytes;
};

// The files of a folder of the fuzzer's corpus.
std::vector<Golden> golden(const char *folder)
{
	std::vector<Golden> all;
	fs::path path = fs::path(TEST_SOURCE_DIR) / "fuzz/corpus/attrlist_unpack" / folder;
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

AttrList make_list()
{
	AttrList list;
	EXPECT_EQ(attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0), 0);
	return list;
}

AttrList make_object()
{
	AttrList list = make_list();
	attrlist_t *ids = nullptr, *props = nullptr;
	uint32_t mtu = 4711;
	boolean_t on = B_TRUE;
	int64_t ctr = 5123456789012;
	char site[] = "lan,site7", role[] = "role123";
	char *tags[] = {site, role};
	EXPECT_EQ(attrlist_add_new_attrlist(list.get(), "object-idlist", &ids), 0);
	EXPECT_EQ(attrlist_add_string(ids, "linkname", "net123"), 0);
	EXPECT_EQ(attrlist_add_string(ids, "zone", "z26"), 0);
	EXPECT_EQ(attrlist_add_new_attrlist(list.get(), "object-props", &props), 0);
	EXPECT_EQ(attrlist_add_uint32_array(props, "mtu", &mtu, 1), 0);
	EXPECT_EQ(attrlist_add_boolean_array(props, "on", &on, 1), 0);
	EXPECT_EQ(attrlist_add_string_array(props, "tags", tags, 2), 0);
	EXPECT_EQ(attrlist_add_int64_array(props, "ctr", &ctr, 1), 0);
	return list;
}

TEST(PackedList, AnObjectHasTheseBytes)
{
	std::string file = file_text(fs::path(TEST_SOURCE_DIR) / "fuzz/corpus/attrlist_unpack/accepted/object");
	AttrList object = make_object(), copy;
	EXPECT_EQ(pack(object.get()), file);
	SKIP_WITHOUT_ALLOC_FAULTS();
	const HeapUse before = heap_use();
	ASSERT_EQ(attrlist_dup(object.get(), copy.out(), 0), 0);
	// Its line in a database has 114 bytes; all objects of a walk may cost four times their lines.
	EXPECT_LE(heap_use().bytes - before.bytes, 114 * 37 / 10);
}

TEST(PackedList, AcceptedFilesComeBackByteForByte)
{
	for (const Golden &file : golden("accepted")) {
		SCOPED_TRACE(file.name);
		// At every alignment, with nothing behind the last byte.
		for (size_t shift = 0; shift < 8; shift++) {
			std::vector<char> room(shift + file.bytes.size());
			std::copy(file.bytes.begin(), file.bytes.end(), room.begin() + static_cast<ptrdiff_t>(shift));
			AttrList list, copy;
			ASSERT_EQ(attrlist_unpack(room.data() + shift, file.bytes.size(), list.out(), 0), 0);
			EXPECT_EQ(pack(list.get()), file.bytes);
			EXPECT_EQ(list_text(list.get()).find("lost"), std::string::npos);
			ASSERT_EQ(attrlist_dup(list.get(), copy.out(), 0), 0);
			EXPECT_EQ(pack(copy.get()), file.bytes);
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

TEST(PackedList, TakesOneBlockOfExactlyTheSizeOfACopy)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	for (const Golden &file : golden("accepted")) {
		SCOPED_TRACE(file.name);
		AttrList list, copy;
		HeapUse before = heap_use();
		ASSERT_EQ(unpack(file.bytes, list), 0);
		HeapUse unpacked = heap_use();
		ASSERT_EQ(attrlist_dup(list.get(), copy.out(), 0), 0);
		HeapUse copied = heap_use();
		EXPECT_EQ(unpacked.blocks - before.blocks, 1);
		EXPECT_EQ(copied.blocks - unpacked.blocks, 1);
		EXPECT_EQ(unpacked.bytes - before.bytes, copied.bytes - unpacked.bytes);
		EXPECT_LE(unpacked.bytes - before.bytes, static_cast<long>(9 * file.bytes.size()));
	}
}

} // namespace
