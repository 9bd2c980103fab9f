// The daemon's updates and listings, without a process around them.
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <meridon/hatch.h>

#include "alloc_fault.h"
#include "child.h"
#include "fake_store.h"
#include "hatch/pool.h"
#include "hatch_peer.h"
#include "repository.h"
#include "requests.h"
#include "updates.h"
#include "world.h"

namespace {

using namespace repository;

struct OneRow : Update {
	explicit OneRow(uint64_t its_group) : Update(rpy::Op::status, its_group) {}
	rpy_error_t prepare(Model &model, Rows *rows) override REQUIRES(model.leader)
	{
		rows->push_back(Row::put_version(model.take_id(true), {}));
		return RPY_ERROR_NONE;
	}
	void apply(Model &, const Committed &) override {}
};

TEST(ConfigdUpdates, AFailingAllocationRefusesOneAndStopsNone)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	struct Parts {
		Model model;
		FakeStore store;
		Updates updates{&model, &store};
	};
	const int rounds = sweep_allocations([] { return std::make_unique<Parts>(); },
	    [](const auto &parts) {
		    OneRow update(7);
		    return parts->updates.run(&update);
	    },
	    [](const auto &parts, rpy_error_t error, bool failed) {
		    EXPECT_EQ(error, failed ? RPY_ERROR_NO_MEMORY : RPY_ERROR_NONE);
		    OneRow next(0);
		    EXPECT_EQ(parts->updates.run(&next), RPY_ERROR_NONE);
		    EXPECT_EQ(parts->store.rows_seen, 1U) << "what was refused is done with the next";
	    });
	EXPECT_GT(rounds, 1);
}

// All kinds of updates, one after another, with a picture after each.
std::vector<std::string> pictures_of_updates(World *world)
{
	using rpy::Op;
	uint64_t a = 0, b = 0, snapshot = 0;
	const std::function<void()> updates[] = {
	    [&] { a = world->add_group("a", 7, 0); },
	    [&] { b = world->add_group("b", 7, 0); },
	    [&] { world->commit("a", rpy::Change::create, "v", 1); },
	    [&] { snapshot = World::id_in(world->ask(Op::take_snapshot, world->instance, "s", 0)); },
	    [&] { world->commit("a", rpy::Change::change, "v", 2); },
	    [&] { world->commit("a", rpy::Change::create, "w", 2); },
	    [&] { (void) world->ask(Op::delete_group, b); },
	    [&] { (void) world->ask(Op::revert_snapshot, snapshot); },
	    [&] { world->commit("a", rpy::Change::remove, "v", 1); },
	    [&] { (void) world->ask(Op::take_snapshot, world->instance, "s", 1); },
	    [&] { (void) world->ask(Op::withdraw_group, NodeKind::instance, world->instance, "a", uint64_t{7}); },
	    [&] { (void) world->ask(Op::delete_entity, world->service, 1); },
	};
	std::vector<std::string> pictures;
	for (const auto &update : updates) {
		update();
		EXPECT_EQ(world->error, RPY_ERROR_NONE);
		pictures.push_back(world->picture());
	}
	return pictures;
}

// A store that other hosts share: one of them is always faster, and the store numbers its rows by itself.
TEST(ConfigdUpdates, ASharedStoreMayRefuseACommitAsStaleAndChoosesTheIds)
{
	auto shared = std::make_unique<FakeStore>();
	int stale = 0;
	uint64_t next = uint64_t{1} << 62;
	shared->answers = [&](const Rows &rows) {
		Committed made;
		if (++stale % 3 != 0)
			return Committed::stale(RPY_ERROR_BACKEND_READONLY);
		for (const Row &row : rows)
			if (row.what == Row::What::put_node || row.what == Row::What::put_version)
				made.given[row.id] = next++;
		return made;
	};
	World alone, world(std::move(shared));
	const uint64_t group = world.add_group("kept", 0, 0);
	world.commit("kept", rpy::Change::create, "v", 1);
	for (const uint64_t id : {world.instance, group, world.find("kept").second})
		EXPECT_GE(id, uint64_t{1} << 62);
	(void) world.ask(rpy::Op::delete_group, group);
	EXPECT_EQ(pictures_of_updates(&world), pictures_of_updates(&alone));

	world.store->answers = [](const Rows &) { return Committed::stale(RPY_ERROR_BACKEND_READONLY); };
	world.store->asked = 0;
	(void) world.ask(rpy::Op::add_service, "other");
	EXPECT_EQ(world.error, RPY_ERROR_BACKEND_READONLY);
	EXPECT_GT(world.store->asked, 3);
}

