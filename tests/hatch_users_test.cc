// Who calls: the kernel's word for each message, for users, threads and changed ids. They need root.
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "hatch_socket.h"

namespace {

class HatchUsers : public HatchTest {
protected:
	void SetUp() override { SKIP_UNLESS_ROOT(); }
};

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

TEST_F(HatchUsers, TheRealIdsCountWhateverTheEffectiveOnesAreAndWhoHasChangedThemConnectsAnew)
{
	// Replies to one byte with the makers of all its connections.
	LocalHatch hatch(path_, [](void *cookie, char *arg, size_t size, hatch_desc_t *descs, unsigned int ndescs) {
		if (size != 1)
			return obey(cookie, arg, size, descs, ndescs);
		struct ucred makers[256] = {};
		for (int fd = 0; fd < 256; fd++) {
			socklen_t len = sizeof *makers;
			(void) getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &makers[fd], &len);
		}
		(void) hatch_return(reinterpret_cast<char *>(makers), sizeof makers, nullptr, 0);
	});
	struct Case {
		bool before; // a call before the change
		uid_t real, effective;
	};
	// An ordinary user, one above 2^31, a program that gained root on exec, a root daemon that gave up its rights.
	for (Case ids : {Case{true, 1000, 1000}, Case{false, 3'000'000'000U, 3'000'000'000U}, Case{true, 0, 1001},
		 Case{false, 0, 1001}, Case{false, 1001, 0}}) {
		const int failed = in_child([&] {
			Fd fd = open_hatch(path_);
			if (ids.before)
				(void) call(fd.get(), std::string("x"));
			become(ids.real, ids.effective);
			const Caller caller = caller_at(fd.get());
			if (caller.uid != ids.real || caller.gid != ids.real || caller.pid != getpid())
				return 1;
			struct ucred makers[256] = {};
			(void) call(fd.get(), std::string("x"))
			    .data.copy(reinterpret_cast<char *>(makers), sizeof makers);
			const uid_t expected = ids.effective == 0 ? 0 : ids.real;
			const auto made = std::count_if(std::begin(makers), std::end(makers),
			    [&](const struct ucred &maker) { return maker.pid == getpid() && maker.uid == expected; });
			return geteuid() == ids.effective && made == 1 ? 0 : 2;
		});
		EXPECT_EQ(failed, 0) << ids.before << ", " << ids.real << " as " << ids.effective;
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
	const int failed = as_user(1000, [&] {
		Fd fd = open_hatch(path_);
		hatch_info_t info = {};
		if (hatch_info(fd.get(), &info) != 0 || info.di_target != server.pid())
			return 1;
		if (open(path_.c_str(), O_RDWR) != -1 || fdetach(path_.c_str()) != -1)
			return 2;
		return call(fd.get(), std::string(100'000, 'x')).data.size() == 100'000 ? 0 : 3;
	});
	EXPECT_EQ(failed, 0);
}

TEST_F(HatchUsers, AnUnprivilegedServerServesRootAndItself)
{
	ASSERT_EQ(chown(scratch_.directory().c_str(), 1000, 1000), 0);
	ASSERT_EQ(chown(path_.c_str(), 1000, 1000), 0);
	Process server = keep_in_process([&] {
		become(1000, 1000);
		return LocalHatch(path_);
	});
	Fd fd = open_hatch(path_);
	EXPECT_EQ(caller_at(fd.get()).uid, 0U);
	EXPECT_TRUE(call(fd.get(), Ask{Do::Size, 0, 3'000'000}).data == test_bytes(3'000'000));
}

} // namespace
