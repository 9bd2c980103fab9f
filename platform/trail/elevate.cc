// Raising a privilege: one capability of the calling thread, by the bare system calls. A library's wrapper of them may
// act on all threads of the process, and a record that one thread writes mustn't arm the others.
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <meridon/elevate.h>

namespace {

constexpr struct {
	const char *name;
	int capability;
} privileges[] = {
    {"proc_audit", CAP_AUDIT_WRITE},
};

// The capability of a privilege, or -1.
int capability_of(const char *name)
{
	for (const auto &privilege : privileges) {
		if (strcmp(privilege.name, name) == 0)
			return privilege.capability;
	}
	return -1;
}

// The capabilities of the calling thread.
class Capabilities {
public:
	bool get() { return syscall(SYS_capget, &header_, words_) == 0; }
	bool permits(int capability) const { return (word(capability).permitted & mask(capability)) != 0; }
	bool has(int capability) const { return (word(capability).effective & mask(capability)) != 0; }
	bool raise(int capability)
	{
		words_[CAP_TO_INDEX(capability)].effective |= mask(capability);
		return set();
	}
	bool lower(int capability)
	{
		words_[CAP_TO_INDEX(capability)].effective &= ~mask(capability);
		return set();
	}

private:
	static uint32_t mask(int capability) { return CAP_TO_MASK(static_cast<unsigned int>(capability)); }
	const __user_cap_data_struct &word(int capability) const { return words_[CAP_TO_INDEX(capability)]; }
	bool set() { return syscall(SYS_capset, &header_, words_) == 0; }

	__user_cap_header_struct header_ = {_LINUX_CAPABILITY_VERSION_3, 0}; // 0: this thread
	__user_cap_data_struct words_[_LINUX_CAPABILITY_U32S_3] = {};
};

// What was raised, so that capability 0 isn't the state "nothing".
constexpr elevate_state_t nothing_raised = 0;

constexpr elevate_state_t state_of(int capability)
{
	return capability + 1;
}

} // namespace

int __elevate_if_available(const char *privilege, elevate_state_t *state)
{
	if (state == nullptr)
		return 0;
	*state = nothing_raised;
	const int capability = privilege == nullptr ? -1 : capability_of(privilege);
	Capabilities held;
	if (capability < 0 || !held.get())
		return 0;
	if (held.has(capability))
		return 1;
	if (!held.permits(capability) || !held.raise(capability))
		return 0;
	*state = state_of(capability);
	return 1;
}

void __elevate_restore(elevate_state_t state)
{
	if (state == nothing_raised)
		return;
	const int saved = errno;
	Capabilities held;
	if (held.get())
		(void) held.lower(state - state_of(0)); // giving up what one has is never refused
	errno = saved;
}
