// Work beside the database: lines that the library makes in a scratch place, and the replacing of a whole file.
#ifndef OSTREL_TOOL_SCRATCH_H
#define OSTREL_TOOL_SCRATCH_H

#include <string>

#include <libostrel.h>

#include "failure.h"
#include "object.h"

// A database file of one object, in a directory of its own, which goes with this. It is how the tool learns what the
// library makes of an object, and whether it takes it at all, without touching the user's database.
class LineMaker {
public:
	LineMaker();
	~LineMaker();
	LineMaker(const LineMaker &) = delete;
	LineMaker &operator=(const LineMaker &) = delete;

	// The object's line, newline included. Throws Failure (invalid) that names the part that can't be stored.
	std::string line(const Object &object);
	// The object as it comes back from the last line.
	Object stored();

private:
	friend Failure unstorable(const Object &object);
	ostrel_error_t write(const Object &object);

	std::string directory_;
	std::string file_;
	ostrel_db_t db_ = nullptr;
};

// Names the part of an object that the library refused to store.
Failure unstorable(const Object &object);

// Says how the stored form of an object differs from what was asked for; empty if it doesn't.
std::string storage_loss(const Object &wanted, const Object &stored);

// Puts a file with this content in the place of `path`, whole or not at all, durably: the same as an update of the
// library, also in the mode, and in another enclave the owner, of the file. Throws Failure.
void replace_file(const std::string &path, enclaveid_t enclave, const std::string &content);

#endif
