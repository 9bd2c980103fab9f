/*
 * Lines that objects would have in a database file, made without a file. The library only says that it refuses an object; here
 * its parts are tried one by one, so that the message names the one that can't be stored. A refused update of a real file
 * would leave a temporary file beside it.
 */
#ifndef OSTREL_TOOL_SCRATCH_H
#define OSTREL_TOOL_SCRATCH_H

#include <string>

#include <libostrel.h>

#include "failure.h"
#include "object.h"

// Makes lines of objects.
class LineMaker {
public:
	// The object's line, newline included. Throws Failure (invalid) that names the part that can't be stored.
	const std::string &line(const Object &object);
	// The object that a reader makes of the last line.
	Object stored() const;

private:
	friend Failure unstorable(const Object &object);
	ostrel_error_t write(const Object &object);

	std::string line_;
};

// Names the part of an object that the library refused to store.
Failure unstorable(const Object &object);

// Tells how the stored form of an object differs from what was asked for; empty if it doesn't.
std::string storage_loss(const Object &wanted, const Object &stored);

#endif
