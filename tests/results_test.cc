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

TEST(Results, ErrnoValuesBecomeResults)
{
	const struct {
		int from;
		ostrel_error_t to;
	} rows[] = {{0, OSTREL_SUCCESS}, {EPERM, OSTREL_EPERM}, {EACCES, OSTREL_EPERM}, {ENOENT, OSTREL_NOT_FOUND},
	    {ENOTDIR, OSTREL_NOT_FOUND}, {ENOMEM, OSTREL_NO_MEMORY}, {ENOSPC, OSTREL_NO_MEMORY},
	    {EFAULT, OSTREL_INVALID_ARG}, {EINVAL, OSTREL_INVALID_ARG}, {EEXIST, OSTREL_EXISTS},
	    {ENOTSUP, OSTREL_NOTSUP}, {EINTR, OSTREL_FAILURE}, {EROFS, OSTREL_FAILURE}, {-EPERM, OSTREL_FAILURE},
	    {100000, OSTREL_FAILURE}};
	for (const auto &row : rows)
		EXPECT_EQ(ostrel_errno2error(row.from), row.to) << "errno " << row.from;
}

TEST(Results, ResultsBecomeErrnoValues)
{
	const int errnos[] = {0, EACCES, EINVAL, EEXIST, ENOENT, ECANCELED, ENOMEM, EINVAL, ENOTSUP, EINVAL, EINVAL};
	for (int i = 0; i <= OSTREL_ERROR_COUNT; i++)
		EXPECT_EQ(ostrel_error2errno(from_number(i)), errnos[i]) << "result " << i;
	EXPECT_EQ(ostrel_error2errno(from_number(-1)), EINVAL);
}

TEST(Results, RaisingChangesNothing)
{
	errno = EROFS;
	for (int i = 0; i < OSTREL_ERROR_COUNT; i++)
		EXPECT_EQ(ostrel_seterror_verbose("some.cc", 7, from_number(i)), from_number(i));
	EXPECT_EQ(errno, EROFS);
}

} // namespace
