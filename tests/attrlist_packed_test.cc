// The packed form: what comes back, byte for byte, and what is refused.
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
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

// The files of a folder of the fuzzer's corpus, by their names.
std::map<std::string, std::string> golden(const char *folder)
{
	std::map<std::string, std::string> all;
	for (const std::string &name : entries_of(corpus / folder))
		all[name] = file_text(corpus / folder / name);
	EXPECT_GE(all.size(), 10U) << folder;
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
	for (const auto &[name, bytes] : golden("accepted")) {
		SCOPED_TRACE(name);
		// At every alignment, with nothing behind the last byte.
		for (size_t shift = 0; shift < 8; shift++) {
			std::vector<char> room(shift + bytes.size());
			std::copy(bytes.begin(), bytes.end(), room.begin() + static_cast<ptrdiff_t>(shift));
			AttrList list, copy;
			const HeapUse before = heap_use();
			ASSERT_EQ(attrlist_unpack(room.data() + shift, bytes.size(), list.out(), 0), 0);
			const HeapUse unpacked = heap_use();
			ASSERT_EQ(attrlist_dup(list.get(), copy.out(), 0), 0);
			const HeapUse copied = heap_use();
			EXPECT_EQ(pack(list.get()), bytes);
			EXPECT_EQ(list_text(list.get()).find("lost"), std::string::npos);
			EXPECT_EQ(pack(copy.get()), bytes);
			EXPECT_EQ(unpacked.bytes - before.bytes, copied.bytes - unpacked.bytes);
			EXPECT_LE(unpacked.bytes - before.bytes, static_cast<long>(9 * bytes.size()));
			EXPECT_EQ(unpacked.blocks - before.blocks, AllocFault::available() ? 1 : 0);
			EXPECT_EQ(copied.blocks - unpacked.blocks, AllocFault::available() ? 1 : 0);
		}
	}
}

TEST(PackedList, RefusedFilesTakeNoMemory)
{
	for (const auto &[name, bytes] : golden("refused")) {
		SCOPED_TRACE(name);
		AttrList list;
		EXPECT_EQ(unpack(bytes, list), EINVAL);
		EXPECT_FALSE(list);
		// A name that stands twice is found while the list is built.
		if (!AllocFault::available() || name.find("duplicate") == 0)
			continue;
		AllocFault fault(1);
		int error = attrlist_unpack(bytes.data(), bytes.size(), list.out(), 0);
		fault.stop();
		EXPECT_EQ(error, EINVAL);
		EXPECT_FALSE(fault.fired());
	}
}

// Whatever is accepted means what it says: it's written again with the same bytes. A part of it isn't accepted.
TEST(PackedList, ChangedBytesAreRefusedOrReadAsTheyStand)
{
	int accepted = 0, refused = 0;
	for (const auto &[name, bytes] : golden("accepted")) {
		size_t end = std::min<size_t>(bytes.size(), 2000);
		for (size_t at = 0; at < end; at++) {
			AttrList none;
			ASSERT_EQ(unpack(bytes.substr(0, at), none), EINVAL) << name << " cut at " << at;
			for (int value : {0, 1, 2, 9, 19, 20, 0x7f, 0x80, 0xff}) {
				std::string changed = bytes;
				changed[at] = static_cast<char>(value);
				AttrList list;
				int error = unpack(changed, list);
				ASSERT_TRUE(error == 0 || error == EINVAL);
				(error == 0 ? accepted : refused)++;
				if (error == 0) {
					ASSERT_EQ(pack(list.get()), changed) << name << " " << at << " " << value;
				}
			}
		}
	}
	EXPECT_GT(accepted, 1000);
	EXPECT_GT(refused, 1000);
}

} // namespace
