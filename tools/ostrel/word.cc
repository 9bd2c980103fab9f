// Parsing the words of a command line.
#include "word.h"

#include <algorithm>

#include <fmt/format.h>

#include "failure.h"
#include "text.h"

Identifiers parse_identifiers(const std::vector<std::string> &words)
{
	Identifiers id;
	for (const std::string &word : words) {
		size_t equals = word.find('=');
		if (equals == std::string::npos || equals == 0)
			throw Failure(Exit::usage, fmt::format("'{}' isn't an identifier", word))
			    .next("identifiers are written key=value; properties stand after --");
		std::string key = word.substr(0, equals);
		if (std::any_of(id.begin(), id.end(), [&](const auto &pair) { return pair.first == key; }))
			throw Failure(Exit::usage, fmt::format("the identifier {} is given twice", key));
		id.emplace_back(key, word.substr(equals + 1));
	}
	return id;
}

namespace {

[[noreturn]] void not_a_property(const std::string &word)
{
	throw Failure(Exit::usage, fmt::format("'{}' isn't a property", word))
	    .next("properties are written name[:type]=value[,value...]");
}

const ValueType *parse_type(std::string_view text, const std::string &word)
{
	const ValueType *type = type_by_word(text);
	if (type == nullptr)
		throw Failure(Exit::usage, fmt::format("'{}' in '{}' isn't a type", text, word))
		    .next(fmt::format("types are {}; a colon in a name is written \\:", type_words()));
	return type;
}

} // namespace

PropertyWord parse_property_word(const std::string &word)
{
	PropertyWord result;
	std::string_view text = word;
	size_t equals = find_unescaped(text, "=");
	std::string_view left = text.substr(0, equals);
	if (equals != std::string_view::npos) {
		result.values = split_values(text.substr(equals + 1));
		char before = left.empty() ? '\0' : left.back();
		bool escaped = left.size() > 1 && left[left.size() - 2] == '\\';
		if (!escaped && (before == '+' || before == '-')) {
			result.change = before == '+' ? Change::append : Change::remove;
			left.remove_suffix(1);
		}
	}
	size_t colon = find_unescaped(left, ":");
	if (colon != std::string_view::npos)
		result.type = parse_type(left.substr(colon + 1), word);
	else if (equals == std::string_view::npos)
		not_a_property(word);
	result.name = unescape(left.substr(0, colon));
	if (result.name.empty())
		not_a_property(word);
	return result;
}

Property make_property(const PropertyWord &word, const ValueType &type)
{
	Property property = {word.name, &type, false, {}};
	for (const std::string &value : word.values) {
		try {
			property.values.push_back(type.normalize(value));
		} catch (Failure &failure) {
			failure.message = fmt::format("{}: {}", word.name, failure.message);
			throw;
		}
	}
	return property;
}

std::vector<Property> parse_properties(const std::vector<std::string> &words)
{
	std::vector<Property> props;
	for (const std::string &text : words) {
		PropertyWord word = parse_property_word(text);
		if (word.change != Change::set)
			throw Failure(Exit::usage,
			    fmt::format("'{}': += and -= change what is there, and this command replaces it", text))
			    .next("ostrel set changes single properties; a + or - at the end of a name is written \\+ "
				  "or \\-");
		if (std::any_of(props.begin(), props.end(), [&](const Property &p) { return p.name == word.name; }))
			throw Failure(Exit::usage, fmt::format("the property {} is given twice", word.name));
		props.push_back(make_property(word, word.type != nullptr ? *word.type : string_type()));
	}
	return props;
}