// What a store holds that has what the tree shows.
StoreContent content_of(Daemon *daemon)
{
	StoreContent content;
	ReadLock hold(daemon->model.lock);
	for (Node *top : daemon->model.services())
		for (const Node *node : Model::tree(top)) {
			const uint64_t version = node->version ? node->version->id : 0;
			if (version != 0)
				content.versions.emplace(version, node->version->properties);
			EXPECT_TRUE(content.take(Row{Row::What::put_node, node->id, static_cast<uint32_t>(node->kind),
			    node->parent == nullptr ? 0 : node->parent->id, version, node->name,
			    node->type == nullptr ? "" : *node->type, {}}));
		}
	return content;
}

// Each of several clients has a group of its own, and takes and reverts to snapshots of all.
TEST(ConfigdUpdates, WhateverCommitsComeToTheTreeShowsWhatTheStoreHolds)
{
	using rpy::Op;
	World world;
	world.store->answers = [&](const Rows &) -> Committed {
		if (world.store->asked % 7 == 0)
			return Committed::stale(RPY_ERROR_BACKEND_READONLY);
		return world.store->asked % 5 == 0 ? RPY_ERROR_NO_RESOURCES : RPY_ERROR_NONE;
	};
	std::vector<std::jthread> clients;
	for (const char *name : {"a", "b", "c", "d"})
		clients.emplace_back([&world, name] {
			uint64_t group = 0, snapshot = 0;
			for (uint64_t i = 0; i < 100; i++) {
				group = std::max(group, world.add_group(name, 0, 0));
				world.commit(name, rpy::Change::create, "v", i);
				world.commit(name, rpy::Change::change, "v", i + 1);
				if (i % 3 == 0)
					(void) world.ask(Op::delete_group, group);
				if (i % 10 == 0)
					snapshot = World::id_in(
					    world.ask(Op::take_snapshot, world.instance, name, i < 10 ? 0 : 1));
				if (i % 10 == 5)
					(void) world.ask(Op::revert_snapshot, snapshot);
			}
		});
	clients.clear();
	StoreContent shown = content_of(&world.daemon);
	shown.next = world.store->disk->content.next;
	EXPECT_TRUE(shown == world.store->disk->content);
	EXPECT_GT(world.store->disk->commits, 300);
	Daemon next("file", std::make_unique<FakeStore>(world.store->disk));
	ASSERT_FALSE(next.load());
	EXPECT_TRUE((shown = content_of(&next)).nodes == world.store->disk->content.nodes);
}

TEST(ConfigdUpdates, WhatOthersRemovedDuringACommitStaysRemoved)
{
	for (const char *what : {"a commit, seen in time", "a commit", "a new group"}) {
		World world;
		const bool is_stale = strstr(what, "in time") != nullptr;
		const uint64_t group = world.add_group("g", 0, 0);
		world.store->answers = [&](const Rows &) {
			world.store->answers = nullptr;
			world.daemon.model.leader.assert_held();
			WriteLock hold(world.daemon.model.lock);
			world.daemon.model.remove(world.daemon.model.find(world.service));
			return is_stale ? Committed::stale(RPY_ERROR_INTERNAL) : Committed();
		};
		if (what[2] == 'c')
			(void) world.ask(rpy::Op::commit, group, uint64_t{0}, 0);
		else
			EXPECT_NE(world.add_group("new", 0, 0), 0U);
		EXPECT_EQ(world.error, is_stale ? RPY_ERROR_DELETED : RPY_ERROR_NONE) << what;
		ReadLock hold(world.daemon.model.lock);
		EXPECT_TRUE(world.daemon.model.services().empty());
	}
}

// The ids in all pages of a listing of the groups of a type; empty if an id doesn't rise, or a page is empty before the end.
std::vector<uint64_t> listed(World *world, std::string_view type)
{
	std::vector<uint64_t> ids = {0};
	for (bool more = true; more;) {
		const std::string page = world->ask(
		    rpy::Op::list_groups, NodeKind::instance, world->instance, rpy::Filter::type, type, ids.back());
		rpy::Reader in(page);
		more = in.u32() != 0;
		const uint32_t count = in.u32();
		if (more && count == 0)
			return {};
		for (uint32_t i = 0; i < count; i++) {
			rpy::Group group;
			if (!rpy::take_group(&in, &group) || group.id <= ids.back())
				return {};
			ids.push_back(group.id);
		}
	}
	return {ids.begin() + 1, ids.end()};
}

