// What a read of a large file takes: a point read next to nothing, a walk about the text of its lines. Measured in a child
// of its own, by the kernel's count of the pages that it touched, so that whatever takes them is seen.
#include "libostrel_files.h"

#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "alloc_fault.h"
#include "child.h"
#include "line_lists.h"
#include "scratch.h"

static constexpr int line_count = 500000;
static constexpr long kib = 1024, mib = 1024 * kib;

static long bytes_touched()
{
	rusage usage = {};
	(void) getrusage(RUSAGE_SELF, &usage);
	return usage.ru_maxrss * kib;
}

class FilesMemory : public testing::Test {
protected:
	Scratch scratch;
	std::string path = scratch.path("db");
	long size = 0;

	void SetUp() override
	{
		std::ofstream file(path, std::ios::binary);
		for (int i = 0; i < line_count; i++)
			file << "name=route" << i
			     << ";kind=static;\tmtu=uint32,1500;on=boolean,true;to=string,10.0.0.1,10.0.0.2;via=string,"
				"net"
			     << i << ";comment=string,a\\, b;\n";
		size = static_cast<long>(file.tellp());
	}

	// How many units the most memory that the process ever had grows by an operation on a database, after the same on a
	// small one has touched what is touched once. 255: it failed.
	int growth(uint64_t flags, long unit, const std::function<bool(ostrel_db_t)> &operation)
	{
		std::string small = scratch.write("small", "name=route;\tx=int32,1;\n");
		return in_child([&] {
			(void) operation(TestDb(small, flags));
			TestDb db(path, flags);
			long before = bytes_touched();
			if (!operation(db))
				return 255;
			long units = (bytes_touched() - before + unit - 1) / unit;
			return static_cast<int>(units < 254 ? units : 254);
		});
	}
};

TEST_F(FilesMemory, APointReadTakesLessThanAMebibyte)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	static constexpr long unit = 64 * kib;
	for (uint64_t flags : {uint64_t{0}, uint64_t{OSTREL_DB_CASE_SENSITIVE}}) {
		auto growth_of_read = [&](const std::string &identifiers, ostrel_error_t expected) {
			return growth(flags, unit, [&](ostrel_db_t db) {
				AttrList found;
				return ostrel_db_read(db, ids(identifiers).get(), 0, found.out()) == expected;
			});
		};
		for (int i : {0, line_count / 2, line_count - 1})
			EXPECT_LE(growth_of_read("name=route" + std::to_string(i) + ";kind=static", OSTREL_SUCCESS),
			    mib / unit);
		// One that isn't there, and one that the search for bytes can't help with.
		EXPECT_LE(growth_of_read("name=route;kind=static", OSTREL_NOT_FOUND), mib / unit);
		EXPECT_LE(growth_of_read("name=route7\xc3\xa9;kind=static", OSTREL_NOT_FOUND), mib / unit);
	}
}

static int count_object(ostrel_db_t, attrlist_t *, attrlist_t *, uint64_t, void *count)
{
	++*static_cast<int *>(count);
	return 0;
}

TEST_F(FilesMemory, AWalkTakesAboutTheTextOfItsLines)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	int grown = growth(0, mib, [](ostrel_db_t db) {
		int count = 0;
		return ostrel_db_walk(db, nullptr, 0, count_object, nullptr, &count, nullptr) == OSTREL_SUCCESS &&
		       count == line_count;
	});
	EXPECT_LE(grown, (size + size / 4) / mib);
	EXPECT_GE(grown, size / 2 / mib) << "the measure doesn't see what the walk keeps";
}
