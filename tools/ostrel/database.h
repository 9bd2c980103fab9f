// A database as the user names it, opened through the library, with errors that say what is wrong with it.
#ifndef OSTREL_TOOL_DATABASE_H
#define OSTREL_TOOL_DATABASE_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <libostrel.h>

#include "failure.h"
#include "object.h"
#include "repository.h"
#include "update_threads.h"

class NewFile; // the library's

// A kind of store.
struct BackEnd {
	const char *prefix;
	const ostrel_db_cmds_t *table;
	bool updates;
	bool selects;    // objects can be asked for by their identifiers
	bool is_path;    // the name is the path of a file, opened by the library at each operation
	bool defers;     // an update may be put off, and land later
	bool served;     // another process owns the database, and decides who may do what
	bool repository; // objects are groups, named by their paths, and walked by type
};

// Whether an object is there, and the object, unless it can't be read.
struct Look {
	bool there = false;
	std::optional<Object> object;
};

class Database {
public:
	// `name` is `PREFIX:NAME` or a bare path. Throws Failure; a missing file is found at the first operation.
	Database(const std::string &name, enclaveid_t enclave, bool case_sensitive);
	~Database();
	Database(const Database &) = delete;
	Database &operator=(const Database &) = delete;

	using Visit = std::function<void(Object &&)>;
	// Calls `visit` for each object selected, in the order of the store.
	void walk(const Identifiers &id, bool exact, const Visit &visit);
	std::vector<Object> objects(const Identifiers &id = {}, bool exact = false);
	// The one object with exactly these identifiers, or nothing.
	std::optional<Object> find(const Identifiers &id);
	// The same; a missing object is a Failure that says what is there instead.
	Object get(const Identifiers &id);
	// The same for an update that doesn't need the properties: without them if they can't be read.
	Object get_for_update(const Identifiers &id);
	Look look(const Identifiers &id);
	// Whether the object is gone, and what its identifiers name now, if anything, is another one.
	bool is_gone(const Identifiers &id);
	// Whether the objects are groups of a repository, here or behind the server.
	bool holds_groups();
	// The number of objects; nothing if there is no database, or the caller may not read it.
	std::optional<size_t> count();

	// Throw Failure if the store would refuse it, or nobody could read it there. What isn't a group they don't know.
	void check_group(const Object &object, const Look &before);
	void check_group_rename(const Identifiers &from, const Identifiers &to);

	// Whether the server lets the caller read, or update. Where there is none, it does. Throws Failure if it can't be asked.
	bool allowed(bool write);
	// The same for reading; asked once.
	bool readable();
	// Throws Failure unless the store can be updated, by this caller, and without loss. To empty a file is no loss.
	// Loss::told is one that is said and accepted; check_loss() looks for it. With Hold::yes no other update of a file is made from here to the
	// end of this handle, by whichever program; with Hold::for_owner only if the library's own update, which is one step, too, would give
	// the file another owner or mode.
	enum class Loss { refused, told, meant };
	enum class Hold { no, for_owner, yes };
	void require_updates(Loss loss, Hold hold);
	// Says what an update of a file would lose. Throws Failure if that isn't accepted.
	void check_loss() const;
	// Throws Failure if no file can be made or replaced there, whoever asks.
	void require_place() const;
	// Of an update for the sake of which another object would have to be written, and can't be.
	Failure others_damaged() const;
	Retries put(const Object &object);
	Retries rename(const Identifiers &from, const Identifiers &to);
	Retries remove(const Identifiers &id);
	Retries destroy();
	// Updates that haven't landed are given up: the end doesn't wait for them.
	void give_up() { given_up_ = true; }
	// Puts a file with this content in the place of one that is held, whole or not at all, durably; mode and owner stay.
	// Leaves the audit records of these updates. Throws Failure.
	void replace(const std::string &content, const std::vector<const Object *> &writes,
	    const std::vector<const Identifiers *> &removals);
	// As objects(), or nothing if the database isn't there yet.
	std::optional<std::vector<Object>> objects_if_any(const Identifiers &id = {}, bool exact = false);

	const std::string &label() const { return label_; }
	const std::string &name() const { return name_; }
	enclaveid_t enclave() const { return enclave_; }
	bool case_sensitive() const { return case_sensitive_; }
	const BackEnd &back_end() const { return *back_; }
	// Whether the name is a path in this process's own file system, where the tool can look at it.
	bool here() const;
	// For the one command that hands the database on.
	ostrel_db_t handle() const { return db_; }

private:
	void require_selection() const;
	bool library_keeps_owner() const;
	void require_regular_file() const;
	List list(const Identifiers &id);
	bool is_group(const Identifiers &id) { return back_->repository || (names_groups(id) && holds_groups()); }
	bool is_unreadable(ostrel_error_t result, const Identifiers &id);
	Failure unreadable(const Identifiers &id) const;
	std::optional<std::vector<std::string>> group_names(const Identifiers &id = {}) const;
	ostrel_error_t read(const Identifiers &id, std::optional<Object> *object);
	// The text of a file that is held, of which the objects with these identifiers change.
	std::string changed_text(const Identifiers &id, const std::function<bool(Object &)> &change) const;
	int take_hold();
	void replace_held(const std::string &content);
	[[noreturn]] void fail_replace(int error);
	Failure refused(const Identifiers &id, const Object *object = nullptr);
	void begin_update();
	Retries made_update();
	[[noreturn]] void fail(ostrel_error_t result, const std::string &what);
	void fail_repository(ostrel_error_t result, const std::string &what);
	[[noreturn]] void fail_walk(ostrel_error_t result, const Identifiers &id);
	void explain_unread(const Identifiers &id);
	ostrel_error_t walk_once(const Identifiers &id, bool exact, const Visit &visit);
	ostrel_error_t walk_levels(const Identifiers &id, bool exact, const Visit &visit);
	ostrel_error_t walk_groups(const Identifiers &id, bool exact, const Visit &visit);
	ostrel_error_t try_walk(const Identifiers &id, bool exact, const Visit &visit);

	std::string label_;
	std::string name_;
	const BackEnd *back_ = nullptr;
	enclaveid_t enclave_;
	bool case_sensitive_;
	ostrel_db_t db_ = nullptr;
	std::optional<bool> readable_;
	std::optional<bool> holds_groups_;
	bool chose_level_ = false;
	std::unique_ptr<NewFile> held_; // of a file that is to be updated
	bool holds_ = false;
	int hold_error_ = 0;
	struct stat seen_ = {}; // the file when it was held
	bool exists_ = false;
	Loss loss_ = Loss::refused;
	bool updated_ = false;
	std::unique_ptr<UpdateWatch> watch_;  // of an own repository's updates, from the first one on
	std::unique_ptr<RetryFinder> finder_; // of a store that defers, the same
	bool given_up_ = false;
};

// Whether a handle had to be left to an update that still runs: the process then ends as it stands.
bool updates_left_running();

#endif
