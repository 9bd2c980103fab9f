// The daemon's updates and listings, without a process around them.
#include <atomic>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <meridon/hatch.h>

#include "alloc_fault.h"
#include "hatch/pool.h"
#include "repository.h"
#include "requests.h"
#include "updates.h"

namespace {

using namespace repository;

// Takes every commit, and keeps none.
class NoStore : public Store {
public:
	Failure open(const Loader &, uint64_t *) override { return {}; }
	Committed commit(const Rows &rows, uint64_t) override
	{
		rows_seen += rows.size();
		return RPY_ERROR_NONE;
	}
	bool writable() override { return true; }
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

// A request's head, and what a test puts behind it.
class Asked : public rpy::Writer {
public:
	explicit Asked(rpy::Op op)
	{
		u32(rpy::magic);
		u32(static_cast<uint32_t>(op));
	}
};

// What a daemon answers to whoever may do anything; empty for an error.
std::string answer_of(Daemon *daemon, const rpy::Writer &request)
{
	auto may = [] { return true; };
	rpy::Writer reply;
	answer(daemon, request.view(), may, may, &reply);
	rpy::Reader in(reply.view());
	(void) in.u32();
	return in.u32() == RPY_ERROR_NONE ? std::string(in.here(), in.left()) : std::string();
}

uint64_t id_in(const std::string &answer)
{
	return rpy::Reader(answer).u64();
}

uint64_t add_group(Daemon *daemon, uint64_t instance, const std::string &name, uint64_t change = 0)
{
	Asked add(rpy::Op::add_group);
	put_parent(&add, rpy::Parent::instance, instance);
	add.text(name);
	add.text("t" + name.substr(0, 1));
	add.u32(RPY_PG_FLAG_TEMPORARY);
	add.u64(change);
	return id_in(answer_of(daemon, add));
}

// The ids in all pages of a listing of the groups of a type; empty if an id doesn't rise, or a page is empty before the end.
std::vector<uint64_t> listed(Daemon *daemon, uint64_t instance, std::string_view type)
{
	std::vector<uint64_t> ids = {0};
	for (bool more = true; more;) {
		Asked list(rpy::Op::list_groups);
		put_parent(&list, rpy::Parent::instance, instance);
		list.u32(static_cast<uint32_t>(rpy::Filter::type));
		list.text(type);
		list.u64(ids.back());
		const std::string page = answer_of(daemon, list);
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

uint64_t add_instance(Daemon *daemon)
{
	Asked service(rpy::Op::add_service);
	service.text("net/link");
	Asked instance(rpy::Op::add_instance);
	instance.u64(id_in(answer_of(daemon, service)));
	instance.text("default");
	return id_in(answer_of(daemon, instance));
}

TEST(ConfigdUpdates, AWithdrawalLeavesAloneWhatOthersMadeOrCommitted)
{
	Daemon daemon("file", std::make_unique<NoStore>());
	const uint64_t parent = add_instance(&daemon), group = add_group(&daemon, parent, "g", 7);
	auto withdraw = [&](rpy::Parent kind, uint64_t id, std::string_view name, uint64_t change) {
		Asked asked(rpy::Op::withdraw_group);
		put_parent(&asked, kind, id);
		asked.text(name);
		asked.u64(change);
		(void) answer_of(&daemon, asked);
		return daemon.model.find(group) == nullptr;
	};
	EXPECT_FALSE(withdraw(rpy::Parent::instance, parent, "g", 8));
	Asked commit(rpy::Op::commit);
	for (uint64_t number : {group, uint64_t{0}})
		commit.u64(number);
	commit.u32(0);
	commit.u64(9);
	ASSERT_FALSE(answer_of(&daemon, commit).empty());
	EXPECT_FALSE(withdraw(rpy::Parent::instance, parent, "g", 7));
	EXPECT_FALSE(withdraw(rpy::Parent::group, group, "", 0));
	EXPECT_TRUE(withdraw(rpy::Parent::group, group, "", 9));
}

// It is made in pieces, and others change what it goes over in between.
TEST(ConfigdListings, WhatStaysIsListedOnceWhateverComesAndGoes)
{
	Daemon daemon("file", std::make_unique<NoStore>());
	const uint64_t parent = add_instance(&daemon);
	constexpr int many = 30000;
	std::vector<uint64_t> stays, goes;
	for (int i = 0; i < many; i++) {
		const bool one = i % 10 == 0;
		(one ? stays : goes).push_back(add_group(&daemon, parent, (one ? "s" : "g") + std::to_string(i)));
	}
	std::atomic<bool> end{false};
	std::thread others([&] {
		for (size_t i = 0; !end; i = (i + 1) % goes.size()) {
			Asked remove(rpy::Op::delete_group);
			remove.u64(goes[i]);
			(void) answer_of(&daemon, remove);
			goes[i] = add_group(&daemon, parent, "g" + std::to_string(i));
		}
	});
	for (int i = 0; i < 50; i++)
		EXPECT_EQ(listed(&daemon, parent, "ts"), stays);
	end = true;
	others.join();
	EXPECT_EQ(listed(&daemon, parent, "tg").size(), goes.size());
}

void handle(void *cookie, char *arg, size_t size, hatch_desc_t *, unsigned int)
{
	const auto anybody = [] { return true; };
	serve_call(static_cast<Daemon *>(cookie), {arg, size}, anybody, anybody);
}

// A page has up to 64 MiB, and a user's share is less here.
TEST(ConfigdListings, AReaderThatMayNotHaveAPageGetsItInParts)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "skipped: acting as other users needs root";
	Daemon daemon("file", std::make_unique<NoStore>());
	const uint64_t parent = add_instance(&daemon);
	constexpr int many = 70;
	for (int i = 0; i < many; i++) {
		const uint64_t group = add_group(&daemon, parent, "g" + std::to_string(i));
		rpy::Writer values;
		values.text(std::string(1 << 20, 'x'));
		Asked commit(rpy::Op::commit);
		commit.u64(group);
		commit.u64(0);
		commit.u32(1);
		commit.u32(static_cast<uint32_t>(rpy::Change::create));
		put_property(&commit, {"v", RPY_TYPE_ASTRING, 1, values.view()});
		ASSERT_FALSE(answer_of(&daemon, commit).empty());
	}
	hatch::set_pool_size(32 << 20);
	Scratch place;
	const std::string path = place.write("hatch", "");
	ASSERT_EQ(chmod(place.directory().c_str(), 0755), 0);
	const int served = hatch_create(handle, &daemon, HATCH_REFUSE_DESC);
	ASSERT_EQ(fattach(served, path.c_str()), 0);
	const pid_t child = fork();
	if (child == 0) {
		if (setresgid(1, 1, 1) != 0 || setresuid(1, 1, 1) != 0)
			_exit(255);
		RepositoryClient client(path);
		Iter groups(rpy_iter_create(client.handle));
		_exit(rpy_iter_instance_pgs(groups.get(), client.instance) == 0
			  ? static_cast<int>(client.names(groups.get()).size())
			  : 255);
	}
	int status = -1;
	EXPECT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(WEXITSTATUS(status), many);
	EXPECT_EQ(hatch_revoke(served), 0);
	hatch::set_pool_size(0);
}

} // namespace
