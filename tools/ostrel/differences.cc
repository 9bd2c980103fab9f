#include "differences.h"

#include <deque>
#include <string>
#include <unordered_map>

#include <fmt/format.h>

#include "document.h"
#include "shared/terminal.h"
#include "text.h"

namespace {

const char *kind_of(const Difference &difference)
{
	if (difference.before == nullptr)
		return "added";
	return difference.after == nullptr ? "removed" : "changed";
}

void print_text(FILE *stream, char sign, const std::string &text)
{
	const char *colour = sign == '+' ? "\033[32m" : "\033[31m";
	bool coloured = terminal_colour(fileno(stream)) && sign != ' ';
	fmt::print(stream, "{}{} {}{}\n", coloured ? colour : "", sign, text, coloured ? "\033[0m" : "");
}

void print_property(FILE *stream, char sign, const Property *property)
{
	if (property != nullptr)
		print_text(stream, sign,
		    fmt::format("  {}:{}={}", escape(property->name), property->type->word, value_text(*property)));
}

} // namespace

std::vector<PropertyDifference> compare_props(const Object &before, const Object &after)
{
	std::vector<PropertyDifference> found;
	for (const Property &property : before.props) {
		const Property *other = after.find(property.name);
		if (other == nullptr || !same_value(property, *other))
			found.push_back({&property, other});
	}
	for (const Property &property : after.props)
		if (before.find(property.name) == nullptr)
			found.push_back({nullptr, &property});
	return found;
}

std::vector<Difference> compare(
    const std::vector<Object> &before, const std::vector<Object> &after, bool case_sensitive)
{
	std::unordered_map<std::string, std::deque<const Object *>> unpaired;
	for (const Object &object : after)
		unpaired[identity(object.id, case_sensitive)].push_back(&object);
	std::vector<Difference> found;
	for (const Object &object : before) {
		auto &partners = unpaired[identity(object.id, case_sensitive)];
		if (partners.empty()) {
			found.push_back({&object, nullptr, {}});
			continue;
		}
		std::vector<PropertyDifference> props = compare_props(object, *partners.front());
		if (!props.empty())
			found.push_back({&object, partners.front(), std::move(props)});
		partners.pop_front();
	}
	for (const Object &object : after) {
		auto &partners = unpaired[identity(object.id, case_sensitive)];
		if (!partners.empty() && partners.front() == &object) {
			found.push_back({nullptr, &object, {}});
			partners.pop_front();
		}
	}
	return found;
}

Json differences_to_json(const std::vector<Difference> &differences)
{
	Json list = Json::array();
	for (const Difference &difference : differences) {
		Json row;
		row["kind"] = kind_of(difference);
		const Object &shown = difference.before != nullptr ? *difference.before : *difference.after;
		row["id"] = id_to_json(shown.id);
		if (difference.before == nullptr || difference.after == nullptr) {
			row["props"] = object_to_json(shown)["props"];
		} else {
			row["props"] = Json::object();
			for (const auto &[before, after] : difference.props) {
				const Property &named = before != nullptr ? *before : *after;
				row["props"][text_to_json(named.name)] = {
				    {"before", before == nullptr ? Json() : property_to_json(*before)},
				    {"after", after == nullptr ? Json() : property_to_json(*after)}};
			}
		}
		list.push_back(std::move(row));
	}
	return list;
}

void print_differences(const std::vector<Difference> &differences, FILE *stream)
{
	for (const Difference &difference : differences) {
		const Object &shown = difference.before != nullptr ? *difference.before : *difference.after;
		bool changed = difference.before != nullptr && difference.after != nullptr;
		char sign = changed ? ' ' : difference.before != nullptr ? '-' : '+';
		print_text(stream, sign, id_text(shown.id));
		if (!changed)
			for (const Property &property : shown.props)
				print_property(stream, sign, &property);
		for (const auto &[before, after] : difference.props) {
			print_property(stream, '-', before);
			print_property(stream, '+', after);
		}
	}
}
