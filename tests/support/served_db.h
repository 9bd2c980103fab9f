// A served database for tests, its requests and replies byte by byte, and users to make them.
#ifndef TESTS_SERVED_DB_H
#define TESTS_SERVED_DB_H

#include <memory>
#include <string>

#include "hatch_peer.h"
#include "libostrel_hatches.h"
#include "libostrel_impl.h"
#include "lists.h"
#include "scratch.h"

// An open database, closed at the end.
using Database = Handle<struct ostrel_db, ostrel_db_close>;
Database open_database(const std::string &name, ostrel_db_cmds_t cmds = ostrel_files_db_cmds, uint64_t flags = 0);

// A flat file, and the place of a hatch in a directory of its own, which serving changes the owner of. Both go at the
// end. Serving needs root: a fixture with one of these begins with SKIP_UNLESS_ROOT().
struct ServedFile {
	Scratch scratch;
	std::string path = scratch.path("db");
	std::string hatch = scratch.path("hatches/db");

	ServedFile();
	void write(const std::string &text) const { scratch.write("db", text); }
	std::string text() const { return file_text(path); }
	// The path of the file of rights that counts from now on in this process and those that it forks.
	std::string write_rights(const std::string &text) const;
};

// A server of this process.
class LocalServer {
public:
	explicit LocalServer(const ServedFile &file, const char *read_auth = nullptr, const char *write_auth = nullptr,
	    ostrel_db_cmds_t cmds = ostrel_files_db_cmds);
	~LocalServer() { stop(); }
	LocalServer(const LocalServer &) = delete;
	LocalServer &operator=(const LocalServer &) = delete;
	ostrel_db_t db() const { return db_.get(); }
	void stop();

private:
	std::string hatch_path_;
	Database db_;
	int hatch_ = -1;
};

// A server in a process of its own, which serves from the moment that this returns on, until it is killed.
Process serve_file(const ServedFile &file, const char *read_auth = nullptr, const char *write_auth = nullptr,
    ostrel_db_cmds_t cmds = ostrel_files_db_cmds);

std::string packed(attrlist_t *list);
// A block as it travels, from its description, which tests/golden/hatch_requests.txt explains.
std::string block_of(const std::string &text);
// The rows of a golden file, of two texts each.
std::vector<std::pair<std::string, std::string>> golden_pairs(const std::string &name);

// A reply taken apart: its head, and the objects of its list as text, "ids|props" one after another.
struct Reply {
	int error; // of the call
	ostrel_hatch_arg_t head;
	size_t size;
	std::string objects;

	// "command flags result objects", or the error of the call.
	std::string text() const;
};
Reply ask(int hatch, const std::string &block);

#endif
