// Databases of an enclave whose daemon never comes to an end. The clock runs as fast as it is looked at.
#include <filesystem>
#include <gtest/gtest.h>

#include "cairn_db.h"
#include "lying_daemon.h"
#include "test_enclave.h"
#include "warped_clock.h"

namespace {

TEST(CairnLiar, AnOperationIsGivenUpAfterSomeTimeAndTheNextOneWorks)
{
	SKIP_WITHOUT_ENCLAVES(TestEnclave::RootOnly);
	TestEnclave enclave;
	std::filesystem::create_directories(enclave.root() + "/system/transient");
	LyingDaemon liar;
	ASSERT_TRUE(liar.serve(enclave.root() + "/system/transient/repository_hatch"));
	CairnDb db = open_cairn(test_instance, 0, enclave.id());
	ASSERT_TRUE(db);
	EXPECT_EQ(get(db, "g"), "g:t|");
	liar.lie = Lie::stale;
	warp = 1;
	EXPECT_EQ(put(db, "g", "p=1"), OSTREL_FAILURE);
	liar.lie = Lie::endless_pages;
	EXPECT_EQ(walk(db, "*/*"), "? failure");
	warp = 0;
	liar.lie = Lie::much;
	EXPECT_EQ(walk(db, "t/t/t"), "? insufficient memory");
	liar.lie = Lie::none;
	EXPECT_EQ(get(db, "g"), "g:t|");
	EXPECT_EQ(put(db, "g", "p=1"), OSTREL_SUCCESS);
}

} // namespace
