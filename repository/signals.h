// The signals that end the daemon. While it starts they end it at once, as any process: it has promised nothing yet, and
// the next start takes back what is half written. Once it serves, its main thread waits for them.
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

// Defers them while it lives, for the calling thread and for those that it starts meanwhile.
class EndDeferred {
public:
	EndDeferred()
	{
		const sigset_t ends = end_signals();
		(void) pthread_sigmask(SIG_BLOCK, &ends, &before_);
	}
	EndDeferred(const EndDeferred &) = delete;
	EndDeferred &operator=(const EndDeferred &) = delete;
	~EndDeferred() { (void) pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
	sigset_t before_;
};

} // namespace repository

#endif
