// What all kinds of databases share. Divisions: the handle, failures, reading, updates.
#include "database.h"

#include <exception>

#include <fmt/format.h>
#include <libostrelx.h>

#include "libostrel_version.h"
#include "text.h"

namespace {

bool left_running = false;

// The callback of a walk runs below a C library: it keeps what `visit` throws, and walk_once() throws it again.
struct WalkState {
	const Database::Visit *visit;
	bool versions;
	std::exception_ptr thrown;
};

std::string version_of(attrlist_t *id, attrlist_t *props)
{
	ObjectVersion version;
	if (ostrel_version_of(id, props, &version) != OSTREL_SUCCESS)
		throw std::bad_alloc();
	return version.text;
}

int visit_object(ostrel_db_t, attrlist_t *id, attrlist_t *props, uint64_t, void *arg)
{
	auto *state = static_cast<WalkState *>(arg);
	try {
		Object object = object_from_lists(id, props);
		if (state->versions)
			object.version = version_of(id, props);
		(*state->visit)(std::move(object));
		return 0;
	} catch (...) {
		state->thrown = std::current_exception();
		return 1;
	}
}

const char *done_by(Step::Kind kind)
{
	return kind == Step::Kind::put ? "written" : kind == Step::Kind::rename ? "renamed" : "removed";
}

} // namespace

// ---- The handle ----

Database::Database(DatabaseName &&name, const ostrel_db_cmds_t &table) : name_(std::move(name)), table_(table) {}

Database::~Database()
{
	left_running = left_running || left_open_;
	if (db_ != nullptr && !left_open_)
		ostrel_db_close(db_);
}

void Database::open()
{
	const uint64_t flags = case_sensitive() ? OSTREL_DB_CASE_SENSITIVE : 0;
	ostrel_error_t result = ostrel_db_open(name().c_str(), name_.enclave, table_, flags, &db_);
	if (result != OSTREL_SUCCESS)
		fail(result, "can't be opened");
}

bool updates_left_running()
{
	return left_running;
}

// ---- Failures ----

Failure Database::general_failure(ostrel_error_t result, const std::string &what, const std::string &hint) const
{
	Failure failure(exit_of(result), fmt::format("{}: {}", what, ostrel_strerror(result)));
	failure.next(hint);
	if (name_.enclave != 0)
		failure.next(fmt::format("ostrel enclaves tells whether enclave {} is running", name_.enclave));
	return failure;
}

Failure Database::failure_of(ostrel_error_t result, const std::string &what)
{
	if (std::optional<Failure> found = diagnose(result, what))
		return found->in(label());
	if (result == OSTREL_NO_MEMORY)
		return Failure(Exit::memory, fmt::format("{}: there is no memory, or no space left", what)).in(label());
	return general_failure(result, what).in(label());
}

void Database::fail(ostrel_error_t result, const std::string &what)
{
	throw failure_of(result, what);
}

// ---- Reading ----

List Database::list(const Identifiers &id)
{
	return id_list(id);
}

ostrel_error_t Database::walk_once(const Identifiers &id, bool exact, const Visit &visit)
{
	List ids = list(id);
	WalkState state = {&visit, versions_, nullptr};
	ostrel_error_t result =
	    ostrel_db_walk(db_, ids.get(), exact ? OSTREL_FLAG_EXACT_MATCH : 0, visit_object, nullptr, &state, nullptr);
	if (state.thrown)
		std::rethrow_exception(state.thrown);
	return result;
}

ostrel_error_t Database::try_walk(const Identifiers &id, bool exact, const Visit &visit)
{
	return walk_once(id, exact, visit);
}

void Database::walk(const Identifiers &id, bool exact, const Visit &visit)
{
	if (!id.empty())
		require_selection();
	ostrel_error_t result = try_walk(id, exact, visit);
	if (result == OSTREL_SUCCESS)
		return;
	explain_walk(result, id);
	fail(result, "can't be read");
}

