// The daemon and its store: backup, verify, status.
#include <algorithm>
#include <sys/stat.h>

#include <fmt/format.h>

#include "command.h"
#include "files.h"
#include "shared/visible.h"

namespace {

void declare_backup(CLI::App &app, Options &options)
{
	app.add_option("FILE", options.file, "Where the copy goes; replaced if it is there")->required();
}

rpy_status_t status_of(const Repository &repository)
{
	rpy_status_t state;
	if (_rpy_status(repository.handle(), &state) == -1)
		fail("the daemon's state");
	return state;
}

// A daemon writes into no other file than the one that it has locked: with a copy in its place it would refuse all updates.
void check_is_not_store(const std::string &path, const char *store)
{
	struct stat given, served;
	if (stat(path.c_str(), &given) == 0 && stat(store, &served) == 0 && given.st_dev == served.st_dev &&
	    given.st_ino == served.st_ino)
		throw Failure(Exit::invalid, fmt::format("{}: is the store itself", visible(path)))
		    .next("give another path");
}

Exit backup(const Options &options)
{
	Repository repository = open_repository(options);
	check_is_not_store(options.file, status_of(repository).rs_file);
	void *bytes = nullptr;
	size_t size = 0;
	if (_rpy_backup(repository.handle(), &bytes, &size) == -1)
		fail("the backup");
	Heap<void> hold(bytes);
	write_file(options.file, {static_cast<const char *>(bytes), size});
	return Exit::done;
}

Exit verify(const Options &options)
{
	Repository repository = open_repository(options);
	char *text = nullptr;
	if (_rpy_verify(repository.handle(), &text) == -1)
		fail("the check");
	Heap<char> hold(text);
	Json lines = Json::array();
	std::string findings(text);
	for (size_t begin = 0; begin < findings.size();) {
		size_t end = std::min(findings.find('\n', begin), findings.size());
		lines.push_back(visible(findings.substr(begin, end - begin)));
		begin = end + 1;
	}
	if (options.json)
		write_json({{"findings", lines}});
	else
		for (const Json &line : lines)
			fmt::print("{}\n", line.get_ref<const std::string &>());
	return lines.empty() ? Exit::done : Exit::findings;
}

Exit status(const Options &options)
{
	Repository repository = open_repository(options);
	const rpy_status_t state = status_of(repository);
	if (options.json) {
		write_json({{"pid", state.rs_pid}, {"file", visible(state.rs_file)}, {"format", state.rs_format},
		    {"writable", state.rs_writable != 0}, {"groups", number_to_json(state.rs_groups)},
		    {"bytes", number_to_json(state.rs_bytes)}});
		return Exit::done;
	}
	fmt::print("pid       {}\nfile      {}\nformat    {}\nwritable  {}\ngroups    {}\nbytes     {}\n", state.rs_pid,
	    visible(state.rs_file), state.rs_format, state.rs_writable != 0 ? "yes" : "no", state.rs_groups,
	    state.rs_bytes);
	return Exit::done;
}

} // namespace

const Command backup_command = {{"backup", "Copy the store while the daemon runs", {}, nullptr,
				    "Example: cairnctl backup /var/backups/repository.db"},
    declare_backup, backup};
const Command verify_command = {
    {"verify", "Check the store in full", {}, nullptr, "Exit code 10 if something was found."},
    declare_nothing<Options>, verify};
const Command status_command = {{"status", "Show the daemon and its store"}, declare_nothing<Options>, status};
