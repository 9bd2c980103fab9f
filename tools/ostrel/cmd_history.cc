// ostrel history: who changed what, and when; ostrel undo: takes a change back.
#include <algorithm>
#include <ctime>

#include <fmt/format.h>

#include "changes.h"
#include "command.h"
#include "database.h"
#include "differences.h"
#include "document.h"
#include "groups.h"
#include "history.h"
#include "text.h"
#include "word.h"

namespace {

constexpr int64_t second = 1'000'000'000;

void declare_history(CLI::App &app, Options &options)
{
	declare_database(app, options);
	declare_identifiers(app, options);
	app.add_option("--since", options.since, "Only what came after this revision")->type_name("REVISION");
}

std::string time_text(int64_t at_ns, bool is_utc)
{
	const time_t at = at_ns / second;
	struct tm parts;
	char text[32];
	if (is_utc) {
		(void) gmtime_r(&at, &parts);
		(void) strftime(text, sizeof(text), "%FT%T", &parts);
		return fmt::format("{}.{:03}Z", text, at_ns % second / 1'000'000);
	}
	(void) localtime_r(&at, &parts);
	(void) strftime(text, sizeof(text), "%F %T", &parts);
	return text;
}

std::vector<Difference> differences_of(const PastChange &change)
{
	const auto list = [](const std::optional<Object> &object) { return object ? &*object : nullptr; };
	if (!change.before || !change.after)
		return {{list(change.before), list(change.after), {}}};
	return {{list(change.before), list(change.after), compare_props(*change.before, *change.after)}};
}

// Such as "mtu: 1500 -> 9000"; a property that comes or goes has a minus on the other side.
std::string changes_text(const PastChange &change)
{
	if (change.hidden)
		return "(the values aren't for this user)";
	if (!change.before || !change.after)
		return "";
	std::string text;
	for (const auto &[before, after] : compare_props(*change.before, *change.after))
		text += fmt::format("{}{}: {} -> {}", text.empty() ? "" : ", ",
		    escape((before != nullptr ? before : after)->name), before != nullptr ? value_text(*before) : "-",
		    after != nullptr ? value_text(*after) : "-");
	return text;
}

void print_text(const PastChange &change)
{
	const std::string user = user_text(change.uid);
	const std::string *group = find_identifier(change.id, group_name_key);
	std::string line = fmt::format("{}  {}  {:<16} {:<8}  {}", change.revision, time_text(change.at_ns, false),
	    change.behalf ? fmt::format("{} (by {})", user_text(*change.behalf), user) : user, change.what,
	    group != nullptr ? visible(*group) : id_text(change.id));
	if (const std::string text = changes_text(change); !text.empty())
		line += "  " + text;
	fmt::print("{}\n", line);
}

Json props_to_json(const std::optional<Object> &object)
{
	return object ? object_to_json(*object)["props"] : Json();
}

void print_json(const PastChange &change)
{
	Json json;
	json["revision"] = number_to_json(change.revision);
	json["part"] = change.part;
	json["at"] = time_text(change.at_ns, true);
	json["uid"] = change.uid;
	json["user"] = text_to_json(user_text(change.uid));
	json["behalf"] = change.behalf ? Json(text_to_json(user_text(*change.behalf))) : Json();
	json["what"] = change.what;
	json["id"] = id_to_json(change.id);
	json["hidden"] = change.hidden;
	json["before"] = props_to_json(change.before);
	json["after"] = props_to_json(change.after);
	write_json(json);
}

Exit run_history(const Options &options)
{
	const std::unique_ptr<Database> database = open_database(options);
	std::vector<PastChange> changes = changes_since(*database, parse_identifiers(options.words), options.since);
	std::reverse(changes.begin(), changes.end());
	for (const PastChange &change : changes) {
		if (options.json)
			print_json(change);
		else
			print_text(change);
	}
	return Exit::done;
}

void declare_undo(CLI::App &app, Options &options)
{
	declare_database(app, options);
	app.add_option("REVISION", options.since, "The revision, as history lists it")->required();
	declare_dry_run(app, options);
}

[[noreturn]] void fail_undo(Database &database, uint64_t revision, Outcome outcome)
{
	if (outcome == Outcome::deferred)
		throw Failure(Exit::deferred, "the store can't be written now; nothing was changed")
		    .in(database.label());
	throw Failure(Exit::conflict, fmt::format("what revision {} changed was changed meanwhile", revision))
	    .in(database.label())
	    .next(fmt::format(
		"ostrel history {} --since {} tells by whom; undo later revisions first", database.label(), revision));
}

// The revision that the undo itself became; nothing if others' can't be told from it.
std::optional<uint64_t> revision_of_undo(Database &database, const std::vector<PastChange> &undone, uint64_t last)
{
	for (const PastChange &change : changes_since(database, {}, last))
		if (change.id == undone.front().id)
			return change.revision;
	return std::nullopt;
}

Exit run_undo(const Options &options)
{
	const std::unique_ptr<Database> database = open_database(options);
	const uint64_t revision = options.since;
	std::vector<PastChange> undone = changes_of_revision(*database, revision);
	if (undone.empty())
		throw Failure(
		    Exit::not_found, fmt::format("there is no revision {}, or it isn't kept any more", revision))
		    .in(database->label())
		    .next(fmt::format("ostrel history {} lists them", database->label()));
	std::vector<Difference> differences;
	for (PastChange &change : undone) {
		std::swap(change.before, change.after);
		for (Difference &difference : differences_of(change))
			if (difference.before != nullptr || difference.after != nullptr)
				differences.push_back(std::move(difference));
	}
	if (!options.json)
		print_differences(differences);
	std::optional<uint64_t> as;
	if (!options.dry_run) {
		const std::vector<PastChange> later = changes_since(*database, {}, revision);
		const Outcome outcome = undo(*database, revision);
		if (outcome != Outcome::done)
			fail_undo(*database, revision, outcome);
		as = revision_of_undo(*database, undone, later.empty() ? revision : later.back().revision);
	}
	if (options.json)
		write_json(Json{{"undone", number_to_json(revision)}, {"as", as ? number_to_json(*as) : Json()},
		    {"dry_run", options.dry_run}, {"changes", differences_to_json(differences)}});
	else if (!options.dry_run)
		fmt::print("undone{}\n", as ? fmt::format(" as {}", *as) : "");
	return Exit::done;
}

} // namespace

const Command history_command = {
    {"history", "List who changed what, and when, the newest first"}, declare_history, run_history};
const Command undo_command = {{"undo", "Take a revision back"}, declare_undo, run_undo};
