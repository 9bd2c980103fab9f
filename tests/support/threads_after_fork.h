// For one source of a program whose forked children start threads though the program had some before. ThreadSanitizer ends
// such children unless it is told not to.
#ifndef THREADS_AFTER_FORK_H
#define THREADS_AFTER_FORK_H

#if defined(__SANITIZE_THREAD__)
extern "C" __attribute__((visibility("default"))) const char *__tsan_default_options();
extern "C" const char *__tsan_default_options()
{
	return "die_after_fork=0";
}
#endif

#endif
