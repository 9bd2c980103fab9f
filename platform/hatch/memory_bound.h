// How much memory this process may have.
#ifndef MERIDON_HATCH_MEMORY_BOUND_H
#define MERIDON_HATCH_MEMORY_BOUND_H

#include <cstddef>

namespace hatch {

// The least of the machine's memory, the bounds of the process's control group and of each parent of it (both versions,
// and both at once), and RLIMIT_AS. `root` is put before the paths that are read; "" outside tests. What can't be read is
// no bound.
size_t memory_bound(const char *root);

} // namespace hatch

#endif
