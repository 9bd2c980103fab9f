// File operations in another enclave, done for real: by children that enter roots and namespaces.
#include "libostrel_zio.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "base/guards.h"
#include "syscall_fault.h"
#include "test_enclave.h"

namespace {

constexpr int update_flags = O_RDWR | O_CREAT | O_TRUNC;

// What stands in an open file, from its beginning.
std::string text_of(int fd)
{
	char buf[256];
	ssize_t len = pread(fd, buf, sizeof buf, 0);
	return len < 0 ? "<error>" : std::string(buf, static_cast<size_t>(len));
}

// The error of an open for reading, 0 if it worked.
int read_error(const char *path, enclaveid_t enclave)
{
	int error = -1;
	Stream stream(ostrel_zfopen(path, "r", enclave, &error));
	EXPECT_EQ(error == 0, stream.get() != nullptr);
	return error;
}

int update_error(const char *path, enclaveid_t enclave)
{
	int error = -1;
	Fd file(ostrel_zopen(path, update_flags, 0644, enclave, &error));
	EXPECT_EQ(error == 0, static_cast<bool>(file));
	return error;
}

struct stat stat_of(const std::string &path)
{
	struct stat st = {};
	EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
	return st;
}

TEST(Zio, ReadsAndUpdatesAFileInsideTheEnclave)
{
	SKIP_WITHOUT_ENCLAVES();
	TestEnclave enclave;
	enclave.write("/db", "inside\n");
	int error = -1;
	Fd old(ostrel_zopen("/db", O_RDONLY, 0, enclave.id(), &error));
	ASSERT_EQ(error, 0);
	EXPECT_EQ(text_of(old.get()), "inside\n");
	EXPECT_EQ(fcntl(old.get(), F_GETFD), FD_CLOEXEC);

	Fd fresh(ostrel_zopen("/db.new", update_flags, 0644, enclave.id(), &error));
	ASSERT_EQ(error, 0);
	ASSERT_EQ(write(fresh.get(), "new\n", 4), 4);
	EXPECT_EQ(ostrel_zrename("/db.new", "/db", enclave.id()), 0);
	EXPECT_EQ(enclave.read("/db"), "new\n");
	EXPECT_EQ(enclave.read("/db.new"), "<none>");
	EXPECT_EQ(ostrel_zunlink("/db", enclave.id()), 0);
	EXPECT_EQ(ostrel_zunlink("/db", enclave.id()), ENOENT);
}

TEST(Zio, ANewFileGetsItsModeWhateverTheUmaskAndItsOwner)
{
	SKIP_WITHOUT_ENCLAVES();
	TestEnclave enclave;
	mode_t mask = umask(077);
	EXPECT_EQ(update_error("/db", enclave.id()), 0);
	int error = -1;
	EXPECT_TRUE(Fd(ostrel_zopen("/secret", update_flags, 0600, enclave.id(), &error)));
	EXPECT_TRUE(Fd(ostrel_zopen(enclave.host_path("/here").c_str(), update_flags, 0644, 0, &error)));
	umask(mask);
	for (const char *path : {"/db", "/here", "/secret"}) {
		struct stat st = stat_of(enclave.host_path(path));
		EXPECT_EQ(st.st_mode & 07777, std::string(path) == "/secret" ? 0600U : 0644U) << path;
		EXPECT_EQ(st.st_uid, 17U) << path;
		EXPECT_EQ(st.st_gid, 65U) << path;
	}
}

TEST(Zio, AnExistingFileIsEmptiedAndKeepsModeAndOwner)
{
	SKIP_WITHOUT_ENCLAVES();
	TestEnclave enclave;
	enclave.write("/db", "old\n");
	ASSERT_EQ(chmod(enclave.host_path("/db").c_str(), 0640), 0);
	ASSERT_EQ(chown(enclave.host_path("/db").c_str(), 3, 4), 0);
	EXPECT_EQ(update_error("/db", enclave.id()), 0);
	struct stat st = stat_of(enclave.host_path("/db"));
	EXPECT_EQ(st.st_size, 0);
	EXPECT_EQ(st.st_mode & 07777, 0640U);
	EXPECT_EQ(st.st_uid, 3U);
	EXPECT_EQ(st.st_gid, 4U);
}

TEST(Zio, WhatFailsInsideArrivesAsItsErrorNumber)
{
	SKIP_WITHOUT_ENCLAVES();
	TestEnclave enclave;
	enclave.write("/file", "");
	EXPECT_EQ(read_error("/missing", enclave.id()), ENOENT);
	EXPECT_EQ(read_error("/file/below", enclave.id()), ENOTDIR);
	EXPECT_EQ(update_error("/missing/db", enclave.id()), ENOENT);
	EXPECT_EQ(update_error("/private", enclave.id()), EISDIR);
	EXPECT_EQ(ostrel_zrename("/missing", "/db", enclave.id()), ENOENT);
	EXPECT_EQ(ostrel_zrename("/file", "/missing/db", enclave.id()), ENOENT);
	EXPECT_EQ(ostrel_zunlink("/private", enclave.id()), EISDIR);
}

} // namespace
