// Objects as a database file would hold them.
#ifndef OSTREL_TOOL_SCRATCH_H
#define OSTREL_TOOL_SCRATCH_H

#include <string>

#include <libostrel.h>

#include "failure.h"
#include "object.h"

// What the library makes of an object, and whether it takes it at all, without touching the user's database.
class LineMaker {
public:
	// The object's line, newline included. Throws Failure (invalid) that names the part that can't be stored.
	const std::string &line(const Object &object);
	// The object as it comes back from the last line.
	Object stored() const;

private:
	friend Failure unstorable(const Object &object);
	ostrel_error_t write(const Object &object);

	std::string line_;
};

// Names the part of an object that the library refused to store.
Failure unstorable(const Object &object);

// Says how the stored form of an object differs from what was asked for; empty if it doesn't.
std::string storage_loss(const Object &wanted, const Object &stored);

#endif