std::vector<Object> Database::objects(const Identifiers &id, bool exact)
{
	std::vector<Object> all;
	walk(id, exact, [&](Object &&object) { all.push_back(std::move(object)); });
	return all;
}

std::optional<std::vector<Object>> Database::objects_if_any(const Identifiers &id, bool exact)
{
	std::vector<Object> all;
	ostrel_error_t result = try_walk(id, exact, [&](Object &&object) { all.push_back(std::move(object)); });
	if (result == OSTREL_SUCCESS)
		return all;
	if (result == OSTREL_NOT_FOUND)
		return std::nullopt;
	explain_walk(result, id);
	fail(result, "can't be read");
}

ostrel_error_t Database::read(const Identifiers &id, std::optional<Object> *object)
{
	List ids = list(id);
	if (versions_) {
		Object found;
		ostrel_error_t result = read_with_version(ids.get(), &found);
		if (result == OSTREL_SUCCESS)
			*object = std::move(found);
		return result;
	}
	attrlist_t *props = nullptr;
	ostrel_error_t result = ostrel_db_read(db_, ids.get(), 0, &props);
	List owned(props);
	if (result == OSTREL_SUCCESS)
		*object = object_from_lists(ids.get(), props);
	return result;
}

ostrel_error_t Database::read_with_version(attrlist_t *ids, Object *object)
{
	attrlist_t *props = nullptr;
	char version[OSTRELX_VERSION_SIZE];
	const auto result = static_cast<ostrel_error_t>(ostrelx_read(db_, ids, 0, &props, version));
	List owned(props);
	if (result == OSTREL_SUCCESS) {
		*object = object_from_lists(ids, props);
		object->version = version;
	}
	return result;
}

std::optional<std::string> Database::version(const Identifiers &id)
{
	List ids = list(id);
	Object object;
	ostrel_error_t result = read_with_version(ids.get(), &object);
	if (result != OSTREL_SUCCESS && result != OSTREL_NOT_FOUND)
		return std::nullopt;
	return object.version;
}

std::optional<std::string> Database::version()
{
	char text[OSTRELX_VERSION_SIZE];
	return ostrelx_db_version(db_, text) == OSTREL_SUCCESS ? std::optional<std::string>(text) : std::nullopt;
}

std::vector<Condition> Database::unmet(const std::vector<Condition> &conditions)
{
	std::vector<Condition> found;
	for (const Condition &condition : conditions) {
		const std::optional<std::string> now = version(condition.id);
		if (!now || (condition.version == "*" ? now->empty() : *now != condition.version))
			found.push_back({condition.id, now.value_or("?")});
	}
	return found;
}

std::optional<Object> Database::find(const Identifiers &id)
{
	std::optional<Object> object;
	ostrel_error_t result = read(id, &object);
	if (result == OSTREL_SUCCESS || result == OSTREL_NOT_FOUND)
		return object;
	explain_read(result, id);
	if (result == OSTREL_INVALID_ARG && objects(id, true).size() > 1)
		throw Failure(Exit::invalid, fmt::format("several objects have the identifiers {}", id_text(id)))
		    .in(label())
		    .next(fmt::format("ostrel check {} names their lines", label()));
	fail(result, fmt::format("{} can't be read", id_text(id)));
}

Object Database::get(const Identifiers &id)
{
	require_selection();
	if (std::optional<Object> found = find(id))
		return std::move(*found);
	std::vector<Object> near = objects(id); // a missing file ends here, with its own message
	Failure missing(Exit::not_found, fmt::format("there is no object {}", id_text(id)));
	if (near.empty())
		missing.next(fmt::format("ostrel list {} lists what is there", label()));
	else if (near.size() == 1)
		missing.next(fmt::format("an object is named by all its identifiers:{}", shell_words(near[0].id)));
	else
		missing.next(
		    fmt::format("an object is named by all its identifiers; {} objects have these among theirs: "
				"ostrel list {}{}",
			near.size(), label(), shell_words(id)));
	throw missing.in(label());
}

Object Database::get_for_update(const Identifiers &id)
{
	return get(id);
}

