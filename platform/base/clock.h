// The monotonic clock, and waits that no signal shortens or prolongs.
#ifndef MERIDON_BASE_CLOCK_H
#define MERIDON_BASE_CLOCK_H

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <poll.h>

inline constexpr int64_t second_ns = 1'000'000'000;
inline constexpr int64_t millisecond_ns = 1'000'000;

inline int64_t now_ns()
{
	struct timespec now = {};
	(void) clock_gettime(CLOCK_MONOTONIC, &now); // can't fail with this clock
	return now.tv_sec * second_ns + now.tv_nsec;
}

// As poll(), until `end` of the monotonic clock, in nanoseconds; a signal doesn't end it. It looks once at least.
inline int poll_until(struct pollfd *looks, nfds_t number, int64_t end)
{
	int count;
	do
		count = poll(looks, number, static_cast<int>(std::max<int64_t>((end - now_ns()) / millisecond_ns, 0)));
	while (count == -1 && errno == EINTR);
	return count;
}

#endif
