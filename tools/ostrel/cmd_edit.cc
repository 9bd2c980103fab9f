// ostrel edit: objects in an editor.
//
// The text lies in a file of its own until it is committed. It stays, and is named, whenever somebody's work would be lost.
//
// Divisions: the editor; the changes; the command.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <unordered_set>

#include <fmt/format.h>

#include "changes.h"
#include "command.h"
#include "database.h"
#include "differences.h"
#include "edit_text.h"
#include "shared/terminal.h"
#include "word.h"

namespace {

// ---- The editor ----

std::string make_text_file(const std::string &text)
{
	const char *directory = getenv("TMPDIR");
	std::string path =
	    std::string(directory != nullptr && *directory != '\0' ? directory : "/tmp") + "/ostrel-edit-XXXXXX";
	const int fd = mkstemp(path.data()); // with mode 0600: values may be secrets
	if (fd < 0)
		throw Failure(exit_of(ostrel_errno2error(errno)), strerror(errno)).in(path);
	(void) close(fd);
	std::ofstream file(path, std::ios::binary);
	file << text;
	file.close();
	if (!file) {
		(void) unlink(path.c_str());
		throw Failure(Exit::memory, "the text can't be written").in(path);
	}
	return path;
}

std::string editor()
{
	for (const char *name : {"VISUAL", "EDITOR"})
		if (const char *command = getenv(name); command != nullptr && *command != '\0')
			return command;
	return "vi";
}

// Signals of the terminal are the editor's while it runs.
class SignalsOfTheEditor {
public:
	SignalsOfTheEditor()
	{
		struct sigaction ignore = {};
		ignore.sa_handler = SIG_IGN;
		for (size_t i = 0; i < std::size(numbers); i++)
			(void) sigaction(numbers[i], &ignore, &before_[i]); // can't fail for signals that exist
	}
	~SignalsOfTheEditor()
	{
		for (size_t i = 0; i < std::size(numbers); i++)
			(void) sigaction(numbers[i], &before_[i], nullptr);
	}
	SignalsOfTheEditor(const SignalsOfTheEditor &) = delete;
	SignalsOfTheEditor &operator=(const SignalsOfTheEditor &) = delete;

	static constexpr int numbers[] = {SIGINT, SIGQUIT};

private:
	struct sigaction before_[2] = {};
};

void run_editor(const std::string &path)
{
	std::string command = editor() + " \"$@\"";
	std::string file = path;
	char shell[] = "sh", option[] = "-c";
	char *words[] = {shell, option, command.data(), shell, file.data(), nullptr};
	posix_spawnattr_t attributes;
	sigset_t defaults;
	(void) sigemptyset(&defaults);
	for (int number : SignalsOfTheEditor::numbers)
		(void) sigaddset(&defaults, number);
	if (posix_spawnattr_init(&attributes) != 0)
		throw std::bad_alloc();
	(void) posix_spawnattr_setsigdefault(&attributes, &defaults); // can't fail for a valid object
	(void) posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
	const SignalsOfTheEditor signals;
	pid_t child = 0;
	const int error = posix_spawn(&child, "/bin/sh", nullptr, &attributes, words, environ);
	(void) posix_spawnattr_destroy(&attributes);
	if (error != 0)
		throw Failure(Exit::failure, fmt::format("no editor can be started: {}", strerror(error)));
	int status = 0;
	while (waitpid(child, &status, 0) < 0 && errno == EINTR)
		;
	if (status != 0)
		throw Failure(Exit::failure, fmt::format("the editor '{}' failed; nothing was changed", editor()));
}

bool agrees()
{
	fmt::print(stderr, "Commit this? [y/N] ");
	std::string answer;
	return std::getline(std::cin, answer) && (answer == "y" || answer == "yes" || answer == "Y");
}

// ---- The changes ----

// Those of the database's objects that the text is about, or that it has itself.
std::vector<Object> objects_of(Database &database, const EditText &text)
{
	std::unordered_set<std::string> keys;
	for (const Identifiers &id : text.about)
		keys.insert(database.key(id));
	for (const Object &object : text.objects)
		keys.insert(database.key(object.id));
	std::vector<Object> found = database.objects_if_any().value_or(std::vector<Object>());
	std::erase_if(found, [&](const Object &object) { return !keys.contains(database.key(object.id)); });
	return found;
}

void require_single(Database &database, const std::vector<Object> &objects, const std::string &where)
{
	std::unordered_set<std::string> keys;
	for (const Object &object : objects)
		if (!keys.insert(database.key(object.id)).second)
			throw Failure(Exit::invalid, fmt::format("several objects are {}", id_text(object.id)))
			    .in(where);
}

Changes changes_of(Database &database, const std::vector<Difference> &differences)
{
	Changes changes;
	std::vector<Step> removals;
	for (const Difference &difference : differences) {
		const Object *before = difference.before;
		const Identifiers &id = before != nullptr ? before->id : difference.after->id;
		changes.conditions.push_back({id, before != nullptr ? before->version : ""});
		if (difference.after == nullptr)
			removals.push_back({Step::Kind::remove, id});
		else
			changes.steps.push_back({Step::Kind::put, id, difference.after->props});
	}
	// A group is made after those above it, and removed before them.
	std::stable_sort(changes.steps.begin(), changes.steps.end(),
	    [&](const Step &a, const Step &b) { return database.depth(a.id) < database.depth(b.id); });
	changes.steps.insert(changes.steps.end(), removals.rbegin(), removals.rend());
	return changes;
}

void rehearse(Database &database, const std::vector<Difference> &differences)
{
	for (const Difference &difference : differences) {
		if (difference.after == nullptr)
			continue;
		const Object *before = difference.before;
		database.check_import(*difference.after, before != nullptr ? Presence{true, *before} : Presence());
	}
}

Exit tell(const Options &options, const char *done, const std::vector<Difference> &differences)
{
	if (options.json) {
		Json json = update_answer(done, options.dry_run);
		json["differences"] = differences_to_json(differences);
		write_json(json);
	}
	return Exit::done;
}

[[noreturn]] void fail_changed(
    Database &database, const EditText &text, const std::vector<Object> &base, const Changes &changes)
{
	const std::vector<Object> now = objects_of(database, text);
	if (!reporting_json()) {
		fmt::print("changed meanwhile by others:\n");
		print_differences(compare(base, now, database.case_sensitive()));
		fmt::print("your changes:\n");
		print_differences(compare(base, text.objects, database.case_sensitive()));
	}
	Failure failure = conflict(database, changes.conditions);
	failure.hint.clear();
	throw failure;
}

// ---- The command ----

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	declare_identifiers(app, options);
	declare_update(app, options);
	app.add_flag("-y,--yes", options.yes, "Don't ask before the change is made");
	app.add_option("--continue", options.other, "Go on with a text that was kept")->type_name("FILE");
}

