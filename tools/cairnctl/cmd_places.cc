// Services and instances: add, remove, list.
#include <fnmatch.h>

#include <fmt/format.h>

#include "command.h"

namespace {

void declare_update(CLI::App &app, Options &options)
{
	declare_locator(app, options);
	declare_dry_run(app, options);
}

Exit add(const Options &options)
{
	Repository repository = open_repository(options);
	if (repository.exists(options.locator))
		throw Failure(Exit::exists, fmt::format("'{}' exists already", options.locator));
	if (!options.dry_run)
		(void) repository.add(options.locator);
	return tell_update(options, "added", fmt::format("would add '{}'", options.locator));
}

void declare_remove(CLI::App &app, Options &options)
{
	declare_update(app, options);
	app.add_flag("-r,--recursive", options.recursive, "With all that it holds");
}

Exit remove(const Options &options)
{
	Repository repository = open_repository(options);
	if (options.dry_run)
		(void) repository.find(options.locator);
	else
		repository.remove(options.locator, options.recursive);
	return tell_update(options, "removed", fmt::format("would {} '{}'", options.command, options.locator));
}

void declare_list(CLI::App &app, Options &options)
{
	app.add_option("PATTERN", options.pattern, "Those that fit, as a shell matches file names");
}

std::vector<std::string> all_locators(Repository &repository)
{
	std::vector<std::string> locators;
	auto add_instances = [&](const Location &service) {
		std::vector<Location> instances = repository.instances(service);
		locators.push_back(service.locator);
		for (const Location &instance : instances)
			locators.push_back(instance.locator);
	};
	for (const Location &service : repository.services())
		unless_removed([&] { add_instances(service); }, [] {});
	return locators;
}

Exit list(const Options &options)
{
	Repository repository = open_repository(options);
	std::vector<std::string> found;
	for (const std::string &locator : all_locators(repository))
		if (options.pattern.empty() || fnmatch(options.pattern.c_str(), locator.c_str(), 0) == 0)
			found.push_back(locator);
	print_names(found, options);
	return Exit::done;
}

} // namespace

const Command add_command = {{"add", "Make a service or an instance, and what is missing of it", {}, nullptr,
				 "Example: cairnctl add net/link:default"},
    declare_update, add};
const Command remove_command = {
    {"remove", "Remove a service or an instance", {"delete"}, nullptr, "Example: cairnctl remove --recursive net/link"},
    declare_remove, remove};
const Command list_command = {
    {"list", "List services and instances", {}, nullptr, "Example: cairnctl list 'net/*'"}, declare_list, list};
