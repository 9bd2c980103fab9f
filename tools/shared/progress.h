// How far a long work of a tool has come.
#ifndef TOOLS_SHARED_PROGRESS_H
#define TOOLS_SHARED_PROGRESS_H

#include <cstddef>

#include "base/clock.h"

// A line that says how far a long work has come: on a terminal, and only if the work takes long.
class Progress {
public:
	Progress(const char *doing, size_t total);
	~Progress();
	Progress(const Progress &) = delete;
	Progress &operator=(const Progress &) = delete;
	void step();

private:
	const char *doing_;
	size_t total_;
	size_t done_ = 0;
	bool wanted_;
	bool shown_ = false;
	Deadline next_;
};

#endif