std::vector<Object> selected(Database &database, const Options &options)
{
	std::vector<Object> found = database.objects(parse_identifiers(options.words));
	if (found.empty())
		throw Failure(Exit::not_found, "no object is selected")
		    .in(database.label())
		    .next(fmt::format("ostrel list {} lists what is there", database.label()));
	require_single(database, found, database.label());
	return found;
}

// Everything after the text is there. `path` is it; *done: it isn't needed any more. A text that was kept is compared with what
// is stored once the editor has ended: until then it may be one that can't be read.
Exit edit(Database &database, const Options &options, std::vector<Object> &&base, const std::string &path, bool *done)
{
	run_editor(path);
	const EditText text = read_edit_text(path);
	require_single(database, text.objects, path);
	if (!options.other.empty()) {
		base = objects_of(database, text);
		require_single(database, base, database.label());
	}
	const std::vector<Difference> differences = compare(base, text.objects, database.case_sensitive());
	*done = options.dry_run || differences.empty();
	if (differences.empty()) {
		note("nothing was changed");
		return tell(options, "unchanged", differences);
	}
	if (!options.json)
		print_differences(differences);
	rehearse(database, differences);
	if (options.dry_run)
		return tell(options, "changed", differences);
	(void) std::fflush(stdout);
	if (!options.yes && !agrees())
		throw Failure(Exit::failure, "nothing was changed").in(database.label());
	begin_update(database, options);
	database.require_place();
	const Changes changes = changes_of(database, differences);
	const Outcome outcome = commit_or_wait(database, options, changes);
	if (outcome == Outcome::conflict)
		fail_changed(database, text, base, changes);
	if (outcome == Outcome::unsupported)
		throw without_conditions(database);
	*done = true;
	return tell(options, "changed", differences);
}

Exit run(const Options &options)
{
	if (!options.yes && !(is_terminal(STDIN_FILENO) && is_terminal(STDOUT_FILENO)))
		throw Failure(Exit::usage, "edit asks before it changes anything, and this is no terminal")
		    .next("-y makes the change without asking; ostrel set changes single properties");
	if (!options.other.empty() && !options.words.empty())
		throw Failure(Exit::usage, "--continue takes no identifiers: the text names its objects");
	const std::unique_ptr<Database> database = open_database(options);
	begin_update(*database, options, Database::Loss::refused, Database::Hold::no);
	database->require_place();
	database->want_versions();
	std::vector<Object> base;
	std::string path = options.other;
	if (path.empty()) {
		base = selected(*database, options);
		path = make_text_file(edit_text(database->label(), base));
	}
	bool done = false;
	try {
		const Exit end = edit(*database, options, std::move(base), path, &done);
		if (done && !(options.dry_run && !options.other.empty()))
			(void) unlink(path.c_str()); // what stays harms nobody
		return end;
	} catch (Failure &failure) {
		failure.hint = fmt::format("{}{}the text is kept: ostrel edit {} --continue {}", failure.hint,
		    failure.hint.empty() ? "" : "; ", database->label(), path);
		throw;
	}
}

} // namespace

const Command edit_command = {{"edit", "Change objects in an editor ($VISUAL, $EDITOR)"}, declare, run};
