// Databases in the repository, with a real daemon: what is stored, found, renamed and removed.
#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>

#include "cairn_steps.h"

namespace {

// Also with steps that make everything again, as a restore does.
class Cairn : public CairnStepsTest {
protected:
	void SetUp() override
	{
		CairnStepsTest::SetUp();
		ASSERT_EQ(other.bind(here.hatch()), RPY_ERROR_NONE);
		verbs["restore-service"] = [this](Text, Text) {
			return text_of(_rpy_service_delete(other.service, 1) == 0 &&
				       other.bind(here.hatch()) == RPY_ERROR_NONE && other.add("g") == RPY_ERROR_NONE);
		};
		verbs["restore-instance"] = [this](Text, Text) {
			return text_of(_rpy_instance_delete(other.instance, 1) == 0 &&
				       rpy_service_add_instance(other.service, "default", other.instance) == 0 &&
				       other.add("g") == RPY_ERROR_NONE);
		};
		verbs["delete-instance"] = [this](Text, Text) {
			return text_of(_rpy_instance_delete(other.instance, 1) == 0);
		};
	}

	RepositoryClient other;
};

const bool steps = register_steps<Cairn>("Cairn", "cairn.txt");

constexpr const char *not_found = "? object not found";
constexpr const char *invalid = "? invalid argument";
constexpr const char *failure = "? failure";

TEST_F(Cairn, EveryAttributeTypeIsStoredAndComesBackAsAnArrayOf64Bits)
{
	AttrList props;
	ASSERT_EQ(attrlist_alloc(props.out(), ATL_UNIQUE_NAME, 0), 0);
	ASSERT_EQ(attrlist_add_int32(props.get(), "i", -1), 0);
	ASSERT_EQ(attrlist_add_int64(props.get(), "I", INT64_MIN), 0);
	ASSERT_EQ(attrlist_add_uint32(props.get(), "c", 4294967295U), 0);
	ASSERT_EQ(attrlist_add_uint64(props.get(), "C", UINT64_MAX), 0);
	ASSERT_EQ(attrlist_add_boolean_value(props.get(), "b", B_FALSE), 0);
	ASSERT_EQ(attrlist_add_string(props.get(), "s", ""), 0);
	ASSERT_EQ(ostrel_db_write(db.get(), group_of("g:t").get(), 0, props.get()), OSTREL_SUCCESS);
	EXPECT_EQ(typed(db, "g"), "i:15=-1;I:15=-9223372036854775808;c:16=4294967295;C:16=18446744073709551615;"
				  "b:24=0;s:17='';");
	ASSERT_EQ(attrlist_add_attrlist(props.get(), "nested", props_of("a=b").get()), 0);
	EXPECT_EQ(ostrel_db_write(db.get(), group_of("h:t").get(), 0, props.get()), OSTREL_INVALID_ARG);
	EXPECT_EQ(get(db, "h"), not_found) << "the group that the write had made is taken back";
}

TEST_F(Cairn, APropertyIsReadWithUpTo128ValuesAndOfTheKnownTypes)
{
	std::vector<std::string> values(128, "1");
	ASSERT_EQ(other.add("g"), RPY_ERROR_NONE);
	ASSERT_EQ(other.write("g", {{"p", values}}), 1);
	std::string read = typed(db, "g");
	EXPECT_EQ(std::count(read.begin(), read.end(), ','), 127);
	values.push_back("1");
	ASSERT_EQ(other.write("g", {{"p", values}}), 1);
	EXPECT_EQ(get(db, "g"), invalid);
	EXPECT_EQ(walk(db, "*"), invalid);
	ASSERT_EQ(other.write("g", {}), 1);
	ASSERT_EQ(other.write("g", {{"p", {"x", "", "y"}}}), 1);
	EXPECT_EQ(get(db, "g"), failure) << "an empty text among others";
	ASSERT_EQ(other.write("g", {{"p", {""}}}), 1);
	EXPECT_EQ(get(db, "g"), "g:t|p=;");

	Pg pg = other.group();
	Tx tx(rpy_transaction_create(other.handle));
	ASSERT_EQ(rpy_instance_get_pg(other.instance, "g", pg.get()), 0);
	ASSERT_EQ(rpy_transaction_start(tx.get(), pg.get()), 0);
	rpy_transaction_entry_t *entry = rpy_entry_create(other.handle);
	ASSERT_EQ(rpy_transaction_property_new(tx.get(), entry, "host", RPY_TYPE_HOST), 0);
	ASSERT_EQ(rpy_transaction_commit(tx.get()), 1);
	rpy_transaction_destroy_children(tx.get());
	EXPECT_EQ(get(db, "g"), invalid);
	EXPECT_EQ(put(db, "g", "host=a"), OSTREL_INVALID_ARG);
	EXPECT_EQ(put(db, "g", "p=z"), OSTREL_SUCCESS) << "a write drops what can't be read";
	EXPECT_EQ(get(db, "g"), "g:t|p=z;");
}

TEST_F(Cairn, PathsThatDontFitAreCutWhereTheyAreGivenOut)
{
	Pg top = other.group(), below = other.group();
	const std::string name(200, 'n');
	ASSERT_EQ(rpy_instance_add_pg(other.instance, name.c_str(), "t", 0, top.get()), 0);
	ASSERT_EQ(rpy_pg_add_pg(top.get(), name.c_str(), "t", 0, below.get()), 0);
	EXPECT_EQ(walk(db, "*/*"), name + "/" + std::string(54, 'n') + ":t/t ");
}

TEST_F(Cairn, AReadByTypeGrowsItsArrayAndLeavesPropertiesOutIfAskedTo)
{
	for (int i = 0; i < 129; i++)
		ASSERT_EQ(put(db, "g" + std::to_string(i) + ":t", "p=1"), OSTREL_SUCCESS);
	for (unsigned int fits : {129U, 0U}) {
		Objects objs;
		ASSERT_EQ(ostrel_read_objects_from_cairn(
			      db.get(), group_of(fits != 0 ? ":t" : ":none").get(), 0, objs.out(), objs.out_count()),
		    OSTREL_SUCCESS);
		ASSERT_EQ(objs.count(), fits);
		EXPECT_NE(*objs.out(), nullptr);
		attrlist_t *idl, *props;
		EXPECT_TRUE(fits == 0 || ostrel_object_look(objs[128], &idl, &props) == OSTREL_NOT_FOUND);
	}
	auto visit = [](auto...) { return 0; };
	EXPECT_EQ(ostrel_db_walk(db.get(), nullptr, 0, visit, nullptr, nullptr, nullptr), OSTREL_INVALID_ARG);
}

TEST_F(Cairn, OperationsOnALivingConnectionBuildNothingAndABrokenOneIsReplaced)
{
	ASSERT_EQ(put(db, "a:t", "p=1"), OSTREL_SUCCESS);
	ostrel_rpy_resources_t *before = resources_of(db);
	const uint64_t hits = before->nsr_cache_hits;
	EXPECT_EQ(get(db, "a"), "a:t|p=1;");
	EXPECT_EQ(get(db, "none"), not_found);
	EXPECT_EQ(put(db, "/", "p=1"), OSTREL_INVALID_ARG);
	EXPECT_EQ(resources_of(db), before);
	EXPECT_EQ(before->nsr_cache_hits, hits + 3);
	EXPECT_EQ(before->nsr_refcnt, 1U);
	EXPECT_EQ(before->nsr_num_readers, 1);
	{
		RpyOperation running(db.get());
		ASSERT_EQ(running.begin_read(nullptr), OSTREL_SUCCESS);
		here.restart();
		EXPECT_EQ(ostrel_rpy_get_real_pg(db.get(), running.work(), "a"), OSTREL_FAILURE);
		EXPECT_EQ(get(db, "a"), "a:t|p=1;") << "the next one finds the daemon";
		EXPECT_NE(resources_of(db), before);
		EXPECT_EQ(before->nsr_refcnt, 1U) << "the running one's";
	}
	EXPECT_EQ(resources_of(db)->nsr_refcnt, 1U);
	here.daemon.stop();
	EXPECT_EQ(get(db, "a"), failure);
	EXPECT_EQ(put(db, "a", "p=2"), OSTREL_FAILURE);
	here.start();
	EXPECT_EQ(put(db, "a", "p=2"), OSTREL_SUCCESS);
}

TEST_F(Cairn, TheThirtyThirdReaderWaitsWithoutTheLockUntilAnotherIsDone)
{
	std::vector<std::unique_ptr<RpyOperation>> readers;
	for (int i = 0; i < OSTREL_RPY_MAX_READERS; i++) {
		readers.push_back(std::make_unique<RpyOperation>(db.get()));
		ASSERT_EQ(readers.back()->begin_read(nullptr), OSTREL_SUCCESS);
	}
	EXPECT_EQ(resources_of(db)->nsr_num_readers, OSTREL_RPY_MAX_READERS);
	ASSERT_EQ(put(db, "g:t", "p=1"), OSTREL_SUCCESS);
	std::string read, walked;
	std::thread reader([&] { read = get(db, "g"); });
	std::thread walker([&] { walked = walk(db, "*"); });
	usleep(50000);
	EXPECT_EQ(put(db, "g", "p=2"), OSTREL_SUCCESS) << "updates go on meanwhile";
	EXPECT_TRUE(read.empty());
	readers.resize(30);
	reader.join();
	walker.join();
	EXPECT_EQ(read, "g:t|p=2;");
	EXPECT_EQ(walked, "g:t ");
	EXPECT_EQ(put(db, "g", "p=3"), OSTREL_SUCCESS) << "the lock is free again";
	EXPECT_EQ(resources_of(db)->nsr_num_readers, OSTREL_RPY_MAX_READERS);
	readers.clear();
	EXPECT_EQ(resources_of(db)->nsr_refcnt, 1U);
}

TEST_F(Cairn, ADaemonKilledAgainAndAgainCostsOneOperationEachAndGivesNoPart)
{
	for (int i = 0; i < 40; i++)
		ASSERT_EQ(put(db, "g" + std::to_string(i) + ":t", "p=1"), OSTREL_SUCCESS);
	ASSERT_EQ(put(db, "w:other", "a=0;b=0"), OSTREL_SUCCESS);
	const std::string all = walk(db, "t");
	std::atomic<int> parts{0};
	std::jthread walker([&](const std::stop_token &stop) {
		while (!stop.stop_requested()) {
			const std::string seen = walk(db, "t");
			parts += seen != all && seen.rfind("? ", 0) != 0;
		}
	});
	int tried = 0, acknowledged = 0;
	std::jthread writer([&](const std::stop_token &stop) {
		while (!stop.stop_requested()) {
			const std::string number = std::to_string(++tried);
			if (put(db, "w", "a=" + number + ";b=" + number) == OSTREL_SUCCESS)
				acknowledged = tried;
		}
	});
	for (int kills = 0; kills < 100; kills++) {
		usleep(kills * 53 % 3000);
		here.restart();
		ASSERT_TRUE(here.ready);
	}
	writer.request_stop();
	writer.join();
	walker.request_stop();
	walker.join();
	EXPECT_EQ(parts, 0);
	std::string left = get(db, "w");
	left = left[0] == '?' ? get(db, "w") : left; // the last kill may have been seen by nobody yet
	const int value = atoi(left.substr(left.find('=') + 1).c_str());
	EXPECT_EQ(left, "w:other|a=" + std::to_string(value) + ";b=" + std::to_string(value) + ";");
	EXPECT_TRUE(value >= acknowledged && value <= tried) << value << " of " << acknowledged << " and " << tried;
	EXPECT_GT(acknowledged, 100);
}

} // namespace
