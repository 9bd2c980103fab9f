// The library's results as ends of a run.
#ifndef OSTREL_TOOL_FAILURE_H
#define OSTREL_TOOL_FAILURE_H

#include <libostrel.h>

#include "shared/failure.h"

Exit exit_of(ostrel_error_t result);

#endif
