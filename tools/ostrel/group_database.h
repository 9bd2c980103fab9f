/*
 * Databases whose objects may be groups of a repository, and whose updates may be deferred: a repository, and what a server
 * has, which may be one.
 *
 * A group is named by its path of names (object-pgname) and has a path of types (object-pgtype) for which it can be walked;
 * object-db-name chooses the level, service or instance, for one operation. groups.h has the rules; here they become
 * operations. A group can be there and yet be unreadable, when somebody else gave it values that the library doesn't read: it
 * can be replaced and removed all the same.
 */
#ifndef OSTREL_TOOL_GROUP_DATABASE_H
#define OSTREL_TOOL_GROUP_DATABASE_H

#include <optional>
#include <string>
#include <vector>

#include "database.h"

class GroupDatabase : public Database {
public:
	Object get_for_update(const Identifiers &id) override;
	Presence presence(const Identifiers &id) override;
	bool is_gone(const Identifiers &id) override;
	std::optional<size_t> count() override;
	void rehearse(const Object &object, const Presence &before) override;
	void rehearse_rename(const Identifiers &from, const Object &renamed) override;
	void check_import(const Object &object, const Presence &before) override;
	std::string key(const Identifiers &id) override;
	size_t depth(const Identifiers &id) override;
	bool is_stored_form(const Object &written, const Object &stored) const override;

protected:
	using Database::Database;

	// Whether the objects are groups. May have to ask, once.
	virtual bool holds_groups() = 0;
	// Whether these identifiers name one.
	virtual bool is_group(const Identifiers &id) = 0;
	// The names of all groups, of the level that the identifiers choose, also of those that can't be read. Nothing where this
	// process can't list them itself.
	virtual std::optional<std::vector<std::string>> group_names(const Identifiers & /*id*/) const
	{
		return std::nullopt;
	}

	List list(const Identifiers &id) override;
	ostrel_error_t try_walk(const Identifiers &id, bool exact, const Visit &visit) override;
	void explain_read(ostrel_error_t result, const Identifiers &id) override;
	void explain_walk(ostrel_error_t result, const Identifiers &id) override;
	// Removes all groups, one after the other. Those below a group go with it.
	Retries remove_groups();
	// Whether any operation chose a level.
	bool has_chosen_level() const { return has_chosen_level_; }

private:
	ostrel_error_t walk_levels(const Identifiers &id, bool exact, const Visit &visit);
	ostrel_error_t walk_groups(const Identifiers &id, bool exact, const Visit &visit);
	bool is_unreadable(ostrel_error_t result, const Identifiers &id);
	Failure unreadable(const Identifiers &id) const;
	void check_group(const Object &object, const Presence &before);
	std::vector<Identifiers> level_groups(const Identifiers &id);

	bool has_chosen_level_ = false;
};

#endif
