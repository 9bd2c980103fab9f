// What another process serves at a hatch. The server owns the database and decides who may do what; it goes on with updates that
// its store defers, also when this process has ended.
#include <fmt/format.h>

#include "database_kinds.h"
#include "group_database.h"
#include "groups.h"
#include "hatch.h"
#include "scratch.h"
#include "update_threads.h"

namespace {

class ServedDatabase final : public GroupDatabase {
public:
	explicit ServedDatabase(DatabaseName &&name) : GroupDatabase(std::move(name), ostrel_hatches_db_cmds) {}

	bool allowed(bool write) override;
	std::string rights_fault() const override { return rights_fault_at(name()); }
	void require_updates(Loss loss, Hold hold) override;
	Retries remove_all() override;

protected:
	bool holds_groups() override;
	bool is_group(const Identifiers &id) override { return names_groups(id) && holds_groups(); }
	std::optional<Failure> diagnose(ostrel_error_t result, const std::string &what) override;
	Failure refused(const Identifiers &id, const Object *object) override;
	std::unique_ptr<RetryFinder> retry_finder() override;

private:
	std::optional<bool> holds_groups_;
};

// The library takes a server that can't be reached for one that refuses.
bool ServedDatabase::allowed(bool write)
{
	if (GroupDatabase::allowed(write))
		return true;
	if (hatch_unreachable(name()))
		fail(OSTREL_EPERM, "the server can't be asked");
	return false;
}

void ServedDatabase::require_updates(Loss, Hold)
{
	if (!allowed(true))
		fail(OSTREL_EPERM, "can't be updated");
}

// A repository refuses to walk everything before it looks at anything; all other stores walk it.
bool ServedDatabase::holds_groups()
{
	if (!holds_groups_) {
		auto halt = [](ostrel_db_t, attrlist_t *, attrlist_t *, uint64_t, void *) { return 1; };
		List all = id_list({});
		holds_groups_ =
		    ostrel_db_walk(handle(), all.get(), 0, halt, nullptr, nullptr, nullptr) == OSTREL_INVALID_ARG;
	}
	return *holds_groups_;
}

std::optional<Failure> ServedDatabase::diagnose(ostrel_error_t result, const std::string &what)
{
	if (std::optional<Failure> unreachable = hatch_unreachable(name()))
		return unreachable;
	if (result == OSTREL_EPERM)
		return Failure(Exit::permission, fmt::format("{}: the server doesn't allow it", what))
		    .next(fmt::format(
			"ostrel auth {} tells what it allows; {}root grants rights in /etc/meridon/rights{}", label(),
			has_chosen_level() ? "object-db-name also needs the right ostrel.elsewhere; " : "",
			rights_fault()));
	if (result == OSTREL_INVALID_ARG)
		return general_failure(result, what,
		    fmt::format(
			"the store that is served may be one that can only be listed: ostrel list {}", label()));
	if (result == OSTREL_FAILURE)
		return general_failure(result, what,
		    "the server is there; the store behind it may not be: look at the server's log, and for a "
		    "repository at its daemon");
	return std::nullopt;
}

Failure ServedDatabase::refused(const Identifiers &id, const Object *object)
{
	if (names_groups(id))
		return why_refused(id, object);
	try {
		if (object != nullptr)
			(void) LineMaker().line(*object);
	} catch (const Failure &reason) {
		return reason;
	}
	return {Exit::invalid, "the server refuses it: the store that it serves can't hold this"};
}

Retries ServedDatabase::remove_all()
{
	if (holds_groups())
		return remove_groups();
	ostrel_error_t result = try_remove_all();
	if (result == OSTREL_INVALID_ARG && !readable())
		throw Failure(Exit::invalid, "the server refuses to remove everything at once")
		    .in(label())
		    .next("a repository is emptied group by group, which needs the right to read, too");
	if (result != OSTREL_SUCCESS)
		fail(result, "can't be removed");
	return find_retries();
}

std::unique_ptr<RetryFinder> ServedDatabase::retry_finder()
{
	return std::make_unique<RetryFinder>(hatch_server(name()));
}

} // namespace

std::unique_ptr<Database> make_served_database(DatabaseName &&name)
{
	return std::make_unique<ServedDatabase>(std::move(name));
}
