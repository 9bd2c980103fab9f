/*
 * Many objects at once. A plan compares them with those that are stored, which tells what to write and what to remove; nothing
 * is changed before it is complete. A store that can replace its content in one step does that: a file would otherwise be
 * rewritten for each object, and be half done after a failure. Any other store gets the plan as one batch, under the conditions
 * that nobody has changed what the plan is about; if somebody has, there is a new plan. A store that takes no batch, or none of
 * this size, gets one update after the other.
 *
 * Divisions: interruption; the plan.
 */
#include "bulk.h"

#include <algorithm>
#include <csignal>
#include <functional>
#include <optional>
#include <unordered_map>

#include <fmt/format.h>

#include "changes.h"
#include "deferred.h"
#include "document.h"
#include "groups.h"
#include "shared/progress.h"

namespace {

// ---- Interruption ----

volatile std::sig_atomic_t interrupted = 0;

void note_signal(int)
{
	interrupted = 1;
}

// While this lives, a signal ends the work between two objects, with a message that says how far it came.
class SignalGuard {
public:
	SignalGuard()
	{
		struct sigaction action = {};
		action.sa_handler = note_signal;
		for (size_t i = 0; i < count; i++)
			(void) sigaction(numbers[i], &action, &before_[i]); // can't fail for signals that exist
	}
	~SignalGuard()
	{
		for (size_t i = 0; i < count; i++)
			(void) sigaction(numbers[i], &before_[i], nullptr);
	}
	SignalGuard(const SignalGuard &) = delete;
	SignalGuard &operator=(const SignalGuard &) = delete;

	static void check()
	{
		if (interrupted != 0)
			throw Failure(Exit::failure, "interrupted; nothing was changed");
	}
	static bool pending() { return interrupted != 0; }

private:
	static constexpr int numbers[] = {SIGINT, SIGTERM, SIGHUP};
	static constexpr size_t count = 3;
	struct sigaction before_[count] = {};
};

// ---- The plan ----

struct Slot {
	Object object;
	bool changed = false;
	bool is_new = false;
};

class ImportPlan {
public:
	ImportPlan(Database &database, Complaints &complaints, bool replace)
	    : database_(database), complaints_(complaints), replace_(replace)
	{
		std::optional<std::vector<Object>> before = database.objects_if_any();
		is_new_ = !before.has_value();
		before_ = std::move(before).value_or(std::vector<Object>());
		slots_.reserve(before_.size());
		for (size_t i = 0; i < before_.size(); i++) {
			stored_.emplace(database_.key(before_[i].id), i);
			if (!replace)
				slots_.push_back({before_[i]});
		}
		kept_.resize(before_.size());
	}

	void add(Incoming &&incoming)
	{
		try {
			place(std::move(incoming));
		} catch (Failure &failure) {
			if (failure.code != Exit::invalid)
				throw;
			complaints_.take(failure.at(incoming.place));
		}
	}

	// All objects that the database will hold.
	std::vector<const Object *> content() const
	{
		std::vector<const Object *> all;
		for (const Slot &slot : slots_)
			all.push_back(&slot.object);
		return all;
	}

	// The objects that have to be written, each after those above it.
	std::vector<const Object *> writes() const
	{
		std::vector<const Object *> all;
		for (const Slot &slot : slots_)
			if (slot.changed)
				all.push_back(&slot.object);
		std::stable_sort(all.begin(), all.end(),
		    [&](const Object *a, const Object *b) { return database_.depth(a->id) < database_.depth(b->id); });
		return all;
	}

	Presence before(const Object &object) const
	{
		auto found = stored_.find(database_.key(object.id));
		return found == stored_.end() ? Presence() : Presence{true, before_[found->second]};
	}

	// Takes an object that the store refused out of the counts.
	void take_back(const Object *object)
	{
		for (Slot &slot : slots_) {
			if (&slot.object != object)
				continue;
			slot.changed = false;
			(slot.is_new ? added : replaced)--;
		}
	}

	std::vector<const Object *> removed_objects() const
	{
		std::vector<const Object *> all;
		for (size_t i = 0; replace_ && i < before_.size(); i++)
			if (!kept_[i])
				all.push_back(&before_[i]);
		return all;
	}

	std::vector<const Identifiers *> removals() const
	{
		std::vector<const Identifiers *> all;
		for (const Object *object : removed_objects())
			all.push_back(&object->id);
		return all;
	}

