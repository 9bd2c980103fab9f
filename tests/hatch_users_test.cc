// Who calls: the kernel's word for each message, for users, threads and changed ids. They need root.
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "hatch_socket.h"
#include "scratch.h"

namespace {

class HatchUsers : public testing::Test {
protected:
	void SetUp() override
	{
		if (geteuid() != 0)
			GTEST_SKIP() << "changing user ids needs root";
		ASSERT_EQ(chmod(scratch_.directory().c_str(), 0755), 0);
	}

	Scratch scratch_;
	std::string path_ = attachable(scratch_.path("hatch"));
};

TEST_F(HatchUsers, TheRealIdsCountWhateverTheEffectiveOnesAre)
{
	Process server = serve(path_);
	struct Case {
		uid_t real, effective;
	};
	// An ordinary user, one above 2^31, a program that gained root on exec, a root daemon that gave up its rights.
	for (Case ids : {Case{1000, 1000}, Case{3'000'000'000U, 3'000'000'000U}, Case{1001, 0}, Case{0, 1001}}) {
		Process client([&] {
			become(ids.real, ids.effective);
			Fd fd = open_hatch(path_);
			Caller caller = caller_at(fd.get());
			bool same = caller.uid == ids.real && caller.gid == ids.real && caller.pid == getpid();
			return same ? 0 : 1;
		});
		EXPECT_EQ(client.wait(), 0) << ids.real << " as " << ids.effective;
	}
}

TEST_F(HatchUsers, EachMessageHasItsOwnSenderOnOneConnection)
{
	Process server = serve(path_);
	Fd fd = open_hatch(path_);
	ASSERT_EQ(caller_at(fd.get()).uid, 0U);
	int connections = open_descriptors();
	// One thread changes its ids, the others don't; they use the same kept connection after each other.
	thread_as(1002, [&] { EXPECT_EQ(caller_at(fd.get()).uid, 1002U); });
	EXPECT_EQ(caller_at(fd.get()).uid, 0U);
	EXPECT_EQ(open_descriptors(), connections);
}

TEST_F(HatchUsers, WhoHasChangedItsUserConnectsAnew)
{
	// Replies with the makers of all its connections.
	LocalHatch hatch(path_, [](void *, char *, size_t, hatch_desc_t *, unsigned int) {
		struct ucred makers[256] = {};
		for (int fd = 0; fd < 256; fd++) {
			socklen_t len = sizeof *makers;
			(void) getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &makers[fd], &len);
		}
		(void) hatch_return(reinterpret_cast<char *>(makers), sizeof makers, nullptr, 0);
	});
	struct Case {
		bool before;
		uid_t real, effective;
	};
	for (Case ids : {Case{true, 1000, 1000}, Case{true, 0, 1001}, Case{false, 0, 1001}, Case{false, 1001, 0}}) {
		Process client([&] {
			Fd fd = open_hatch(path_);
			if (ids.before)
				(void) call(fd.get(), std::string("x"));
			become(ids.real, ids.effective);
			const std::string reply = call(fd.get(), std::string("x")).data;
			struct ucred makers[256] = {};
			(void) reply.copy(reinterpret_cast<char *>(makers), sizeof makers);
			int real = 0, root = 0;
			for (const struct ucred &maker : makers) {
				real += maker.pid == getpid() && maker.uid == ids.real;
				root += maker.pid == getpid() && maker.uid == 0;
			}
			return geteuid() == ids.effective && (ids.effective == 0 ? root : real) == 1 ? 0 : 1;
		});
		EXPECT_EQ(client.wait(), 0) << ids.before << ", " << ids.real << " as " << ids.effective;
	}
}

// A user who gets a program of root's to write to a connection must not speak as root.
TEST_F(HatchUsers, AMessageOfAnotherUserThanTheOneWhoConnectedIsRefused)
{
	Process server = serve(path_);
	const sockaddr_un address = address_of(socket_path(path_));
	auto outcome_of = [&](uid_t connector, uid_t sender) {
		Fd fd;
		thread_as(connector, [&] { fd = connect_to(address); });
		const RawClient client(std::move(fd));
		thread_as(sender, [&] { EXPECT_TRUE(client.send(head_of(0))); });
		return client.receive();
	};
	EXPECT_EQ(outcome_of(1001, 0), refusal_of(hatch::Refusal::other_user));
	EXPECT_EQ(outcome_of(1001, 1002), refusal_of(hatch::Refusal::other_user));
	EXPECT_EQ(outcome_of(1001, 1001), refusal_of(hatch::Refusal::none));
	EXPECT_EQ(outcome_of(0, 1001), refusal_of(hatch::Refusal::none));
}

TEST_F(HatchUsers, AnUnprivilegedUserReachesAHatchThatItMayOnlyRead)
{
	ASSERT_EQ(chown(path_.c_str(), 16, 65), 0);
	Process server = serve(path_);
	Process client([&] {
		become(1000, 1000);
		Fd fd = open_hatch(path_);
		hatch_info_t info = {};
		if (hatch_info(fd.get(), &info) != 0 || info.di_target != server.pid())
			return 1;
		if (open(path_.c_str(), O_RDWR) != -1 || fdetach(path_.c_str()) != -1)
			return 2;
		return call(fd.get(), std::string(100'000, 'x')).data.size() == 100'000 ? 0 : 3;
	});
	EXPECT_EQ(client.wait(), 0);
}

TEST_F(HatchUsers, AnUnprivilegedServerServesRootAndItself)
{
	ASSERT_EQ(chown(scratch_.directory().c_str(), 1000, 1000), 0);
	ASSERT_EQ(chown(path_.c_str(), 1000, 1000), 0);
	Signal ready;
	Process server([&] {
		become(1000, 1000);
		LocalHatch served(path_);
		ready.raise();
		return wait_for_ever();
	});
	ready.wait();
	Fd fd = open_hatch(path_);
	EXPECT_EQ(caller_at(fd.get()).uid, 0U);
	EXPECT_TRUE(call(fd.get(), Ask{Do::Size, 0, 3'000'000}).data == test_bytes(3'000'000));
}

} // namespace
