// How a hatch begins and ends: attaching, detaching, revoking, a server that dies, forks on either side.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <vector>

#include "hatch_socket.h"
#include "scratch.h"

namespace {

// What hatch_info() says: "alive", "revoked", or the name of the error.
std::string state_of(int fd)
{
	hatch_info_t info = {};
	if (hatch_info(fd, &info) == -1)
		return errno == EBADF ? "no hatch" : strerror(errno);
	if ((info.di_attributes & HATCH_REVOKED) == 0)
		return info.di_target > 0 ? "alive" : "alive without a server";
	return info.di_target == 0 ? "revoked" : "revoked with a server";
}

// What the directory's owner puts in the place of a socket as soon as it is bound.
std::function<void(const char *path)> after_bind;

class HatchLife : public testing::Test {
protected:
	int names_in_directory() const { return static_cast<int>(entries_of(scratch_.directory()).size()); }

	Scratch scratch_;
	std::string path_ = attachable(scratch_.path("hatch"));
};

TEST_F(HatchLife, TheAttachedFileKeepsItsOwnerAndMode)
{
	for (mode_t mode : {0644, 0600, 0444, 0640}) {
		attachable(path_, mode);
		if (geteuid() == 0) {
			ASSERT_EQ(chown(path_.c_str(), 16, 65), 0);
		}
		struct stat before, during, after;
		ASSERT_EQ(stat(path_.c_str(), &before), 0);
		{
			mode_t mask = umask(0077);
			LocalHatch served(path_);
			umask(mask);
			ASSERT_EQ(stat(path_.c_str(), &during), 0);
			EXPECT_EQ(names_in_directory(), 2);
		}
		EXPECT_EQ(names_in_directory(), 1);
		ASSERT_EQ(stat(path_.c_str(), &after), 0);
		for (const struct stat &st : {during, after}) {
			EXPECT_TRUE(S_ISREG(st.st_mode));
			EXPECT_EQ(st.st_mode, before.st_mode);
			EXPECT_EQ(st.st_uid, before.st_uid);
			EXPECT_EQ(st.st_gid, before.st_gid);
		}
		EXPECT_EQ(after.st_size, 0);
	}
}

// The directory belongs to another user, who may be quick.
TEST_F(HatchLife, AttachingChangesTheModeOfNothingButItsOwnSocket)
{
	const std::string secret = attachable(scratch_.path("secret"), 0600);
	const std::string private_socket = scratch_.path("private");
	Fd listener = listen_at(private_socket);
	ASSERT_EQ(chmod(private_socket.c_str(), 0600), 0);
	int hatch = hatch_create(obey, nullptr, HATCH_REFUSE_DESC);
	for (auto *put : {symlink, link}) {
		for (const std::string &target : {secret, private_socket}) {
			after_bind = [&](const char *name) {
				EXPECT_EQ(unlink(name), 0);
				EXPECT_EQ(put(target.c_str(), name), 0);
			};
			EXPECT_EQ(fattach(hatch, path_.c_str()), -1);
			after_bind = nullptr;
			struct stat st;
			ASSERT_EQ(stat(target.c_str(), &st), 0);
			EXPECT_EQ(st.st_mode & 07777, 0600U) << target;
		}
	}
	EXPECT_EQ(names_in_directory(), 3);
	EXPECT_EQ(fattach(hatch, path_.c_str()), 0);
	EXPECT_EQ(hatch_revoke(hatch), 0);
}

TEST_F(HatchLife, OldDescriptorsSeeTheRevocationAndNewOnesAPlainFile)
{
	LocalHatch served(path_);
	Fd informed = open_hatch(path_);
	Fd called = open_hatch(path_);
	ASSERT_EQ(state_of(informed.get()), "alive");
	ASSERT_EQ(call(called.get(), std::string("x")).error, 0);
	served.revoke();
	Fd fresh = open_hatch(path_);
	EXPECT_EQ(state_of(informed.get()), "revoked");
	EXPECT_EQ(state_of(called.get()), "revoked");
	EXPECT_EQ(state_of(fresh.get()), "no hatch");
	for (const Fd *fd : {&informed, &called, &fresh})
		EXPECT_EQ(call(fd->get(), std::string("x")).error, EBADF);
	LocalHatch again(path_);
	EXPECT_EQ(state_of(informed.get()), "revoked");
	EXPECT_EQ(call(called.get(), std::string("x")).error, EBADF);
	EXPECT_EQ(state_of(fresh.get()), "no hatch") << "it has been a plain file's from the start";
	EXPECT_EQ(call(open_hatch(path_).get(), std::string("x")).data, "x");
}

TEST_F(HatchLife, AKilledServerIsNoticedWithoutACallAndItsSuccessorIsReached)
{
	Process server = serve(path_);
	Fd informed = open_hatch(path_);
	Fd called = open_hatch(path_);
	Fd untouched = open_hatch(path_);
	ASSERT_EQ(state_of(informed.get()), "alive");
	ASSERT_EQ(call(called.get(), std::string("x")).error, 0);
	server.kill();
	Fd fresh = open_hatch(path_);
	EXPECT_EQ(state_of(informed.get()), "revoked");
	EXPECT_EQ(state_of(called.get()), "revoked");
	EXPECT_EQ(state_of(fresh.get()), "no hatch") << "a dead server's file passes for a hatch";
	for (const Fd *fd : {&informed, &called, &untouched, &fresh})
		EXPECT_EQ(call(fd->get(), std::string("x")).error, EBADF);
	Process next = serve(path_);
	for (const Fd *fd : {&informed, &called, &untouched, &fresh}) {
		EXPECT_EQ(state_of(fd->get()), "revoked") << "its file was replaced";
		EXPECT_EQ(call(fd->get(), std::string("x")).error, EBADF);
	}
	Fd reopened = open_hatch(path_);
	EXPECT_EQ(call(reopened.get(), std::string("x")).data, "x");
	EXPECT_EQ(names_in_directory(), 2) << "the dead server's socket stays";
}

TEST_F(HatchLife, WhatMustNotBeCoveredIsRefused)
{
	int hatch = hatch_create(obey, nullptr, HATCH_REFUSE_DESC);
	ASSERT_NE(hatch, -1);
	auto error_of = [&](const std::string &path) { return fattach(hatch, path.c_str()) == 0 ? 0 : errno; };
	std::string precious = scratch_.write("precious", "a=1;\tx=int32,1;\n");
	ASSERT_EQ(symlink(path_.c_str(), scratch_.path("link").c_str()), 0);
	ASSERT_EQ(mkfifo(scratch_.path("fifo").c_str(), 0644), 0);
	LocalHatch other(scratch_.path("other"));
	EXPECT_EQ(error_of(precious), EBUSY);
	EXPECT_EQ(file_text(precious), "a=1;\tx=int32,1;\n");
	EXPECT_EQ(error_of(scratch_.path("other")), EBUSY) << "a living hatch is put aside";
	EXPECT_EQ(error_of(scratch_.path("link")), ELOOP);
	EXPECT_EQ(error_of(scratch_.path("fifo")), EINVAL);
	EXPECT_EQ(error_of(scratch_.directory()), EINVAL);
	EXPECT_EQ(error_of(scratch_.path("missing")), ENOENT);
	EXPECT_EQ(error_of(scratch_.path("missing/hatch")), ENOENT);
	EXPECT_EQ(error_of(std::string(5000, 'x')), ENAMETOOLONG);
	EXPECT_EQ(names_in_directory(), 6) << "a refused attachment leaves something";
	EXPECT_EQ(error_of(path_), 0);
	EXPECT_EQ(error_of(path_), EBUSY);
	EXPECT_EQ(hatch_revoke(hatch), 0);
	EXPECT_EQ(hatch_revoke(hatch), -1);
	EXPECT_EQ(errno, EBADF);
	EXPECT_EQ(fattach(hatch, path_.c_str()), -1);
	EXPECT_EQ(errno, EBADF);
}

TEST_F(HatchLife, DetachingCutsOffALivingServerAndMakesRoomForTheNext)
{
	Process server = serve(path_);
	Fd old = open_hatch(path_);
	ASSERT_EQ(call(old.get(), std::string("x")).error, 0);
	ASSERT_EQ(fdetach(path_.c_str()), 0);
	EXPECT_EQ(names_in_directory(), 1);
	EXPECT_EQ(state_of(old.get()), "revoked");
	EXPECT_EQ(call(old.get(), std::string("x")).error, EBADF);
	EXPECT_EQ(fdetach(path_.c_str()), -1);
	EXPECT_EQ(errno, EINVAL);
	LocalHatch replaced(path_);
	ASSERT_EQ(fdetach(path_.c_str()), 0);
	LocalHatch next(path_);
	hatch_info_t info = {};
	Fd fd = open_hatch(path_);
	ASSERT_EQ(hatch_info(fd.get(), &info), 0);
	EXPECT_EQ(info.di_target, getpid());
	server.kill();
	const std::string second = attachable(scratch_.path("second"));
	EXPECT_EQ(fattach(replaced.fd(), second.c_str()), 0) << "a hatch that was detached can be attached again";
	EXPECT_EQ(call(open_hatch(second).get(), std::string("x")).data, "x");
	replaced.revoke();
	EXPECT_EQ(call(fd.get(), std::string("x")).data, "x");
	std::string precious = scratch_.write("precious", "text");
	EXPECT_EQ(fdetach(precious.c_str()), -1);
	EXPECT_EQ(file_text(precious), "text");
}

TEST_F(HatchLife, PathsMayBeLongOrRelative)
{
	// The child comes first: a sanitizer's allocator may be locked in a child of more threads than one.
	Process relative([&] {
		if (chdir(scratch_.directory().c_str()) != 0)
			return 1;
		LocalHatch here("here");
		return call(open_hatch("./here").get(), std::string("x")).data == "x" ? 0 : 2;
	});
	EXPECT_EQ(relative.wait(), 0);
	std::string directory = scratch_.directory();
	while (directory.size() < 600) {
		directory += "/" + std::string(60, 'd');
		ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
	}
	std::string deep = attachable(directory + "/" + std::string(250, 'n'));
	LocalHatch served(deep);
	EXPECT_EQ(call(open_hatch(deep).get(), std::string("x")).data, "x");
}

TEST_F(HatchLife, RevokingWaitsForHandlersAndTheirRepliesStillArrive)
{
	std::atomic<bool> in_handler = false;
	std::atomic<bool> left_handler = false;
	std::atomic<bool> *marks[] = {&in_handler, &left_handler};
	auto slow = [](void *cookie, char *, size_t, hatch_desc_t *, unsigned int) {
		auto **seen = static_cast<std::atomic<bool> **>(cookie);
		*seen[0] = true;
		usleep(100'000);
		*seen[1] = true;
		hatch_return("done", 4, nullptr, 0);
	};
	LocalHatch served(path_, slow, marks);
	Fd fd = open_hatch(path_);
	Answer answer;
	std::thread client([&] { answer = call(fd.get(), std::string("x")); });
	ASSERT_TRUE(eventually([&] { return in_handler.load(); }));
	served.revoke();
	EXPECT_TRUE(left_handler) << "the handler ran on after the revocation";
	client.join();
	EXPECT_EQ(answer.data, "done");
}

TEST_F(HatchLife, AHandlerCanRevokeItsOwnHatchAndReply)
{
	const int before = open_descriptors();
	int hatch = hatch_create(obey, nullptr, HATCH_REFUSE_DESC);
	ASSERT_EQ(fattach(hatch, path_.c_str()), 0);
	Fd fd = open_hatch(path_);
	Answer answer = call(fd.get(), Ask{Do::Revoke, static_cast<uint32_t>(hatch), 0});
	EXPECT_EQ(numbers_of(answer), std::vector{0});
	EXPECT_EQ(call(fd.get(), std::string("x")).error, EBADF);
	fd.reset();
	EXPECT_TRUE(eventually([&] { return open_descriptors() <= before + 1; })); // the connection, if it is kept
}

// What the cookie points to is freed when hatch_revoke() returns: a handler that ran on would be caught by a
// sanitizer, and by the count.
TEST_F(HatchLife, NoHandlerRunsAfterARevocationUnderLoad)
{
	struct Cookie {
		std::atomic<int> running = 0;
		std::string text = "what the cookie holds";
	};
	auto use = [](void *cookie, char *, size_t, hatch_desc_t *, unsigned int) {
		auto *own = static_cast<Cookie *>(cookie);
		own->running++;
		char copy[32];
		size_t size = own->text.copy(copy, sizeof copy);
		own->running--;
		hatch_return(copy, size, nullptr, 0);
	};
	std::atomic<bool> stop = false;
	std::atomic<int> good = 0, wrong = 0;
	std::vector<std::jthread> clients;
	for (int i = 0; i < 8; i++) {
		clients.emplace_back([&] {
			while (!stop) {
				Fd fd = open_hatch(path_);
				Answer answer = call(fd.get(), std::string("x"), 64);
				good += answer.error == 0 && answer.data == "what the cookie holds";
				wrong +=
				    answer.error == 0 ? answer.data != "what the cookie holds" : answer.error != EBADF;
			}
		});
	}
	for (int round = 0; round < 30; round++) {
		auto cookie = std::make_unique<Cookie>();
		LocalHatch served(path_, use, cookie.get());
		int before = good;
		ASSERT_TRUE(eventually([&] { return good > before + 20; }));
		served.revoke();
		ASSERT_EQ(cookie->running, 0);
	}
	stop = true;
	clients.clear();
	EXPECT_EQ(wrong, 0);
}

TEST_F(HatchLife, ACallOnItsWayFailsWhenTheServerDies)
{
	Process server = serve(path_);
	Fd fd = open_hatch(path_);
	std::thread killer([&] {
		std::this_thread::sleep_for(std::chrono::milliseconds(50));
		server.kill();
	});
	EXPECT_EQ(call(fd.get(), Ask{Do::Sleep, 60'000, 0}).error, EBADF);
	killer.join();
}

TEST_F(HatchLife, AServersForkedChildNeitherServesNorKeepsItAlive)
{
	Signal found_none, end;
	Process server([&] {
		LocalHatch served(path_);
		if (fork() == 0) { // it outlives the server
			bool none = hatch_setparam(served.fd(), HATCH_PARAM_DATA_MIN, 0) == -1 && errno == EBADF;
			none = hatch_revoke(served.fd()) == -1 && errno == EBADF && none;
			if (none)
				found_none.raise();
			end.wait();
			_exit(0);
		}
		return wait_for_ever();
	});
	found_none.wait();
	Fd fd = open_hatch(path_);
	EXPECT_EQ(call(fd.get(), std::string("x")).data, "x");
	server.kill();
	EXPECT_EQ(state_of(fd.get()), "revoked");
	EXPECT_EQ(call(fd.get(), std::string("x")).error, EBADF);
	end.raise();
}

// The two kinds of fork: one runs the handlers of pthread_atfork(), the other doesn't.
pid_t plain_fork()
{
	return fork();
}
pid_t bare_fork()
{
	return static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
}

class ForkedClient : public HatchLife, public testing::WithParamInterface<pid_t (*)()> {};

TEST_P(ForkedClient, MakesConnectionsOfItsOwn)
{
	Process server = serve(path_);
	Fd fd = open_hatch(path_);
	ASSERT_EQ(caller_at(fd.get()).pid, getpid());
	int own = open_descriptors();
	pid_t child = GetParam()();
	ASSERT_NE(child, -1);
	if (child == 0) {
		for (int i = 0; i < 200; i++) {
			if (caller_at(fd.get()).pid != static_cast<pid_t>(syscall(SYS_getpid)))
				_exit(1);
		}
		_exit(open_descriptors() == own ? 0 : 2);
	}
	for (int i = 0; i < 200; i++)
		ASSERT_EQ(caller_at(fd.get()).pid, getpid());
	int status = -1;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
}

INSTANTIATE_TEST_SUITE_P(Hatch, ForkedClient, testing::Values(plain_fork, bare_fork));

TEST_F(HatchLife, ForksBesideBusyThreadsNeitherHangNorMixConnections)
{
#ifdef __SANITIZE_ADDRESS__
	GTEST_SKIP() << "the sanitizer's allocator may be locked in a child of busy threads";
#endif
	LocalHatch served(path_);
	Fd fd = open_hatch(path_);
	std::atomic<bool> stop = false;
	std::atomic<int> wrong = 0;
	std::vector<std::jthread> threads;
	for (int i = 0; i < 4; i++) {
		threads.emplace_back([&] {
			while (!stop)
				wrong += call(fd.get(), std::string("thread"), 64).data != "thread";
		});
	}
	for (int i = 0; i < 20; i++) {
		Process child([&] {
			for (int k = 0; k < 5; k++) {
				if (call(fd.get(), std::string("child"), 64).data != "child")
					return 1;
			}
			return 0;
		});
		EXPECT_EQ(child.wait(), 0);
	}
	stop = true;
	threads.clear();
	EXPECT_EQ(wrong, 0);
}

TEST_F(HatchLife, KeptConnectionsAreFewAndAreGivenUp)
{
	// A process of its own, which begins without connections.
	Process client([&] {
		std::vector<std::unique_ptr<LocalHatch>> served;
		std::vector<Fd> fds;
		for (int i = 0; i < 40; i++) {
			std::string path = scratch_.path("hatch" + std::to_string(i));
			served.push_back(std::make_unique<LocalHatch>(path));
			fds.push_back(open_hatch(path));
		}
		int before = open_descriptors();
		int failed = 0;
		for (const Fd &fd : fds)
			failed += call(fd.get(), std::string("x")).error != 0;
		// Both ends of a connection lie in this process.
		bool few = eventually([&] { return open_descriptors() == before + 2 * 32; });
		for (const Fd &fd : fds)
			hatch_forget(fd.get());
		bool none = eventually([&] { return open_descriptors() == before; });
		return failed != 0 ? 1 : !few ? 2 : !none ? 3 : 0;
	});
	EXPECT_EQ(client.wait(), 0);
}

TEST_F(HatchLife, ConnectionsToServersThatHaveGoneAreClosedByTheNextOneMade)
{
	std::string other = scratch_.path("other");
	std::vector<WaitingServer> servers;
	for (int i = 0; i < 5; i++)
		servers.emplace_back(path_);
	LocalHatch stays(other);
	Fd stays_fd = open_hatch(other);
	ASSERT_EQ(call(stays_fd.get(), std::string("x")).error, 0);
	int before = open_descriptors();
	for (WaitingServer &waiting : servers) {
		Process server = waiting.start();
		ASSERT_EQ(call(open_hatch(path_).get(), std::string("x")).error, 0);
	}
	hatch_forget(stays_fd.get());
	ASSERT_EQ(call(stays_fd.get(), std::string("x")).error, 0);
	EXPECT_TRUE(eventually([&] { return open_descriptors() == before; }));
}

} // namespace

// Stands before the C library's.
int bind(int fd, const sockaddr *address, socklen_t size) noexcept
{
	auto result = static_cast<int>(syscall(SYS_bind, fd, address, size));
	if (result == 0 && after_bind)
		after_bind(reinterpret_cast<const sockaddr_un *>(address)->sun_path);
	return result;
}