void EndWatch::operator()(struct ostrelx_watch *watch) const
{
	ostrelx_watch_close(watch);
}

Watch Database::watch(const Identifiers &id, bool exact, const char *token)
{
	if (!id.empty())
		require_selection();
	List ids = id.empty() ? List() : list(id);
	ostrelx_watch_t watch = nullptr;
	const ostrelx_error_t result =
	    ostrelx_watch_open(db_, ids.get(), exact ? OSTREL_FLAG_EXACT_MATCH : 0, token, &watch);
	if (result == OSTREL_NOTSUP)
		throw Failure(Exit::unsupported, "can't be watched")
		    .in(label())
		    .next(fmt::format("ostrel list {} shows what is there now", label()));
	if (result != OSTREL_SUCCESS)
		throw failure_of(static_cast<ostrel_error_t>(result), "can't be watched")
		    .next("a user has few descriptors of inotify: fs.inotify.max_user_instances is their number");
	return Watch(watch);
}

Presence Database::presence(const Identifiers &id)
{
	std::optional<std::vector<Object>> same = objects_if_any(id, true);
	if (!same || same->empty())
		return {};
	return {true, std::move(same->front())};
}

bool Database::is_gone(const Identifiers &id)
{
	return !find(id);
}

std::optional<size_t> Database::count()
{
	if (!readable())
		return std::nullopt;
	std::optional<std::vector<Object>> all = objects_if_any();
	return all ? std::optional(all->size()) : std::nullopt;
}

void Database::inspect(Inspector &) const
{
	throw Failure(Exit::unsupported, "isn't a file, and has no lines that could be checked").in(label());
}

// ---- Updates ----

bool Database::allowed(bool write)
{
	ostrel_error_t result = ostrel_db_check_auth(db_, write ? B_TRUE : B_FALSE);
	if (result != OSTREL_SUCCESS && result != OSTREL_EPERM)
		fail(result, "the server can't be asked");
	return result == OSTREL_SUCCESS;
}

bool Database::readable()
{
	if (!readable_)
		readable_ = allowed(false);
	return *readable_;
}

void Database::require_updates(Loss, Hold) {}

void Database::rehearse_rename(const Identifiers &, const Object &renamed)
{
	rehearse(renamed, {});
}

std::string Database::key(const Identifiers &id)
{
	return identity(id, case_sensitive());
}

bool Database::is_stored_form(const Object &written, const Object &stored) const
{
	return same_props(written, stored);
}

std::unique_ptr<Replacement> Database::replacement(const std::vector<const Object *> &)
{
	return nullptr;
}

void Database::begin_update()
{
	if (!finder_)
		finder_ = retry_finder();
}

namespace {

ostrel_error_t call_once(ostrel_db_t db, Step::Kind kind, attrlist_t *id, attrlist_t *more)
{
	if (kind == Step::Kind::put)
		return ostrel_db_write(db, id, 0, more);
	return kind == Step::Kind::rename ? ostrel_db_rename(db, id, 0, more) : ostrel_db_remove(db, id, 0);
}

// Another caller may make a group between the library's look for it and its creation. The next attempt finds it. Callers who
// remove it and make it again all the time win in the end.
ostrel_error_t call(ostrel_db_t db, Step::Kind kind, attrlist_t *id, attrlist_t *more)
{
	constexpr int attempts_max = 100;
	ostrel_error_t result = OSTREL_EXISTS;
	for (int attempt = 0; attempt < attempts_max && result == OSTREL_EXISTS; attempt++)
		result = call_once(db, kind, id, more);
	return result;
}

} // namespace

Retries Database::update(const Step &step)
{
	List id = list(step.id);
	List more = more_of(step);
	begin_update();
	ostrel_error_t result = call(db_, step.kind, id.get(), more.get());
	if (result == OSTREL_INVALID_ARG)
		throw refused_step(step);
	if (result != OSTREL_SUCCESS)
		fail(result, fmt::format("{} can't be {}", id_text(step.id), done_by(step.kind)));
	return find_retries();
}

