// Time: one clock, one kind of deadline, one kind of pause. A header alone, so that libostrel, the daemon and the tools use
// the same.
//
// All waits are measured by the monotonic clock: setting the time of day neither shortens nor prolongs them. A wait that
// has a bound takes a Deadline, not a number of seconds, so that a loop around it has one bound for all its turns. A signal
// never ends a wait.
#ifndef MERIDON_BASE_CLOCK_H
#define MERIDON_BASE_CLOCK_H

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <poll.h>

inline constexpr int64_t second_ns = 1'000'000'000;
inline constexpr int64_t millisecond_ns = 1'000'000;
inline constexpr int64_t microsecond_ns = 1'000;

inline int64_t now_ns()
{
	struct timespec now = {};
	(void) clock_gettime(CLOCK_MONOTONIC, &now); // can't fail with this clock
	return now.tv_sec * second_ns + now.tv_nsec;
}

inline struct timespec timespec_of(int64_t ns)
{
	return {ns / second_ns, static_cast<long>(ns % second_ns)};
}

// The end of a wait.
class Deadline {
public:
	static Deadline in(int64_t ns) { return Deadline(now_ns() + ns); }
	// A moment as now_ns() gives it.
	static Deadline at(int64_t ns) { return Deadline(ns); }
	static Deadline never() { return Deadline(INT64_MAX); }
	// Already over: what waits until then looks once.
	static Deadline over() { return Deadline(0); }

	bool is_never() const { return at_ == INT64_MAX; }
	bool has_passed() const { return left_ns() == 0; }
	// 0 when it has passed.
	int64_t left_ns() const
	{
		if (at_ == 0 || is_never()) // without a look at the clock
			return at_;
		return std::max<int64_t>(at_ - now_ns(), 0);
	}
	// Rounded up, so that only a deadline that has passed gives 0.
	int left_seconds() const { return in_units(second_ns); }
	// For poll(): -1 waits without end.
	int left_ms() const { return is_never() ? -1 : in_units(millisecond_ns); }
	// For functions that take a moment of CLOCK_MONOTONIC.
	struct timespec as_timespec() const { return timespec_of(at_); }

private:
	explicit Deadline(int64_t at) : at_(at) {}
	int in_units(int64_t unit) const
	{
		const int64_t left = left_ns();
		return static_cast<int>(std::min<int64_t>(left / unit + (left % unit != 0 ? 1 : 0), INT_MAX));
	}

	int64_t at_;
};

// As poll(), until `end`. Looks once at least.
inline int poll_until(struct pollfd *looks, nfds_t number, const Deadline &end)
{
	int count;
	do
		count = poll(looks, number, end.left_ms());
	while (count == -1 && errno == EINTR);
	return count;
}

inline void sleep_ns(int64_t ns)
{
	struct timespec left = timespec_of(ns);
	while (nanosleep(&left, &left) == -1 && errno == EINTR)
		continue;
}

// Pauses between attempts: on average each is twice as long as the one before, up to `longest`. Each lasts between 0.5 and
// 1.5 times that, at random, so that threads that wait for the same thing don't go in step.
class Backoff {
public:
	Backoff(int64_t first_ns, int64_t longest_ns) : next_(first_ns), longest_(longest_ns) {}
	void pause()
	{
		sleep_ns(next_ / 2 + now_ns() % next_);
		next_ = std::min(2 * next_, longest_);
	}

private:
	int64_t next_;
	int64_t longest_;
};

#endif
