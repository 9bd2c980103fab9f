// ostrel rename: gives an object other identifiers.
#include <fmt/format.h>

#include "changes.h"
#include "command.h"
#include "database.h"
#include "deferred.h"
#include "word.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	declare_identifiers(app, options);
	declare_update(app, options);
	declare_if_version(app, options);
}

Exit run(const Options &options)
{
	const std::unique_ptr<Database> database = open_database(options);
	Identifiers from = parse_identifiers(options.words), to = parse_identifiers(options.tail);
	if (from.empty() || to.empty())
		throw Failure(Exit::usage, "rename needs the old identifiers before --, and the new ones after it");
	begin_update(*database, options);
	require_version(*database, options, from);
	bool known = database->readable();
	Object object = known ? database->get(from) : Object{from, {}};
	bool same = identity(from, options.case_sensitive) == identity(to, options.case_sensitive);
	// The store itself would let two objects have the same identifiers.
	if (!same && known && database->presence(to).there)
		throw Failure(Exit::exists, fmt::format("there is an object {}", id_text(to)))
		    .in(database->label())
		    .next("remove it first, or choose other identifiers");
	const Identifiers before = object.id;
	object.id = to;
	database->rehearse_rename(before, object);
	if (!options.dry_run && options.if_version) {
		update_if_version(*database, options, {Step::Kind::rename, from, {}, to});
	} else if (!options.dry_run) {
		Retries retries = database->rename(from, to);
		await_update(*database, options, retries, [&] {
			const bool there = database->presence(to).there;
			return Seen{there && (same || database->is_gone(before)), !there || same};
		});
	}
	return tell_update(options, "renamed", object);
}

} // namespace

const Command rename_command = {
    {"rename", "Give an object other identifiers", {}, "the new identifiers: key=value"}, declare, run};
