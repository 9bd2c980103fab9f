// Batches: what they do, and that they do all of it or nothing.
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <list>
#include <random>
#include <thread>

#include "child.h"
#include "lying_daemon.h"
#include "repository.h"
#include "syscall_fault.h"
#include "world.h"

namespace {

using namespace repository;
using rpy::Op;

// ---- Steps against requests of their own ----

// A step, and what it becomes as requests of its own. Groups are named by their ids or by the step that added them.
struct Planned {
	rpy::Step what;
	NodeKind kind; // of the id; none: it is a step
	uint64_t id;
	std::string name;
	uint32_t flags;
	bool right_base, all;
	rpy::Change change;
};

class Random {
public:
	explicit Random(unsigned seed) : engine_(seed) {}
	uint64_t below(uint64_t end) { return engine_() % end; }

	Planned step(const World &world, const std::vector<Planned> &before, const std::vector<uint64_t> &groups)
	{
		static constexpr const char *names[] = {"a", "b", "c", "d"};
		Planned step = {static_cast<rpy::Step>(below(3)), NodeKind::group, 0, names[below(4)],
		    below(4) == 0 ? RPY_PG_FLAG_TEMPORARY : 0, below(6) != 0, below(3) != 0,
		    static_cast<rpy::Change>(below(3))};
		const uint64_t at = below(before.size() + 1);
		if (step.what != rpy::Step::remove && at < before.size() && before[at].what == rpy::Step::add) {
			step.kind = {};
			step.id = at;
		} else if (groups.empty() || (step.what == rpy::Step::add && below(2) == 0)) {
			step.kind = step.what == rpy::Step::add ? NodeKind::instance : NodeKind::group;
			step.id = world.instance;
		} else {
			step.id = groups[below(groups.size())];
		}
		return step;
	}

private:
	std::mt19937 engine_;
};

rpy::Property number_named(const std::string &name)
{
	static constexpr char value[8] = {1};
	return {name, RPY_TYPE_COUNT, 1, {value, sizeof(value)}};
}

uint64_t version_of(World *world, uint64_t group)
{
	ReadLock hold(world->daemon.model.lock);
	const Node *node = world->daemon.model.find(NodeKind::group, group);
	return node == nullptr ? 0 : node->version->id;
}

bool is_lonely(World *world, uint64_t group)
{
	ReadLock hold(world->daemon.model.lock);
	const Node *node = world->daemon.model.find(NodeKind::group, group);
	return node == nullptr || node->groups.empty();
}

// One after another, up to the first that fails; its error, or RPY_ERROR_CONFLICT for a commit to another version.
std::pair<size_t, rpy_error_t> alone(World *world, const std::vector<Planned> &steps)
{
	std::vector<uint64_t> ids;
	for (const Planned &step : steps) {
		const uint64_t id = step.kind == NodeKind{} ? ids[step.id] : step.id;
		const NodeKind kind = step.kind == NodeKind{} ? NodeKind::group : step.kind;
		uint64_t added = 0;
		if (step.what == rpy::Step::add) {
			added =
			    World::id_in(world->ask(Op::add_group, kind, id, step.name, "t", step.flags, uint64_t{9}));
		} else if (step.what == rpy::Step::commit) {
			const uint64_t base = version_of(world, id) + (step.right_base ? 0 : 1);
			const std::string done =
			    world->ask(Op::commit, id, base, 1, step.change, number_named(step.name), uint64_t{9});
			if (world->error == RPY_ERROR_NONE && rpy::Reader(done).u32() == 0)
				world->error = RPY_ERROR_CONFLICT;
		} else if (!step.all && !is_lonely(world, id)) {
			world->error = RPY_ERROR_IN_USE;
		} else {
			(void) world->ask(Op::delete_group, id);
		}
		if (world->error != RPY_ERROR_NONE)
			return {ids.size(), world->error};
		ids.push_back(added);
	}
	return {ids.size(), RPY_ERROR_NONE};
}

std::pair<size_t, rpy_error_t> together(World *world, const std::vector<Planned> &steps)
{
	rpy::Writer request, reply;
	for (const uint32_t number : {rpy::magic, static_cast<uint32_t>(Op::batch), 0U})
		request.u32(number);
	request.u32(static_cast<uint32_t>(steps.size()));
	for (const Planned &step : steps) {
		request.u32(static_cast<uint32_t>(step.what));
		if (step.what != rpy::Step::remove)
			request.u32(static_cast<uint32_t>(step.kind));
		request.u64(step.id);
		const uint64_t version = version_of(world, step.id);
		if (step.what == rpy::Step::add) {
			request.text(step.name);
			request.text("t");
			request.u32(step.flags);
		} else if (step.what == rpy::Step::commit) {
			request.u64(version + (step.right_base ? 0 : 1));
			request.u32(1);
			request.u32(static_cast<uint32_t>(step.change));
			put_property(&request, number_named(step.name));
		} else {
			request.u32(step.all ? 1 : 0);
		}
	}
	request.u64(9);
	const auto may = [] { return true; };
	answer(&world->daemon, request.view(), may, may, &reply);
	rpy::Reader in(reply.view());
	EXPECT_EQ(in.u32(), rpy::magic);
	if (const uint32_t whole = in.u32(); whole != RPY_ERROR_NONE)
		return {steps.size(), static_cast<rpy_error_t>(whole)};
	const auto outcome = static_cast<rpy::Outcome>(in.u32());
	const size_t number = in.u32();
	const auto error = static_cast<rpy_error_t>(in.u32());
	if (outcome == rpy::Outcome::done)
		return {steps.size(), RPY_ERROR_NONE};
	return {number, outcome == rpy::Outcome::conflict ? RPY_ERROR_CONFLICT : error};
}

TEST(ConfigdBatch, IsItsStepsOneAfterAnotherOrNothing)
{
	Random random(7);
	std::shared_ptr<FakeDisk> disk;
	{
		World first;
		disk = first.store->disk;
	}
	std::map<rpy_error_t, int> seen;
	for (int round = 0; round < 3000; round++) {
		SCOPED_TRACE(round);
		auto open = [](const std::shared_ptr<FakeDisk> &on) {
			auto store = std::make_unique<FakeStore>(on);
			FakeStore *fake = store.get();
			return std::make_unique<World>(std::move(store), fake);
		};
		const auto world = open(disk), other = open(std::make_shared<FakeDisk>(*disk));
		std::vector<uint64_t> groups;
		for (const auto &[id, node] : disk->content.nodes)
			if (node.kind == static_cast<uint32_t>(NodeKind::group))
				groups.push_back(id);
		std::vector<Planned> steps;
		for (uint64_t left = 1 + random.below(5); left > 0; left--)
			steps.push_back(random.step(*world, steps, groups));
		for (Planned &step : steps) // there is no wrong version of what is new
			step.right_base = step.right_base || version_of(world.get(), step.id) == 0;
		const std::string before = world->tree();
		const FakeDisk untouched = *disk;
		const auto expected = alone(other.get(), steps), found = together(world.get(), steps);
		ASSERT_EQ(found, expected);
		ASSERT_EQ(world->tree(), expected.second == RPY_ERROR_NONE ? other->tree() : before);
		ASSERT_TRUE(expected.second == RPY_ERROR_NONE || disk->content == untouched.content);
		seen[expected.second]++;
		ASSERT_EQ(open(disk)->tree().empty(), false);
		if (round % 50 == 0) // which holds versions from here on
			(void) world->ask(Op::take_snapshot, world->instance, "s", round == 0 ? 0 : 1);
	}
	for (rpy_error_t error : {RPY_ERROR_NONE, RPY_ERROR_CONFLICT, RPY_ERROR_DELETED, RPY_ERROR_EXISTS,
		 RPY_ERROR_NOT_FOUND, RPY_ERROR_IN_USE, RPY_ERROR_CONSTRAINT_VIOLATED})
		EXPECT_GT(seen[error], 20) << error;
}

// ---- The client ----

// A rename of the group of the instance, with one more property: 1, 0 or -1 as the batch gives.
int rename_group(RepositoryClient *client, const std::string &from, const std::string &to, int *failed = nullptr)
{
	using Batch = Handle<rpy_batch_t, rpy_batch_destroy>;
	Pg pg = client->group();
	if (rpy_instance_get_pg(client->instance, from.c_str(), pg.get()) == -1)
		return -1;
	Tx tx(rpy_transaction_create(client->handle));
	auto *entry = rpy_entry_create(client->handle);
	rpy_value_t *value = rpy_value_create(client->handle);
	EXPECT_EQ(rpy_transaction_start_new(tx.get()), 0);
	EXPECT_EQ(rpy_transaction_property_new(tx.get(), entry, "v", RPY_TYPE_ASTRING), 0);
	EXPECT_EQ(rpy_value_set_astring(value, to.c_str()), 0);
	EXPECT_EQ(rpy_entry_add_value(entry, value), 0);
	Batch batch(rpy_batch_create(client->handle));
	EXPECT_EQ(rpy_batch_expect_version(batch.get(), pg.get()), 0);
	EXPECT_EQ(rpy_batch_expect_absent_in_instance(batch.get(), client->instance, to.c_str()), 0);
	const int step = rpy_batch_instance_add_pg(batch.get(), client->instance, to.c_str(), "t", 0);
	EXPECT_EQ(rpy_batch_commit_new(batch.get(), step, tx.get()), step + 1);
	EXPECT_EQ(rpy_batch_delete_pg(batch.get(), pg.get(), 0), step + 2);
	EXPECT_EQ(rpy_transaction_commit(tx.get()), -1) << "there is no group to commit to";
	rpy_transaction_destroy_children(tx.get());
	uint64_t revision = 0;
	const int result = rpy_batch_run(batch.get(), failed, &revision);
	EXPECT_TRUE(result != 1 || revision > 0);
	return result;
}

TEST(RpyBatch, TellsWhichConditionOrStepItWas)
{
	Repository daemon;
	ASSERT_EQ(daemon.start(), 0);
	RepositoryClient client(daemon.hatch());
	int failed = 0;
	for (const char *name : {"a", "b"})
		ASSERT_EQ(client.add(name), RPY_ERROR_NONE);
	EXPECT_EQ(rename_group(&client, "a", "b", &failed), 0);
	EXPECT_EQ(failed, 1);
	EXPECT_EQ(rename_group(&client, "a", "c", &failed), 1);
	EXPECT_EQ(failed, -1);
	EXPECT_EQ(client.read("c"), (Contents{{"v", {"c"}}}));
	EXPECT_EQ(client.read("a"), Contents{});
	Pg pg = client.group(), below = client.group();
	ASSERT_EQ(rpy_instance_get_pg(client.instance, "c", pg.get()), 0);
	ASSERT_EQ(rpy_pg_add_pg(pg.get(), "n", "t", 0, below.get()), 0);
	EXPECT_EQ(rename_group(&client, "c", "d", &failed), -1);
	EXPECT_EQ(rpy_error(), RPY_ERROR_IN_USE);
	EXPECT_EQ(failed, 4);
	EXPECT_EQ(client.read("d"), Contents{});
	daemon.stop();
	EXPECT_EQ(rename_group(&client, "c", "d"), -1);

	LyingDaemon older;
	const Scratch place;
	ASSERT_TRUE(older.serve(place.path("hatch")));
	RepositoryClient with_older(place.path("hatch"));
	EXPECT_EQ(rename_group(&with_older, "a", "b", &failed), -1);
	EXPECT_EQ(rpy_error(), RPY_ERROR_VERSION_MISMATCH);
}

// ---- All or nothing ----

TEST(ConfigdBatch, AnyFailedCallLeavesAllOrNothing)
{
	const Scratch place("/dev/shm");
	const std::string file = place.path("repository.db"), seed = place.path("seed");
	auto with = [&](const std::string &path, const std::function<void(World *)> &use) {
		const Fd held(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600));
		World world(make_sqlite_store(path, held.get()), nullptr);
		use(&world);
		return world.tree();
	};
	const std::vector<Planned> steps = {{rpy::Step::add, NodeKind::instance, 3, "new", 0, true, true, {}},
	    {rpy::Step::commit, {}, 0, "p", 0, true, true, rpy::Change::create},
	    {rpy::Step::commit, NodeKind::group, 4, "p", 0, true, true, rpy::Change::change},
	    {rpy::Step::remove, NodeKind::group, 6, "", 0, true, true, {}}};
	const std::string old = with(seed, [](World *world) {
		world->service = World::id_in(world->ask(Op::add_service, "net/link"));
		world->instance = World::id_in(world->ask(Op::add_instance, world->service, "default"));
		(void) world->add_group("old", 0, 0);
		world->commit("old", rpy::Change::create, "p", 5);
		(void) world->add_group("goes", 0, 0);
	});
	const std::string bytes = file_text(seed);
	const std::string all = with(seed,
	    [&](World *world) { EXPECT_EQ(together(world, steps), std::make_pair(steps.size(), RPY_ERROR_NONE)); });
	ASSERT_NE(old, all);
	int refused = 0, ended = 0;
	for (FailNth::Call call :
	    {FailNth::Open, FailNth::Write, FailNth::Fsync, FailNth::Fdatasync, FailNth::Ftruncate})
		for (const FailNth::Action action : {FailNth::Fail, FailNth::Kill})
			for (int nth = 1, status = 1; status != 0; nth++) {
				SCOPED_TRACE(std::to_string(call) + " " + std::to_string(nth));
				(void) unlink((file + "-journal").c_str());
				(void) place.write("repository.db", bytes);
				status = in_child([&] {
					int result = 0;
					(void) with(file, [&](World *world) {
						FailNth fault(call, nth, action, EIO);
						const rpy_error_t error = together(world, steps).second;
						result = !fault.fired() ? 0 : error == RPY_ERROR_NONE ? 1 : 2;
					});
					return result;
				});
				const std::string left = with(file, [](World *) {});
				EXPECT_TRUE(left == all || (left == old && status > 1)) << status;
				EXPECT_FALSE(left == all && status == 2) << "it was reported as failed";
				refused += status == 2 ? 1 : 0;
				ended += status > 2 ? 1 : 0;
			}
	EXPECT_GT(std::min(refused, ended), 5);
}

