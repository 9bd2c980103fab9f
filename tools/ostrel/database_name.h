// How the user names a database.
#ifndef OSTREL_TOOL_DATABASE_NAME_H
#define OSTREL_TOOL_DATABASE_NAME_H

#include <string>

#include <meridon/enclave.h>

struct DatabaseName {
	std::string label; // as it was typed, for messages
	std::string name;  // without the prefix: a path or a locator
	enclaveid_t enclave;
	bool case_sensitive; // how identifiers are compared

	// Whether the enclave's own files, and its own repository daemon, are those of this process.
	bool is_own_enclave() const { return enclave == 0 || enclave == getenclaveid(); }
	// Whether a path means the same file to this process. Only the global enclave reaches into others.
	bool is_own_path() const { return enclave == 0 || getenclaveid() != 0; }
};

#endif
