// Tells a process from its forked children, whichever way they were forked.
#ifndef MERIDON_HATCH_EPOCH_H
#define MERIDON_HATCH_EPOCH_H

#include <cstdint>

namespace hatch {

// A number that differs between a process and its forked child. Two calls in one process give the same.
// Threads: any.
uint64_t epoch();

} // namespace hatch

#endif
