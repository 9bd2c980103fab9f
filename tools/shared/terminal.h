// What is asked of a terminal: its width, whether it takes colour, a table.
#ifndef TOOLS_SHARED_TERMINAL_H
#define TOOLS_SHARED_TERMINAL_H

#include <cstddef>
#include <string>
#include <vector>

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

#endif
