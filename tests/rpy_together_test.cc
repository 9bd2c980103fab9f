// Reads of groups by many threads over one handle, which share calls: each gets its own reply, whatever becomes of others.
#include <atomic>
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <meridon/hatch.h>

#include "repository.h"
#include "rpy/wire.h"
#include "threads_after_fork.h"

namespace {

constexpr int readers = 24;

// Runs `read` in so many threads, each with its number.
template <typename Read>
void in_threads(Read read)
{
	std::vector<std::thread> threads;
	for (int i = 0; i < readers; i++)
		threads.emplace_back([&read, i] { read(i); });
	for (std::thread &thread : threads)
		thread.join();
}

class Together : public testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_EQ(daemon.start(), 0);
		ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
	}
	void fill(const std::string &padding)
	{
		for (int i = 0; i < readers; i++) {
			const std::string name = "g" + std::to_string(i);
			ASSERT_EQ(client.add(name, "t", RPY_PG_FLAG_TEMPORARY), RPY_ERROR_NONE);
			ASSERT_EQ(client.write(name, {{"v", {name + padding}}}), 1);
		}
	}

	Repository daemon;
	RepositoryClient client;
};

TEST_F(Together, EachThreadGetsItsOwnGroupOrItsOwnError)
{
	fill("");
	std::atomic<int> wrong{0};
	in_threads([&](int i) {
		const std::string name = "g" + std::to_string(i);
		for (int round = 0; round < 200; round++) {
			const Contents found = client.read(round % 10 == 3 ? "none" : name);
			if (round % 10 == 3 ? !found.empty() || rpy_error() != RPY_ERROR_NOT_FOUND
					    : found != Contents{{"v", {name}}})
				wrong++;
		}
	});
	EXPECT_EQ(wrong, 0);
}

TEST_F(Together, GroupsThatNoReplyHasRoomForComeAlone)
{
	const std::string padding(2'000'000, 'x');
	fill(padding);
	std::atomic<int> wrong{0};
	in_threads([&](int i) {
		const std::string name = "g" + std::to_string(i);
		for (int round = 0; round < 3; round++)
			wrong += client.read(name) == Contents{{"v", {name + padding}}} ? 0 : 1;
	});
	EXPECT_EQ(wrong, 0);
}

TEST_F(Together, NobodyWaitsForADaemonThatHasGone)
{
	fill("");
	std::atomic<int> ended{0};
	std::thread killer([&] {
		usleep(20'000);
		daemon.kill();
	});
	in_threads([&](int i) {
		const std::string name = "g" + std::to_string(i);
		for (;;) {
			const Contents found = client.read(name);
			if (found == Contents{{"v", {name}}})
				continue;
			ended += found.empty() && rpy_error() == RPY_ERROR_CONNECTION_BROKEN ? 1 : 0;
			break;
		}
	});
	killer.join();
	EXPECT_EQ(ended, readers);
}

TEST_F(Together, AChildForkedInBetweenWaitsForNoThreadOfItsParent)
{
	fill("");
	std::atomic<bool> stop{false};
	std::thread forker([&] {
		for (int i = 0; i < 10; i++) {
			const pid_t child = fork();
			if (child == 0) {
				(void) signal(SIGALRM, SIG_DFL);
				alarm(20);
				RepositoryClient own(daemon.hatch());
				_exit(
				    own.read("g1") == Contents{{"v", {"g1"}}} && client.read("g2").size() == 1 ? 0 : 1);
			}
			int status = -1;
			EXPECT_EQ(waitpid(child, &status, 0), child);
			EXPECT_EQ(status, 0);
		}
		stop = true;
	});
	in_threads([&](int i) {
		while (!stop)
			EXPECT_EQ(client.read("g" + std::to_string(i)).size(), 1U);
	});
	forker.join();
}

// ---- A daemon that lies ----

enum Lie { none, bad_error, no_replies, too_long_a_reply, garbage, lies };

void put(std::string *to, uint32_t number)
{
	to->append(reinterpret_cast<const char *>(&number), sizeof(number));
}

// A group without properties, of the name that was asked for.
std::string group_reply(rpy::Reader in)
{
	(void) in.bytes(12); // the parent
	const std::string_view name = in.text();
	std::string reply;
	for (uint32_t number : {rpy::magic, uint32_t{RPY_ERROR_NONE}, 9U, 0U, 3U, 0U, 0U})
		put(&reply, number);
	put(&reply, static_cast<uint32_t>(name.size()));
	reply += name;
	put(&reply, 1);
	reply += "t";
	put(&reply, 4);
	put(&reply, 0);
	return reply;
}

std::string shared_reply(Lie lie, rpy::Reader in)
{
	std::string reply;
	put(&reply, rpy::magic);
	put(&reply, lie == bad_error ? 4000000000 : uint32_t{RPY_ERROR_NONE});
	for (int i = 0; in.left() > 0 && lie != no_replies; i++) {
		rpy::Reader request(in.text());
		(void) request.bytes(8);
		std::string one = group_reply(request);
		if (lie == garbage && i == 1)
			one.assign(one.size(), '\xff');
		put(&reply, lie == too_long_a_reply && i == 1 ? 4000000000 : static_cast<uint32_t>(one.size()));
		reply += one;
	}
	return reply;
}

std::string lying_reply(Lie lie, rpy::Reader in)
{
	(void) in.u32();
	switch (static_cast<rpy::Op>(in.u32())) {
	case rpy::Op::together:
		return shared_reply(lie, in);
	case rpy::Op::get_group:
		usleep(500); // others come meanwhile
		return group_reply(in);
	default: { // the service and the instance
		std::string reply;
		for (uint32_t number : {rpy::magic, uint32_t{RPY_ERROR_NONE}, 2U, 0U, 3U, 0U})
			put(&reply, number);
		return reply;
	}
	}
}

void answer(void *cookie, char *arg, size_t size, hatch_desc_t *, unsigned int)
{
	char copy[65536];
	const size_t length =
	    lying_reply(*static_cast<std::atomic<Lie> *>(cookie), {arg, size}).copy(copy, sizeof(copy));
	(void) hatch_return(copy, length, nullptr, 0);
}

TEST(TogetherWithALiar, WhatIsNotSoundIsAnErrorAndNeverTheGroupOfAnotherThread)
{
	Scratch place;
	std::atomic<Lie> lie{none};
	std::ofstream(place.path("hatch")).flush();
	const int hatch = hatch_create(answer, &lie, HATCH_REFUSE_DESC);
	ASSERT_NE(hatch, -1);
	ASSERT_EQ(fattach(hatch, place.path("hatch").c_str()), 0);
	RepositoryClient client;
	ASSERT_EQ(client.bind(place.path("hatch")), RPY_ERROR_NONE);
	for (int which = none; which < lies; which++) {
		lie = static_cast<Lie>(which);
		std::atomic<int> failed{0}, wrong{0};
		in_threads([&](int i) {
			const std::string name = "g" + std::to_string(i);
			for (int round = 0; round < 5; round++) {
				Pg pg = client.group();
				char found[RPY_NAME_MAX] = "";
				if (rpy_instance_get_pg(client.instance, name.c_str(), pg.get()) == 0)
					wrong += rpy_pg_get_name(pg.get(), found, sizeof(found)) > 0 && name == found
						     ? 0
						     : 1;
				else
					(rpy_error() == RPY_ERROR_INTERNAL ? failed : wrong)++;
			}
		});
		EXPECT_EQ(wrong, 0) << which;
		EXPECT_EQ(failed > 0, which != none && which != no_replies) << which;
	}
	ASSERT_EQ(hatch_revoke(hatch), 0);
}

} // namespace
