// What repository/store.h promises, of any engine. A test of an engine instantiates the suite with a type that has
//   std::unique_ptr<Store> make()   a store on a place that outlives it, the same each time
//   bool set_readonly(bool value)   makes that place refuse writes; false if that can't be had here
#ifndef TESTS_STORE_CONFORMANCE_H
#define TESTS_STORE_CONFORMANCE_H

#include <memory>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "fake_store.h"
#include "rpy/wire.h"
#include "store.h"

namespace repository {

// Opens a store and gives what it loads.
inline StoreContent open_content(Store *store)
{
	StoreContent content;
	Store::Loader loader;
	loader.version = [&](uint64_t id, std::string_view properties) {
		EXPECT_TRUE(content.nodes.empty()) << "a version after a node";
		EXPECT_TRUE(content.take(Row::put_version(id, properties)));
	};
	loader.node = [&](const Row &row) {
		EXPECT_TRUE(content.nodes.empty() || content.nodes.rbegin()->first < row.id) << "ids don't rise";
		EXPECT_TRUE(content.take(row)) << "a node that is there, or has no parent yet";
		return true;
	};
	const Failure failure = store->open(loader, &content.next);
	EXPECT_FALSE(failure) << failure.text;
	return content;
}

inline std::string one_property(const std::string &value)
{
	rpy::Writer values, properties;
	values.text(value);
	properties.u32(1);
	put_property(&properties, {"p", RPY_TYPE_OPAQUE, 1, values.view()});
	return std::string(properties.view());
}

inline Row put_node(uint64_t id, rpy::Parent kind, uint64_t parent, std::string_view name, uint64_t version = 0)
{
	return {Row::What::put_node, id, static_cast<uint32_t>(kind), parent, version, name,
	    kind == rpy::Parent::group ? "t" : "", {}};
}

// A service 2, an instance 3, and a group 5 of it with a version 4.
inline Rows first_rows(std::string_view properties)
{
	return {put_node(2, rpy::Parent::service, 0, "s"), put_node(3, rpy::Parent::instance, 2, "i"),
	    Row::put_version(4, properties), put_node(5, rpy::Parent::group, 3, "g", 4)};
}

template <typename Engine>
class StoreConformance : public testing::Test {
protected:
	void SetUp() override
	{
		EXPECT_TRUE(holds_what_it_took());
		EXPECT_TRUE(commit(first_rows(properties), 6));
	}
	// Commits the rows to the store and to `expected`, and gives whether both took them. Neither, or both do.
	bool commit(const Rows &rows, uint64_t next)
	{
		const bool fits = expected.take(rows, next);
		EXPECT_EQ(store->commit(rows, next).error, fits ? RPY_ERROR_NONE : RPY_ERROR_INTERNAL);
		return fits;
	}
	// As the next daemon finds it.
	bool holds_what_it_took()
	{
		store.reset();
		store = engine.make();
		return open_content(store.get()) == expected;
	}

	const std::string properties = one_property(std::string("\0\xff'", 3));
	Engine engine;
	std::unique_ptr<Store> store;
	StoreContent expected;
};
TYPED_TEST_SUITE_P(StoreConformance);

TYPED_TEST_P(StoreConformance, ACommitIsMadeWholeOrRefusedWhole)
{
	std::mt19937 random(20);
	auto id = [&] { return 6 + random() % 8; };
	const char *names[] = {"a", "A", "\xc3\xa4", "a b"};
	int taken = 0, refused = 0;
	for (int i = 0; i < 600; i++) {
		Rows rows;
		for (size_t left = 1 + random() % 3; left > 0; left--) {
			const uint64_t node = id(), parent = node - 1 - random() % (node - 1);
			const Row any[] = {put_node(node, rpy::Parent::group, parent, names[random() % 4], id()),
			    Row::set_version(id(), id()), Row::delete_node(id()),
			    Row::put_version(id(), this->properties), Row::delete_version(id())};
			rows.push_back(any[random() % 5]);
		}
		(this->commit(rows, 100 + i) ? taken : refused)++;
		ASSERT_TRUE(i % 20 != 0 || this->holds_what_it_took()) << "at commit " << i;
	}
	EXPECT_TRUE(this->holds_what_it_took());
	EXPECT_GT(std::min(taken, refused), 100);
}

TYPED_TEST_P(StoreConformance, LargeValuesHighIdsAndManyRowsAreKept)
{
	constexpr uint64_t high = uint64_t{1} << 62; // from here on, a store that several hosts share gives ids
	const std::string large = one_property(std::string(16 << 20, 'x'));
	EXPECT_TRUE(
	    this->commit({Row::put_version(high, large), Row::set_version(5, high), Row::delete_version(4)}, high + 1));
	EXPECT_TRUE(this->holds_what_it_took());
	std::vector<std::string> names(20000);
	Rows rows, gone;
	for (std::string &name : names) {
		name = "n" + std::to_string(rows.size());
		gone.push_back(Row::delete_node(high + 1 + rows.size()));
		rows.push_back(put_node(gone.back().id, rpy::Parent::group, 3, name));
	}
	rows.push_back(rows.front());
	EXPECT_FALSE(this->commit(rows, high + 30000));
	rows.pop_back();
	EXPECT_TRUE(this->commit(rows, high + 30000));
	EXPECT_TRUE(this->holds_what_it_took());
	EXPECT_TRUE(this->commit(gone, high + 30000));
	EXPECT_TRUE(this->holds_what_it_took());
}

TYPED_TEST_P(StoreConformance, WhatTakesNoWritesIsReadAndTakesThemLater)
{
	if (!this->engine.set_readonly(true)) // while it is open for writing
		GTEST_SKIP() << "skipped: it can't be made read-only here";
	const Rows rows = {put_node(7, rpy::Parent::group, 3, "more")};
	for (int opened = 0; opened < 2; opened++) {
		EXPECT_FALSE(this->store->writable());
		EXPECT_EQ(this->store->commit(rows, 8).error, RPY_ERROR_BACKEND_READONLY);
		EXPECT_TRUE(this->holds_what_it_took());
	}
	ASSERT_TRUE(this->engine.set_readonly(false));
	EXPECT_TRUE(this->store->writable());
	EXPECT_TRUE(this->commit(rows, 8));
	EXPECT_TRUE(this->holds_what_it_took());
}

TYPED_TEST_P(StoreConformance, AWriterThatMissedAnothersCommitIsRefused)
{
	const std::unique_ptr<Store> other = this->engine.make();
	EXPECT_TRUE(open_content(other.get()) == this->expected);
	ASSERT_TRUE(this->commit({put_node(7, rpy::Parent::group, 3, "first")}, 8));
	EXPECT_NE(other->commit({put_node(8, rpy::Parent::group, 3, "late")}, 9).error, RPY_ERROR_NONE);
	EXPECT_TRUE(this->holds_what_it_took());
}

REGISTER_TYPED_TEST_SUITE_P(StoreConformance, ACommitIsMadeWholeOrRefusedWhole, LargeValuesHighIdsAndManyRowsAreKept,
    WhatTakesNoWritesIsReadAndTakesThemLater, AWriterThatMissedAnothersCommitIsRefused);

} // namespace repository

#endif
