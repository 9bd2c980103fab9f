// Results: texts, conversions, and where a failure is raised. No state, no lock.
#include "libostrel_error.h"

#include <cerrno>
#include <libintl.h>

#include "base/guards.h"
#include "libostrel_probe.h"

unsigned short ostrel_seterror_semaphore = 0;

static constexpr char text_domain[] = "meridon_lib_libostrel";

const struct ostrel_error_info ostrel_errors[OSTREL_ERROR_COUNT] = {
    {OSTREL_SUCCESS, "no error"},
    {OSTREL_EPERM, "permission denied"},
    {OSTREL_INVALID_ARG, "invalid argument"},
    {OSTREL_EXISTS, "object exists"},
    {OSTREL_NOT_FOUND, "object not found"},
    {OSTREL_WALK_HALTED, "callback function halted walk"},
    {OSTREL_NO_MEMORY, "insufficient memory"},
    {OSTREL_FAILURE, "failure"},
    {OSTREL_NOTSUP, "unsupported action"},
    {OSTREL_NEEDS_RETRY, "retry needed"},
};

// The two conversions aren't inverses of one another: several errno values share a result.
static constexpr struct {
	int from;
	ostrel_error_t to;
} errno_results[] = {
    {0, OSTREL_SUCCESS},
    {EPERM, OSTREL_EPERM},
    {EACCES, OSTREL_EPERM},
    {ENOENT, OSTREL_NOT_FOUND},
    {ENOTDIR, OSTREL_NOT_FOUND},
    {ENOMEM, OSTREL_NO_MEMORY},
    {ENOSPC, OSTREL_NO_MEMORY},
    {EFAULT, OSTREL_INVALID_ARG},
    {EINVAL, OSTREL_INVALID_ARG},
    {EEXIST, OSTREL_EXISTS},
    {ENOTSUP, OSTREL_NOTSUP},
};

static constexpr struct {
	ostrel_error_t from;
	int to;
} result_errnos[] = {
    {OSTREL_SUCCESS, 0},
    {OSTREL_EPERM, EACCES},
    {OSTREL_INVALID_ARG, EINVAL},
    {OSTREL_EXISTS, EEXIST},
    {OSTREL_NOT_FOUND, ENOENT},
    {OSTREL_WALK_HALTED, ECANCELED},
    {OSTREL_NO_MEMORY, ENOMEM},
    {OSTREL_FAILURE, EINVAL},
    {OSTREL_NOTSUP, ENOTSUP},
};

const char *ostrel_strerror(ostrel_error_t err)
{
	CancellationWaits cancellation;
	for (const auto &row : ostrel_errors) {
		if (row.error_code == err)
			return dgettext(text_domain, row.error_desc);
	}
	return dgettext(text_domain, "<unknown error>");
}

ostrel_error_t ostrel_errno2error(int err)
{
	for (const auto &row : errno_results) {
		if (row.from == err)
			return row.to;
	}
	return OSTREL_FAILURE;
}

int ostrel_error2errno(ostrel_error_t err)
{
	for (const auto &row : result_errnos) {
		if (row.from == err)
			return row.to;
	}
	return EINVAL;
}

ostrel_error_t ostrel_seterror_verbose(const char *file, int line, ostrel_error_t err)
{
	if (err != OSTREL_SUCCESS && OSTREL_TRACED(seterror))
		STAP_PROBE3(ostrel, seterror, static_cast<int>(err), file, line);
	return err;
}
