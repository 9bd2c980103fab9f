// What makes a database of each kind of store. stores.cc has the table of them.
#ifndef OSTREL_TOOL_DATABASE_KINDS_H
#define OSTREL_TOOL_DATABASE_KINDS_H

#include <memory>

#include "database.h"

// None opens anything.
std::unique_ptr<Database> make_file_database(DatabaseName &&name);
std::unique_ptr<Database> make_raw_file_database(DatabaseName &&name);
std::unique_ptr<Database> make_repository_database(DatabaseName &&name);
std::unique_ptr<Database> make_served_database(DatabaseName &&name);

#endif