namespace {

struct FreeBatch {
	void operator()(ostrelx_batch_t batch) const { ostrelx_batch_free(batch); }
};
using BatchHandle = std::unique_ptr<struct ostrelx_batch, FreeBatch>;

BatchHandle new_batch()
{
	ostrelx_batch_t made = nullptr;
	if (ostrelx_batch_create(&made) != OSTREL_SUCCESS)
		throw std::bad_alloc();
	return BatchHandle(made);
}

ostrelx_error_t add_step(ostrelx_batch_t batch, Step::Kind kind, attrlist_t *id, attrlist_t *more)
{
	if (kind == Step::Kind::put)
		return ostrelx_batch_write(batch, id, 0, more);
	return kind == Step::Kind::rename ? ostrelx_batch_rename(batch, id, 0, more)
					  : ostrelx_batch_remove(batch, id, 0);
}

constexpr struct {
	ostrelx_error_t result;
	Outcome outcome;
} outcomes[] = {
    {OSTREL_SUCCESS, Outcome::done},
    {OSTRELX_CONFLICT, Outcome::conflict},
    {OSTREL_NEEDS_RETRY, Outcome::deferred},
    {OSTREL_NOTSUP, Outcome::unsupported},
};

} // namespace

List Database::more_of(const Step &step)
{
	if (step.kind == Step::Kind::put)
		return props_list(step.props);
	return step.kind == Step::Kind::rename ? list(step.new_id) : List();
}

Failure Database::refused_step(const Step &step)
{
	const Object object = {step.id, step.props};
	return refused(
	    step.kind == Step::Kind::rename ? step.new_id : step.id, step.kind == Step::Kind::put ? &object : nullptr)
	    .in(label());
}

// A batch that is too large for the library, or for the store, is one that it can't carry out.
Outcome Database::commit(const Changes &changes)
{
	const size_t conditions = changes.conditions.size() + (changes.database_version ? 1 : 0);
	if (conditions + changes.steps.size() > OSTRELX_BATCH_MAX)
		return Outcome::unsupported;
	const BatchHandle batch = new_batch();
	ostrelx_error_t result = OSTREL_SUCCESS;
	if (changes.database_version)
		result = ostrelx_batch_expect_db(batch.get(), changes.database_version->c_str());
	for (size_t i = 0; result == OSTREL_SUCCESS && i < changes.conditions.size(); i++)
		result = ostrelx_batch_expect(
		    batch.get(), list(changes.conditions[i].id).get(), changes.conditions[i].version.c_str());
	for (size_t i = 0; result == OSTREL_SUCCESS && i < changes.steps.size(); i++) {
		const Step &step = changes.steps[i];
		result = add_step(batch.get(), step.kind, list(step.id).get(), more_of(step).get());
	}
	int failed = -1;
	if (result == OSTREL_SUCCESS)
		result = ostrelx_commit(db_, batch.get(), &failed);
	for (const auto &row : outcomes)
		if (row.result == result)
			return row.outcome;
	const size_t number = static_cast<size_t>(failed) - conditions;
	const bool is_step = failed >= 0 && static_cast<size_t>(failed) >= conditions;
	if (result == OSTREL_INVALID_ARG) {
		if (!is_step)
			return Outcome::unsupported;
		throw RefusedStep(refused_step(changes.steps.at(number)), number);
	}
	const Step &step = changes.steps.at(is_step ? number : 0);
	fail(static_cast<ostrel_error_t>(result), fmt::format("{} can't be {}", id_text(step.id), done_by(step.kind)));
}

Retries Database::rename(const Identifiers &from, const Identifiers &to)
{
	return update({Step::Kind::rename, from, {}, to});
}

ostrel_error_t Database::try_remove_all()
{
	begin_update();
	return ostrel_db_remove(db_, nullptr, 0);
}

Retries Database::remove_all()
{
	ostrel_error_t result = try_remove_all();
	if (result != OSTREL_SUCCESS)
		fail(result, "can't be removed");
	return find_retries();
}
