// What a read of a large file takes: a point read next to nothing, a walk about the text of its lines. Each has to do with so
// much memory, in a child of its own that can't have more.
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
static constexpr long mib = 1024 * 1024;

class FilesMemory : public testing::Test {
protected:
	Scratch scratch;
	std::string path = scratch.path("db");
	long size = 0;

	void SetUp() override
	{
		SKIP_WITHOUT_ALLOC_FAULTS();
		std::ofstream file(path, std::ios::binary);
		for (int i = 0; i < line_count; i++)
			file << "name=route" << i
			     << ";kind=static;\tmtu=uint32,1500;on=boolean,true;to=string,10.0.0.1,10.0.0.2;via=string,"
				"net"
			     << i << ";comment=string,a\\, b;\n";
		size = static_cast<long>(file.tellp());
	}

	// What an operation comes to that may have so much memory more than the process has, after the same on a small database
	// has taken what is taken once.
	ostrel_error_t result_within(
	    long bytes, uint64_t flags, const std::function<ostrel_error_t(ostrel_db_t)> &operation)
	{
		std::string small = scratch.write("small", "name=route;\tx=int32,1;\n");
		return static_cast<ostrel_error_t>(in_child([&] {
			(void) operation(TestDb(small, flags));
			TestDb db(path, flags);
			const rlim_t pages = strtoul(file_text("/proc/self/statm").c_str(), nullptr, 10);
			const rlim_t room = pages * static_cast<rlim_t>(getpagesize()) + static_cast<rlim_t>(bytes);
			const rlimit limit = {room, room};
			return setrlimit(RLIMIT_AS, &limit) == 0 ? operation(db) : OSTREL_FAILURE;
		}));
	}
};

TEST_F(FilesMemory, APointReadTakesLessThanAMebibyte)
{
	const std::string last = "route" + std::to_string(line_count - 1);
	const struct {
		std::string name;
		ostrel_error_t result;
	} reads[] = {{"route0", OSTREL_SUCCESS}, {last, OSTREL_SUCCESS}, {"route", OSTREL_NOT_FOUND},
	    {"route7\xc3\xa9", OSTREL_NOT_FOUND}}; // which the search for bytes can't help with
	for (const auto &row : reads) {
		for (uint64_t flags : {uint64_t{0}, uint64_t{OSTREL_DB_CASE_SENSITIVE}}) {
			const auto read = [&](ostrel_db_t db) {
				AttrList found;
				return ostrel_db_read(
				    db, ids("name=" + row.name + ";kind=static").get(), 0, found.out());
			};
			EXPECT_EQ(result_within(mib, flags, read), row.result) << row.name;
		}
	}
}

TEST_F(FilesMemory, AWalkTakesAboutTheTextOfItsLines)
{
	const auto walk = [](ostrel_db_t db) {
		const auto visit = [](ostrel_db_t, attrlist_t *, attrlist_t *, uint64_t, void *) { return 0; };
		return ostrel_db_walk(db, nullptr, 0, visit, nullptr, nullptr, nullptr);
	};
	EXPECT_EQ(result_within(size + size / 4, 0, walk), OSTREL_SUCCESS);
	EXPECT_EQ(result_within(size / 2, 0, walk), OSTREL_NO_MEMORY) << "the limit doesn't see what the walk keeps";
}
