// Users that take what they can get: shares of memory, and what others notice of a flood.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "base/clock.h"
#include "base/memory_bound.h"
#include "hatch/pool.h"
#include "hatch_socket.h"
#include "served_db.h"

using namespace hatch;

namespace {

constexpr size_t mib = size_t{1} << 20;
constexpr uid_t stranger = 1001;

// ---- Memory ----

class HatchMemory : public HatchTest {};

TEST_F(HatchMemory, TheLeastBoundOfAGroupAndItsParentsCounts)
{
	for (const auto &[groups, bound] : golden_pairs("memory_bounds.txt")) {
		Scratch tree;
		std::filesystem::create_directories(tree.path("proc/self"));
		std::istringstream words(groups);
		std::string lines;
		for (std::string word; words >> word;) {
			const size_t equals = word.find('=');
			if (equals == word.npos) {
				lines += (word == "-" ? "" : word) + "\n";
				continue;
			}
			const std::string file = "sys/fs/cgroup/" + word.substr(0, equals);
			std::filesystem::create_directories(std::filesystem::path(tree.path(file)).parent_path());
			(void) tree.write(file, word.substr(equals + 1) + "\n");
		}
		(void) tree.write("proc/self/cgroup", lines);
		const size_t expected = bound == "machine" ? read_memory_bound("/nowhere") : std::stoul(bound);
		EXPECT_EQ(read_memory_bound(tree.directory().c_str()), expected) << groups;
	}
}

// Any users, any sizes: the sum is right, what is granted is what the rule says, and all comes back.
TEST_F(HatchMemory, ChargesAddUpWhateverIsAskedFor)
{
	const size_t size = 64 * mib, of_strangers = size - size / 8;
	set_pool_size(size);
	std::mt19937 random(7);
	std::map<uid_t, size_t> has; // users that hold something
	size_t sum = 0, refused = 0;
	{
		std::vector<std::unique_ptr<Charge>> charges;
		std::vector<uid_t> users;
		for (uid_t i = 0; i < 300; i++) {
			users.push_back(i % 40 == 0 ? 0 : 5'000 + i % 60 * 1024); // one bucket for all
			charges.push_back(std::make_unique<Charge>(users.back()));
		}
		for (int step = 0; step < 20'000; step++) {
			const size_t i = random() % charges.size();
			const size_t before = charges[i]->bytes(), wish = random() % 4 == 0 ? 0 : random() % (2 * mib);
			const size_t more = wish > before ? wish - before : 0;
			const size_t mine = has.count(users[i]) == 0 ? 0 : has[users[i]];
			const size_t strangers = has.size() - has.count(0) + (mine == 0 ? 1 : 0);
			const size_t left = of_strangers > sum ? of_strangers - sum : 0;
			const bool within = users[i] == 0
						? sum + more <= size
						: more <= left && (mine + more) * (strangers + 1) <= left + mine;
			const bool granted = charges[i]->resize(wish);
			ASSERT_EQ(granted, within || more == 0) << step;
			refused += granted ? 0 : 1;
			if (granted && wish != before) {
				sum = sum - before + wish;
				if ((has[users[i]] = mine - before + wish) == 0)
					has.erase(users[i]);
			}
			ASSERT_EQ(pool_held(), sum) << step;
		}
	}
	EXPECT_GT(refused, 100U) << "it was never tight";
	EXPECT_EQ(pool_held(), 0U);
	set_pool_size(0);
}

// Lists without members take many times their packed size.
std::string empty_lists(size_t bytes)
{
	AttrList empty = idl_of(""), whole = idl_of("");
	std::vector<attrlist_t *> lists(bytes / 8, empty.get());
	EXPECT_EQ(
	    attrlist_add_attrlist_array(whole.get(), "l", lists.data(), static_cast<unsigned int>(lists.size())), 0);
	return packed(whole.get());
}

TEST_F(HatchMemory, ACallTakesItsUsersShareAndNoMoreHoweverItDoes)
{
	SKIP_UNLESS_ROOT();
	set_pool_size(32 * mib); // 14 MiB for a stranger alone
	LocalHatch served(path_);
	const struct Case {
		const char *what;
		Ask ask;
		std::string more;
		int of_stranger, of_root;
	} cases[] = {
	    {"few lists", {Do::Unpack, 0, 0}, empty_lists(mib / 16), 0, 0},
	    {"many lists", {Do::Unpack, 0, 0}, empty_lists(4 * mib), ENOMEM, 0},
	    {"a charge", {Do::Charge, 0, 10 * mib}, "", 0, 0},
	    {"a large charge", {Do::Charge, 0, 20 * mib}, "", ENOMEM, 0},
	    {"an absurd charge", {Do::Charge, 0, SIZE_MAX}, "", ENOMEM, ENOMEM},
	    {"a reply", {Do::Reserve, 0, 10 * mib}, "", 0, 0},
	    {"a large reply", {Do::Reserve, 0, 20 * mib}, "", ENOMEM, 0},
	    {"a large request and a charge", {Do::Charge, 0, 6 * mib}, std::string(10 * mib, 'x'), ENOMEM, 0},
	};
	for (const Case &one : cases) {
		for (uid_t user : {stranger, uid_t{0}}) {
			thread_as(user, [&] {
				Fd fd = open_hatch(path_);
				const Answer answer = call(fd.get(), request_of(one.ask).substr(head_size) + one.more);
				hatch_forget(fd.get());
				const int error = answer.error != 0 ? answer.error : numbers_of(answer).at(0);
				EXPECT_EQ(error, user == 0 ? one.of_root : one.of_stranger)
				    << one.what << " by " << user;
			});
		}
	}
	EXPECT_EQ(hatch_charge(1), -1);
	EXPECT_EQ(errno, EINVAL) << "outside of a handler";
	served.revoke();
	EXPECT_EQ(pool_held(), 0U);
	set_pool_size(0);
}

// ---- Threads ----

struct Busy {
	std::atomic<bool> computes{true};
	std::atomic<int> now{0}, most{0}, calls{0};
};

void be_busy(void *cookie, char *, size_t, hatch_desc_t *, unsigned int)
{
	auto *busy = static_cast<Busy *>(cookie);
	const int now = ++busy->now;
	if (now > busy->most)
		busy->most = now;
	const Deadline end = Deadline::in(2 * millisecond_ns);
	if (!busy->computes)
		sleep_ns(2 * millisecond_ns);
	while (!end.has_passed())
		;
	busy->now--;
	busy->calls++;
	(void) hatch_return(nullptr, 0, nullptr, 0);
}

class HatchThreads : public HatchTest {};

TEST_F(HatchThreads, AUserHasMoreForCallsThatWaitThanForThoseThatCompute)
{
	SKIP_UNLESS_ROOT();
	Busy busy;
	LocalHatch served(path_, be_busy, &busy);
	const int processors = std::max(static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)), 2);
	std::vector<Process> clients;
	for (int i = 0; i < 2 * processors; i++)
		clients.emplace_back([&] {
			become(stranger, stranger);
			for (Fd fd = open_hatch(path_);;)
				(void) call(fd.get(), std::string("x"));
			return 0;
		});
	auto comes = [&](auto &&holds) { // soon, for a number of calls that is larger than chance
		for (int looks = 0; looks < 20; looks++) {
			busy.most = busy.calls = 0;
			while (busy.calls < 300)
				usleep(1'000);
			if (holds(busy.most.load()))
				return true;
		}
		return false;
	};
	EXPECT_TRUE(comes([&](int most) { return most <= processors; }));
	busy.computes = false;
	EXPECT_TRUE(comes([&](int most) { return most > processors; }));
}

// ---- Floods ----

bool send_some(const Fd &fd, const std::string &bytes)
{
	return send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) != -1 || errno == EAGAIN;
}

