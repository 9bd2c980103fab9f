// A service or an instance of the service repository, through its daemon. An update that the store can't take now goes on on a
// thread of this process, with the handle: that one stays open until the thread has ended, or is left to the end of the process.
#include <memory>

#include <fmt/format.h>
#include <meridon/rpy.h>

#include "base/clock.h"
#include "database_kinds.h"
#include "group_database.h"
#include "groups.h"
#include "shared/rights.h"
#include "update_threads.h"

namespace {

// ---- The daemon ----

struct Destroy {
	void operator()(rpy_handle_t *handle) const { rpy_handle_destroy(handle); }
	void operator()(rpy_service_t *service) const { rpy_service_destroy(service); }
	void operator()(rpy_instance_t *instance) const { rpy_instance_destroy(instance); }
	void operator()(rpy_propertygroup_t *group) const { rpy_pg_destroy(group); }
	void operator()(rpy_iter_t *iter) const { rpy_iter_destroy(iter); }
};
template <typename T>
using Owned = std::unique_ptr<T, Destroy>;

// Adds the groups that an iterator gives, each with those below it. A group that goes meanwhile has none.
bool add_groups(rpy_handle_t *handle, rpy_iter_t *iter, const std::string &above, std::vector<std::string> &paths)
{
	Owned<rpy_propertygroup_t> group(rpy_pg_create(handle));
	Owned<rpy_iter_t> below(rpy_iter_create(handle));
	if (!group || !below)
		return false;
	int step;
	while ((step = rpy_iter_next_pg(iter, group.get())) == 1) {
		char name[RPY_NAME_MAX];
		if (rpy_pg_get_name(group.get(), name, sizeof(name)) < 0)
			return false;
		paths.push_back(above + name);
		if (rpy_iter_pg_pgs(below.get(), group.get()) == 0) {
			if (!add_groups(handle, below.get(), above + name + "/", paths))
				return false;
		} else if (rpy_error() != RPY_ERROR_DELETED) {
			return false;
		}
	}
	return step == 0;
}

std::optional<Failure> repository_unreachable()
{
	Owned<rpy_handle_t> handle(rpy_handle_create(RPY_CLIENT_VERSION));
	if (!handle || rpy_handle_bind(handle.get()) == 0)
		return std::nullopt;
	if (rpy_error() == RPY_ERROR_PERMISSION_DENIED)
		return Failure(Exit::permission, "the repository daemon's hatch can't be opened: permission denied");
	return Failure(Exit::no_connection, fmt::format("no repository: {}", rpy_strerror(rpy_error())))
	    .next("start the daemon: systemctl start cairn-configd");
}

std::optional<std::vector<std::string>> list_groups(const std::string &locator)
{
	Owned<rpy_handle_t> handle(rpy_handle_create(RPY_CLIENT_VERSION));
	if (!handle || rpy_handle_bind(handle.get()) != 0)
		return std::nullopt;
	const bool is_instance = locator.find(':') != std::string::npos;
	Owned<rpy_service_t> service(rpy_service_create(handle.get()));
	Owned<rpy_instance_t> instance(rpy_instance_create(handle.get()));
	Owned<rpy_iter_t> iter(rpy_iter_create(handle.get()));
	if (!service || !instance || !iter ||
	    rpy_handle_decode_locator(handle.get(), locator.c_str(), nullptr, service.get(),
		is_instance ? instance.get() : nullptr, nullptr, nullptr, 0) != 0)
		return std::nullopt;
	std::vector<std::string> paths;
	const int begun = is_instance ? rpy_iter_instance_pgs(iter.get(), instance.get())
				      : rpy_iter_service_pgs(iter.get(), service.get());
	if (begun != 0 || !add_groups(handle.get(), iter.get(), "", paths))
		return std::nullopt;
	return paths;
}

// ---- The database ----

class RepositoryDatabase final : public GroupDatabase {
public:
	explicit RepositoryDatabase(DatabaseName &&name) : GroupDatabase(std::move(name), ostrel_cairn_db_cmds) {}
	~RepositoryDatabase() override;
	RepositoryDatabase(const RepositoryDatabase &) = delete;
	RepositoryDatabase &operator=(const RepositoryDatabase &) = delete;

	Retries remove_all() override { return remove_groups(); }

protected:
	bool holds_groups() override { return true; }
	bool is_group(const Identifiers &) override { return true; }
	std::optional<std::vector<std::string>> group_names(const Identifiers &id) const override;
	std::optional<Failure> diagnose(ostrel_error_t result, const std::string &what) override;
	Failure refused(const Identifiers &id, const Object *object) override { return why_refused(id, object); }
	std::unique_ptr<RetryFinder> retry_finder() override;

private:
	std::unique_ptr<UpdateWatch> watch_; // from the first update on
};

// An update that has landed ends its thread at once, or with its next attempt.
RepositoryDatabase::~RepositoryDatabase()
{
	size_t running = may_have_retries() ? own_deferred_updates() : 0;
	const Deadline end = Deadline::in(2 * second_ns);
	while (running > 0 && !given_up() && !end.has_passed()) {
		sleep_ns(10 * millisecond_ns);
		running = own_deferred_updates();
	}
	if (running == 0)
		return;
	leave_open();
	if (!given_up())
		warn(Failure(Exit::deferred, "updates that were deferred before are given up").in(label()));
}

std::optional<std::vector<std::string>> RepositoryDatabase::group_names(const Identifiers &id) const
{
	if (!full_name().is_own_enclave())
		return std::nullopt;
	const std::string *level = find_identifier(id, level_key);
	return list_groups(level == nullptr ? name() : *level);
}

std::optional<Failure> RepositoryDatabase::diagnose(ostrel_error_t result, const std::string &what)
{
	if (result == OSTREL_FAILURE && full_name().is_own_enclave())
		return repository_unreachable();
	if (result == OSTREL_NOT_FOUND && handle() == nullptr)
		return Failure(Exit::not_found, "the repository has no service or instance of that name")
		    .next(fmt::format("cairnctl list tells what it has; cairnctl add {} makes it", name()));
	if (result == OSTREL_EPERM)
		return Failure(Exit::permission, fmt::format("{}: the repository doesn't allow it", what))
		    .next("root, the daemon's user and who holds the right cairn.modify in /etc/meridon/rights may "
			  "update" +
			  ::rights_fault(0));
	return std::nullopt;
}

std::unique_ptr<RetryFinder> RepositoryDatabase::retry_finder()
{
	watch_ = std::make_unique<UpdateWatch>(UpdateWatch::Keep::all);
	return std::make_unique<RetryFinder>(watch_.get());
}

} // namespace

std::unique_ptr<Database> make_repository_database(DatabaseName &&name)
{
	return std::make_unique<RepositoryDatabase>(std::move(name));
}
