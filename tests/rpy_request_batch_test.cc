// Reads of groups by many threads over one handle, which share calls: each gets its own reply, whatever becomes of others.
#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

#include "child.h"
#include "repository.h"
#include "threads_after_fork.h"

namespace {

constexpr int readers = 24;

// Runs `read` in so many threads, each with its number.
template <typename Read>
void in_threads(Read read)
{
	std::vector<std::jthread> threads;
	for (int i = 0; i < readers; i++)
		threads.emplace_back([&read, i] { read(i); });
}

class RequestBatch : public RepositoryTest {
protected:
	void SetUp() override { start(); }
	void fill(const std::string &padding)
	{
		for (int i = 0; i < readers; i++) {
			const std::string name = "g" + std::to_string(i);
			(void) client.add(name, "t", RPY_PG_FLAG_TEMPORARY);
			ASSERT_EQ(client.write(name, {{"v", {name + padding}}}), 1);
		}
	}
};

TEST_F(RequestBatch, EachThreadGetsItsOwnGroupOrItsOwnError)
{
	const std::string much(2'000'000, 'x');
	for (const auto &[rounds, padding] :
	    {std::pair(200, std::string()), std::pair(3, much)}) { // no reply has room for it
		fill(padding);
		std::atomic<int> wrong{0};
		in_threads([&, rounds = rounds, padding = padding](int i) {
			const std::string name = "g" + std::to_string(i);
			for (int round = 0; round < rounds; round++) {
				const bool is_there = round % 10 != 3;
				const Contents found = client.read(is_there ? name : "none");
				if (is_there ? found != Contents{{"v", {name + padding}}}
					     : !found.empty() || rpy_error() != RPY_ERROR_NOT_FOUND)
					wrong++;
			}
		});
		EXPECT_EQ(wrong, 0) << padding.size();
	}
}

TEST_F(RequestBatch, NobodyWaitsForADaemonThatHasGone)
{
	fill("");
	std::atomic<int> ended{0};
	std::jthread killer([&] {
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
	EXPECT_EQ(ended, readers);
}

TEST_F(RequestBatch, AChildForkedInBetweenWaitsForNoThreadOfItsParent)
{
#ifdef __SANITIZE_ADDRESS__
	GTEST_SKIP() << "AddressSanitizer's allocator has locks that a child forked beside threads may never get";
#endif
	fill("");
	std::atomic<bool> stop{false};
	std::jthread forker([&] {
		for (int i = 0; i < 10; i++)
			EXPECT_EQ(in_child([&] {
				(void) signal(SIGALRM, SIG_DFL);
				alarm(20);
				RepositoryClient own(daemon.hatch());
				const bool reads =
				    own.read("g1") == Contents{{"v", {"g1"}}} && client.read("g2").size() == 1;
				return reads ? 0 : 1;
			}),
			    0);
		stop = true;
	});
	in_threads([&](int i) {
		while (!stop)
			EXPECT_EQ(client.read("g" + std::to_string(i)).size(), 1U);
	});
}

} // namespace