TEST(RpyBatch, ARenamedGroupIsThereOnceWhateverIsKilled)
{
	Repository daemon;
	ASSERT_EQ(daemon.start(), 0);
	std::atomic<bool> stop{false};
	std::atomic<int> renamed{0}, wrong{0};
	{
		RepositoryClient client(daemon.hatch());
		ASSERT_EQ(client.add("0"), RPY_ERROR_NONE);
	}
	auto names = [](RepositoryClient *client) {
		Iter groups(rpy_iter_create(client->handle));
		return rpy_iter_instance_pgs(groups.get(), client->instance) == 0 ? client->names(groups.get())
										  : std::vector<std::string>{};
	};
	std::jthread reader([&] {
		while (!stop) {
			RepositoryClient client(daemon.hatch());
			while (!stop && client.instance != nullptr) {
				const std::vector<std::string> found = names(&client);
				if (found.empty() && rpy_error() != RPY_ERROR_NONE)
					break;
				wrong += found.size() == 1 ? 0 : 1;
			}
		}
	});
	std::jthread writer([&] {
		for (int known = 0; !stop;) {
			RepositoryClient client(daemon.hatch());
			const std::vector<std::string> found = names(&client);
			if (found.size() != 1)
				continue; // no daemon
			const int at = std::stoi(found[0]);
			wrong += at == known || at == known + 1 ? 0 : 1;
			for (known = at; !stop; known++, renamed++)
				if (rename_group(&client, std::to_string(known), std::to_string(known + 1)) != 1)
					break;
		}
	});
	std::mt19937 random(3);
	for (int kills = 0; kills < 15; kills++) {
		usleep(static_cast<useconds_t>(20'000 + random() % 60'000));
		daemon.kill();
		ASSERT_EQ(daemon.start(), 0);
	}
	stop = true;
	reader.join();
	writer.join();
	EXPECT_EQ(wrong, 0);
	EXPECT_GT(renamed, 15);
}

} // namespace
