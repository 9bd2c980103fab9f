/*
 * The path of the running program.
 */
#ifndef MERIDON_PROGPATH_H
#define MERIDON_PROGPATH_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * The absolute path of the program that this process runs, also after its file was replaced or removed. It is looked
 * up once: a process that has entered another root since still gets the path by which it was started.
 *
 * Owns:    the text is constant and isn't freed.
 * Errors:  NULL  the system didn't tell, at the first call
 * Threads: any.
 */
const char *getprogpath(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