TEST(ConfigdUpdates, AWithdrawalLeavesAloneWhatOthersMadeOrCommitted)
{
	World world;
	const uint64_t group = world.add_group("g", 7);
	auto withdraw = [&](NodeKind kind, uint64_t id, const char *name, uint64_t change) {
		(void) world.ask(rpy::Op::withdraw_group, kind, id, name, change);
		ReadLock hold(world.daemon.model.lock);
		return world.daemon.model.find(group) == nullptr;
	};
	EXPECT_FALSE(withdraw(NodeKind::instance, world.instance, "g", 8));
	ASSERT_FALSE(world.ask(rpy::Op::commit, group, uint64_t{0}, 0, uint64_t{9}).empty());
	EXPECT_FALSE(withdraw(NodeKind::instance, world.instance, "g", 7));
	EXPECT_FALSE(withdraw(NodeKind::group, group, "", 0));
	EXPECT_TRUE(withdraw(NodeKind::group, group, "", 9));
}

// The second daemon knows as little of the first one's temporary groups as if it had been started after it.
TEST(ConfigdUpdates, AnIdOfATemporaryGroupNeverComesAgain)
{
	World first, second;
	std::set<uint64_t> ids;
	for (int i = 0; i < 10; i++)
		EXPECT_TRUE(ids.insert(first.add_group("g" + std::to_string(i))).second);
	for (int i = 0; i < 20; i++)
		EXPECT_TRUE(
		    ids.insert(second.add_group("g" + std::to_string(i), 0, i % 2 == 0 ? 0 : RPY_PG_FLAG_TEMPORARY))
			.second);
	EXPECT_GT(first.add_group("h"), first.add_group("stored", 0, 0)) << "listings give what is stored first";
}

// It is made in pieces, and others change what it goes over in between.
TEST(ConfigdListings, WhatStaysIsListedOnceWhateverComesAndGoes)
{
	World world;
	constexpr int many = 30000;
	std::vector<uint64_t> stays, goes;
	for (int i = 0; i < many; i++) {
		const bool one = i % 10 == 0;
		(one ? stays : goes).push_back(world.add_group((one ? "s" : "g") + std::to_string(i)));
	}
	std::atomic<bool> end{false};
	std::thread others([&] {
		for (size_t i = 0; !end; i = (i + 1) % goes.size()) {
			(void) world.ask(rpy::Op::delete_group, goes[i]);
			goes[i] = world.add_group("g" + std::to_string(i));
		}
	});
	for (int i = 0; i < 50; i++)
		EXPECT_EQ(listed(&world, "ts"), stays);
	end = true;
	others.join();
	EXPECT_EQ(listed(&world, "tg").size(), goes.size());
}

void handle(void *cookie, char *arg, size_t size, hatch_desc_t *, unsigned int)
{
	const auto anybody = [] { return true; };
	serve_call(static_cast<Daemon *>(cookie), {arg, size}, anybody, anybody);
}

// A page has up to 64 MiB, and a user's share is less here.
TEST(ConfigdListings, AReaderThatMayNotHaveAPageGetsItInParts)
{
	SKIP_UNLESS_ROOT();
	World world;
	constexpr int many = 70;
	rpy::Writer values;
	values.text(std::string(1 << 20, 'x'));
	const rpy::Property large = {"v", RPY_TYPE_ASTRING, 1, values.view()};
	for (int i = 0; i < many; i++) {
		const uint64_t group = world.add_group("g" + std::to_string(i));
		ASSERT_FALSE(world.ask(rpy::Op::commit, group, uint64_t{0}, 1, rpy::Change::create, large).empty());
	}
	hatch::set_pool_size(32 << 20);
	Scratch place;
	ASSERT_EQ(chmod(place.directory().c_str(), 0755), 0);
	const LocalHatch served(attachable(place.path("hatch")), handle, &world.daemon);
	EXPECT_EQ(as_user(1,
		      [&] {
			      RepositoryClient client(place.path("hatch"));
			      Iter groups(rpy_iter_create(client.handle));
			      return rpy_iter_instance_pgs(groups.get(), client.instance) == 0
					 ? static_cast<int>(client.names(groups.get()).size())
					 : 255;
		      }),
	    many);
	hatch::set_pool_size(0);
}

} // namespace
