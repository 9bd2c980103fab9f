// How a hatch begins and ends: attaching, detaching, revoking, a server that dies, forks on either side.
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

namespace {

// What hatch_info() says: "alive", "revoked", "no hatch", or what it should never say.
std::string state_of(int fd)
{
	hatch_info_t info = {};
	if (hatch_info(fd, &info) == -1)
		return errno == EBADF ? "no hatch" : strerror(errno);
	if (info.di_attributes == HATCH_REFUSE_DESC && info.di_target > 0)
		return "alive";
	if (info.di_attributes == (HATCH_REFUSE_DESC | HATCH_REVOKED) && info.di_target == 0)
		return "revoked";
	return "attributes " + std::to_string(info.di_attributes) + " of " + std::to_string(info.di_target);
}

// The error of a call, or 0.
int call_error(const Fd &fd)
{
	return call(fd.get(), std::string("x")).error;
}

// What the directory's owner puts in the place of a socket as soon as it is bound.
std::function<void(const char *path)> after_bind;

class HatchLife : public HatchTest {
protected:
	size_t names_in_directory() const { return entries_of(scratch_.directory()).size(); }
	// The state that each of some descriptors reports, and that calls over them fail.
	static void expect_gone(const std::string &state, std::initializer_list<const Fd *> fds)
	{
		for (const Fd *fd : fds) {
			EXPECT_EQ(state_of(fd->get()), state) << "descriptor " << fd->get();
			EXPECT_EQ(call_error(*fd), EBADF) << "descriptor " << fd->get();
		}
	}
};

TEST_F(HatchLife, TheAttachedFileKeepsItsOwnerAndMode)
{
	auto look = [&] {
		struct stat st = {};
		EXPECT_EQ(stat(path_.c_str(), &st), 0);
		return std::tuple(st.st_mode, st.st_uid, st.st_gid, names_in_directory());
	};
	for (mode_t mode : {0644, 0600, 0444, 0640}) {
		attachable(path_, mode);
		EXPECT_TRUE(geteuid() != 0 || chown(path_.c_str(), 16, 65) == 0);
		auto expected = look();
		{
			mode_t mask = umask(0077);
			LocalHatch served(path_);
			umask(mask);
			std::get<3>(expected) = 2;
			EXPECT_EQ(look(), expected);
		}
		std::get<3>(expected) = 1;
		EXPECT_EQ(look(), expected);
		EXPECT_EQ(file_text(path_), "");
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
	EXPECT_EQ(names_in_directory(), 3U);
	EXPECT_EQ(fattach(hatch, path_.c_str()), 0);
	EXPECT_EQ(hatch_revoke(hatch), 0);
}

TEST_F(HatchLife, OldDescriptorsSeeTheRevocationAndNewOnesAPlainFile)
{
	LocalHatch served(path_);
	Fd informed = open_hatch(path_), called = open_hatch(path_);
	ASSERT_EQ(state_of(informed.get()), "alive");
	ASSERT_EQ(call_error(called), 0);
	served.revoke();
	Fd fresh = open_hatch(path_);
	expect_gone("revoked", {&informed, &called});
	expect_gone("no hatch", {&fresh});
	LocalHatch again(path_);
	expect_gone("revoked", {&informed, &called});
	expect_gone("no hatch", {&fresh}); // it has been a plain file's from the start
	EXPECT_EQ(call_error(open_hatch(path_)), 0);
}

TEST_F(HatchLife, AKilledServerIsNoticedWithoutACallAndItsSuccessorIsReached)
{
	Process server = serve(path_);
	Fd informed = open_hatch(path_), called = open_hatch(path_), untouched = open_hatch(path_);
	ASSERT_EQ(state_of(informed.get()), "alive");
	ASSERT_EQ(call_error(called), 0);
	server.kill();
	Fd fresh = open_hatch(path_);
	expect_gone("revoked", {&informed, &called});
	expect_gone("no hatch", {&fresh}); // a dead server's file doesn't pass for a hatch
	EXPECT_EQ(call_error(untouched), EBADF);
	Process next = serve(path_);
	expect_gone("revoked", {&informed, &called, &untouched, &fresh}); // their file was replaced
	EXPECT_EQ(call_error(open_hatch(path_)), 0);
	EXPECT_EQ(names_in_directory(), 2U) << "the dead server's socket stays";
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
	EXPECT_EQ(names_in_directory(), 6U) << "a refused attachment leaves something";
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
	auto detach_error = [](const std::string &path) { return fdetach(path.c_str()) == 0 ? 0 : errno; };
	Process server = serve(path_);
	Fd old = open_hatch(path_);
	ASSERT_EQ(call_error(old), 0);
	ASSERT_EQ(detach_error(path_), 0);
	EXPECT_EQ(names_in_directory(), 1U);
	expect_gone("revoked", {&old});
	EXPECT_EQ(detach_error(path_), EINVAL);
	LocalHatch replaced(path_);
	ASSERT_EQ(detach_error(path_), 0);
	LocalHatch next(path_);
	hatch_info_t info = {};
	Fd fd = open_hatch(path_);
	ASSERT_EQ(hatch_info(fd.get(), &info), 0);
	EXPECT_EQ(info.di_target, getpid());
	server.kill();
	const std::string second = attachable(scratch_.path("second"));
	EXPECT_EQ(fattach(replaced.fd(), second.c_str()), 0) << "a hatch that was detached can be attached again";
	EXPECT_EQ(call_error(open_hatch(second)), 0);
	replaced.revoke();
	EXPECT_EQ(call_error(fd), 0);
	const std::string precious = scratch_.write("precious", "text");
	EXPECT_EQ(detach_error(precious), EINVAL);
	EXPECT_EQ(file_text(precious), "text");
}

TEST_F(HatchLife, PathsMayBeLongOrRelative)
{
	// The child comes first: a sanitizer's allocator may be locked in a child of more threads than one.
	EXPECT_EQ(in_child([&] {
		if (chdir(scratch_.directory().c_str()) != 0)
			return 1;
		LocalHatch here("here");
		return call_error(open_hatch("./here"));
	}),
	    0);
	std::string directory = scratch_.directory();
	while (directory.size() < 600)
		directory += "/" + std::string(60, 'd');
	std::filesystem::create_directories(directory);
	const std::string deep = directory + "/" + std::string(250, 'n');
	LocalHatch served(deep);
	EXPECT_EQ(call_error(open_hatch(deep)), 0);
}

TEST_F(HatchLife, AHandlerCanRevokeItsOwnHatchAndReply)
{
	const int before = open_descriptors();
	int hatch = hatch_create(obey, nullptr, HATCH_REFUSE_DESC);
	ASSERT_EQ(fattach(hatch, path_.c_str()), 0);
	Fd fd = open_hatch(path_);
	Answer answer = call(fd.get(), Ask{Do::Revoke, static_cast<uint32_t>(hatch), 0});
	EXPECT_EQ(numbers_of(answer), std::vector{0});
	EXPECT_EQ(call_error(fd), EBADF);
	fd.reset();
	EXPECT_TRUE(eventually([&] { return open_descriptors() <= before + 1; })); // the connection, if it is kept
}

// What the cookie points to is freed when hatch_revoke() returns: a handler that ran on would be caught by a
// sanitizer, and by the count.
TEST_F(HatchLife, RevokingWaitsForHandlersAndTheirRepliesStillArriveUnderLoad)
{
	static std::atomic<int> replies;
	replies = 0;
	struct Cookie {
		std::atomic<int> running = 0;
		std::string text = "what the cookie holds";
	};
	auto use = [](void *cookie, char *, size_t, hatch_desc_t *, unsigned int) {
		auto *own = static_cast<Cookie *>(cookie);
		own->running++;
		usleep(500);
		char copy[32];
		size_t size = own->text.copy(copy, sizeof copy);
		replies++;
		own->running--;
		hatch_return(copy, size, nullptr, 0);
	};
	std::atomic<bool> stop = false;
	std::atomic<int> good = 0;
	std::vector<std::jthread> clients;
	for (int i = 0; i < 8; i++) {
		clients.emplace_back([&] {
			while (!stop) {
				const Answer answer = call(open_hatch(path_).get(), std::string("x"), 64);
				EXPECT_EQ(answer.data, answer.error == 0 ? "what the cookie holds" : "");
				EXPECT_TRUE(answer.error == 0 || answer.error == EBADF) << answer.error;
				good += answer.error == 0;
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
	EXPECT_EQ(good, replies) << "a reply was lost";
}

TEST_F(HatchLife, AServersForkedChildNeitherServesNorKeepsItAlive)
{
	Signal found_none, end;
	Process server = keep_in_process([&] {
		auto served = std::make_unique<LocalHatch>(path_);
		if (fork() == 0) { // it outlives the server
			bool none = hatch_setparam(served->fd(), HATCH_PARAM_DATA_MIN, 0) == -1 && errno == EBADF;
			none = hatch_revoke(served->fd()) == -1 && errno == EBADF && none;
			if (none)
				found_none.raise();
			end.wait();
			_exit(0);
		}
		return served;
	});
	found_none.wait();
	Fd fd = open_hatch(path_);
	EXPECT_EQ(call_error(fd), 0);
	server.kill();
	expect_gone("revoked", {&fd});
	end.raise();
}

// The two kinds of fork: one runs the handlers of pthread_atfork(), the other doesn't.
class ForkedClient : public HatchLife, public testing::WithParamInterface<bool> {};

TEST_P(ForkedClient, MakesConnectionsOfItsOwn)
{
	Process server = serve(path_);
	Fd fd = open_hatch(path_);
	ASSERT_EQ(caller_at(fd.get()).pid, getpid());
	int own = open_descriptors();
	const pid_t child = GetParam() ? fork() : static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
	ASSERT_NE(child, -1);
	int wrong = 0;
	for (int i = 0; i < 200; i++)
		wrong += caller_at(fd.get()).pid != static_cast<pid_t>(syscall(SYS_getpid));
	if (child == 0)
		_exit(wrong != 0 ? 1 : open_descriptors() == own ? 0 : 2);
	EXPECT_EQ(wrong, 0);
	int status = -1;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
}

INSTANTIATE_TEST_SUITE_P(Hatch, ForkedClient, testing::Bool());

TEST_F(HatchLife, ThreadsAndTheirForksShareADescriptorAndNeitherHangNorMixConnections)
{
	LocalHatch served(path_);
	Fd fd = open_hatch(path_);
	// Replies of a message, and of some; in the caller's buffer and in fresh mappings.
	auto mixes = [&](const std::string &who, size_t number) {
		std::string request = std::string(sizeof(Ask), '\0') + who + std::to_string(number);
		request.resize(100 + (number % 7) * 50'000, 'x');
		return call(fd.get(), request, number % 2 == 0 ? 0 : 60'000).data != request ? 1 : 0;
	};
	std::atomic<bool> stop = false;
	std::atomic<int> wrong = 0, calls = 0;
	std::vector<std::jthread> threads;
	for (int i = 0; i < 16; i++) {
		threads.emplace_back([&, i] {
			for (size_t number = 0; !stop; number++, calls++)
				wrong += mixes("thread " + std::to_string(i) + ", ", number);
		});
	}
#ifndef __SANITIZE_ADDRESS__ // the sanitizer's allocator may be locked in a child of busy threads
	for (int i = 0; i < 20; i++) {
		EXPECT_EQ(in_child([&] {
			int mixed = 0;
			for (size_t number = 0; number < 5; number++)
				mixed += mixes("child", number);
			return mixed;
		}),
		    0);
	}
#endif
	EXPECT_TRUE(eventually([&] { return calls > (sanitized ? 300 : 1000); }));
	stop = true;
	threads.clear();
	EXPECT_EQ(wrong, 0);
}

TEST_F(HatchLife, KeptConnectionsAreFewAndAreGivenUp)
{
	// A process of its own, which begins without connections.
	const int failed = in_child([&] {
		std::vector<std::unique_ptr<LocalHatch>> served;
		std::vector<Fd> fds;
		for (int i = 0; i < 40; i++) {
			const std::string path = scratch_.path("hatch" + std::to_string(i));
			served.push_back(std::make_unique<LocalHatch>(path));
			fds.push_back(open_hatch(path));
		}
		const int before = open_descriptors();
		for (const Fd &fd : fds)
			EXPECT_EQ(call_error(fd), 0);
		// Both ends of a connection lie in this process.
		EXPECT_TRUE(eventually([&] { return open_descriptors() == before + 2 * 32; }));
		for (const Fd &fd : fds)
			hatch_forget(fd.get());
		EXPECT_TRUE(eventually([&] { return open_descriptors() == before; }));
		return HasFailure() ? 1 : 0;
	});
	EXPECT_EQ(failed, 0);
}

TEST_F(HatchLife, ConnectionsToServersThatHaveGoneAreClosedByTheNextOneMade)
{
	const std::string other = scratch_.path("other");
	Process stays = serve(other);
	Fd stays_fd = open_hatch(other);
	ASSERT_EQ(call_error(stays_fd), 0);
	const int before = open_descriptors();
	for (int i = 0; i < 5; i++) {
		Process server = serve(path_);
		ASSERT_EQ(call_error(open_hatch(path_)), 0);
	}
	hatch_forget(stays_fd.get());
	ASSERT_EQ(call_error(stays_fd), 0);
	EXPECT_EQ(open_descriptors(), before);
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
