// The rights file, line by line.
#include "rights/rights.h"

namespace rights {
namespace {

bool is_right_byte(char c)
{
	return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
	       c == '_';
}

// Names of users and groups come from elsewhere: only what the format needs for itself is refused.
bool is_name_byte(char c)
{
	return static_cast<unsigned char>(c) > ' ' && c != '\x7f' && c != ',' && c != '%' && c != '*';
}

std::string_view trim(std::string_view text)
{
	constexpr std::string_view blanks = " \t";
	size_t first = text.find_first_not_of(blanks);
	if (first == std::string_view::npos)
		return {};
	return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

template <typename Test>
bool all_of(std::string_view text, Test test)
{
	for (char c : text) {
		if (!test(c))
			return false;
	}
	return !text.empty();
}

// Splits `rest` at `end`. False if there is no `end`.
bool next_field(std::string_view *rest, char end, std::string_view *field)
{
	size_t at = rest->find(end);
	*field = rest->substr(0, at);
	*rest = at == std::string_view::npos ? std::string_view() : rest->substr(at + 1);
	return at != std::string_view::npos;
}

// One granted right against the one asked for. False if it can't be read.
bool read_grant(std::string_view granted, std::string_view right, bool *matches)
{
	bool any_end = granted.ends_with('*');
	if (any_end)
		granted.remove_suffix(1);
	if (!(any_end && granted.empty()) && !is_right(granted))
		return false;
	*matches |= any_end ? right.starts_with(granted) : right == granted;
	return true;
}

bool read_grants(std::string_view list, std::string_view right, bool *matches)
{
	for (bool more = true; more;) {
		std::string_view granted;
		more = next_field(&list, ',', &granted);
		if (!read_grant(trim(granted), right, matches))
			return false;
	}
	return true;
}

bool line_grants(std::string_view line, std::string_view right, Holder &holder)
{
	std::string_view subject;
	std::string_view text;
	(void) next_field(&line, '#', &text); // the rest is a comment
	if (!next_field(&text, ':', &subject))
		return false;
	subject = trim(subject);
	bool group = subject.starts_with('%');
	if (group)
		subject.remove_prefix(1);
	bool matches = false;
	if (!all_of(subject, is_name_byte) || !read_grants(text, right, &matches) || !matches)
		return false;
	return group ? holder.in_group(subject) : holder.is_user(subject);
}

} // namespace

bool is_right(std::string_view name)
{
	return all_of(name, is_right_byte);
}

bool grants(std::string_view text, std::string_view right, Holder &holder)
{
	while (!text.empty()) {
		std::string_view line;
		(void) next_field(&text, '\n', &line);
		if (line_grants(line, right, holder))
			return true;
	}
	return false;
}

} // namespace rights
