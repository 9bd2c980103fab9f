// Locks that clang's thread-safety analysis knows: plain structures over the POSIX locks, their scoped guards, and the
// attributes to state what a lock guards and what a function needs. With another compiler the attributes vanish.
#ifndef MERIDON_BASE_THREAD_SAFETY_H
#define MERIDON_BASE_THREAD_SAFETY_H

#include <pthread.h>

#include "base/clock.h"

#if defined(__clang__)
#define THREAD_SAFETY(x) __attribute__((x))
#else
#define THREAD_SAFETY(x)
#endif

#define CAPABILITY(name) THREAD_SAFETY(capability(name))
#define SCOPED_CAPABILITY THREAD_SAFETY(scoped_lockable)
#define GUARDED_BY(lock) THREAD_SAFETY(guarded_by(lock))
#define PT_GUARDED_BY(lock) THREAD_SAFETY(pt_guarded_by(lock))
#define ACQUIRED_BEFORE(...) THREAD_SAFETY(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) THREAD_SAFETY(acquired_after(__VA_ARGS__))
#define REQUIRES(...) THREAD_SAFETY(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) THREAD_SAFETY(requires_shared_capability(__VA_ARGS__))
#define EXCLUDES(...) THREAD_SAFETY(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) THREAD_SAFETY(acquire_shared_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) THREAD_SAFETY(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_SAFETY(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) THREAD_SAFETY(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) THREAD_SAFETY(release_generic_capability(__VA_ARGS__))
#define ASSERT_CAPABILITY(lock) THREAD_SAFETY(assert_capability(lock))
#define ASSERT_SHARED_CAPABILITY(lock) THREAD_SAFETY(assert_shared_capability(lock))
// For the few functions whose locking depends on a value; the reason stands beside each use.
#define NO_THREAD_SAFETY_ANALYSIS THREAD_SAFETY(no_thread_safety_analysis)

// The locks are trivial types, so that they can lie in zero-filled memory; init() comes before the first use. A lock of
// static storage needs no init(): zeroes are a default lock of this platform's threads library.
// No result of a lock or unlock is looked at: a default lock that is used rightly doesn't fail.
struct CAPABILITY("mutex") Mutex {
	pthread_mutex_t raw;

	void init() { (void) pthread_mutex_init(&raw, nullptr); }
	void destroy() { (void) pthread_mutex_destroy(&raw); }
	void lock() ACQUIRE() { (void) pthread_mutex_lock(&raw); }
	bool try_lock() TRY_ACQUIRE(true) { return pthread_mutex_trylock(&raw) == 0; }
	void unlock() RELEASE() { (void) pthread_mutex_unlock(&raw); }
};

// Default attributes: readers that keep overlapping keep a writer out for as long as they do.
struct CAPABILITY("rwlock") RwLock {
	pthread_rwlock_t raw;

	void init() { (void) pthread_rwlock_init(&raw, nullptr); }
	void destroy() { (void) pthread_rwlock_destroy(&raw); }
	void rdlock() ACQUIRE_SHARED() { (void) pthread_rwlock_rdlock(&raw); }
	void wrlock() ACQUIRE() { (void) pthread_rwlock_wrlock(&raw); }
	void unlock() RELEASE_GENERIC() { (void) pthread_rwlock_unlock(&raw); }
};

// A condition variable for a Mutex. Trivial as the locks are: init() first, unless it is of static storage. A wait may end
// without a reason, so the caller checks its condition in a loop. Times are those of the monotonic clock.
struct CondVar {
	pthread_cond_t raw;

	void init() { (void) pthread_cond_init(&raw, nullptr); }
	void destroy() { (void) pthread_cond_destroy(&raw); }
	void wait(Mutex &mutex) REQUIRES(mutex) { (void) pthread_cond_wait(&raw, &mutex.raw); }
	// False once the time is over.
	bool wait_until(Mutex &mutex, const Deadline &end) REQUIRES(mutex)
	{
		const struct timespec at = end.as_timespec();
		return pthread_cond_clockwait(&raw, &mutex.raw, CLOCK_MONOTONIC, &at) == 0;
	}
	void notify_one() { (void) pthread_cond_signal(&raw); }
	void notify_all() { (void) pthread_cond_broadcast(&raw); }
};

// A part that one thread at a time plays: a capability that is no lock of its own. Whatever decides who plays it, a flag
// under a mutex for instance, is its user's.
struct CAPABILITY("role") Role {
	void take() ACQUIRE() {}
	void give_up() RELEASE() {}
	// For a function that is called by the one who plays it, along a path that the analysis can't follow.
	void assert_held() const ASSERT_CAPABILITY(this) {}
};

class SCOPED_CAPABILITY MutexLock {
public:
	explicit MutexLock(Mutex &mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
	~MutexLock() RELEASE() { mutex_.unlock(); }
	MutexLock(const MutexLock &) = delete;
	MutexLock &operator=(const MutexLock &) = delete;

private:
	Mutex &mutex_;
};

class SCOPED_CAPABILITY ReadLock {
public:
	explicit ReadLock(RwLock &lock) ACQUIRE_SHARED(lock) : lock_(lock) { lock_.rdlock(); }
	~ReadLock() RELEASE_GENERIC() { lock_.unlock(); }
	ReadLock(const ReadLock &) = delete;
	ReadLock &operator=(const ReadLock &) = delete;

private:
	RwLock &lock_;
};

class SCOPED_CAPABILITY WriteLock {
public:
	explicit WriteLock(RwLock &lock) ACQUIRE(lock) : lock_(lock) { lock_.wrlock(); }
	~WriteLock() RELEASE() { lock_.unlock(); }
	WriteLock(const WriteLock &) = delete;
	WriteLock &operator=(const WriteLock &) = delete;

private:
	RwLock &lock_;
};

class SCOPED_CAPABILITY InRole {
public:
	explicit InRole(Role &role) ACQUIRE(role) : role_(role) { role_.take(); }
	~InRole() RELEASE() { role_.give_up(); }
	InRole(const InRole &) = delete;
	InRole &operator=(const InRole &) = delete;

private:
	Role &role_;
};

// Gives up a mutex for a while, a wait for instance, and takes it again. To the analysis the destructor of a scoped guard
// undoes what its constructor did, and the attribute for that is RELEASE whichever way round it is.
class SCOPED_CAPABILITY Unlocked {
public:
	explicit Unlocked(Mutex &mutex) RELEASE(mutex) : mutex_(mutex) { mutex_.unlock(); }
	~Unlocked() RELEASE() { mutex_.lock(); }
	Unlocked(const Unlocked &) = delete;
	Unlocked &operator=(const Unlocked &) = delete;

private:
	Mutex &mutex_;
};

#endif
