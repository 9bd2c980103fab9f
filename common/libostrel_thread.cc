// Threads that the library starts on its own behalf.
#include "libostrel_thread.h"

#include <csignal>
#include <pthread.h>

#include "base/guards.h"

int ostrel_start_thread(void *(*run)(void *), void *arg, const char *name)
{
	pthread_attr_t attributes;
	if (int error = pthread_attr_init(&attributes))
		return error;
	sigset_t all;
	(void) sigfillset(&all);
	int error = pthread_attr_setsigmask_np(&attributes, &all);
	pthread_t thread;
	if (error == 0)
		error = pthread_create(&thread, &attributes, run, arg);
	(void) pthread_attr_destroy(&attributes);
	if (error != 0)
		return error;
	// A look for the thread by its name finds it from now on. It may have ended already.
	CancellationWaits cancellation;
	(void) pthread_setname_np(thread, name);
	(void) pthread_detach(thread);
	return 0;
}
