// Who says whether the running call may have more memory. Whoever serves a stranger's call puts a gate up around it, and
// whoever makes much out of what a stranger sent asks there before it allocates; neither knows the other.
#ifndef MERIDON_BASE_MEMORY_GATE_H
#define MERIDON_BASE_MEMORY_GATE_H

#include <cstddef>

class MemoryGate {
public:
	// False: the bytes can't be had. What was granted is given back at the end of the call, all at once.
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
