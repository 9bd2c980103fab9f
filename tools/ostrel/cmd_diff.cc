// ostrel diff: in what two databases differ.
#include <deque>
#include <unistd.h>
#include <unordered_map>

#include <fmt/format.h>

#include "command.h"
#include "database.h"
#include "document.h"
#include "shared/terminal.h"
#include "stores.h"
#include "text.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	app.add_option("OTHER", options.other, "The database to compare with")->required();
	app.add_option("--other-enclave", options.other_enclave, "The enclave in which that one lies")
	    ->type_name("NAME|ID");
}

// An object or a property that differs, as it is on either side; NULL: it is missing there.
struct PropertyDifference {
	const Property *before;
	const Property *after;
};

struct Difference {
	const Object *before;
	const Object *after;
	std::vector<PropertyDifference> props;
};

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

// Pairs objects by their identifiers, and several with the same identifiers in their order.
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

const char *kind_of(const Difference &difference)
{
	if (difference.before == nullptr)
		return "added";
	return difference.after == nullptr ? "removed" : "changed";
}

void print_json(const std::vector<Difference> &differences)
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
	write_json(Json{{"differences", list}});
}

void print_text(char sign, const std::string &text)
{
	const char *colour = sign == '+' ? "\033[32m" : "\033[31m";
	bool coloured = terminal_colour(STDOUT_FILENO) && sign != ' ';
	fmt::print("{}{} {}{}\n", coloured ? colour : "", sign, text, coloured ? "\033[0m" : "");
}

void print_property(char sign, const Property *property)
{
	if (property != nullptr)
		print_text(sign,
		    fmt::format("  {}:{}={}", escape(property->name), property->type->word, value_text(*property)));
}

void print_differences(const std::vector<Difference> &differences)
{
	for (const Difference &difference : differences) {
		const Object &shown = difference.before != nullptr ? *difference.before : *difference.after;
		bool changed = difference.before != nullptr && difference.after != nullptr;
		char sign = changed ? ' ' : difference.before != nullptr ? '-' : '+';
		print_text(sign, id_text(shown.id));
		if (!changed)
			for (const Property &property : shown.props)
				print_property(sign, &property);
		for (const auto &[before, after] : difference.props) {
			print_property('-', before);
			print_property('+', after);
		}
	}
}

Exit run(const Options &options)
{
	const std::unique_ptr<Database> one = open_database(options);
	const std::unique_ptr<Database> other =
	    open_database(options.other, enclave_option(options.other_enclave), options.case_sensitive);
	std::vector<Object> before = one->objects(), after = other->objects();
	one->warn_of_unread();
	other->warn_of_unread();
	std::vector<Difference> differences = compare(before, after, options.case_sensitive);
	if (options.json)
		print_json(differences);
	else
		print_differences(differences);
	return differences.empty() ? Exit::done : Exit::differences;
}

} // namespace

const Command diff_command = {{"diff", "Tell in what two databases differ"}, declare, run};
