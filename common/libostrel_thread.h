/*
 * Threads that the library starts on its own behalf.
 */
#ifndef LIBOSTREL_THREAD_H
#define LIBOSTREL_THREAD_H

// Starts a detached thread that takes no signals: those are for the caller's threads. Where there is a /proc it has its
// name when this returns. 0 or an errno value.
int ostrel_start_thread(void *(*run)(void *), void *arg, const char *name);

#endif
