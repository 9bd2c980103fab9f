#include "failure.h"

namespace {

constexpr struct {
	ostrel_error_t result;
	Exit cause;
} result_exits[] = {
    {OSTREL_SUCCESS, Exit::done},
    {OSTREL_EPERM, Exit::permission},
    {OSTREL_INVALID_ARG, Exit::invalid},
    {OSTREL_EXISTS, Exit::exists},
    {OSTREL_NOT_FOUND, Exit::not_found},
    {OSTREL_NO_MEMORY, Exit::memory},
    {OSTREL_NOTSUP, Exit::unsupported},
    {OSTREL_NEEDS_RETRY, Exit::deferred},
};

} // namespace

Exit exit_of(ostrel_error_t result)
{
	for (const auto &row : result_exits)
		if (row.result == result)
			return row.cause;
	return Exit::failure;
}
