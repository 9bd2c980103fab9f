// The pool: a table of the users that hold something, and the rule for shares.
#include "hatch/pool.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <unistd.h>

#include "base/memory_bound.h"
#include "base/thread_safety.h"
#include "base/users.h"
#include "hatch/user_table.h"

namespace hatch {
namespace {

struct User {
	User *next;
	uid_t uid;
	bool has_share; // it isn't exempt
	size_t bytes;
};

// A user is in the table while it holds something.
struct Pool {
	UserTable<User, 1024> users;
	size_t bytes;     // all users'
	size_t strangers; // users with a share that hold something
};

Mutex pool_lock;
Pool pool GUARDED_BY(pool_lock);

std::atomic<size_t> fixed_size; // 0: it isn't

// (has + more) * (users + 1) <= left + has, where `left` is what nobody has.
bool is_within_share(size_t has, size_t more, size_t size) REQUIRES(pool_lock)
{
	const size_t all = size - size / 8;
	const size_t left = all > pool.bytes ? all - pool.bytes : 0;
	const size_t users = pool.strangers + (has == 0 ? 1 : 0);
	return more <= left && has + more <= (left + has) / (users + 1);
}

bool take(uid_t uid, size_t more, size_t size) REQUIRES(pool_lock)
{
	User **link = pool.users.find(uid);
	size_t has = *link == nullptr ? 0 : (*link)->bytes;
	if (size < pool.bytes || more > size - pool.bytes)
		return false;
	const bool has_share = *link == nullptr ? !is_exempt(uid) : (*link)->has_share;
	if (has_share && !is_within_share(has, more, size))
		return false;
	if (*link == nullptr) {
		*link = new (std::nothrow) User{nullptr, uid, has_share, 0};
		if (*link == nullptr)
			return false;
		pool.strangers += has_share ? 1 : 0;
	}
	(*link)->bytes += more;
	pool.bytes += more;
	return true;
}

void give_back(uid_t uid, size_t less) REQUIRES(pool_lock)
{
	User **link = pool.users.find(uid);
	User *user = *link;
	if (user == nullptr) // of a parent that this process was forked from
		return;
	user->bytes -= less;
	pool.bytes -= less;
	if (user->bytes > 0)
		return;
	*link = user->next;
	pool.strangers -= user->has_share ? 1 : 0;
	delete user;
}

} // namespace

size_t pool_size()
{
	const size_t fixed = fixed_size;
	return fixed != 0 ? fixed : std::max(memory_bound() / 4, pool_min);
}

void set_pool_size(size_t bytes)
{
	fixed_size = bytes;
}

size_t pool_held()
{
	MutexLock hold(pool_lock);
	return pool.bytes;
}

bool is_exempt(uid_t user)
{
	return user == 0 || (user == geteuid() && user != overflow_user);
}

void lock_pool() NO_THREAD_SAFETY_ANALYSIS // around a fork: held until unlock_pool()
{
	pool_lock.lock();
}

void unlock_pool() NO_THREAD_SAFETY_ANALYSIS
{
	pool_lock.unlock();
}

void renew_pool() NO_THREAD_SAFETY_ANALYSIS // no other thread has it yet
{
	pool_lock.init();
	for (User *&first : pool.users.first) {
		while (User *user = first) {
			first = user->next;
			delete user;
		}
	}
	pool.bytes = pool.strangers = 0;
}

size_t Charge::most() const
{
	const size_t size = pool_size();
	return is_exempt(user_) ? size : (size - size / 8) / 2;
}

bool Charge::resize(size_t bytes)
{
	if (bytes > bytes_) {
		size_t size = pool_size(); // may read files: not with the lock held
		MutexLock hold(pool_lock);
		if (!take(user_, bytes - bytes_, size))
			return false;
	} else if (bytes < bytes_) {
		MutexLock hold(pool_lock);
		give_back(user_, bytes_ - bytes);
	}
	bytes_ = bytes;
	return true;
}

} // namespace hatch
