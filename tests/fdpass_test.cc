// Descriptors over a pair of ends.
#include <meridon/fdpass.h>

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "base/guards.h"
#include "child.h"
#include "scratch.h"

namespace {

class Fdpass : public ::testing::Test {
protected:
	Fd receiver, sender;
	Scratch scratch;

	void SetUp() override
	{
		int ends[2];
		ASSERT_EQ(fdpass_pair(ends), 0);
		receiver.reset(ends[0]);
		sender.reset(ends[1]);
	}
	Fd open_file(const std::string &text) const { return Fd(open(scratch.write("f", text).c_str(), O_RDONLY)); }
};

} // namespace

TEST_F(Fdpass, CarriesTheSameOpenFileOutOfAChildThatHasEnded)
{
	ASSERT_EQ(in_child([&] {
		Fd file = open_file("abcdef");
		char byte;
		return read(file.get(), &byte, 1) == 1 ? fdpass_send(sender.get(), file.get()) : 1;
	}),
	    0);
	int fd = -1;
	ASSERT_EQ(fdpass_receive(receiver.get(), &fd), 0);
	Fd file(fd);
	EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
	char rest[8];
	EXPECT_EQ(read(fd, rest, sizeof rest), 5) << "the offset belongs to the open file";
}

TEST_F(Fdpass, SaysWhyNothingCame)
{
	int fd = -2;
	EXPECT_EQ(fdpass_receive(receiver.get(), &fd), EAGAIN);
	EXPECT_EQ(fdpass_send(sender.get(), -1), EBADF);
	ASSERT_EQ(write(sender.get(), "x", 1), 1); // a byte, and no descriptor
	EXPECT_EQ(fdpass_receive(receiver.get(), &fd), EBADMSG);
	sender.reset();
	EXPECT_EQ(fdpass_receive(receiver.get(), &fd), EPIPE);
	EXPECT_EQ(fd, -2);
}

TEST_F(Fdpass, AFullTableOfDescriptorsIsSeen)
{
	Fd file = open_file("x");
	ASSERT_EQ(fdpass_send(sender.get(), file.get()), 0);
	EXPECT_EQ(in_child([&] {
		const rlimit few = {3, 3}; // no new one below this
		int fd = -2, ends[2];
		return setrlimit(RLIMIT_NOFILE, &few) == 0 && fdpass_receive(receiver.get(), &fd) == EMFILE &&
			       fd == -2 && fdpass_pair(ends) == EMFILE
			   ? 0
			   : 1;
	}),
	    0);
}

TEST_F(Fdpass, AFullPairAndAClosedEndDoNotHangOrKillTheSender)
{
	Fd file = open_file("x");
	int error = 0, sent = 0;
	while (error == 0 && sent < 1000000) {
		error = fdpass_send(sender.get(), file.get());
		sent++;
	}
	EXPECT_TRUE(error == EAGAIN || error == ETOOMANYREFS) << error;
	receiver.reset();
	EXPECT_EQ(fdpass_send(sender.get(), file.get()), EPIPE);
}
