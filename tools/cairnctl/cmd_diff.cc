// In what two snapshots of an instance differ, or one and what it holds now.
#include <algorithm>
#include <map>

#include <fmt/format.h>

#include "command.h"
#include "shared/visible.h"

namespace {

constexpr const char *current = "current"; // what an instance holds now, beside its snapshots

void declare(CLI::App &app, Options &options)
{
	declare_locator(app, options);
	app.add_option("A", options.name, "A snapshot, or 'current'")->required();
	app.add_option("B", options.other, "A snapshot, or 'current'")->required();
}

// Lines have a NUL between their names, since no name holds one: names with blanks can't make two lines the same.
std::string spaced(std::string text)
{
	std::replace(text.begin(), text.end(), '\0', ' ');
	return text;
}

// A line for each group and property, by its path.
void flatten(const Json &groups, const std::string &path, std::map<std::string, std::string> *lines)
{
	const std::string between(1, '\0');
	for (const Json &group : groups) {
		std::string here = path + "/" + text_in(group);
		(*lines)[here] = text_in(group, "type") + (group.contains("temporary") ? between + "temporary" : "");
		for (const Json &property : group["properties"])
			(*lines)[here + between + text_in(property)] =
			    property["type"].get<std::string>() + " " + values_as_numbers(property).dump();
		if (group.contains("groups"))
			flatten(group["groups"], here, lines);
	}
}

using Lines = std::map<std::string, std::string>;

Lines lines_of(Repository &repository, const Location &location, const std::string &name)
{
	Lines lines;
	flatten(name == current ? repository.groups(location) : repository.groups(location, name), "", &lines);
	return lines;
}

// A line that one side has and the other lacks, or has with another value.
struct Difference {
	char sign;
	const Lines::value_type *line;
};

// In the order of the paths, A before B.
std::vector<Difference> compare(const Lines &before, const Lines &after)
{
	std::vector<Difference> found;
	for (auto a = before.begin(), b = after.begin(); a != before.end() || b != after.end();) {
		int order = a == before.end() ? 1 : b == after.end() ? -1 : a->first.compare(b->first);
		bool same = order == 0 && a->second == b->second;
		if (order <= 0 && !same)
			found.push_back({'-', &*a});
		if (order >= 0 && !same)
			found.push_back({'+', &*b});
		if (order <= 0)
			++a;
		if (order >= 0)
			++b;
	}
	return found;
}

Exit run(const Options &options)
{
	Repository repository = open_repository(options);
	Location location = repository.find(options.locator);
	const Lines before = lines_of(repository, location, options.name);
	const Lines after = lines_of(repository, location, options.other);
	const std::vector<Difference> differences = compare(before, after);
	Json list = Json::array();
	for (const auto &[sign, line] : differences) {
		const std::string path = spaced(line->first), is = spaced(line->second);
		if (options.json)
			list.push_back({{"side", text_to_json(sign == '-' ? options.name : options.other)},
			    {"path", text_to_json(path)}, {"is", text_to_json(is)}});
		else
			fmt::print("{} {}: {}\n", sign, visible(path), visible(is));
	}
	if (options.json)
		write_json(list);
	return differences.empty() ? Exit::done : Exit::findings;
}

} // namespace

const Command diff_command = {
    {"diff", "Compare two snapshots, or one with 'current'", {}, nullptr,
	"Exit code 10 if they differ.\nExample: cairnctl diff net/link:default running current"},
    declare, run};
