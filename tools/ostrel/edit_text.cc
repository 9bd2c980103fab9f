#include "edit_text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string_view>

#include <fmt/format.h>

#include "failure.h"
#include "text.h"
#include "word.h"

namespace {

constexpr std::string_view about_mark = "#: ";

std::string id_line(const Identifiers &id)
{
	std::string line;
	for (const auto &[name, value] : id)
		line += fmt::format("{}{}={}", line.empty() ? "" : " ", visible(name, "\\= #:"), visible(value, "\\ "));
	return line;
}

std::string property_line(const Property &property)
{
	std::string line = fmt::format("  {}:{}", visible(property.name, "\\,:=+- "), property.type->word);
	return property.values.empty() ? line : line + "=" + value_text(property);
}

Identifiers parse_id_line(std::string_view line)
{
	Identifiers id;
	while (!line.empty()) {
		const size_t end = std::min(find_unescaped(line, " \t"), line.size());
		const std::string_view word = line.substr(0, end);
		line.remove_prefix(std::min(end + 1, line.size()));
		if (word.empty())
			continue;
		const size_t equals = find_unescaped(word, "=");
		if (equals == std::string_view::npos || equals == 0)
			throw Failure(Exit::invalid, fmt::format("'{}' isn't an identifier", word))
			    .next("identifiers are written key=value; the lines of properties are indented");
		std::string name = unescape(word.substr(0, equals));
		if (std::any_of(id.begin(), id.end(), [&](const auto &pair) { return pair.first == name; }))
			throw Failure(Exit::invalid, fmt::format("the identifier {} is given twice", name));
		id.emplace_back(std::move(name), unescape(word.substr(equals + 1)));
	}
	return id;
}

class Reader {
public:
	void take(const std::string &line)
	{
		const size_t first = line.find_first_not_of(" \t");
		if (line.starts_with(about_mark))
			text_.about.push_back(parse_id_line(std::string_view(line).substr(about_mark.size())));
		else if (first != std::string::npos && line[0] != '#')
			take_content(line, first);
	}
	EditText finish()
	{
		end_object();
		return std::move(text_);
	}

private:
	void take_content(const std::string &line, size_t first)
	{
		if (first > 0) {
			if (!open_)
				throw Failure(Exit::invalid, "a property without an object")
				    .next("the line of an object's identifiers isn't indented");
			words_.push_back(line.substr(first));
			(void) parse_properties(words_); // what is wrong is said of this line
			return;
		}
		end_object();
		text_.objects.push_back({parse_id_line(line), {}});
		open_ = true;
	}
	void end_object()
	{
		if (open_)
			text_.objects.back().props = parse_properties(words_);
		words_.clear();
	}

	EditText text_;
	std::vector<std::string> words_; // properties of the last object
	bool open_ = false;
};

} // namespace

std::string edit_text(const std::string &label, const std::vector<Object> &objects)
{
	std::string text = fmt::format("# {}\n# Lines that begin with # don't count. An object whose lines are gone is "
				       "removed; new lines make a new one.\n",
	    visible(label));
	for (const Object &object : objects) {
		text += id_line(object.id) + "\n";
		for (const Property &property : object.props)
			text += property_line(property) + "\n";
	}
	text += "# The objects that this is about; leave these lines as they are.\n";
	for (const Object &object : objects)
		text += fmt::format("{}{}\n", about_mark, id_line(object.id));
	return text;
}

EditText read_edit_text(const std::string &path)
{
	errno = 0;
	std::ifstream file(path, std::ios::binary);
	if (!file)
		throw Failure(exit_of(ostrel_errno2error(errno)), strerror(errno)).in(path);
	Reader reader;
	std::string line;
	for (size_t number = 1; std::getline(file, line); number++) {
		try {
			reader.take(line);
		} catch (Failure &failure) {
			failure.code = Exit::invalid;
			throw failure.in(path).on_line(number);
		}
	}
	return reader.finish();
}
