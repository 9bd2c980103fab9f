// Terminals. Divisions: widths; tables.
#include "terminal.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <locale.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <fmt/format.h>

#include "visible.h"

namespace {

constexpr size_t gap = 2;                // columns between two columns of a table
constexpr size_t narrowest_wrapped = 16; // a narrower last column isn't wrapped: it would be unreadable

// ---- Widths ----

// Widths follow UTF-8 whatever the user's locale says; the rest of the program stays in the C locale, so that
// comparing without case means ASCII.
size_t width_of(char32_t code)
{
	static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
	if (code < 0x80 || utf8 == nullptr)
		return 1;
	locale_t before = uselocale(utf8);
	int width = wcwidth(static_cast<wchar_t>(code));
	uselocale(before);
	return width < 0 ? 1 : static_cast<size_t>(width);
}

// Columns that a visible text takes on a terminal.
size_t display_width(std::string_view text)
{
	size_t width = 0;
	while (!text.empty()) {
		Decoded next = decode_utf8(text);
		width += next.length == 0 ? 1 : width_of(next.code);
		text.remove_prefix(next.length == 0 ? 1 : next.length);
	}
	return width;
}

// The longest start of `text` that takes at most `width` columns, at least one character of it.
size_t fitting_prefix(std::string_view text, size_t width)
{
	size_t used = 0, taken = 0;
	while (taken < text.size()) {
		Decoded next = decode_utf8(text.substr(taken));
		used += next.length == 0 ? 1 : width_of(next.code);
		if (used > width && taken > 0)
			break;
		taken += next.length == 0 ? 1 : next.length;
	}
	return taken;
}

// ---- Tables ----

std::vector<size_t> column_widths(const Table &table)
{
	std::vector<size_t> widths(table.head.size(), 0);
	auto widen = [&](const std::vector<std::string> &cells) {
		for (size_t i = 0; i < cells.size(); i++)
			widths[i] = std::max(widths[i], display_width(cells[i]));
	};
	widen(table.head);
	for (const auto &row : table.rows)
		widen(row);
	return widths;
}

size_t width_before_last(const std::vector<size_t> &widths)
{
	size_t width = 0;
	for (size_t i = 0; i + 1 < widths.size(); i++)
		width += widths[i] + gap;
	return width;
}

// How much of `text` goes on this line. Breaks after a blank if there is one in the line's second half.
size_t line_break(const std::string &text, size_t room)
{
	if (display_width(text) <= room)
		return text.size();
	size_t fits = fitting_prefix(text, room);
	size_t blank = text.rfind(' ', fits);
	return blank != std::string::npos && blank > fits / 2 ? blank + 1 : fits;
}

void append_row(std::string &out, const std::vector<std::string> &cells, const std::vector<size_t> &widths, size_t room)
{
	size_t indent = width_before_last(widths);
	for (size_t i = 0; i + 1 < cells.size(); i++)
		out += cells[i] + std::string(widths[i] + gap - display_width(cells[i]), ' ');
	std::string rest = cells.empty() ? "" : cells.back();
	for (;;) {
		size_t taken = line_break(rest, room);
		out += rest.substr(0, taken);
		while (!out.empty() && out.back() == ' ')
			out.pop_back();
		out += '\n';
		rest.erase(0, taken);
		if (rest.empty())
			return;
		out.append(indent, ' ');
	}
}

} // namespace

bool is_terminal(int fd)
{
	return isatty(fd) != 0;
}

bool terminal_colour(int fd)
{
	const char *refused = std::getenv("NO_COLOR");
	const char *term = std::getenv("TERM");
	return isatty(fd) != 0 && (refused == nullptr || refused[0] == '\0') && term != nullptr &&
	       std::strcmp(term, "dumb") != 0;
}

size_t terminal_width(int fd)
{
	struct winsize size = {};
	if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
		return size.ws_col;
	const char *columns = std::getenv("COLUMNS");
	size_t width = 0;
	if (columns != nullptr && std::from_chars(columns, columns + std::strlen(columns), width).ec == std::errc() &&
	    width > 0)
		return width;
	return 80;
}

size_t table_width(const Table &table)
{
	std::vector<size_t> widths = column_widths(table);
	return widths.empty() ? 0 : width_before_last(widths) + widths.back();
}

void print_table(const Table &table)
{
	std::vector<size_t> widths = column_widths(table);
	size_t columns = terminal_width(STDOUT_FILENO);
	size_t indent = width_before_last(widths);
	size_t room = columns >= indent + narrowest_wrapped ? columns - indent : static_cast<size_t>(-1);
	bool colour = table.bold && terminal_colour(STDOUT_FILENO);

	std::string out;
	append_row(out, table.head, widths, room);
	if (colour)
		out = "\033[1m" + out.substr(0, out.size() - 1) + "\033[0m\n";
	for (const auto &row : table.rows)
		append_row(out, row, widths, room);
	(void) std::fwrite(out.data(), 1, out.size(), stdout); // a failure stays in the stream and is seen at the end
}
