// Waiting for updates that a store put off.
#include "deferred.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include <fmt/format.h>

#include "repository.h"
#include "scratch.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds first_pause(50), longest_pause(1000);

bool same_props(const Object &a, const Object &b)
{
	return std::equal(a.props.begin(), a.props.end(), b.props.begin(), b.props.end(),
	    [](const Property &x, const Property &y) { return x.name == y.name && same_value(x, y); });
}

bool wait_for(const std::function<bool()> &landed)
{
	Clock::time_point end = Clock::now() + longest_deferral;
	for (auto pause = first_pause; Clock::now() < end; pause = std::min(pause * 2, longest_pause)) {
		std::this_thread::sleep_for(pause);
		if (landed())
			return true;
	}
	return false;
}

} // namespace

bool is_stored_form(const Object &written, const Object &stored)
{
	if (same_props(written, stored) || is_repository_form(written, stored))
		return true;
	try {
		LineMaker maker;
		(void) maker.line(written);
		return same_props(maker.stored(), stored);
	} catch (const Failure &) { // no file could hold it, so it isn't a file's form
		return false;
	}
}

void await_update(Database &database, const Options &options, const std::function<bool()> &landed)
{
	if (!database.back_end().defers || !database.readable() || landed())
		return;
	warn(Failure(Exit::deferred,
	    options.no_wait
		? "the update is deferred: the store can't be written now"
		: fmt::format("the update is deferred: the store can't be written now; waiting up to {} s for it",
		      longest_deferral.count()))
		 .in(database.label()));
	if (!options.no_wait && wait_for(landed))
		return;
	database.give_up();
	const bool is_served = database.back_end().served;
	throw Failure(Exit::deferred,
	    is_served ? "the update hasn't landed, or somebody else changed the same object meanwhile"
		      : "the update hasn't landed, and is given up, or somebody else changed the same object meanwhile")
	    .in(database.label())
	    .next(is_served ? "the store's server goes on trying for a while, and logs how it ends"
			    : "no server goes on trying: run the command again when the store can be written");
}

void await_object(Database &database, const Options &options, const Object &object)
{
	await_update(database, options, [&] {
		std::optional<Object> stored = database.find(object.id);
		return stored && is_stored_form(object, *stored);
	});
}
