/*
 * The message device: what is written to it reaches the system's console log.
 */
#ifndef MERIDON_MSGLOG_H
#define MERIDON_MSGLOG_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Each write to the device is one record. These are the most bytes, newline included, that every kernel takes and
 * shows at once: with one more the newline is lost, and the record waits for the next one; a longer record is refused
 * whole, with EINVAL. Older kernels, 6.1 for one, have the second limit. */
#define MSGLOG_RECORD_MAX 1023
#define MSGLOG_RECORD_MAX_OLD 975

/*
 * Opens the device "/dev/msglog" for writing only. Where it doesn't exist, the kernel's own log, "/dev/kmsg", stands in.
 * With MERIDON_ROOT set, it is "dev/msglog" below that directory and nothing stands in.
 *
 * Owns:    the result is a new descriptor, close-on-exec.
 * Errors:  -1, with errno set by the open
 * Threads: any.
 */
int msglog_open(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
