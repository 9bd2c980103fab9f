// The commands of ostrel. One source for each, one table for all; shared/program.h has the frame.
#ifndef OSTREL_TOOL_COMMAND_H
#define OSTREL_TOOL_COMMAND_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "database.h"
#include "failure.h"
#include "shared/enclaves.h"
#include "shared/program.h"

// What was given on the command line. Commands use what they declare.
struct Options : CommonOptions {
	std::string database;
	std::string other;              // a second database, or a file
	std::vector<std::string> words; // identifiers, databases
	std::vector<std::string> props;
	std::string enclave;
	std::string other_enclave;
	std::string sort;
	std::string table; // the file of property descriptors
	bool case_sensitive = false;
	bool exact = false;
	bool types = false;
	bool all = false;
	bool yes = false;
	bool replace = false;
	bool keep_going = false;
	bool only_new = false;
	bool force = false;
	bool write = false;
	bool no_wait = false;
	std::string read_auth = "ostrel.read"; // the rights that a server asks for
	std::string write_auth = "ostrel.write";
	bool to_persist = false;
	bool from_persist = false;
	bool once = false;
	std::string exec;   // what runs after each state
	std::string token;  // the file that keeps a watch's token
	uint64_t since = 0; // a revision
	bool show_version = false;
	std::optional<std::string> if_version;
};

using Command = CommandOf<Options>;

extern const Command list_command, show_command, put_command, set_command, unset_command, rename_command,
    remove_command, export_command, import_command, copy_command, diff_command, watch_command, check_command,
    convert_command, obsolete_command, serve_command, auth_command, enclaves_command, edit_command, history_command,
    undo_command;

// ---- What several commands declare ----

void declare_database(CLI::App &app, Options &options);
void declare_identifiers(CLI::App &app, Options &options);
// What every update has: -n, and whether it waits for a store that defers it.
void declare_update(CLI::App &app, Options &options);

// ---- What several commands do ----

struct Object;
struct Property;

// Opens the database that declare_database() declared.
std::unique_ptr<Database> open_database(const Options &options);
// An object as one line of fields separated by TABs, without its end.
std::string object_line(const Object &object, bool types);
std::string property_text(const Property &property, bool types);
// Prints an object as text: a line for each identifier, and one for each property.
void print_object(const Object &object);
// Prints what an update did, or would do: as JSON with --json, as a line in a dry run, otherwise not at all.
Exit tell_update(const Options &options, const char *done, const Object &object);
// Checks that the database can be updated, and keeps other updates of a file waiting until this one has ended. Without
// --force a file's lines stay, unless their loss is meant.
void begin_update(Database &database, const Options &options, Database::Loss loss = Database::Loss::refused,
    Database::Hold hold = Database::Hold::yes);
#endif
