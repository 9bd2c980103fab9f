/*
 * Updates that lose no other writer's change: under conditions, which somebody else's update meanwhile breaks.
 *
 * A store that can't be written now defers nothing of these. The tool waits for it itself, and looks at the conditions again.
 */
#ifndef OSTREL_TOOL_CHANGES_H
#define OSTREL_TOOL_CHANGES_H

#include <functional>

#include "command.h"
#include "database.h"

// How often a change is tried again because others were faster.
inline constexpr int change_tries_max = 100;

// Carries changes out; waits as long as deferred updates are waited for, unless --no-wait. Throws Failure (deferred), too.
// Never Outcome::deferred. `check` is called now and then during the wait, and may throw to end it.
Outcome commit_or_wait(
    Database &database, const Options &options, const Changes &changes, const std::function<void()> &check = {});

// "Changed meanwhile", with the objects whose conditions don't hold and their versions now.
Failure conflict(Database &database, const std::vector<Condition> &conditions);
// The store, or its other side, knows no updates under conditions.
Failure without_conditions(const Database &database);

// ---- --if-version ----

void declare_if_version(CLI::App &app, Options &options);
// Throws Failure (conflict) if the object isn't as --if-version, where it was given, has it. Right after begin_update().
void require_version(Database &database, const Options &options, const Identifiers &id);
// Makes one update of that object under the condition of --if-version. Throws Failure, also for a conflict.
void update_if_version(Database &database, const Options &options, const Step &step);

// ---- One object ----

// Reads an object, has `change` alter it, and writes it if it is still the one that was read; else again. Tells what was done.
// Without batches the store gets a plain update. `change` may be called several times, and may throw.
Exit change_object(Database &database, const Options &options, const Identifiers &id,
    const std::function<void(Object &object)> &change);

#endif
