// The quota of memory: what clients may make this process hold, in all its hatches, user by user.
//
// All bytes come out of one pool, whatever they are for, so that their sum is bounded. An eighth of the pool is for root and
// the server's own user alone. The rest is shared so that each newcomer finds something: a user may take more as long as what
// is left, with what it has, is at least as much as it would then have, for itself and for each user that holds something.
// The first user gets a half at most, the next a sixth, the k-th 1/(k(k+1)); after k greedy users 1/(k+1) is left.
#ifndef MERIDON_HATCH_POOL_H
#define MERIDON_HATCH_POOL_H

#include <cstddef>
#include <sys/types.h>

namespace hatch {

inline constexpr size_t pool_min = size_t{32} << 20;

// A quarter of what the process may have (memory_bound()), and at least pool_min.
size_t pool_size();
// For tests: the size from now on; 0 ends that.
void set_pool_size(size_t bytes);

// What all users hold.
size_t pool_held();
// True for a user whose share is the whole: root and the user that the server runs as, unless that is overflow_user.
bool is_exempt(uid_t user);

// Around a fork, so that the child's copy is whole; in a child, which holds nothing.
void lock_pool();
void unlock_pool();
void renew_pool();

// What something costs its user: a member of that something. It begins with nothing, and gives all back at its end.
class Charge {
public:
	explicit Charge(uid_t user) : user_(user) {}
	Charge(const Charge &) = delete;
	Charge &operator=(const Charge &) = delete;
	~Charge() { (void) resize(0); }

	// False, and nothing has changed, if that exceeds the user's share. Shrinking never fails.
	bool resize(size_t bytes);
	size_t bytes() const { return bytes_; }
	// What the user could have if nobody held anything.
	size_t most() const;

private:
	uid_t user_;
	size_t bytes_ = 0;
};

} // namespace hatch

#endif