	// Removing a group removes those below it: none that is to stay may be among them.
	void check_removals() const
	{
		for (const Identifiers *id : removals())
			for (const Slot &slot : slots_)
				if (is_below(slot.object.id, *id))
					throw Failure(Exit::invalid, fmt::format("{} can't be removed: {} is below it",
									 id_text(*id), id_text(slot.object.id)))
					    .in(database_.label())
					    .next("give the group above, too, or leave --replace out; nothing was "
						  "changed");
	}

	bool changes() const { return is_new_ || added + replaced + removed() > 0; }
	size_t removed() const { return removals().size(); }
	size_t added = 0, replaced = 0, unchanged = 0;

private:
	void place(Incoming &&incoming)
	{
		std::string name = database_.key(incoming.object.id);
		auto [first, fresh] = seen_.emplace(name, incoming.place);
		if (!fresh)
			throw Failure(Exit::invalid, fmt::format("{} has the same identifiers as {}",
							 id_text(incoming.object.id), first->second));
		Slot slot = {std::move(incoming.object), true};
		auto [begin, end] = stored_.equal_range(name);
		try {
			database_.check_import(
			    slot.object, begin == end ? Presence() : Presence{true, before_[begin->second]});
		} catch (...) {
			seen_.erase(first); // a later object may have these identifiers
			throw;
		}
		if (begin == end) {
			added++;
			slot.is_new = true;
			slots_.push_back(std::move(slot));
		} else if (replace_) {
			bool changed = count(begin->second, slot.object);
			slots_.push_back({{before_[begin->second].id, std::move(slot.object.props)}, changed});
		} else {
			for (auto match = begin; match != end; ++match)
				if (count(match->second, slot.object)) {
					slots_[match->second].object.props = slot.object.props;
					slots_[match->second].changed = true;
				}
		}
	}

	// Counts an object that is stored already, and keeps its place and the spelling of its identifiers. Returns whether it
	// changes.
	bool count(size_t index, const Object &object)
	{
		kept_[index] = true;
		const bool same = database_.is_stored_form(object, before_[index]);
		(same ? unchanged : replaced)++;
		return !same;
	}

	Database &database_;
	Complaints &complaints_;
	bool replace_;
	bool is_new_ = false;
	std::vector<Object> before_;
	std::vector<Slot> slots_;
	std::unordered_multimap<std::string, size_t> stored_;
	std::unordered_map<std::string, std::string> seen_;
	std::vector<bool> kept_; // which of before_ the import has, too
};

// Makes one update for each object. If one fails, those before it stay, and the message says how many these are.
void write_singly(Database &database, ImportPlan &plan, Complaints &complaints, const Options &options)
{
	std::vector<const Object *> writes = plan.writes();
	std::vector<const Identifiers *> removals = plan.removals();
	Progress progress("update", writes.size() + removals.size());
	size_t done = 0;
	auto step = [&](const auto &update) {
		try {
			if (SignalGuard::pending())
				throw Failure(Exit::failure, "interrupted").in(database.label());
			update();
		} catch (Failure &failure) {
			throw failure.next(
			    fmt::format("{} of {} updates were made before; run the command again for the rest", done,
				writes.size() + removals.size()));
		}
		done++;
		progress.step();
	};
	// A server goes on with all updates that it got, deferred or not. Any other update that is deferred is waited for before the
	// next one is made.
	std::vector<std::function<void()>> later;
	auto settle = [&](const Retries &retries, std::function<void()> &&await) {
		if (options.no_wait && retries.is_by_server())
			later.push_back(std::move(await));
		else
			await();
	};
	auto put = [&](const Object *object) {
		Retries retries;
		try {
			retries = database.put(*object);
		} catch (const Failure &failure) {
			if (failure.code != Exit::invalid || !options.keep_going)
				throw;
			complaints.take(failure);
			plan.take_back(object);
			return;
		}
		settle(retries, [&, object, retries]() mutable {
			await_object(database, options, retries, *object, plan.before(*object));
		});
	};
	auto remove = [&](const Identifiers *id) {
		Retries retries = database.remove(*id);
		settle(retries, [&, id, retries]() mutable {
			await_update(database, options, retries, [&] {
				const bool gone = database.is_gone(*id);
				return Seen{gone, !gone};
			});
		});
	};
	for (const Object *object : writes)
		step([&] { put(object); });
	// Backwards: a group is listed before those below it, and its removal removes them.
	std::for_each(removals.rbegin(), removals.rend(), [&](const Identifiers *id) { step([&] { remove(id); }); });
	for (const auto &await : later)
		await();
}

// The plan as one batch. A group is listed before those below it, and is removed after them.
Changes changes_of(const ImportPlan &plan)
{
	Changes changes;
	for (const Object *object : plan.writes()) {
		const Presence before = plan.before(*object);
		changes.conditions.push_back(
		    before.there ? Condition{before.object->id, before.object->version} : Condition{object->id, ""});
		changes.steps.push_back({Step::Kind::put, object->id, object->props});
	}
	const std::vector<const Object *> removals = plan.removed_objects();
	std::for_each(removals.rbegin(), removals.rend(), [&](const Object *object) {
		changes.conditions.push_back({object->id, object->version});
		changes.steps.push_back({Step::Kind::remove, object->id});
	});
	return changes;
}

// `version`: of the whole database before the plan was made, if the plan is about all of it.
Outcome write_together(Database &database, ImportPlan &plan, const std::optional<std::string> &version,
    Complaints &complaints, const Options &options)
{
	for (;;) {
		Changes changes = changes_of(plan);
		changes.database_version = version;
		const std::vector<const Object *> writes = plan.writes();
		if (changes.steps.empty())
			return Outcome::done;
		try {
			return commit_or_wait(database, options, changes, SignalGuard::check);
		} catch (const RefusedStep &failure) {
			if (failure.step >= writes.size())
				throw;
			complaints.take(failure);
			plan.take_back(writes[failure.step]);
		}
	}
}

void tell(const ImportPlan &plan, const Complaints &complaints, const Options &options)
{
	if (options.json) {
		Json json;
		json["dry_run"] = options.dry_run;
		json["added"] = plan.added;
		json["replaced"] = plan.replaced;
		json["unchanged"] = plan.unchanged;
		json["removed"] = plan.removed();
		json["refused"] = complaints.count();
		write_json(json);
		return;
	}
	std::string text = fmt::format("{} added, {} replaced, {} unchanged, {} removed, {} refused", plan.added,
	    plan.replaced, plan.unchanged, plan.removed(), complaints.count());
	if (options.dry_run)
		fmt::print("would be: {}\n", text);
	else
		note(text);
}

} // namespace