// A way to flood: what each connection begins with, and what it goes on with. A connection that the server ends is made again.
struct Flood {
	const char *what;
	int processes, connections; // of each process; 0: connects and closes
	std::string first, next;
};

int flood(const std::string &path, const Flood &how)
{
	const sockaddr_un address = address_of(socket_path(path));
	while (how.connections == 0)
		(void) connect_to(address);
	std::vector<Fd> all(static_cast<size_t>(how.connections));
	for (;;) {
		for (Fd &fd : all) {
			bool lives = fd ? how.next.empty() || send_some(fd, how.next)
					: (fd = connect_to(address, SOCK_NONBLOCK)) && send_some(fd, how.first);
			if (!lives)
				fd.reset();
		}
		if (how.next.empty())
			usleep(1000);
	}
}

// Calls for a while over a kept and over new connections; gives how many pairs of calls there were, or 255 for a failure.
int call_beside(const std::string &path)
{
	const Deadline end = Deadline::in(1500 * millisecond_ns);
	Fd kept = open_hatch(path);
	int calls = 0;
	for (; !end.has_passed() && calls < 200; calls++) {
		if (call(kept.get(), std::string("x")).data != "x")
			return 255;
		if (!RawClient(path).is_served())
			return 255;
		usleep(5'000);
	}
	return calls;
}

class HatchFloods : public HatchTest {
protected:
	void SetUp() override
	{
		SKIP_UNLESS_ROOT();
		(void) allow_descriptors(4096);
	}
};

TEST_F(HatchFloods, OfOneUserLeaveAnotherItsCalls)
{
	const Ask large = {Do::Size, 0, mib};
	const Flood floods[] = {
	    {"connect and close", 4, 0, "", ""},
	    {"half requests", 2, 300, head_of(mib) + std::string(200'000, 'x'), ""},
	    {"a byte at a time", 2, 600, head_of(mib) + "x", "y"},
	    {"whole requests, of which no reply is read", 4, 16, request_of(std::string(60'000, '\0')),
		request_of(std::string(60'000, '\0'))},
	    {"replies that nobody reads", 2, 32, request_of(large), ""},
	};
	for (const Flood &how : floods) {
		Process server = serve(path_);
		const int before = descriptors_of(server.pid());
		{
			std::vector<Process> flooders;
			for (int i = 0; i < how.processes; i++)
				flooders.emplace_back([&] {
					become(stranger, stranger);
					return flood(path_, how);
				});
			usleep(300'000);
			const int calls = as_user(stranger + 1, [&] { return call_beside(path_); });
			EXPECT_NE(calls, 255) << how.what << ": a call failed";
			EXPECT_GE(calls, sanitized ? 1 : 3)
			    << how.what; // a busy machine makes few, a flood made none or one
		}
		EXPECT_TRUE(eventually([&] { return descriptors_of(server.pid()) <= before + 1; })) << how.what;
	}
}

TEST_F(HatchFloods, WhenDescriptorsRunOutTheUserWithMostConnectionsLosesItsOldestAndNobodyElseOne)
{
	Process server = serve(path_, 100);
	const sockaddr_un address = address_of(socket_path(path_));
	Fd fd = open_hatch(path_);
	std::jthread running([&] { EXPECT_EQ(call(fd.get(), Ask{Do::Sleep, 300, 0}).error, 0) << "a running call"; });
	std::vector<RawClient> greedy;
	auto be_greedy = [&] {
		for (int i = 0; i < 200; i++) {
			greedy.emplace_back(connect_to(address));
			for (int calls = 0; calls < (i < 100 ? 1 : 4); calls++) // the last ones have dedicated threads
				ASSERT_TRUE(greedy.back().is_served()) << i;
		}
	};
	thread_as(stranger, be_greedy);
	std::vector<RawClient> other;
	thread_as(stranger + 1, [&] {
		other.emplace_back(connect_to(address));
		ASSERT_TRUE(other.back().is_served());
	});
	thread_as(stranger, be_greedy);
	thread_as(stranger + 1, [&] { EXPECT_TRUE(other.back().is_served()) << "another user's went"; });
	thread_as(stranger, [&] {
		EXPECT_FALSE(greedy.front().is_served());
		EXPECT_TRUE(greedy.back().is_served());
	});
	EXPECT_TRUE(eventually([&] { return descriptors_of(server.pid()) < 100 - 20; })) << "handlers have none left";
}

} // namespace
