/*
 * Waiting for updates that a store defers.
 *
 * The library reports success for an update that the store can't take now, and goes on with it (update_threads.h). So after
 * each update the tool asks whether it has landed: first the update's own threads and records; where these don't tell, what is
 * stored. That takes three forms: as wanted; as before; or what somebody else made of it since, which proves that the store
 * takes updates, and so never counts as "not yet".
 */
#ifndef OSTREL_TOOL_DEFERRED_H
#define OSTREL_TOOL_DEFERRED_H

#include <chrono>
#include <functional>

#include "command.h"
#include "database.h"
#include "update_threads.h"

// The library tries 100 times, a second apart, before it gives up.
inline constexpr std::chrono::seconds longest_deferral(110);

// How a database looks after an update: as wanted, as before. Neither: somebody else has changed it.
struct Seen {
	bool wanted;
	bool before;
};

// Returns once the update has landed, whatever others have written since. If the store has deferred it, warns of that and
// waits. Throws Failure (deferred) if it was refused or given up, or after longest_deferral, when the store gives up, too.
// `look` is called only where records and threads don't tell, and if the caller may read.
void await_update(Database &database, const Options &options, Retries &retries, const std::function<Seen()> &look);

// The same for an object that was written, and what was there before.
void await_object(
    Database &database, const Options &options, Retries &retries, const Object &object, const Presence &before);

#endif
