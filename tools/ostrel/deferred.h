// Updates that a store may put off: after one, the tool knows whether it has landed.
#ifndef OSTREL_TOOL_DEFERRED_H
#define OSTREL_TOOL_DEFERRED_H

#include <chrono>
#include <functional>

#include "command.h"
#include "database.h"
#include "update_threads.h"

// A store tries 100 times, a second apart, before it gives up.
inline constexpr std::chrono::seconds longest_deferral(110);

// How a database looks after an update: as it was to become, as it was before it. Neither is what somebody else made of it.
struct Seen {
	bool wanted;
	bool before;
};

// Comes back once the update has landed, whatever others have written since. If the store has put it off, says so and
// waits. Throws Failure (deferred) if it was refused or given up, or when the time is over: the store gives up after about
// that time, too. `look` is asked only where records and threads don't tell, and if the caller may read.
void await_update(Database &database, const Options &options, Retries &retries, const std::function<Seen()> &look);

// The same, for an object that was written, and what was there before.
void await_object(
    Database &database, const Options &options, Retries &retries, const Object &object, const Look &before);

// Whether what is stored is what was written, in the form in which it was given or in the one of a file.
bool is_stored_form(const Object &written, const Object &stored);

#endif
