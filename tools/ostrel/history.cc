#include "history.h"

#include <exception>
#include <functional>
#include <memory>
#include <pwd.h>

#include <fmt/format.h>
#include <libostrelx.h>

namespace {

constexpr const char *words[] = {"", "added", "changed", "removed", "reverted"};

std::optional<Object> object_of(attrlist_t *id, attrlist_t *props)
{
	return props != nullptr ? std::optional(object_from_lists(id, props)) : std::nullopt;
}

// The callback runs below a C library: it keeps what is thrown.
struct Reading {
	std::function<bool(PastChange &&)> take; // false: that is enough
	std::exception_ptr thrown;
};

int take_entry(const ostrelx_history_entry_t *entry, void *arg)
{
	Reading *reading = static_cast<Reading *>(arg);
	try {
		PastChange change = {entry->revision, entry->part,
		    entry->what < std::size(words) ? words[entry->what] : "unknown", entry->at_ns, entry->uid,
		    entry->has_behalf ? std::optional(entry->behalf) : std::nullopt, entry->is_hidden != B_FALSE,
		    object_from_lists(entry->idl, nullptr).id, object_of(entry->idl, entry->before),
		    object_of(entry->idl, entry->after)};
		return reading->take(std::move(change)) ? 0 : 1;
	} catch (...) {
		reading->thrown = std::current_exception();
		return 1;
	}
}

[[noreturn]] void fail(const Database &database, ostrelx_error_t result, const std::string &what)
{
	if (result == OSTREL_NOTSUP)
		throw Failure(Exit::unsupported, "the store keeps no history")
		    .in(database.label())
		    .next("a repository does; a server or daemon that doesn't tell of it may be an older one");
	throw Failure(
	    exit_of(static_cast<ostrel_error_t>(result)), fmt::format("{}: {}", what, ostrelx_strerror(result)))
	    .in(database.label());
}

void read_history(
    Database &database, const Identifiers &id, uint64_t since, const std::function<bool(PastChange &&)> &take)
{
	const List ids = id.empty() ? List() : id_list(id);
	Reading reading = {take, nullptr};
	const ostrelx_error_t result = ostrelx_history(database.handle(), ids.get(), since, take_entry, &reading);
	if (reading.thrown)
		std::rethrow_exception(reading.thrown);
	if (result != OSTREL_SUCCESS && result != OSTREL_WALK_HALTED)
		fail(database, result, "the history can't be read");
}

struct FreeBatch {
	void operator()(ostrelx_batch_t batch) const { ostrelx_batch_free(batch); }
};

} // namespace

std::vector<PastChange> changes_since(Database &database, const Identifiers &id, uint64_t since)
{
	std::vector<PastChange> all;
	read_history(database, id, since, [&](PastChange &&change) {
		all.push_back(std::move(change));
		return true;
	});
	return all;
}

std::vector<PastChange> changes_of_revision(Database &database, uint64_t revision)
{
	std::vector<PastChange> all;
	read_history(database, {}, revision == 0 ? 0 : revision - 1, [&](PastChange &&change) {
		const bool is_of_it = change.revision == revision;
		if (is_of_it)
			all.push_back(std::move(change));
		return is_of_it;
	});
	return all;
}

Outcome undo(Database &database, uint64_t revision)
{
	ostrelx_batch_t made = nullptr;
	ostrelx_error_t result = ostrelx_undo(database.handle(), revision, &made);
	const std::unique_ptr<struct ostrelx_batch, FreeBatch> batch(made);
	if (result == OSTREL_SUCCESS)
		result = ostrelx_commit(database.handle(), made, nullptr);
	if (result == OSTRELX_CONFLICT)
		return Outcome::conflict;
	if (result == OSTREL_NEEDS_RETRY)
		return Outcome::deferred;
	if (result != OSTREL_SUCCESS)
		fail(database, result, fmt::format("revision {} can't be undone", revision));
	return Outcome::done;
}

std::string user_text(uid_t uid)
{
	const struct passwd *entry = getpwuid(uid); // the tool has one thread
	return entry != nullptr ? entry->pw_name : std::to_string(uid);
}
