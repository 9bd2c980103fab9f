// Divisions: walks, groups that can't be read, reading, before an update, removal.
#include "group_database.h"

#include <algorithm>

#include <fmt/format.h>

#include "groups.h"
#include "scratch.h"

namespace {

constexpr int levels_max = 8;

// The identifiers that choose the level alone.
Identifiers level_of(const Identifiers &id)
{
	const std::string *level = find_identifier(id, level_key);
	return level == nullptr ? Identifiers() : Identifiers{{level_key, *level}};
}

} // namespace

// ---- Walks ----

// The level at which an operation works goes to the library beside the identifiers. A store without groups knows none: there
// it would be another file.
List GroupDatabase::list(const Identifiers &id)
{
	const bool is_special =
	    find_identifier(id, enclave_key) != nullptr || find_identifier(id, level_key) != nullptr;
	if (is_special && !holds_groups())
		return Database::list(id);
	Identifiers others;
	for (const auto &pair : id) {
		if (pair.first == enclave_key)
			throw Failure(Exit::invalid, "the enclave isn't an identifier")
			    .in(label())
			    .next("-E, --enclave names the enclave in which the database lies");
		if (pair.first != level_key)
			others.push_back(pair);
	}
	const std::string *level = find_identifier(id, level_key);
	has_chosen_level_ = has_chosen_level_ || level != nullptr;
	return id_list(others, level == nullptr ? nullptr : level->c_str());
}

// The library walks groups by type only one level of the tree at a time.
ostrel_error_t GroupDatabase::walk_levels(const Identifiers &id, bool exact, const Visit &visit)
{
	std::string pattern = "*";
	for (int level = 0; level < levels_max; level++, pattern += "/*") {
		Identifiers one_level = id;
		one_level.emplace_back(group_type_key, pattern);
		size_t seen = 0;
		ostrel_error_t result = walk_once(one_level, exact, [&](Object &&object) {
			seen++;
			visit(std::move(object));
		});
		if (result != OSTREL_SUCCESS || seen == 0)
			return result;
	}
	return OSTREL_SUCCESS;
}

// The library selects groups by their name, or else by their types: with a name, the types are compared here. An empty value
// stands for any, and no group has an identifier of another name.
ostrel_error_t GroupDatabase::walk_groups(const Identifiers &id, bool exact, const Visit &visit)
{
	Identifiers wanted;
	for (const auto &pair : id) {
		if (pair.first != group_name_key && pair.first != group_type_key && pair.first != level_key)
			return OSTREL_SUCCESS;
		if (!pair.second.empty())
			wanted.push_back(pair);
	}
	if (!names_groups(wanted))
		return walk_levels(wanted, exact, visit);
	const bool by_name = find_identifier(wanted, group_name_key) != nullptr;
	const std::string *pattern = by_name ? find_identifier(wanted, group_type_key) : nullptr;
	ostrel_error_t result = walk_once(wanted, exact, [&](Object &&object) {
		const std::string *types = find_identifier(object.id, group_type_key);
		if (pattern == nullptr || types == nullptr || fits_types(*types, *pattern))
			visit(std::move(object));
	});
	return result == OSTREL_NOT_FOUND ? OSTREL_SUCCESS : result; // a walk to one name
}

ostrel_error_t GroupDatabase::try_walk(const Identifiers &id, bool exact, const Visit &visit)
{
	if (is_group(id))
		return walk_groups(id, exact, visit);
	ostrel_error_t result = walk_once(id, exact, visit);
	if (result == OSTREL_INVALID_ARG && holds_groups())
		return walk_groups(id, exact, visit);
	return result;
}

// ---- Groups that can't be read ----

// Whether a read that failed so met a group that can't be read: then the store itself still answers, to a walk for a type
// that no group has. Throws Failure for a level that isn't there.
bool GroupDatabase::is_unreadable(ostrel_error_t result, const Identifiers &id)
{
	if ((result != OSTREL_INVALID_ARG && result != OSTREL_FAILURE) || !holds_groups())
		return false;
	Identifiers nothing = level_of(id);
	nothing.emplace_back(group_type_key, "\x01");
	const ostrel_error_t answer = walk_once(nothing, false, [](Object &&) {});
	if (answer == OSTREL_INVALID_ARG)
		throw Failure(Exit::invalid,
		    fmt::format("{} is neither the service of this instance nor an instance of this service",
			id_text(level_of(id))))
		    .in(label());
	return answer == OSTREL_SUCCESS;
}

Failure GroupDatabase::unreadable(const Identifiers &id) const
{
	return Failure(Exit::invalid,
	    fmt::format("{} can't be read: a property there has more than 128 values, an empty one among several, or a "
			"type that isn't read",
		names_groups(id) ? id_text(id) : "a group"))
	    .in(label())
	    .next("ostrel put replaces the properties of a group, ostrel remove removes it");
}

void GroupDatabase::explain_read(ostrel_error_t result, const Identifiers &id)
{
	if (!is_unreadable(result, id))
		return;
	if (std::optional<Failure> bad = why_bad_path(id))
		throw bad->in(label());
	throw unreadable(id);
}

