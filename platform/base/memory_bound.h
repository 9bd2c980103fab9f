// How much memory this process may have. Bounds of what others can make it take are shares of this.
#ifndef MERIDON_BASE_MEMORY_BOUND_H
#define MERIDON_BASE_MEMORY_BOUND_H

#include <cstddef>

// The least of the machine's memory, the bounds of the process's control group and of each parent of it (both versions,
// and both at once), and RLIMIT_AS. What can't be read is no bound. Read again once a second, so that it may be asked often.
// Threads: any.
size_t memory_bound();

// The same, read now. `root` is put before the paths that are read: "" outside tests.
size_t read_memory_bound(const char *root);

#endif
