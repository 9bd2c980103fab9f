// What a read of a large file takes: a point read next to nothing, a walk about the text of its lines. Measured in a child
// of its own, by the kernel's count of the pages that it touched, so that whatever takes them is seen.
#include "libostrel_files.h"

#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include "alloc_fault.h"
#include "line_lists.h"
#include "scratch.h"

static constexpr int line_count = 500000;
static constexpr long kib = 1024, mib = 1024 * kib;

static std::string identifiers_of(int i)
{
	return "name=route" + std::to_string(i) + ";kind=static;";
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
			file << identifiers_of(i)
			     << "\tmtu=uint32,1500;on=boolean,true;to=string,10.0.0.1,10.0.0.2;via=string,net" << i
			     << ";comment=string,a\\, b;\n";
		size = static_cast<long>(file.tellp());
		ASSERT_GT(size, 50 * mib);
	}
};

static long pages_touched()
{
	rusage usage = {};
	(void) getrusage(RUSAGE_SELF, &usage);
	return usage.ru_maxrss * kib;
}

// The growth of the most memory that the process ever had, by the second of two runs of `operation`: the first on a small
// file, to touch what is touched once. -1: it failed.
static long growth(const std::function<bool()> &warm_up, const std::function<bool()> &operation)
{
	int report[2];
	if (pipe(report) != 0)
		return -1;
	pid_t child = fork();
	if (child == 0) {
		long grown = -1;
		if (warm_up()) {
			long before = pages_touched();
			if (operation())
				grown = pages_touched() - before;
		}
		_exit(write(report[1], &grown, sizeof(grown)) == sizeof(grown) ? 0 : 1);
	}
	long grown = -1;
	(void) close(report[1]);
	if (read(report[0], &grown, sizeof(grown)) != sizeof(grown))
		grown = -1;
	(void) close(report[0]);
	(void) waitpid(child, nullptr, 0);
	return grown;
}

static bool read_object(ostrel_db_t db, const std::string &identifiers)
{
	AttrList idlist = ids(identifiers);
	AttrList props;
	return ostrel_db_read(db, idlist.get(), 0, props.out()) == OSTREL_SUCCESS;
}

static int count_object(ostrel_db_t, attrlist_t *, attrlist_t *, uint64_t, void *count)
{
	++*static_cast<int *>(count);
	return 0;
}

static bool walk_objects(ostrel_db_t db, int expected)
{
	int count = 0;
	return ostrel_db_walk(db, nullptr, 0, count_object, nullptr, &count, nullptr) == OSTREL_SUCCESS &&
	       count == expected;
}

TEST_F(FilesMemory, APointReadTakesLessThanAMebibyte)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	// What is measured by is right.
	long seen = growth([] { return true; }, [] { return !std::string(4 * mib, 'x').empty(); });
	ASSERT_GE(seen, 4 * mib - 64 * kib);
	ASSERT_LE(seen, 5 * mib);

	TestDb small(scratch.write("small", "a=1;\tx=int32,1;\n"));
	TestDb large(path), with_case(path, OSTREL_DB_CASE_SENSITIVE);
	auto warm_up = [&] { return read_object(small, "a=1"); };
	for (ostrel_db_t db : {static_cast<ostrel_db_t>(large), static_cast<ostrel_db_t>(with_case)}) {
		for (int i : {0, line_count / 2, line_count - 1}) {
			long grown = growth(warm_up, [&] { return read_object(db, identifiers_of(i)); });
			EXPECT_GE(grown, 0);
			EXPECT_LE(grown, mib);
			RecordProperty("bytes", std::to_string(grown));
		}
		// One that the search for bytes can't help with, and one that isn't there.
		EXPECT_LE(growth(warm_up, [&] { return !read_object(db, "name=route7\xc3\xa9;kind=static"); }), mib);
		EXPECT_LE(growth(warm_up, [&] { return !read_object(db, "name=route;kind=static"); }), mib);
	}
}

TEST_F(FilesMemory, AWalkTakesAboutTheTextOfItsLines)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	TestDb small(scratch.write("small", "a=1;\tx=int32,1;\n"));
	TestDb large(path);
	auto warm_up = [&] { return walk_objects(small, 1); };
	long grown = growth(warm_up, [&] { return walk_objects(large, line_count); });
	EXPECT_GE(grown, 0);
	EXPECT_LE(grown, size + size / 4);
	RecordProperty("bytes", std::to_string(grown));
}
