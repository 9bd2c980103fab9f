// ostrel obsolete: sets the files of a directory aside whose names match a pattern.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

#include <fmt/format.h>
#include <meridon/regcmp.h>

#include "command.h"
#include "document.h"
#include "log_messages.h"
#include "text.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	app.add_option("DIR", options.database, "The directory")->required();
	app.add_option("PATTERN", options.other, "An extended regular expression; it matches anywhere in a name")
	    ->required();
	declare_dry_run(app, options);
}

struct Release {
	void operator()(char *memory) const { free(memory); }
	void operator()(DIR *stream) const { (void) closedir(stream); }
};

struct Entry {
	std::string name;
	struct stat before = {};
	bool renamed = false;
	std::string message; // why it wasn't
};

[[noreturn]] void fail_on(const std::string &dir)
{
	int error = errno;
	throw Failure(exit_of(ostrel_errno2error(error)), strerror(error))
	    .in(dir)
	    .next("name a directory that can be read");
}

std::string new_name(const std::string &name)
{
	return name + ".obsolete";
}

// The entries that match now, sorted by name. The library searches by itself and reports nothing: the result is found by
// comparison with this list.
std::vector<Entry> matching_entries(const std::string &dir, const std::string &pattern)
{
	if (pattern.empty()) // such as a variable that isn't set
		throw Failure(Exit::usage, "an empty pattern matches every entry").next("write '.' if that is meant");
	std::unique_ptr<char, Release> compiled(regcmp(pattern.c_str(), nullptr));
	if (!compiled)
		throw Failure(Exit::usage, fmt::format("'{}' isn't an extended regular expression", pattern))
		    .next("a backslash takes the meaning from ( ) [ ] { } * + ? . ^ $ |");
	std::unique_ptr<DIR, Release> stream(opendir(dir.c_str()));
	if (!stream)
		fail_on(dir);
	std::vector<Entry> entries;
	for (errno = 0; dirent *found = readdir(stream.get()); errno = 0) {
		Entry entry = {found->d_name, {}, false, ""};
		if (regex(compiled.get(), found->d_name) != nullptr &&
		    fstatat(dirfd(stream.get()), found->d_name, &entry.before, AT_SYMLINK_NOFOLLOW) == 0)
			entries.push_back(entry);
	}
	if (errno != 0)
		fail_on(dir);
	std::sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) { return a.name < b.name; });
	return entries;
}

bool is_there_now(const std::string &dir, const std::string &name, const struct stat &before)
{
	struct stat now;
	return lstat(fmt::format("{}/{}", dir, name).c_str(), &now) == 0 && now.st_dev == before.st_dev &&
	       now.st_ino == before.st_ino;
}

// The library reports a failed entry in its log only, and cuts a message that is too long.
std::string message_for(const std::string &dir, const std::string &name, std::vector<std::string> &messages)
{
	std::string whole = fmt::format("Rename obsolete file {}/{} failed", dir, name).substr(0, OSTREL_LOG_TEXT_MAX);
	auto found = std::find(messages.begin(), messages.end(), whole);
	if (found == messages.end())
		return "";
	messages.erase(found);
	return whole;
}

// Renames the files, and returns the messages that are about no entry.
std::vector<std::string> set_aside(const std::string &dir, const std::string &pattern, std::vector<Entry> &entries)
{
	std::vector<std::string> messages =
	    log_messages([&] { ostrel_make_files_obsolete(dir.c_str(), pattern.c_str()); });
	for (Entry &entry : entries) {
		entry.message = message_for(dir, entry.name, messages);
		entry.renamed = entry.message.empty() && is_there_now(dir, new_name(entry.name), entry.before);
		if (!entry.renamed && entry.message.empty())
			entry.message = "it was renamed or removed by somebody else";
	}
	return messages;
}

void print_json(const Options &options, const std::vector<Entry> &entries)
{
	Json files = Json::array();
	for (const Entry &entry : entries) {
		Json file = {{"name", text_to_json(entry.name)}, {"new_name", text_to_json(new_name(entry.name))}};
		if (!options.dry_run)
			file["renamed"] = entry.renamed;
		if (!entry.message.empty())
			file["message"] = text_to_json(entry.message);
		files.push_back(file);
	}
	write_json(Json{{"directory", text_to_json(options.database)}, {"dry_run", options.dry_run}, {"files", files}});
}

void print_lines(const Options &options, const std::vector<Entry> &entries)
{
	for (const Entry &entry : entries)
		if (options.dry_run || entry.renamed)
			fmt::print("{}{} -> {}\n", options.dry_run ? "would be renamed: " : "", visible(entry.name),
			    visible(new_name(entry.name)));
}

Exit run(const Options &options)
{
	std::vector<Entry> entries = matching_entries(options.database, options.other);
	std::vector<std::string> messages;
	if (!options.dry_run)
		messages = set_aside(options.database, options.other, entries);
	if (options.json)
		print_json(options, entries);
	else
		print_lines(options, entries);
	for (const Entry &entry : entries)
		if (!entry.message.empty())
			report(Failure(Exit::failure, entry.message)
				   .in(fmt::format("{}/{}", options.database, entry.name)));
	for (const std::string &message : messages)
		report(Failure(Exit::failure, message).in(options.database));
	bool failed = !messages.empty() || std::any_of(entries.begin(), entries.end(),
					       [](const Entry &entry) { return !entry.message.empty(); });
	return failed ? Exit::failure : Exit::done;
}

} // namespace

const Command obsolete_command = {{"obsolete", "Set files aside whose names match a pattern"}, declare, run};
