// Divisions: commits; --if-version; one object.
#include "changes.h"

#include <algorithm>

#include <fmt/format.h>

#include "base/clock.h"
#include "deferred.h"
#include "document.h"
#include "libostrel_version.h"

// ---- Commits ----

namespace {

Failure cannot_be_written(const Database &database)
{
	return Failure(Exit::deferred, "the store can't be written now; nothing was changed")
	    .in(database.label())
	    .next("run the command again when the store can be written");
}

} // namespace

Outcome commit_or_wait(
    Database &database, const Options &options, const Changes &changes, const std::function<void()> &check)
{
	Outcome outcome = database.commit(changes);
	if (outcome != Outcome::deferred)
		return outcome;
	if (options.no_wait)
		throw cannot_be_written(database);
	warn(Failure(Exit::deferred,
	    fmt::format("the store can't be written now; waiting up to {} s for it", longest_deferral.count()))
		 .in(database.label()));
	const Deadline end = Deadline::in(longest_deferral.count() * second_ns);
	Backoff backoff(50 * millisecond_ns, second_ns);
	while (outcome == Outcome::deferred && !end.has_passed()) {
		backoff.pause();
		if (check)
			check();
		outcome = database.commit(changes);
	}
	if (outcome == Outcome::deferred)
		throw cannot_be_written(database);
	return outcome;
}

Failure conflict(Database &database, const std::vector<Condition> &conditions)
{
	std::vector<Condition> unmet = database.unmet(conditions);
	if (unmet.empty() && !conditions.empty()) // it is as it was again, or can't be read
		unmet.push_back(conditions[0]);
	Json objects = Json::array();
	for (const Condition &condition : unmet)
		objects.push_back({{"id", id_to_json(condition.id)}, {"version", condition.version}});
	std::string what = "the database was changed meanwhile";
	if (unmet.size() == 1)
		what = fmt::format(
		    "{} {} meanwhile", id_text(unmet[0].id), unmet[0].version.empty() ? "was removed" : "was changed");
	else if (!unmet.empty())
		what = fmt::format(
		    "{} objects were changed meanwhile, the first one is {}", unmet.size(), id_text(unmet[0].id));
	Failure failure = Failure(Exit::conflict, what).in(database.label());
	failure.more = Json{{"objects", objects}}.dump();
	if (unmet.size() == 1 && !unmet[0].version.empty())
		failure.next(fmt::format(
		    "look at it again: ostrel show {}{} --show-version", database.label(), shell_words(unmet[0].id)));
	return failure.next(fmt::format("look at it again: ostrel list {}", database.label()));
}

Failure without_conditions(const Database &database)
{
	return Failure(Exit::unsupported, "the store knows no updates under conditions")
	    .in(database.label())
	    .next("its server or daemon may be an older one; nothing was changed");
}

// ---- --if-version ----

void declare_if_version(CLI::App &app, Options &options)
{
	app.add_option("--if-version", options.if_version,
	       "Only if the object has this version: what show --show-version printed, * for any, an empty one for "
	       "none")
	    ->type_name("VERSION");
}

void require_version(Database &database, const Options &options, const Identifiers &id)
{
	if (!options.if_version)
		return;
	const std::string &version = *options.if_version;
	const auto is_printable = [](char byte) { return byte > ' ' && byte <= '~'; };
	if (version.size() >= ostrel_version_size || !std::all_of(version.begin(), version.end(), is_printable))
		throw Failure(Exit::usage, fmt::format("'{}' can't be a version", version))
		    .next("ostrel show DB ID... --show-version prints the version of an object");
	if (!database.readable()) // then the update itself tells
		return;
	if (!database.version(id))
		(void) database.find(id); // says what is wrong with it
	const std::vector<Condition> condition = {{id, version}};
	if (!database.unmet(condition).empty())
		throw conflict(database, condition);
}

void update_if_version(Database &database, const Options &options, const Step &step)
{
	Changes changes = {{{step.id, *options.if_version}}, {}, {step}};
	if (step.kind == Step::Kind::rename && database.key(step.id) != database.key(step.new_id))
		changes.conditions.push_back({step.new_id, ""}); // the store itself may let two objects have them
	const Outcome outcome = commit_or_wait(database, options, changes);
	if (outcome == Outcome::conflict)
		throw conflict(database, changes.conditions);
	if (outcome == Outcome::unsupported)
		throw without_conditions(database);
}

// ---- One object ----

namespace {

// Writes what `change` made of an object. Returns whether that was done; somebody else was faster if not.
bool write_changed(Database &database, const Options &options, const Object &before, const Object &after)
{
	const Changes changes = {{{before.id, before.version}}, {}, {{Step::Kind::put, after.id, after.props}}};
	const Outcome outcome = commit_or_wait(database, options, changes);
	if (outcome == Outcome::unsupported) {
		if (options.if_version)
			throw without_conditions(database);
		Retries retries = database.put(after);
		await_object(database, options, retries, after, {true, before});
		return true;
	}
	if (outcome == Outcome::conflict && options.if_version)
		throw conflict(database, changes.conditions);
	return outcome == Outcome::done;
}

} // namespace

Exit change_object(Database &database, const Options &options, const Identifiers &id,
    const std::function<void(Object &object)> &change)
{
	begin_update(database, options);
	require_version(database, options, id);
	database.want_versions();
	for (int attempt = 0; attempt < change_tries_max; attempt++) {
		const Object before = database.get(id);
		const bool is_any = options.if_version && *options.if_version == "*";
		if (options.if_version && !is_any && before.version != *options.if_version)
			throw conflict(database, {{before.id, *options.if_version}});
		Object after = before;
		change(after);
		if (same_props(before, after))
			return tell_update(options, "unchanged", after);
		database.rehearse(after, {true, before});
		if (options.dry_run || write_changed(database, options, before, after))
			return tell_update(options, "changed", after);
	}
	throw Failure(Exit::conflict, fmt::format("others change {} all the time", id_text(id)))
	    .in(database.label())
	    .next("nothing was changed; run the command again");
}
