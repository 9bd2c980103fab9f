/*
 * The static trace points of the provider "ostrel". A trace point costs one test while no tracer is attached to it:
 *
 *	if (OSTREL_TRACED(db__read))
 *		ostrel_trace_db_read(result, db, idl, props);
 *
 * Each probe fires at exactly one place, beside which its semaphore is defined: seterror in libostrel_error.cc, log in
 * libostrel_log.cc, the others in libostrel_trace.cc. A dash of a probe's name is a double underscore here.
 */
#ifndef LIBOSTREL_PROBE_H
#define LIBOSTREL_PROBE_H

#define _SDT_HAS_SEMAPHORES 1
#include <sys/sdt.h>

// A tracer that attaches raises the semaphore from outside the process: hence the volatile read.
#define OSTREL_TRACED(probe)                                                                                           \
	__builtin_expect(*const_cast<const volatile unsigned short *>(&ostrel_##probe##_semaphore) != 0, false)

extern "C" {
#define OSTREL_SEMAPHORE(probe)                                                                                        \
	extern unsigned short ostrel_##probe##_semaphore __attribute__((visibility("hidden"), section(".probes")))
OSTREL_SEMAPHORE(seterror);
OSTREL_SEMAPHORE(db__read);
OSTREL_SEMAPHORE(db__write);
OSTREL_SEMAPHORE(db__rename);
OSTREL_SEMAPHORE(db__remove);
OSTREL_SEMAPHORE(db__walk);
OSTREL_SEMAPHORE(db__walk__cb);
OSTREL_SEMAPHORE(log);
#undef OSTREL_SEMAPHORE
}

#endif
