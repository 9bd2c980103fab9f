// Loading libaudit.
#include "trail/libaudit.h"

#include <atomic>
#include <dlfcn.h>
#include <sys/eventfd.h>

#include "base/guards.h"
#include "base/thread_safety.h"

namespace {

Mutex load_mutex;
Libaudit loaded GUARDED_BY(load_mutex); // constant once `ready` is true
std::atomic<bool> ready;

// libaudit looks up the name of the program at its first message and keeps it, in memory that two first messages at a
// time would garble. So it gets one that goes nowhere before anybody else can send.
bool let_it_learn_the_program(const Libaudit &library)
{
	Fd nowhere(eventfd(0, EFD_CLOEXEC)); // no socket: it refuses every message
	if (nowhere)
		(void) library.log_user_message(nowhere.get(), AUDIT_TRUSTED_APP, "", nullptr, nullptr, "", 0);
	return bool(nowhere);
}

bool load() REQUIRES(load_mutex)
{
	void *library = dlopen("libaudit.so.1", RTLD_NOW | RTLD_LOCAL);
	if (library == nullptr)
		return false;
	loaded.open = reinterpret_cast<decltype(loaded.open)>(dlsym(library, "audit_open"));
	loaded.log_user_message =
	    reinterpret_cast<decltype(loaded.log_user_message)>(dlsym(library, "audit_log_user_message"));
	if (loaded.open != nullptr && loaded.log_user_message != nullptr && let_it_learn_the_program(loaded))
		return true;
	(void) dlclose(library);
	return false;
}

} // namespace

const Libaudit *libaudit() NO_THREAD_SAFETY_ANALYSIS // what `ready` shows is read without the lock
{
	if (!ready.load(std::memory_order_acquire)) {
		CancellationWaits cancellation;
		MutexLock lock(load_mutex);
		if (!ready.load(std::memory_order_relaxed) && !load())
			return nullptr;
		ready.store(true, std::memory_order_release);
	}
	return &loaded;
}
