// Objects of the service repository, its groups: how they are named, what one can hold, and why one is refused.
#ifndef OSTREL_TOOL_GROUPS_H
#define OSTREL_TOOL_GROUPS_H

#include <optional>
#include <string>
#include <vector>

#include "failure.h"
#include "object.h"

inline constexpr const char *group_name_key = "object-pgname";
inline constexpr const char *group_type_key = "object-pgtype";
inline constexpr const char *level_key = "object-db-name"; // the instance or service that one operation goes to instead
inline constexpr const char *enclave_key = "object-db-enclave";

// The value of an identifier; NULL if it isn't there.
const std::string *find_identifier(const Identifiers &id, const char *key);
// Whether identifiers name groups of a repository, by name or by type.
bool names_groups(const Identifiers &id);

// The identity of a group: its path of names in one spelling, and the level if that isn't the database's own.
Identifiers group_of(const Identifiers &id);
// Whether a group lies below another one.
bool is_below(const Identifiers &id, const Identifiers &above);
// The number of names in its path; 0 if it isn't a group.
size_t group_depth(const Identifiers &id);
// Whether a path of types matches a pattern.
bool fits_types(const std::string &types, const std::string &pattern);

// Whether `stored` is what the repository makes of `written`: numbers of 64 bits, properties in any order.
bool is_repository_form(const Object &written, const Object &stored);

// What is wrong with the path of names in identifiers; nothing if a group can have it.
std::optional<Failure> why_bad_path(const Identifiers &id);
// What is wrong with the pattern of types in identifiers; nothing if groups can be walked by it.
std::optional<Failure> why_bad_pattern(const Identifiers &id);

// Why a repository can't store an object, or nobody could read it there. `stored` is the group as it is, or NULL.
std::optional<Failure> why_unstorable(const Object &object, const Object *stored, bool is_new);
// The same for the new identifiers of a group.
std::optional<Failure> why_unnamable(const Identifiers &from, const Identifiers &to);
// How the stored form of a group will differ from `object`; empty if it won't.
std::string group_loss(const Object &object, const Object *stored);

// Why a repository refused an object as an invalid argument. `object` is NULL for a rename.
Failure why_refused(const Identifiers &id, const Object *object);

#endif
