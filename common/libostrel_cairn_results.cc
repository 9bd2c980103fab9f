// The repository's errors as results of the library.
#include "libostrel_cairn.h"

static constexpr struct {
	rpy_error_t from;
	ostrel_error_t to;
} rpy_results[] = {
    {RPY_ERROR_NONE, OSTREL_SUCCESS},
    {RPY_ERROR_NOT_FOUND, OSTREL_NOT_FOUND},
    {RPY_ERROR_INVALID_ARGUMENT, OSTREL_INVALID_ARG},
    {RPY_ERROR_NO_MEMORY, OSTREL_NO_MEMORY},
    {RPY_ERROR_EXISTS, OSTREL_EXISTS},
    {RPY_ERROR_PERMISSION_DENIED, OSTREL_EPERM},
    {RPY_ERROR_BACKEND_ACCESS, OSTREL_EPERM},
    {RPY_ERROR_BACKEND_READONLY, OSTREL_NEEDS_RETRY},
};

ostrel_error_t rpy_error_to_ostrel_error(rpy_error_t error)
{
	for (const auto &row : rpy_results) {
		if (row.from == error)
			return row.to;
	}
	return OSTREL_FAILURE;
}

ostrel_error_t ostrel_rpy_failure()
{
	ostrel_error_t result = rpy_error_to_ostrel_error(rpy_error());
	return result != OSTREL_SUCCESS ? result : OSTREL_FAILURE;
}
