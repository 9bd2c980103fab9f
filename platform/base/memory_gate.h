// Bounds the memory that a stranger's call makes this process allocate. The code that serves the call sets the gate for its
// thread, and code that makes much out of little input asks it before it allocates. Neither needs to know the other.
#ifndef MERIDON_BASE_MEMORY_GATE_H
#define MERIDON_BASE_MEMORY_GATE_H

#include <cstddef>

class MemoryGate {
public:
	// False: no more for this call. What was granted is given back at the end of the call, all at once.
	virtual bool take(size_t bytes) = 0;

protected:
	~MemoryGate() = default;
};

// The calling thread's, while it serves a call.
inline thread_local constinit MemoryGate *memory_gate = nullptr;

inline bool may_take(size_t bytes)
{
	return memory_gate == nullptr || memory_gate->take(bytes);
}

#endif
