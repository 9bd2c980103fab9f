// The repository through its client library, with a real daemon.
#include <gtest/gtest.h>

#include <meridon/enclave.h>

#include "repository.h"
#include "rpy/wire.h"
#include "test_enclave.h"

namespace {

// A call that fails with that error.
#define FAILS(call, error) EXPECT_TRUE((call) == -1 && rpy_error() == (error)) << #call << ": " << rpy_error()

class Rpy : public RepositoryTest {
protected:
	void SetUp() override { start(); }

	// The group of the instance, or one below a group.
	Pg found(const char *name)
	{
		Pg pg = client.group();
		EXPECT_EQ(rpy_instance_get_pg(client.instance, name, pg.get()), 0) << name;
		return pg;
	}
};

TEST_F(Rpy, EveryTypeKeepsItsValues)
{
	ASSERT_EQ(client.add("g"), RPY_ERROR_NONE);
	Pg pg = found("g");
	Tx tx(rpy_transaction_create(client.handle));
	ASSERT_EQ(rpy_transaction_start(tx.get(), pg.get()), 0);
	struct {
		rpy_type_t type;
		std::string text;
	} const types[] = {{RPY_TYPE_BOOLEAN, "1"}, {RPY_TYPE_COUNT, "18446744073709551615"},
	    {RPY_TYPE_INTEGER, "-9223372036854775808"}, {RPY_TYPE_TIME, "12.5"}, {RPY_TYPE_ASTRING, ""},
	    {RPY_TYPE_OPAQUE, "raw"}, {RPY_TYPE_USTRING, "\xc3\xa4"}, {RPY_TYPE_URI, "a:b"}, {RPY_TYPE_LOCATOR, "l"},
	    {RPY_TYPE_HOST, "h"}, {RPY_TYPE_HOSTNAME, "h.x"}, {RPY_TYPE_NET_ADDR_V4, "10.0.0.1"},
	    {RPY_TYPE_NET_ADDR_V6, "::1"}, {RPY_TYPE_NET_ADDR, "::2"}};
	Val value(rpy_value_create(client.handle));
	Contents expected;
	for (const auto &[type, text] : types) {
		const std::string name = "p" + std::to_string(type);
		expected[name] = {text};
		auto *entry = rpy_entry_create(client.handle);
		ASSERT_EQ(rpy_value_set_from_string(value.get(), type, text.c_str()), 0) << type;
		ASSERT_EQ(rpy_transaction_property_new(tx.get(), entry, name.c_str(), type), 0);
		ASSERT_EQ(rpy_entry_add_value(entry, value.release()), 0);
		value.reset(rpy_value_create(client.handle));
	}
	ASSERT_EQ(rpy_transaction_commit(tx.get()), 1);
	rpy_transaction_destroy_children(tx.get());

	ASSERT_EQ(rpy_pg_update(pg.get()), 1);
	EXPECT_EQ(client.contents(pg.get()), expected);
	Prop property(rpy_property_create(client.handle));
	for (const auto &[type, text] : types) {
		rpy_type_t stored, of_value;
		ASSERT_EQ(rpy_pg_get_property(pg.get(), ("p" + std::to_string(type)).c_str(), property.get()), 0);
		ASSERT_EQ(rpy_property_type(property.get(), &stored), 0);
		ASSERT_EQ(rpy_property_get_value(property.get(), value.get()), 0);
		ASSERT_EQ(rpy_value_type(value.get(), &of_value), 0);
		EXPECT_TRUE(stored == type && of_value == type) << type;
	}
}

TEST_F(Rpy, AStaleCommitChangesNothingAndIsTold)
{
	ASSERT_EQ(client.add("g"), RPY_ERROR_NONE);
	Pg old = found("g");
	ASSERT_EQ(client.write("g", {{"a", {"1"}}}), 1);
	EXPECT_EQ(client.write(old.get(), {{"b", {"2"}}}), 0);
	EXPECT_EQ(client.read("g"), (Contents{{"a", {"1"}}}));
	EXPECT_EQ(client.contents(old.get()), Contents()) << "the object shows the version that it holds";
	EXPECT_EQ(rpy_pg_update(old.get()), 1);
	EXPECT_EQ(rpy_pg_update(old.get()), 0);
	EXPECT_EQ(client.write(old.get(), {{"b", {"2"}}}), 1);
	EXPECT_EQ(client.read("g"), (Contents{{"b", {"2"}}}));
}

TEST_F(Rpy, GroupsNestAndGoWithTheirParents)
{
	ASSERT_EQ(client.add("a"), RPY_ERROR_NONE);
	Pg a = found("a"), b = client.group(), c = client.group();
	ASSERT_EQ(rpy_pg_add_pg(a.get(), "b", "u", 0, b.get()), 0);
	ASSERT_EQ(rpy_pg_add_pg(b.get(), "c", "v", 0, c.get()), 0);
	EXPECT_EQ(rpy_pg_update(a.get()), 0) << "its version is what it was";
	FAILS(rpy_pg_add_pg(a.get(), "b", "u", 0, c.get()), RPY_ERROR_EXISTS);
	FAILS(rpy_pg_get_pg(a.get(), "B", c.get()), RPY_ERROR_NOT_FOUND);
	ASSERT_EQ(rpy_pg_delete(a.get()), 0);
	FAILS(rpy_pg_update(c.get()), RPY_ERROR_DELETED);
	FAILS(rpy_pg_get_pg(b.get(), "c", c.get()), RPY_ERROR_DELETED);
}

TEST_F(Rpy, GroupsNestNoDeeperThanAnyClientFollows)
{
	Pg pg = client.group(), stored = client.group();
	ASSERT_EQ(rpy_instance_add_pg(client.instance, "g", "t", RPY_PG_FLAG_TEMPORARY, pg.get()), 0);
	FAILS(rpy_pg_add_pg(pg.get(), "s", "t", 0, stored.get()), RPY_ERROR_CONSTRAINT_VIOLATED)
	    << "it would go with it";
	int depth = 1;
	while (rpy_pg_add_pg(pg.get(), "g", "t", RPY_PG_FLAG_TEMPORARY, pg.get()) == 0)
		depth++;
	EXPECT_EQ(rpy_error(), RPY_ERROR_CONSTRAINT_VIOLATED);
	EXPECT_EQ(depth, rpy::depth_max);
}

TEST_F(Rpy, ListingsComeInPagesInOrderAndFiltered)
{
	std::vector<std::string> all;
	for (int i = 0; i < 2500; i++) {
		std::string name = "G" + std::to_string(i);
		ASSERT_EQ(client.add(name, i % 2 == 0 ? "even" : "odd", RPY_PG_FLAG_TEMPORARY), RPY_ERROR_NONE);
		all.push_back(name);
	}
	ASSERT_EQ(client.add("g7", "odd", RPY_PG_FLAG_TEMPORARY), RPY_ERROR_NONE);
	all.emplace_back("g7");
	Iter iter(rpy_iter_create(client.handle));
	ASSERT_EQ(rpy_iter_instance_pgs(iter.get(), client.instance), 0);
	Iter like(rpy_iter_create(client.handle));
	ASSERT_EQ(_rpy_iter_instance_pgs_like(like.get(), client.instance, "g7", nullptr), 0);
	EXPECT_EQ(client.names(like.get()), (std::vector<std::string>{"G7", "g7"}));
	ASSERT_EQ(_rpy_iter_instance_pgs_like(like.get(), client.instance, "g*", nullptr), 0);
	EXPECT_EQ(client.names(like.get()), std::vector<std::string>());
	EXPECT_EQ(_rpy_iter_instance_pgs_like(like.get(), client.instance, "a", "b"), -1);
	daemon.kill(); // the listing is complete: it needs no daemon any more
	EXPECT_EQ(client.names(iter.get()), all);
	Pg last = client.group();
	EXPECT_EQ(rpy_iter_next_pg(iter.get(), last.get()), 0);
	FAILS(rpy_iter_instance_pgs(iter.get(), client.instance), RPY_ERROR_CONNECTION_BROKEN);
}

TEST_F(Rpy, SnapshotsKeepTheStoredGroupsAsTheyWere)
{
	ASSERT_EQ(client.add("a"), RPY_ERROR_NONE);
	ASSERT_EQ(client.add("t", "t", RPY_PG_FLAG_TEMPORARY), RPY_ERROR_NONE);
	ASSERT_EQ(client.write("a", {{"v", {"1"}}}), 1);
	Pg a = found("a"), nested = client.group(), frozen = client.group();
	ASSERT_EQ(rpy_pg_add_pg(a.get(), "n", "u", 0, nested.get()), 0);
	ASSERT_EQ(client.write(nested.get(), {{"w", {"x"}}}), 1);
	Snap snapshot(rpy_snapshot_create(client.handle));
	FAILS(rpy_instance_get_snapshot(client.instance, "running", snapshot.get()), RPY_ERROR_NOT_FOUND);
	ASSERT_EQ(_rpy_snapshot_take_new(client.instance, "running", snapshot.get()), 0);
	FAILS(_rpy_snapshot_take_new(client.instance, "running", snapshot.get()), RPY_ERROR_EXISTS);
	ASSERT_EQ(client.write("a", {{"v", {"2"}}}), 1);
	auto frozen_a = [&] {
		start();
		EXPECT_EQ(rpy_instance_get_snapshot(client.instance, "running", snapshot.get()), 0);
		EXPECT_EQ(rpy_snapshot_get_pg(snapshot.get(), "a", frozen.get()), 0);
		return client.contents(frozen.get());
	};
	EXPECT_EQ(frozen_a(), (Contents{{"v", {"1"}}}));
	Iter iter(rpy_iter_create(client.handle));
	ASSERT_EQ(rpy_iter_snapshot_pgs(iter.get(), snapshot.get()), 0);
	EXPECT_EQ(client.names(iter.get()), std::vector<std::string>{"a"});
	ASSERT_EQ(rpy_pg_get_pg(frozen.get(), "n", nested.get()), 0);
	EXPECT_EQ(client.contents(nested.get()), (Contents{{"w", {"x"}}}));
	FAILS(rpy_pg_delete(frozen.get()), RPY_ERROR_CONSTRAINT_VIOLATED);

	ASSERT_EQ(client.add("later"), RPY_ERROR_NONE);
	ASSERT_EQ(_rpy_snapshot_revert(snapshot.get()), 0);
	EXPECT_EQ(client.read("a"), (Contents{{"v", {"1"}}}));
	EXPECT_EQ(client.read("later"), Contents());
	EXPECT_EQ(rpy_error(), RPY_ERROR_NOT_FOUND);
	ASSERT_EQ(client.write("a", {{"v", {"3"}}}), 1);
	ASSERT_EQ(_rpy_snapshot_take_attach(client.instance, snapshot.get()), 0);
	EXPECT_EQ(frozen_a(), (Contents{{"v", {"3"}}}));
	ASSERT_EQ(_rpy_snapshot_delete(snapshot.get()), 0);
	EXPECT_EQ(client.read("a"), (Contents{{"v", {"3"}}}));
	char *findings = nullptr;
	ASSERT_EQ(_rpy_verify(client.handle, &findings), 0);
	EXPECT_STREQ(findings, "");
	free(findings);
}

TEST_F(Rpy, MisuseHasItsErrorAndChangesNothing)
{
	Pg empty = client.group();
	RepositoryClient stranger(daemon.hatch());
	Tx tx(rpy_transaction_create(client.handle)), strange(rpy_transaction_create(stranger.handle));
	Val value(rpy_value_create(client.handle));
	ASSERT_EQ(client.add("a"), RPY_ERROR_NONE);
	ASSERT_EQ(client.write("a", {{"v", {"1"}}, {"w", {"1", "2"}}, {"x", {}}}), 1);
	Pg pg = found("a");
	std::string long_name(RPY_NAME_MAX - 1, 'n'), too_long(RPY_NAME_MAX, 'n');
	auto *entry = rpy_entry_create(client.handle), *other = rpy_entry_create(client.handle);
	Prop property(rpy_property_create(client.handle));
	FAILS(rpy_pg_update(empty.get()), RPY_ERROR_NOT_SET);
	FAILS(rpy_pg_update(nullptr), RPY_ERROR_INVALID_ARGUMENT);
	FAILS(rpy_instance_get_pg(stranger.instance, "a", pg.get()), RPY_ERROR_HANDLE_MISMATCH);
	for (const char *bad : {"a/b", "", too_long.c_str()}) {
		FAILS(rpy_instance_add_pg(client.instance, bad, "t", 0, empty.get()), RPY_ERROR_INVALID_ARGUMENT);
	}
	FAILS(rpy_instance_add_pg(client.instance, "b", "t", 2, empty.get()), RPY_ERROR_INVALID_ARGUMENT);
	FAILS(rpy_handle_bind(client.handle), RPY_ERROR_IN_USE);
	FAILS(rpy_transaction_start(strange.get(), pg.get()), RPY_ERROR_HANDLE_MISMATCH);
	FAILS(rpy_transaction_property_new(tx.get(), entry, "n", RPY_TYPE_COUNT), RPY_ERROR_NOT_SET);
	FAILS(rpy_transaction_commit(tx.get()), RPY_ERROR_NOT_SET);
	ASSERT_EQ(rpy_transaction_start(tx.get(), pg.get()), 0);
	FAILS(rpy_transaction_start(tx.get(), pg.get()), RPY_ERROR_IN_USE);
	FAILS(rpy_transaction_property_new(tx.get(), entry, "v", RPY_TYPE_COUNT), RPY_ERROR_EXISTS);
	FAILS(rpy_transaction_property_change(tx.get(), entry, "n", RPY_TYPE_COUNT), RPY_ERROR_NOT_FOUND);
	FAILS(rpy_transaction_property_change(tx.get(), entry, "v", RPY_TYPE_ASTRING), RPY_ERROR_TYPE_MISMATCH);
	FAILS(
	    rpy_transaction_property_new(tx.get(), entry, "n", static_cast<rpy_type_t>(7)), RPY_ERROR_INVALID_ARGUMENT);
	ASSERT_EQ(rpy_transaction_property_new(tx.get(), entry, long_name.c_str(), RPY_TYPE_COUNT), 0);
	FAILS(rpy_transaction_property_new(tx.get(), entry, "m", RPY_TYPE_COUNT), RPY_ERROR_IN_USE);
	FAILS(rpy_transaction_property_new(tx.get(), other, long_name.c_str(), RPY_TYPE_COUNT), RPY_ERROR_IN_USE);
	FAILS(rpy_entry_add_value(entry, value.get()), RPY_ERROR_NOT_SET);
	rpy_value_set_integer(value.get(), -1);
	FAILS(rpy_entry_add_value(entry, value.get()), RPY_ERROR_TYPE_MISMATCH);
	FAILS(rpy_value_set_from_string(value.get(), RPY_TYPE_COUNT, "-1"), RPY_ERROR_INVALID_ARGUMENT);
	FAILS(rpy_value_set_from_string(value.get(), RPY_TYPE_BOOLEAN, "yes"), RPY_ERROR_INVALID_ARGUMENT);
	ASSERT_EQ(rpy_pg_get_property(pg.get(), "w", property.get()), 0);
	FAILS(rpy_property_get_value(property.get(), value.get()), RPY_ERROR_CONSTRAINT_VIOLATED);
	ASSERT_EQ(rpy_pg_get_property(pg.get(), "x", property.get()), 0);
	FAILS(rpy_property_get_value(property.get(), value.get()), RPY_ERROR_NOT_FOUND);
	FAILS(rpy_handle_decode_locator(
		  client.handle, "net/link:nope", nullptr, client.service, client.instance, nullptr, nullptr, 0),
	    RPY_ERROR_NOT_FOUND);
	for (const char *bad : {"", ":x", "a:", "/a", "a/", "a//b", "a:b/c"}) {
		FAILS(rpy_handle_decode_locator(client.handle, bad, nullptr, nullptr, nullptr, nullptr, nullptr, 0),
		    RPY_ERROR_INVALID_ARGUMENT);
	}
	FAILS(_rpy_service_delete(client.service, 0), RPY_ERROR_IN_USE);
	rpy_service_t *made = rpy_service_create(client.handle);
	rpy_instance_t *instance = rpy_instance_create(client.handle);
	Snap snapshot(rpy_snapshot_create(client.handle));
	for (const char *bad : {"x:y", "/x", "x/", "x//y", ""}) { // it would be no locator, or another one
		FAILS(rpy_scope_add_service(client.scope, bad, made), RPY_ERROR_INVALID_ARGUMENT);
	}
	ASSERT_EQ(rpy_scope_add_service(client.scope, "other", made), 0);
	ASSERT_EQ(rpy_service_add_instance(made, "i", instance), 0);
	ASSERT_EQ(_rpy_snapshot_take_new(instance, "s", snapshot.get()), 0);
	FAILS(_rpy_snapshot_take_attach(client.instance, snapshot.get()), RPY_ERROR_INVALID_ARGUMENT);
	ASSERT_EQ(_rpy_snapshot_take_attach(instance, snapshot.get()), 0);
	rpy_instance_destroy(instance);
	rpy_service_destroy(made);
	rpy_transaction_destroy_children(tx.get());
	rpy_entry_destroy(other);
	EXPECT_EQ(client.read("a"), (Contents{{"v", {"1"}}, {"w", {"1", "2"}}, {"x", {}}}));
	EXPECT_EQ(_rpy_service_delete(client.service, 1), 0);
	EXPECT_EQ(client.find(), RPY_ERROR_NOT_FOUND);
}

// A path of an enclave is one of the host's neither before nor after the registry knows the enclave.
TEST_F(Rpy, ABindInADecoratedEnclaveGoesNowhereElse)
{
	TestEnclave enclave;
	const std::string planted = enclave.host_path("/planted");
	ASSERT_EQ(symlink(daemon.hatch().c_str(), planted.c_str()), 0);
	Handle<rpy_handle_t, rpy_handle_destroy> handle(rpy_handle_create(RPY_CLIENT_VERSION));
	Val path(rpy_value_create(handle.get())), id(rpy_value_create(handle.get()));
	auto decorate = [&](uint64_t number) {
		rpy_value_set_count(id.get(), number);
		return rpy_handle_decorate(handle.get(), "enclave", id.get());
	};
	FAILS(decorate(10000), RPY_ERROR_INVALID_ARGUMENT);
	FAILS(rpy_handle_decorate(handle.get(), "hatch_path", id.get()), RPY_ERROR_TYPE_MISMATCH);
	ASSERT_EQ(rpy_value_set_astring(path.get(), planted.c_str()), 0);
	ASSERT_EQ(rpy_handle_decorate(handle.get(), "hatch_path", path.get()), 0);
	ASSERT_EQ(decorate(6), 0);
	FAILS(rpy_handle_bind(handle.get()), RPY_ERROR_NO_SERVER) << "no such enclave";
	ASSERT_EQ(decorate(5), 0);
	FAILS(rpy_handle_bind(handle.get()), RPY_ERROR_NO_SERVER) << "a link that leads out";
	ASSERT_EQ(enclave_registry_remove(5), 0);
	FAILS(rpy_handle_bind(handle.get()), RPY_ERROR_NO_SERVER) << "no such enclave any more";
	ASSERT_EQ(rpy_handle_decorate(handle.get(), "enclave", nullptr), 0);
	EXPECT_EQ(rpy_handle_bind(handle.get()), 0) << "a path of the host's";
}

} // namespace
