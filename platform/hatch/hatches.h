// The hatches of this process: found by the descriptor that their owner was given.
#ifndef MERIDON_HATCH_HATCHES_H
#define MERIDON_HATCH_HATCHES_H

namespace hatch {

struct Hatch;
struct Peer;

// Finds the hatch that a descriptor stands for, and locks the list of hatches while it lives, so that the hatch isn't revoked
// meanwhile.
class FoundHatch {
public:
	explicit FoundHatch(int fd);
	~FoundHatch();
	FoundHatch(const FoundHatch &) = delete;
	FoundHatch &operator=(const FoundHatch &) = delete;
	Hatch *operator->() const { return hatch_; }
	Hatch &operator*() const { return *hatch_; }
	explicit operator bool() const { return hatch_ != nullptr; }

private:
	Hatch *hatch_; // NULL: none
};

bool is_own_hatch(int fd);
// Frees a hatch that has no threads left.
void destroy(Hatch *hatch);
// Makes room for a new connection other than `but`, or for bytes: drops one connection of the hatch that has most of them.
// Called with no lock of a hatch held.
void evict_connection(const Peer *but);
void evict_held();

} // namespace hatch

#endif