// Names the group that couldn't be read, as far as that can be told.
void GroupDatabase::explain_walk(ostrel_error_t result, const Identifiers &id)
{
	if (!is_unreadable(result, id))
		return;
	const bool named = find_identifier(id, group_name_key) != nullptr;
	if (std::optional<Failure> bad = named ? why_bad_path(id) : why_bad_pattern(id))
		throw bad->in(label());
	if (named)
		throw unreadable(id);
	for (const std::string &name : group_names(id).value_or(std::vector<std::string>())) {
		Identifiers one = level_of(id);
		one.emplace_back(group_name_key, name);
		const Presence found = presence(one);
		if (found.there && !found.object)
			throw unreadable(one);
	}
	throw unreadable(id);
}

// ---- Reading ----

Presence GroupDatabase::presence(const Identifiers &id)
{
	if (!is_group(id))
		return Database::presence(id);
	if (std::optional<Failure> bad = why_bad_path(id))
		throw bad->in(label());
	Presence found;
	ostrel_error_t result = read(id, &found.object);
	found.there = result != OSTREL_NOT_FOUND;
	if (found.there && !found.object && !is_unreadable(result, id))
		fail(result, fmt::format("{} can't be read", id_text(id)));
	return found;
}

// A repository that has no such name gives one that differs in case alone.
bool GroupDatabase::is_gone(const Identifiers &id)
{
	if (!is_group(id))
		return Database::is_gone(id);
	const Presence now = presence(id);
	if (!now.object)
		return !now.there;
	const std::string *name = find_identifier(id, group_name_key);
	const std::string *name_now = find_identifier(now.object->id, group_name_key);
	return name != nullptr && name_now != nullptr && *name != *name_now;
}

Object GroupDatabase::get_for_update(const Identifiers &id)
{
	if (!is_group(id))
		return get(id);
	Presence found = presence(id);
	if (found.there && !found.object)
		return {id, {}};
	return found.there ? std::move(*found.object) : get(id);
}

std::optional<size_t> GroupDatabase::count()
{
	if (!readable())
		return std::nullopt;
	if (std::optional<std::vector<std::string>> names = group_names({}))
		return names->size();
	return Database::count();
}

// ---- Before an update ----

void GroupDatabase::check_group(const Object &object, const Presence &before)
{
	if (!is_group(object.id))
		return;
	(void) list(object.id); // what can't be an identifier
	const Object *stored = before.object ? &*before.object : nullptr;
	if (std::optional<Failure> why = why_unstorable(object, stored, !before.there))
		throw why->in(label());
	if (std::string loss = group_loss(object, stored); !loss.empty())
		warn(Failure(Exit::done, fmt::format("{}: {}", id_text(object.id), loss)).in(label()));
}

// A caller who may not read learns from the update itself what the store can hold. So does one of a store without groups.
void GroupDatabase::rehearse(const Object &object, const Presence &before)
{
	if (readable())
		check_group(object, before);
}

// All groups of the level at which this one is, as far as they can be listed.
std::vector<Identifiers> GroupDatabase::level_groups(const Identifiers &id)
{
	std::vector<Identifiers> all;
	if (std::optional<std::vector<std::string>> names = group_names(id)) {
		for (const std::string &name : *names)
			all.push_back({{group_name_key, name}});
		return all;
	}
	try {
		for (Object &object : objects(level_of(id)))
			all.push_back(std::move(object.id));
	} catch (const Failure &failure) { // some group can't be read; the store itself looks below this one
		if (failure.code != Exit::invalid)
			throw;
	}
	return all;
}

void GroupDatabase::rehearse_rename(const Identifiers &from, const Object &renamed)
{
	if (readable() && is_group(from)) {
		if (std::optional<Failure> why = why_unnamable(from, renamed.id))
			throw why->in(label());
		const std::vector<Identifiers> all = level_groups(from);
		if (std::any_of(all.begin(), all.end(), [&](const Identifiers &id) { return is_below(id, from); }))
			throw Failure(Exit::invalid, "a group that holds groups can't be renamed").in(label());
	}
	rehearse(renamed, {});
}

void GroupDatabase::check_import(const Object &object, const Presence &before)
{
	if (!holds_groups())
		return;
	if (find_identifier(object.id, level_key) != nullptr)
		throw Failure(Exit::invalid, fmt::format("{} names another database", level_key))
		    .next("leave it out, and name that one on the command line");
	check_group(object, before);
}

// A group is its path of names, whatever types it has.
std::string GroupDatabase::key(const Identifiers &id)
{
	return Database::key(holds_groups() ? group_of(id) : id);
}

size_t GroupDatabase::depth(const Identifiers &id)
{
	return holds_groups() ? group_depth(id) : 0;
}

// What a server has may be a file as well as a repository.
bool GroupDatabase::is_stored_form(const Object &written, const Object &stored) const
{
	if (same_props(written, stored) || is_repository_form(written, stored))
		return true;
	try {
		LineMaker maker;
		(void) maker.line(written);
		return same_props(maker.stored(), stored);
	} catch (const Failure &) { // no file can hold it
		return false;
	}
}

// ---- Removal ----

Retries GroupDatabase::remove_groups()
{
	Retries retries;
	if (std::optional<std::vector<std::string>> names = group_names({})) {
		for (const std::string &name : *names)
			if (name.find('/') == std::string::npos)
				retries.add(remove({{group_name_key, name}}));
		return retries;
	}
	for (const Object &object : objects({{group_type_key, "*"}}))
		retries.add(remove(object.id));
	return retries;
}
