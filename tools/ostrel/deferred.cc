#include "deferred.h"

#include <fmt/format.h>

#include "base/clock.h"

namespace {

constexpr int64_t first_pause_ns = 50 * millisecond_ns;
constexpr int looks = 5; // that find all as before, until the update counts as deferred

enum class Fate { landed, open, lost };

Fate fate_of(Retries::State state, const std::function<Seen()> &look)
{
	if (state == Retries::State::none || state == Retries::State::landed)
		return Fate::landed;
	if (state == Retries::State::refused)
		return Fate::lost;
	const Seen seen = look();
	if (state == Retries::State::ended)
		return seen.wanted ? Fate::landed : Fate::lost;
	const bool landed =
	    state == Retries::State::going_on ? seen.wanted && !seen.before : seen.wanted || !seen.before;
	return landed ? Fate::landed : Fate::open;
}

// A listing may have missed a server's threads; then what is stored isn't as wanted. A server that has ended meanwhile has
// said yes all the same.
void look_closely(Retries &retries, const std::function<Seen()> &look)
{
	try {
		if (!look().wanted)
			retries.look_again();
	} catch (const Failure &) {
		return;
	}
}

// What is known at once, or nearly: somebody may have changed back what is as before, and change it again.
Fate first_fate(Retries &retries, const std::function<Seen()> &look)
{
	if (retries.is_by_server() && retries.state() == Retries::State::none)
		look_closely(retries, look);
	Fate fate = fate_of(retries.state(), look);
	for (int i = 0; i < looks && fate == Fate::open && retries.state() == Retries::State::unseen; i++) {
		sleep_ns(first_pause_ns);
		fate = fate_of(retries.state(), look);
	}
	return fate;
}

Fate wait_for(const Retries &retries, const std::function<Seen()> &look)
{
	const Deadline end = Deadline::in(longest_deferral.count() * second_ns);
	Backoff backoff(first_pause_ns, second_ns);
	Fate fate = Fate::open;
	while (fate == Fate::open && !end.has_passed()) {
		backoff.pause();
		fate = fate_of(retries.state(), look);
	}
	return fate;
}

constexpr struct {
	Retries::State state;
	const char *own, *served;
} reasons[] = {
    {Retries::State::refused, "the update was deferred, and then refused or given up", ""},
    {Retries::State::ended,
	"the update was deferred, and refused or given up, or somebody has changed the object since",
	"the update was deferred, and has ended: it was refused or given up, or it can't be read, or somebody has "
	"changed the object since"},
    {Retries::State::unseen, "the update hasn't landed, and is given up, or somebody has changed it back",
	"the update hasn't landed, or somebody has changed it back"},
    {Retries::State::going_on, "the update hasn't landed, and is given up", "the update hasn't landed"},
};

Failure lost(const Database &database, const Retries &retries, Retries::State state)
{
	const bool is_served = retries.is_by_server();
	const char *reason = "the update hasn't landed";
	for (const auto &row : reasons)
		if (row.state == state)
			reason = is_served ? row.served : row.own;
	const bool may_go_on = is_served && state != Retries::State::ended;
	return Failure(Exit::deferred, reason)
	    .in(database.label())
	    .next(may_go_on   ? "the store's server goes on trying for a while, and logs how it ends"
		  : is_served ? "the server's log, and the audit trail, tell how it ended"
			      : "no server goes on trying: run the command again when the store can be written");
}

} // namespace

void await_update(Database &database, const Options &options, Retries &retries, const std::function<Seen()> &look)
{
	const std::function<Seen()> see = [&] { return database.readable() ? look() : Seen{false, false}; };
	Fate fate = first_fate(retries, see);
	if (fate == Fate::landed)
		return;
	warn(Failure(Exit::deferred,
	    options.no_wait
		? "the update is deferred: the store can't be written now"
		: fmt::format("the update is deferred: the store can't be written now; waiting up to {} s for it",
		      longest_deferral.count()))
		 .in(database.label()));
	if (fate == Fate::open && !options.no_wait)
		fate = wait_for(retries, see);
	if (fate == Fate::landed)
		return;
	const Retries::State state = retries.state();
	if (state == Retries::State::landed) // at the last moment
		return;
	database.give_up();
	throw lost(database, retries, state);
}

void await_object(
    Database &database, const Options &options, Retries &retries, const Object &object, const Presence &before)
{
	await_update(database, options, retries, [&] {
		const Presence now = database.presence(object.id);
		const bool same = now.object && before.object ? same_props(*now.object, *before.object)
							      : !now.object && !before.object;
		return Seen{
		    now.object && database.is_stored_form(object, *now.object), same && now.there == before.there};
	});
}
