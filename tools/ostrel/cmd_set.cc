// ostrel set: changes some properties of an object.
#include <algorithm>

#include <fmt/format.h>

#include "changes.h"
#include "command.h"
#include "database.h"
#include "text.h"
#include "word.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	declare_identifiers(app, options);
	declare_update(app, options);
	declare_if_version(app, options);
}

bool holds(const std::vector<std::string> &values, const std::string &value)
{
	return std::find(values.begin(), values.end(), value) != values.end();
}

void append_values(Property &target, const Property &more)
{
	for (const std::string &value : more.values)
		if (!holds(target.values, value))
			target.values.push_back(value);
}

void remove_values(Property &target, const Property &less)
{
	auto gone = [&](const std::string &value) { return holds(less.values, value); };
	target.values.erase(std::remove_if(target.values.begin(), target.values.end(), gone), target.values.end());
}

// The type is the one given, else the one stored, else string. Only a plain `=` may change a stored type.
const ValueType &settle_type(const PropertyWord &word, const Property *stored)
{
	if (stored == nullptr)
		return word.type != nullptr ? *word.type : string_type();
	if (word.type == nullptr)
		return *stored->type;
	if (word.type != stored->type && word.change != Change::set)
		throw Failure(Exit::invalid, fmt::format("{} holds {}, and += and -= don't change that to {}",
						 word.name, stored->type->word, word.type->word))
		    .next("leave the type out, or set all values with =");
	return *word.type;
}

void apply(Object &object, const PropertyWord &word)
{
	auto found = std::find_if(
	    object.props.begin(), object.props.end(), [&](const Property &p) { return p.name == word.name; });
	Property *stored = found == object.props.end() ? nullptr : &*found;
	Property given = make_property(word, settle_type(word, stored));
	if (stored == nullptr) {
		if (word.change != Change::remove)
			object.props.push_back(std::move(given));
	} else if (word.change == Change::set) {
		*stored = std::move(given);
	} else if (word.change == Change::append) {
		append_values(*stored, given);
	} else {
		remove_values(*stored, given);
	}
}

Exit run(const Options &options)
{
	const std::unique_ptr<Database> database = open_database(options);
	Identifiers id = parse_identifiers(options.words);
	if (id.empty() || options.tail.empty())
		throw Failure(Exit::usage, "set needs identifiers before --, and properties after it");
	std::vector<PropertyWord> words;
	for (const std::string &text : options.tail)
		words.push_back(parse_property_word(text));
	return change_object(*database, options, id, [&](Object &object) {
		for (const PropertyWord &word : words)
			apply(object, word);
	});
}

} // namespace

const Command set_command = {{"set", "Change some properties of an object", {},
				 "the properties: name[:type]=value[,value...], name+=value..., name-=value..."},
    declare, run};
