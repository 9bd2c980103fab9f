// Imports: many objects into one database.
#ifndef OSTREL_TOOL_BULK_H
#define OSTREL_TOOL_BULK_H

#include <string>
#include <vector>

#include "command.h"
#include "database.h"
#include "object.h"

// Options of the commands that import objects.
void declare_bulk(CLI::App &app, Options &options);

struct Incoming {
	Object object;
	std::string place; // where it comes from, for messages
};

// Takes what is wrong with single objects. The first such object ends the command; with --keep-going each is skipped with a
// warning.
class Complaints {
public:
	explicit Complaints(bool keep_going) : keep_going_(keep_going) {}
	void take(const Failure &failure);
	size_t count() const { return count_; }

private:
	bool keep_going_;
	size_t count_ = 0;
};

// Writes the objects into the database, in their order, and prints how many were added, replaced and so on.
Exit write_many(Database &database, std::vector<Incoming> &&objects, Complaints &complaints, const Options &options);

#endif
