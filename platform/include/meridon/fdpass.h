/*
 * Passing an open descriptor from one process to another over a pair of connected ends.
 *
 * Rules for every call:
 *   Errors:  0, or an errno value
 *   Threads: any; only system calls are made, so a forked child may use them
 */
#ifndef MERIDON_FDPASS_H
#define MERIDON_FDPASS_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Makes the two ends: what is sent into ends[1] comes out of ends[0].
 * Owns:   both ends are new and closed on exec; close() them.
 * Errors: EMFILE, ENFILE, ENOMEM, ENOBUFS; `ends` is untouched then
 */
int fdpass_pair(int ends[2]);

/*
 * Sends a descriptor for the open file of `fd`. It doesn't wait for the receiver; one that was sent stays in the pair
 * when its sender closes its own or ends.
 * Errors: EBADF for a bad descriptor, EAGAIN if the pair is full, EPIPE if the other end is closed
 */
int fdpass_send(int end, int fd);

/*
 * Takes the oldest descriptor that was sent. It doesn't wait.
 * Owns:   *fdp is new, for the same open file, and closed on exec. Untouched on failure.
 * Errors: EAGAIN if none has come yet, EPIPE if none can come any more, EMFILE if this process has no room for it
 */
int fdpass_receive(int end, int *fdp);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
