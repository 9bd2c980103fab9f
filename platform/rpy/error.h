// The error of the calling thread's last failure: rpy_error(), and whether the daemon may carry the failed change out all the
// same.
#ifndef MERIDON_RPY_ERROR_H
#define MERIDON_RPY_ERROR_H

#include <meridon/rpy.h>

namespace rpy {

// Both set rpy_error() and give -1. The second is for a change that the daemon may carry out though the call failed.
int fail(rpy_error_t error);
int fail_open(rpy_error_t error);

template <typename T>
T *fail_null(rpy_error_t error)
{
	(void) fail(error);
	return nullptr;
}

} // namespace rpy

#endif
