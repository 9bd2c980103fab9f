// The signals that end the daemon. While it starts they end it at once, as they do by themselves: nothing is promised yet,
// and what is half written is taken back by the next start. Once it serves they are waited for.
#ifndef REPOSITORY_SIGNALS_H
#define REPOSITORY_SIGNALS_H

#include <pthread.h>
#include <signal.h>

namespace repository {

inline sigset_t end_signals()
{
	sigset_t ends;
	(void) sigemptyset(&ends);
	(void) sigaddset(&ends, SIGTERM);
	(void) sigaddset(&ends, SIGINT);
	return ends;
}

// Puts them off, for the calling thread and those that it starts meanwhile.
class EndPutOff {
public:
	EndPutOff()
	{
		const sigset_t ends = end_signals();
		(void) pthread_sigmask(SIG_BLOCK, &ends, &before_);
	}
	EndPutOff(const EndPutOff &) = delete;
	EndPutOff &operator=(const EndPutOff &) = delete;
	~EndPutOff() { (void) pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
	sigset_t before_;
};

} // namespace repository

#endif