void declare_bulk(CLI::App &app, Options &options)
{
	declare_update(app, options);
	app.add_flag("--replace", options.replace, "Remove the objects that don't come along");
	app.add_flag("-k,--keep-going", options.keep_going, "Pass over objects that can't be stored");
}

void Complaints::take(const Failure &failure)
{
	if (!keep_going_)
		throw Failure(failure).next("nothing was changed; with --keep-going such objects are passed over");
	count_++;
	warn(failure);
}

// One try; an empty result: somebody changed meanwhile what the plan is about, and nothing was done.
static std::optional<Exit> write_once(Database &database, std::vector<Incoming> &&objects, Complaints &complaints,
    const Options &options, bool is_one_file)
{
	const std::optional<std::string> version = options.replace && !is_one_file ? database.version() : std::nullopt;
	ImportPlan plan(database, complaints, options.replace);
	Progress progress("object", objects.size());
	for (Incoming &incoming : objects) {
		SignalGuard::check();
		plan.add(std::move(incoming));
		progress.step();
	}
	const std::unique_ptr<Replacement> whole = database.replacement(plan.content());
	SignalGuard::check();
	if (plan.changes())
		database.require_place();
	if (!options.dry_run && plan.changes()) {
		plan.check_removals();
		const Outcome outcome =
		    whole ? Outcome::done : write_together(database, plan, version, complaints, options);
		if (outcome == Outcome::conflict)
			return std::nullopt;
		if (whole)
			whole->commit(plan.writes(), plan.removals());
		else if (outcome == Outcome::unsupported)
			write_singly(database, plan, complaints, options);
	}
	tell(plan, complaints, options);
	return complaints.count() > 0 ? Exit::invalid : Exit::done;
}

Exit write_many(Database &database, std::vector<Incoming> &&objects, Complaints &complaints, const Options &options)
{
	begin_update(database, options, options.replace ? Database::Loss::meant : Database::Loss::refused);
	SignalGuard signals;
	if (database.replacement({}))
		return *write_once(database, std::move(objects), complaints, options, true);
	database.want_versions();
	for (int attempt = 0; attempt < change_tries_max; attempt++) {
		Complaints told = complaints;
		if (std::optional<Exit> end =
			write_once(database, std::vector<Incoming>(objects), told, options, false))
			return *end;
	}
	throw Failure(Exit::conflict, "others change the database all the time")
	    .in(database.label())
	    .next("nothing was changed; run the command again");
}
