// ostrel list, also walk: the objects that identifiers select.
#include <algorithm>
#include <charconv>
#include <unistd.h>

#include <fmt/format.h>

#include "command.h"
#include "database.h"
#include "document.h"
#include "shared/terminal.h"
#include "text.h"
#include "word.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	declare_identifiers(app, options);
	app.add_flag("-x,--exact", options.exact, "Select by all identifiers, not by some of them");
	app.add_option("-s,--sort", options.sort, "Sort by an identifier or a property")->type_name("KEY");
	app.add_option("-p,--prop", options.props, "Show this property only; can be repeated")
	    ->type_name("PROP")
	    ->allow_extra_args(false);
	app.add_flag("-t,--types", options.types, "Show the types of the properties");
}

// ---- Sorting ----

struct SortKey {
	bool present = false;
	bool numeric = false;
	std::vector<std::string> values;
};

SortKey sort_key(const Object &object, const std::string &name)
{
	for (const auto &[key, value] : object.id)
		if (key == name)
			return {true, false, {value}};
	const Property *property = object.find(name);
	return property == nullptr ? SortKey{} : SortKey{true, property->type->numeric, property->values};
}

// Numbers in the fixed form: without leading zeros, so the longer one is the greater one.
bool number_less(std::string_view a, std::string_view b)
{
	bool a_negative = a[0] == '-', b_negative = b[0] == '-';
	if (a_negative != b_negative)
		return a_negative;
	bool less = a.size() != b.size() ? a.size() < b.size() : a < b;
	return a_negative ? !less && a != b : less;
}

// Objects without the key come last, then texts follow numbers.
bool key_less(const SortKey &a, const SortKey &b)
{
	if (a.present != b.present)
		return a.present;
	if (a.numeric != b.numeric)
		return a.numeric;
	if (!a.numeric)
		return a.values < b.values;
	return std::lexicographical_compare(
	    a.values.begin(), a.values.end(), b.values.begin(), b.values.end(), number_less);
}

void sort_objects(std::vector<Object> &objects, const std::string &name)
{
	std::vector<std::pair<SortKey, Object>> keyed;
	keyed.reserve(objects.size());
	for (Object &object : objects) {
		SortKey key = sort_key(object, name);
		keyed.emplace_back(std::move(key), std::move(object));
	}
	std::stable_sort(
	    keyed.begin(), keyed.end(), [](const auto &a, const auto &b) { return key_less(a.first, b.first); });
	for (size_t i = 0; i < objects.size(); i++)
		objects[i] = std::move(keyed[i].second);
}

// ---- Printing ----

void add_once(std::vector<std::string> &names, const std::string &name)
{
	if (std::find(names.begin(), names.end(), name) == names.end())
		names.push_back(name);
}

struct Columns {
	std::vector<std::string> ids, props;
};

Columns collect_columns(const std::vector<Object> &objects, const Options &options)
{
	Columns columns;
	columns.props = options.props;
	for (const Object &object : objects) {
		for (const auto &pair : object.id)
			add_once(columns.ids, pair.first);
		for (const Property &property : object.props)
			add_once(columns.props, property.name);
	}
	return columns;
}

std::vector<std::string> id_cells(const Object &object, const Columns &columns)
{
	std::vector<std::string> cells;
	for (const std::string &name : columns.ids) {
		auto found = std::find_if(
		    object.id.begin(), object.id.end(), [&](const auto &pair) { return pair.first == name; });
		cells.push_back(found == object.id.end() ? "" : visible(found->second));
	}
	return cells;
}

std::string cell_text(const Property *property, bool types)
{
	if (property == nullptr)
		return "-";
	return types ? fmt::format("{}:{}", property->type->word, value_text(*property)) : value_text(*property);
}

// One column for each property.
Table wide_table(const std::vector<Object> &objects, const Columns &columns, bool types)
{
	Table table;
	for (const auto *names : {&columns.ids, &columns.props})
		for (const std::string &name : *names)
			table.head.push_back(visible(name));
	for (const Object &object : objects) {
		std::vector<std::string> cells = id_cells(object, columns);
		for (const std::string &name : columns.props)
			cells.push_back(cell_text(object.find(name), types));
		table.rows.push_back(std::move(cells));
	}
	return table;
}

// One column for all properties, which wraps.
Table narrow_table(const std::vector<Object> &objects, const Columns &columns, bool types)
{
	Table table;
	for (const std::string &name : columns.ids)
		table.head.push_back(visible(name));
	table.head.push_back("properties");
	for (const Object &object : objects) {
		std::vector<std::string> cells = id_cells(object, columns);
		std::string text;
		for (const Property &property : object.props)
			text += fmt::format("{}{}", text.empty() ? "" : " ", property_text(property, types));
		cells.push_back(std::move(text));
		table.rows.push_back(std::move(cells));
	}
	return table;
}

void print_objects_table(const std::vector<Object> &objects, const Options &options)
{
	if (objects.empty()) {
		note("no objects");
		return;
	}
	Columns columns = collect_columns(objects, options);
	Table table = wide_table(objects, columns, options.types);
	bool asked = !options.props.empty() || columns.props.size() <= 1;
	if (!asked && table_width(table) > terminal_width(STDOUT_FILENO))
		table = narrow_table(objects, columns, options.types);
	print_table(table);
}

void keep_chosen(Object &object, const std::vector<std::string> &props)
{
	if (props.empty())
		return;
	std::vector<Property> chosen;
	for (const std::string &name : props)
		if (const Property *property = object.find(name))
			chosen.push_back(*property);
	object.props = std::move(chosen);
}

Exit run(const Options &options)
{
	const std::unique_ptr<Database> database = open_database(options);
	Identifiers id = parse_identifiers(options.words);
	bool table = !options.json && is_terminal(STDOUT_FILENO);
	std::optional<DocumentWriter> document;
	auto print = [&](Object &&object) {
		keep_chosen(object, options.props);
		if (!options.json)
			return fmt::print("{}\n", object_line(object, options.types));
		if (!document)
			document.emplace();
		document->add(object);
	};

	// Without a table or an order each object is printed as it comes.
	if (!table && options.sort.empty()) {
		database->walk(id, options.exact, print);
	} else {
		std::vector<Object> objects = database->objects(id, options.exact);
		if (!options.sort.empty())
			sort_objects(objects, options.sort);
		if (table) {
			for (Object &object : objects)
				keep_chosen(object, options.props);
			print_objects_table(objects, options);
			database->warn_of_unread();
			return Exit::done;
		}
		for (Object &object : objects)
			print(std::move(object));
	}
	if (options.json) {
		if (!document)
			document.emplace();
		document->finish();
	}
	database->warn_of_unread();
	return Exit::done;
}

} // namespace

const Command list_command = {{"list", "List the objects that identifiers select", {"walk", "ls"}}, declare, run};
