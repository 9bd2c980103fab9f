// Many objects at once. An update through the library rewrites the whole file, so that one update for each object
// would take time with the square of their number, and would show half of the work if it failed in the middle. So
// the objects' lines are put together (a database file is nothing but these), and the file is replaced by one rename. A
// database that another process owns gets one update for each object instead.
#include "bulk.h"

#include <algorithm>
#include <csignal>
#include <functional>
#include <optional>
#include <unordered_map>

#include <fmt/format.h>

#include "deferred.h"
#include "document.h"
#include "repository.h"
#include "scratch.h"
#include "terminal.h"

namespace {

// ---- Interruption ----

volatile std::sig_atomic_t interrupted = 0;

void note_signal(int)
{
	interrupted = 1;
}

// For the time of the work a signal ends it between two objects, with a word on how far it came.
class SignalGuard {
public:
	SignalGuard()
	{
		struct sigaction action = {};
		action.sa_handler = note_signal;
		for (size_t i = 0; i < count; i++)
			(void) sigaction(numbers[i], &action, &before_[i]); // fails for numbers alone that don't exist
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
	std::string line; // empty: not made yet
	bool changed = false;
	bool is_new = false;
};

bool same_props(const std::vector<Property> &a, const std::vector<Property> &b)
{
	return std::equal(a.begin(), a.end(), b.begin(), b.end(),
	    [](const Property &x, const Property &y) { return x.name == y.name && same_value(x, y); });
}

class Plan {
public:
	Plan(Database &database, Complaints &complaints, bool replace)
	    : database_(database), complaints_(complaints), replace_(replace), groups_(database.holds_groups())
	{
		std::optional<std::vector<Object>> before = database.objects_if_any();
		is_new_ = !before.has_value();
		before_ = std::move(before).value_or(std::vector<Object>());
		slots_.reserve(before_.size());
		for (size_t i = 0; i < before_.size(); i++) {
			stored_.emplace(key(before_[i].id), i);
			if (!replace)
				slots_.push_back({before_[i], ""});
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

	// The objects that have to be written, groups before those below them, and the identifiers of those that go.
	std::vector<const Object *> writes() const
	{
		std::vector<const Object *> all;
		for (const Slot &slot : slots_)
			if (slot.changed)
				all.push_back(&slot.object);
		if (groups_)
			std::stable_sort(all.begin(), all.end(),
			    [](const Object *a, const Object *b) { return group_depth(a->id) < group_depth(b->id); });
		return all;
	}

	Look before(const Object &object) const
	{
		auto found = stored_.find(key(object.id));
		return found == stored_.end() ? Look() : Look{true, before_[found->second]};
	}

	// The store refused an object that was to be written.
	void take_back(const Object *object)
	{
		for (Slot &slot : slots_) {
			if (&slot.object != object)
				continue;
			slot.changed = false;
			(slot.is_new ? added : replaced)--;
		}
	}

	std::vector<const Identifiers *> removals() const
	{
		std::vector<const Identifiers *> all;
		for (size_t i = 0; replace_ && i < before_.size(); i++)
			if (!kept_[i])
				all.push_back(&before_[i].id);
		return all;
	}

	// A group that goes takes those below it along: none that is to be there may be among them.
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

	// The whole file.
	std::string text()
	{
		std::string all;
		for (Slot &slot : slots_) {
			SignalGuard::check();
			all += slot.line.empty() ? maker_.line(slot.object) : slot.line;
		}
		return all;
	}

	bool changes() const { return is_new_ || added + replaced + removed() > 0; }
	size_t removed() const { return removals().size(); }
	size_t added = 0, replaced = 0, unchanged = 0;

private:
	// A group is its path of names, whatever the types on it.
	std::string key(const Identifiers &id) const
	{
		return identity(groups_ ? group_of(id) : id, database_.case_sensitive());
	}

	void place(Incoming &&incoming)
	{
		std::string name = key(incoming.object.id);
		auto [first, fresh] = seen_.emplace(name, incoming.place);
		if (!fresh)
			throw Failure(Exit::invalid, fmt::format("{} has the same identifiers as {}",
							 id_text(incoming.object.id), first->second));
		Slot slot = {std::move(incoming.object), "", true};
		auto [begin, end] = stored_.equal_range(name);
		try {
			if (database_.back_end().is_path)
				make_line(slot);
			else if (groups_)
				check_group(slot.object, begin == end ? nullptr : &before_[begin->second]);
		} catch (...) {
			seen_.erase(first); // what can't be stored takes no place
			throw;
		}
		if (begin == end) {
			added++;
			slot.is_new = true;
			slots_.push_back(std::move(slot));
		} else if (replace_) {
			bool changed = count(begin->second, slot.object);
			slots_.push_back({{before_[begin->second].id, std::move(slot.object.props)}, "", changed});
		} else {
			for (auto match = begin; match != end; ++match)
				if (count(match->second, slot.object)) {
					slots_[match->second].object.props = slot.object.props;
					slots_[match->second].changed = true;
				}
		}
	}

	void make_line(Slot &slot)
	{
		slot.line = maker_.line(slot.object);
		warn_of_loss(database_, slot.object, maker_.stored());
	}

	void check_group(const Object &object, const Object *stored)
	{
		if (find_identifier(object.id, level_key) != nullptr)
			throw Failure(Exit::invalid, fmt::format("{} names another database", level_key))
			    .next("leave it out, and name that one on the command line");
		database_.check_group(
		    object, {stored != nullptr, stored == nullptr ? std::nullopt : std::optional(*stored)});
	}

	// Counts an object that is stored already: it keeps its place, and the spelling of its identifiers. True: it changes.
	bool count(size_t index, const Object &object)
	{
		kept_[index] = true;
		bool same = same_props(before_[index].props, object.props) ||
			    (!database_.back_end().is_path && is_stored_form(object, before_[index]));
		(same ? unchanged : replaced)++;
		return !same;
	}

	Database &database_;
	Complaints &complaints_;
	bool replace_;
	bool groups_; // the objects are groups of a repository
	bool is_new_ = false;
	std::vector<Object> before_;
	std::vector<Slot> slots_;
	std::unordered_multimap<std::string, size_t> stored_;
	std::unordered_map<std::string, std::string> seen_;
	std::vector<bool> kept_; // which of the objects before have come along
	LineMaker maker_;
};

// One update for each object. What was done stays done if one of them fails, and the message says how far it came.
void write_singly(Database &database, Plan &plan, Complaints &complaints, const Options &options)
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
	// A server goes on with all that it got. Everything else that is put off is waited for before the next one.
	std::vector<std::function<void()>> later;
	auto settle = [&](std::function<void()> &&landed) {
		if (options.no_wait && database.back_end().served)
			later.push_back(std::move(landed));
		else
			landed();
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
		settle([&, object, retries]() mutable {
			await_object(database, options, retries, *object, plan.before(*object));
		});
	};
	auto remove = [&](const Identifiers *id) {
		settle([&, id, retries = database.remove(*id)]() mutable {
			await_update(database, options, retries, [&] {
				const bool gone = database.is_gone(*id);
				return Seen{gone, !gone};
			});
		});
	};
	for (const Object *object : writes)
		step([&] { put(object); });
	// The other way round: a group is listed before those below it, and takes them along.
	std::for_each(removals.rbegin(), removals.rend(), [&](const Identifiers *id) { step([&] { remove(id); }); });
	for (const auto &landed : later)
		landed();
}

void tell(const Plan &plan, const Complaints &complaints, const Options &options)
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

Exit write_many(Database &database, std::vector<Incoming> &&objects, Complaints &complaints, const Options &options)
{
	begin_update(database, options, options.replace ? Database::Loss::meant : Database::Loss::refused);
	SignalGuard signals;
	Plan plan(database, complaints, options.replace);
	Progress progress("object", objects.size());
	for (Incoming &incoming : objects) {
		SignalGuard::check();
		plan.add(std::move(incoming));
		progress.step();
	}
	bool whole = database.back_end().is_path;
	std::string text = whole ? plan.text() : "";
	if (plan.changes()) {
		database.require_place();
		database.check_loss();
	}
	if (!options.dry_run && plan.changes()) {
		plan.check_removals();
		if (whole)
			database.replace(text, plan.writes(), plan.removals());
		else
			write_singly(database, plan, complaints, options);
	}
	tell(plan, complaints, options);
	return complaints.count() > 0 ? Exit::invalid : Exit::done;
}
