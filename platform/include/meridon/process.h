/*
 * Which process this is, for what a forked child has to make again. A process id doesn't tell: a child in a namespace of its
 * own may have its parent's.
 */
#ifndef MERIDON_PROCESS_H
#define MERIDON_PROCESS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * A number that the calling process has in common neither with those that it was forked from nor with those that it forks;
 * 0 is none. Whatever the kind of fork, unless it shares the memory.
 *
 * Threads: any.
 */
uint64_t _meridon_process(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
