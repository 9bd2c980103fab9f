/*
 * Raising a privilege for a while: a process that was given a privilege, but doesn't hold it in effect all the time,
 * takes it up around the few calls that need it.
 *
 *     elevate_state_t state;
 *     if (__elevate_if_available("proc_audit", &state)) {
 *             ...
 *             __elevate_restore(state);
 *     }
 */
#ifndef MERIDON_ELEVATE_H
#define MERIDON_ELEVATE_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* What is to be undone. 0 is nothing. */
typedef int elevate_state_t;

/*
 * Puts a privilege into effect for the calling thread, if the thread may hold it. No other thread is touched, and no
 * other privilege. Pairs may be nested: each undoes what it did itself.
 *
 * The privilege there is: "proc_audit", to write audit records (CAP_AUDIT_WRITE).
 *
 * Errors:  0  the thread may not hold it, there is no such privilege, or an argument is NULL. Nothing was changed, and
 *             *state (if there is one) says so: to restore it does nothing.
 *          Otherwise the privilege is in effect now.
 * Threads: any; the calling thread restores.
 */
int __elevate_if_available(const char *privilege, elevate_state_t *state);

/* Undoes it. errno is left alone. */
void __elevate_restore(elevate_state_t state);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
