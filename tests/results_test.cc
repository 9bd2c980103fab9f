// Results, their texts, and the two ways to errno values.
#include <cerrno>
#include <gtest/gtest.h>

#include "libostrel_impl.h"

namespace {

ostrel_error_t from_number(int value)
{
	return static_cast<ostrel_error_t>(value);
}

TEST(Results, EachHasItsNumberAndItsText)
{
	const char *texts[] = {"no error", "permission denied", "invalid argument", "object exists", "object not found",
	    "callback function halted walk", "insufficient memory", "failure", "unsupported action", "retry needed"};
	for (int i = 0; i < OSTREL_ERROR_COUNT; i++) {
		EXPECT_STREQ(ostrel_strerror(from_number(i)), texts[i]);
		EXPECT_EQ(ostrel_errors[i].error_code, from_number(i));
	}
	EXPECT_STREQ(ostrel_strerror(from_number(10)), "<unknown error>");
	EXPECT_STREQ(ostrel_strerror(from_number(-1)), "<unknown error>");
}

// Beside what the two tables name: what they don't, and where they aren't inverses of one another.
TEST(Results, OtherValuesBecomeFailuresAndInvalidArguments)
{
	for (int unnamed : {EINTR, EROFS, -EPERM, 100000})
		EXPECT_EQ(ostrel_errno2error(unnamed), OSTREL_FAILURE) << unnamed;
	for (int unnamed : {-1, static_cast<int>(OSTREL_NEEDS_RETRY), OSTREL_ERROR_COUNT})
		EXPECT_EQ(ostrel_error2errno(from_number(unnamed)), EINVAL) << unnamed;
	EXPECT_EQ(ostrel_error2errno(ostrel_errno2error(EPERM)), EACCES);
	EXPECT_EQ(ostrel_error2errno(ostrel_errno2error(ENOTDIR)), ENOENT);
	EXPECT_EQ(ostrel_error2errno(ostrel_errno2error(ENOSPC)), ENOMEM);
}

} // namespace
