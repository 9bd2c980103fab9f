// A daemon that lies to the repository's client: what it says is an error, and nothing waits for it for ever.
#include <atomic>
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

#include <meridon/hatch.h>

#include "repository.h"
#include "rpy/wire.h"

// By how many seconds each look at the clock sets it forward.
static std::atomic<long> warp{0}, warped{0};
extern "C" int clock_gettime(clockid_t id, struct timespec *now) noexcept
{
	const int result = static_cast<int>(syscall(SYS_clock_gettime, id, now, 0, 0, 0, 0));
	if (id == CLOCK_MONOTONIC)
		now->tv_sec += warped += warp;
	return result;
}

namespace {

enum Lie { none, bad_error, no_replies, too_long_a_reply, garbage, lies, endless_pages, poor_pages, slow };

void put(std::string *to, uint32_t number)
{
	to->append(reinterpret_cast<const char *>(&number), sizeof(number));
}

void put_head(std::string *reply)
{
	put(reply, rpy::magic);
	put(reply, RPY_ERROR_NONE);
}

// A group without properties.
void put_group(std::string *reply, uint64_t id, std::string_view name)
{
	reply->append(reinterpret_cast<const char *>(&id), sizeof(id));
	for (uint32_t number : {3U, 0U, 0U, static_cast<uint32_t>(name.size())})
		put(reply, number);
	*reply += name;
	put(reply, 1);
	*reply += "t";
	put(reply, 4);
	put(reply, 0);
}

// The group of the name that was asked for.
std::string group_reply(rpy::Reader in)
{
	(void) in.bytes(12); // the parent
	std::string reply;
	put_head(&reply);
	put_group(&reply, 9, in.text());
	return reply;
}

// More always follows.
std::string page_reply(rpy::Reader in, uint32_t count)
{
	(void) in.bytes(16); // the parent, the filter
	(void) in.text();
	uint64_t id = in.u64();
	std::string reply;
	put_head(&reply);
	put(&reply, 1);
	put(&reply, count);
	for (uint32_t i = 0; i < count; i++)
		put_group(&reply, ++id, "g");
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
		usleep(lie == slow ? 300'000 : 500); // others come meanwhile
		return group_reply(in);
	case rpy::Op::list_groups:
		return page_reply(in, lie == poor_pages ? 1 : rpy::page_least);
	default: { // the service and the instance
		std::string reply;
		put_head(&reply);
		for (uint32_t number : {2U, 0U, 3U, 0U})
			put(&reply, number);
		return reply;
	}
	}
}

void answer(void *cookie, char *arg, size_t size, hatch_desc_t *, unsigned int)
{
	thread_local char copy[65536];
	const size_t length =
	    lying_reply(*static_cast<std::atomic<Lie> *>(cookie), {arg, size}).copy(copy, sizeof(copy));
	(void) hatch_return(copy, length, nullptr, 0);
}

class RpyLiar : public testing::Test {
protected:
	void SetUp() override
	{
		std::ofstream(place.path("hatch")).flush();
		hatch = hatch_create(answer, &lie, HATCH_REFUSE_DESC);
		ASSERT_NE(hatch, -1);
		ASSERT_EQ(fattach(hatch, place.path("hatch").c_str()), 0);
		ASSERT_EQ(client.bind(place.path("hatch")), RPY_ERROR_NONE);
	}
	void TearDown() override
	{
		warp = 0;
		(void) hatch_revoke(hatch);
	}

	Scratch place;
	std::atomic<Lie> lie{none};
	int hatch = -1;
	RepositoryClient client;
};

TEST_F(RpyLiar, SharedRepliesThatAreNotSoundAreErrorsAndNeverGroupsOfOtherThreads)
{
	for (int which = none; which < lies; which++) {
		lie = static_cast<Lie>(which);
		std::atomic<int> failed{0}, wrong{0};
		std::vector<std::thread> threads;
		for (int i = 0; i < 24; i++)
			threads.emplace_back([&, name = "g" + std::to_string(i)] {
				for (int round = 0; round < 5; round++) {
					Pg pg = client.group();
					char found[RPY_NAME_MAX] = "";
					if (rpy_instance_get_pg(client.instance, name.c_str(), pg.get()) == 0)
						wrong +=
						    rpy_pg_get_name(pg.get(), found, sizeof(found)) > 0 && name == found
							? 0
							: 1;
					else
						(rpy_error() == RPY_ERROR_INTERNAL ? failed : wrong)++;
				}
			});
		for (std::thread &thread : threads)
			thread.join();
		EXPECT_EQ(wrong, 0) << which;
		EXPECT_EQ(failed > 0, which != none && which != no_replies) << which;
	}
}

TEST_F(RpyLiar, AListingComesToAnEndThoughMoreAlwaysFollows)
{
	Iter groups(rpy_iter_create(client.handle));
	lie = poor_pages;
	EXPECT_EQ(rpy_iter_instance_pgs(groups.get(), client.instance), -1);
	EXPECT_EQ(rpy_error(), RPY_ERROR_INTERNAL);
	lie = endless_pages;
	warp = 1;
	EXPECT_EQ(rpy_iter_instance_pgs(groups.get(), client.instance), -1);
	EXPECT_EQ(rpy_error(), RPY_ERROR_CONNECTION_BROKEN);
}

// Each signal interrupts the call, and it is asked again.
TEST_F(RpyLiar, SignalsMakeACallTakeNoLonger)
{
	struct sigaction action = {}, before;
	action.sa_handler = [](int) {};
	ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
	const itimerval often = {{0, 20'000}, {0, 20'000}}, never = {};
	lie = slow;
	warp = 1;
	ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
	Pg pg = client.group();
	EXPECT_EQ(rpy_instance_get_pg(client.instance, "g", pg.get()), -1);
	EXPECT_EQ(rpy_error(), RPY_ERROR_CONNECTION_BROKEN);
	ASSERT_EQ(setitimer(ITIMER_REAL, &never, nullptr), 0);
	ASSERT_EQ(sigaction(SIGALRM, &before, nullptr), 0);
}

} // namespace
