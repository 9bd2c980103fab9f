// The daemon's updates, without a process around them.
#include <gtest/gtest.h>

#include "alloc_fault.h"
#include "updates.h"

namespace {

using namespace repository;

// Takes every commit, and keeps none.
class NoStore : public Store {
public:
	Failure open(const Loader &, uint64_t *) override { return {}; }
	rpy_error_t commit(const Rows &rows, uint64_t) override
	{
		rows_seen += rows.size();
		return RPY_ERROR_NONE;
	}
	bool writable() override { return true; }
	uint64_t bytes() override { return 0; }
	bool verify(std::string *) override { return true; }
	bool copy(std::string *) override { return true; }
	size_t rows_seen = 0;
};

TEST(ConfigdUpdates, AFailingAllocationRefusesOneAndStopsNone)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	Model model;
	NoStore store;
	Updates updates(&model, &store);
	auto run = [&updates](uint64_t group) {
		Update update;
		update.group = group;
		update.prepare = [](Rows *rows) {
			rows->push_back({Row::What::delete_node, 1});
			return RPY_ERROR_NONE;
		};
		update.apply = [] {};
		return updates.run(&update);
	};
	bool fired = true;
	int refused = 0;
	for (int nth = 1; fired; nth++) {
		rpy_error_t error = RPY_ERROR_INTERNAL;
		ASSERT_NO_THROW({
			AllocFault fault(nth);
			error = run(7);
			fault.stop();
			fired = fault.fired();
		});
		EXPECT_EQ(error, fired ? RPY_ERROR_NO_MEMORY : RPY_ERROR_NONE);
		refused += fired ? 1 : 0;
		size_t before = store.rows_seen;
		EXPECT_EQ(run(0), RPY_ERROR_NONE);
		EXPECT_EQ(store.rows_seen, before + 1) << "what was refused is done with the next";
	}
	EXPECT_GT(refused, 0);
}

} // namespace
