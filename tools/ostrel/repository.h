// The service repository as the tool sees it: how its objects are named and stored, and whether a daemon answers.
#ifndef OSTREL_TOOL_REPOSITORY_H
#define OSTREL_TOOL_REPOSITORY_H

#include <optional>
#include <string>

#include "failure.h"
#include "object.h"

inline constexpr const char *group_name_key = "object-pgname";
inline constexpr const char *group_type_key = "object-pgtype";

// The value of an identifier; NULL if it isn't there.
const std::string *find_identifier(const Identifiers &id, const char *key);
// Whether identifiers name groups of a repository, by name or by type.
bool names_groups(const Identifiers &id);

// What makes a group the one it is: its path of names, in one spelling, and where it isn't the database's own level, that.
Identifiers group_of(const Identifiers &id);
// Whether a group lies below another one.
bool is_below(const Identifiers &id, const Identifiers &above);

// Whether what is stored is what was written, in the repository's form: numbers of 64 bits, properties in any order.
bool is_repository_form(const Object &written, const Object &stored);

// What is wrong with the path of an object's name; nothing if it can be one.
std::optional<Failure> why_bad_path(const Identifiers &id);

// Why a repository refuses an object that the library calls an invalid argument. Without properties: a rename.
Failure why_refused(const Identifiers &id, const Object *object);

// Why the repository of this enclave can't be asked; nothing if it can.
std::optional<Failure> repository_unreachable();

#endif
