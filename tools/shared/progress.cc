// The line of progress on the standard error.
#include "progress.h"

#include <algorithm>
#include <cstdio>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>

#include "failure.h"
#include "terminal.h"

Progress::Progress(const char *doing, size_t total)
    : doing_(doing), total_(total), wanted_(is_terminal(STDERR_FILENO) && !reporting_json()),
      next_(Deadline::in(500 * millisecond_ns))
{}

Progress::~Progress()
{
	if (shown_)
		(void) std::fputs("\r\033[K", stderr);
}

void Progress::step()
{
	done_++;
	if (!wanted_ || done_ % 64 != 0 || !next_.has_passed())
		return;
	next_ = Deadline::in(100 * millisecond_ns);
	shown_ = true;
	try {
		fmt::print(stderr, "\r{} {} of {} ({}%)\033[K", doing_, done_, total_,
		    done_ * 100 / std::max<size_t>(total_, 1));
	} catch (const std::system_error &) {
		wanted_ = false; // a terminal that has gone is no reason to stop the work
	}
}
