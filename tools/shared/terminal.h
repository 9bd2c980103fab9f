// What is asked of a terminal: its width, whether it takes colour, a table, a line of progress.
#ifndef TOOLS_SHARED_TERMINAL_H
#define TOOLS_SHARED_TERMINAL_H

#include <cstddef>
#include <string>
#include <vector>

#include "base/clock.h"

bool is_terminal(int fd);
// Colour is for terminals only, and not where NO_COLOR is set or TERM is dumb.
bool terminal_colour(int fd);
// The columns of the terminal at `fd`: what the kernel says, else COLUMNS, else 80.
size_t terminal_width(int fd);

// Cells are visible texts. The last column wraps at the terminal's width; the others have the width that they need.
struct Table {
	std::vector<std::string> head;
	std::vector<std::vector<std::string>> rows;
	bool bold = true; // its head, on a terminal that has colour
};
void print_table(const Table &table);
// The columns that a table needs without wrapping.
size_t table_width(const Table &table);

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
