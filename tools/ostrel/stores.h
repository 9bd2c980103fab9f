// The kinds of stores, and the prefixes by which users name them.
#ifndef OSTREL_TOOL_STORES_H
#define OSTREL_TOOL_STORES_H

#include <memory>
#include <string>

#include "database.h"

// Opens the database `PREFIX:NAME`, or a bare path. Throws Failure.
std::unique_ptr<Database> open_database(const std::string &name, enclaveid_t enclave, bool case_sensitive);

// Throws Failure if a database of this name is of a kind that no hatch may serve.
void require_servable(const std::string &name);

// How databases are written, for messages.
std::string database_forms();

#endif
