// What clients may make this process hold, all hatches together, user by user.
//
// All bytes come out of one pool, whatever they are for: what clients make the process hold is at most the pool's size, and
// somebody always finds a part of it. An eighth is for root and the server's own user alone. Of the rest a user may have
// so much that what it has, once for itself and once for each user that holds something, is there: the first takes half
// at most, the next a sixth, the k-th 1/(k(k+1)), and after k greedy ones 1/(k+1) is left.
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
// True for a user with no share but the whole: root, and whoever the server runs as. What stands for users without a
// number here is nobody's own.
bool is_exempt(uid_t user);

// Around a fork, so that the child's copy is whole; in a child, which holds nothing.
void lock_pool();
void unlock_pool();
void renew_pool();

// What something costs its user: it lies inside of that something, begins with nothing, and gives all back at its end.
class Charge {
public:
	explicit Charge(uid_t user) : user_(user) {}
	Charge(const Charge &) = delete;
	Charge &operator=(const Charge &) = delete;
	~Charge() { (void) resize(0); }

	// False: that is beyond the user's share, and nothing has changed. Shrinking never fails.
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
