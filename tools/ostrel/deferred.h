// Updates that a store may put off: after one, the tool looks whether it has landed.
#ifndef OSTREL_TOOL_DEFERRED_H
#define OSTREL_TOOL_DEFERRED_H

#include <chrono>
#include <functional>

#include "command.h"
#include "database.h"

// A store tries 100 times, a second apart, before it gives up.
inline constexpr std::chrono::seconds longest_deferral(110);

// Waits until `landed` says so, if the database is one that can defer and the caller may read it; says that it waits.
// Throws Failure (deferred) when the time is over: the store gives up after about that time, too.
void await_update(Database &database, const Options &options, const std::function<bool()> &landed);

// The same, for an object that was written.
void await_object(Database &database, const Options &options, const Object &object);

// Whether what is stored is what was written, in the form in which it was given or in the one of a file.
bool is_stored_form(const Object &written, const Object &stored);

#endif
