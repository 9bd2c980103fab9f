/*
 * A database, whatever keeps it. Commands know this interface alone; behind it stands one class for each kind of store, each
 * in a source of its own:
 *
 *   file_database.cc        a file of lines that are objects, and a raw file
 *   repository_database.cc  an instance or service of the service repository
 *   served_database.cc      what another process serves at a hatch: a file, or a repository
 *   group_database.cc       what the last two share: objects that are groups, and updates that are deferred
 *   stores.cc               the table of prefixes, which makes one of them of a name
 *
 * A new kind of store is a source with a class, and a row of that table. It has to implement diagnose() and refused(); every
 * other operation does what a store needs that has objects, can be read and updated through the library at once, and is owned by nobody else.
 *
 * All operations throw Failure, which names the database. A failed update has changed nothing, but where an operation says
 * otherwise. A database is used by one thread.
 *
 * An update runs in this order: require_updates(), which may lock out other updates until the handle ends; a read of what is
 * there; rehearse() or check_import(), which find what is wrong with the update and change nothing, so that a dry run ends
 * there; update(), remove_all() or Replacement::commit(). The result of update() and remove_all() tells the threads on which
 * a store that defers updates goes on with them: await_update() of deferred.h waits for these.
 */
#ifndef OSTREL_TOOL_DATABASE_H
#define OSTREL_TOOL_DATABASE_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <libostrel.h>

#include "database_name.h"
#include "failure.h"
#include "object.h"
#include "update_threads.h"

struct Line;

struct EndWatch {
	void operator()(struct ostrelx_watch *watch) const;
};
using Watch = std::unique_ptr<struct ostrelx_watch, EndWatch>;

// Whether an object is there, and the object, unless it can't be read.
struct Presence {
	bool there = false;
	std::optional<Object> object;
};

// What an update does to one object.
struct Step {
	enum class Kind { put, rename, remove };

	Kind kind;
	Identifiers id;
	std::vector<Property> props = {}; // put: all properties from then on
	Identifiers new_id = {};          // rename
};

// A condition of an update: the object has this version; "" is none, "*" is any.
struct Condition {
	Identifiers id;
	std::string version;
};

// Steps that are carried out together under conditions, all or none.
struct Changes {
	std::vector<Condition> conditions = {};
	std::optional<std::string> database_version = {}; // another condition
	std::vector<Step> steps = {};
};

// How that ended: anything but `done` has changed nothing.
enum class Outcome {
	done,
	conflict,   // a condition doesn't hold
	deferred,   // the store can't be written now; nobody goes on with it
	unsupported // the store, or its other side, can't carry these out together
};

// A step of several that the store refused.
class RefusedStep : public Failure {
public:
	RefusedStep(Failure &&failure, size_t number) : Failure(std::move(failure)), step(number) {}

	size_t step;
};

// An update of many objects as one step, which was prepared and changes nothing before commit().
class Replacement {
public:
	Replacement() = default;
	virtual ~Replacement() = default;
	Replacement(const Replacement &) = delete;
	Replacement &operator=(const Replacement &) = delete;
	// Puts the new content in the place of the old one, whole or not at all, and durably. The audit trail gets a record for
	// each object that was written or removed, whatever the result.
	virtual void commit(
	    const std::vector<const Object *> &writes, const std::vector<const Identifiers *> &removals) = 0;
};

// Gets to see a database in its stored form, for a check.
class Inspector {
public:
	virtual ~Inspector() = default;
	// A line that the store takes for an object, a comment or nothing; and one that it takes as it stands.
	virtual void see_line(const Line &line) = 0;
	virtual void see_raw_line(const Line &line) = 0;
	// A temporary file beside the database, from an update that runs or has failed. An unusable one blocks every update.
	virtual void see_temporary_file(const std::string &path, bool is_usable) = 0;
};

class Database {
public:
	using Visit = std::function<void(Object &&)>;

	virtual ~Database();
	Database(const Database &) = delete;
	Database &operator=(const Database &) = delete;

	// Opens it through the library, before anything else. A missing file is found by the first operation.
	void open();

	// ---- Reading ----

	// Calls `visit` for each object selected, in the order of the store. `exact`: by all identifiers, not by some.
	void walk(const Identifiers &id, bool exact, const Visit &visit);
	std::vector<Object> objects(const Identifiers &id = {}, bool exact = false);
	// The same; nothing if the database doesn't exist yet.
	std::optional<std::vector<Object>> objects_if_any(const Identifiers &id = {}, bool exact = false);
	// The one object with exactly these identifiers, or nothing.
	std::optional<Object> find(const Identifiers &id);
	// The same; a missing object is a Failure that says what is there instead.
	Object get(const Identifiers &id);
	// The same for an update that doesn't need the properties: without them if they can't be read.
	virtual Object get_for_update(const Identifiers &id);
	virtual Presence presence(const Identifiers &id);
	// Whether the object is gone. What its identifiers name now, if anything, is then another one.
	virtual bool is_gone(const Identifiers &id);
	// The number of objects, also of those that can't be read; nothing if there is no database, or the caller may not read it.
	virtual std::optional<size_t> count();
	// Watches the objects that walk() would select, from what `token` stands for on, which may be NULL.
	Watch watch(const Identifiers &id, bool exact, const char *token);
	// What a result of the library means here; `what` says it in words ("can't be read").
	Failure failure_of(ostrel_error_t result, const std::string &what);
	// From now on objects that are read come with their versions. Object and version are of one moment.
	void want_versions() { versions_ = true; }
	// The version of one object, empty if there is none; nothing if that can't be told.
	std::optional<std::string> version(const Identifiers &id);
	// The version of the whole, which changes with anything in it; nothing if that can't be told.
	std::optional<std::string> version();
	// The conditions of these that don't hold, each with the version that its object has now, or ? where that can't be told.
	std::vector<Condition> unmet(const std::vector<Condition> &conditions);
	// Warns of what is stored and can't be read, and so is missing from what was shown.
	virtual void warn_of_unread() const {}
	// Shows the stored form. Throws Failure (unsupported) if that is no matter of lines.
	virtual void inspect(Inspector &inspector) const;

	// ---- Before an update ----

	// Whether the caller may read, or update, as far as the owner of the store decides that.
	virtual bool allowed(bool write);
	// The same for reading, asked once.
	bool readable();
	// Why nobody holds the rights that the store's owner asks for, as the end of a sentence; empty if that isn't so.
	virtual std::string rights_fault() const { return ""; }

	// What an update of a file may lose: nothing; what is said as a warning; anything, without a word.
	enum class Loss { refused, told, meant };
	// From when on other updates of a file wait for the end of this handle: not at all, since each update is one step; the
	// same, but if that step would give the file another owner or mode; from now on.
	enum class Hold { no, for_owner, yes };
	// Throws Failure unless this caller can update the store. For a store that has use for it, says how.
	virtual void require_updates(Loss loss, Hold hold);
	// Throws Failure if the store could be replaced by nobody, or not without a loss that isn't accepted. Warns of one that is.
	virtual void require_place() const {}
	// Throws Failure if the store would refuse the object, or nobody could read it there; and as require_place(). Warns if it
	// won't come back as it was given.
	virtual void rehearse(const Object & /*object*/, const Presence & /*before*/) {}
	// The same for an object that gets other identifiers.
	virtual void rehearse_rename(const Identifiers &from, const Object &renamed);
	// The same for one of many objects, without require_place().
	virtual void check_import(const Object & /*object*/, const Presence & /*before*/) {}

	// A text that two identifier lists share exactly if the store takes them for the same object.
	virtual std::string key(const Identifiers &id);
	// How many objects have to be there before this one: writes go by it.
	virtual size_t depth(const Identifiers & /*id*/) { return 0; }
	// Whether `stored` is what the store makes of `written`.
	virtual bool is_stored_form(const Object &written, const Object &stored) const;

	// ---- Updates ----

	virtual Retries update(const Step &step);
	/*
	 * Carries out changes under their conditions. Nothing of it is deferred: what isn't done at the return isn't done later.
	 * Throws Failure, and RefusedStep for a step that the store refuses; nothing was changed then.
	 */
	virtual Outcome commit(const Changes &changes);
	Retries put(const Object &object) { return update({Step::Kind::put, object.id, object.props}); }
	Retries rename(const Identifiers &from, const Identifiers &to);
	Retries remove(const Identifiers &id) { return update({Step::Kind::remove, id}); }
	// Object by object in a repository: what was removed stays so if one of them fails.
	virtual Retries remove_all();
	// Prepares to make these objects, in their order, the whole content. Nothing from a store that takes objects one by one.
	virtual std::unique_ptr<Replacement> replacement(const std::vector<const Object *> &content);
	// Updates that are still deferred are given up: the end of the handle doesn't wait for them.
	void give_up() { given_up_ = true; }

	const std::string &label() const { return name_.label; }
	const std::string &name() const { return name_.name; }
	bool case_sensitive() const { return name_.case_sensitive; }
	// For the one command that hands the database on.
	ostrel_db_t handle() const { return db_; }

protected:
	Database(DatabaseName &&name, const ostrel_db_cmds_t &table);

	// ---- What a kind of store implements ----

	// Why an operation ended with this result, which `what` says in words ("can't be read"), if the store has more to say than
	// the library's general message.
	virtual std::optional<Failure> diagnose(ostrel_error_t result, const std::string &what) = 0;
	// Why an update was refused as an invalid argument. `object` is NULL unless it was to be written.
	virtual Failure refused(const Identifiers &id, const Object *object) = 0;

	// ---- What it may have an own form of ----

	virtual List list(const Identifiers &id);
	// Throws Failure if objects can't be selected by identifiers.
	virtual void require_selection() const {}
	virtual ostrel_error_t try_walk(const Identifiers &id, bool exact, const Visit &visit);
	// Throws Failure if it is known why a read, or a walk, of these identifiers failed.
	virtual void explain_read(ostrel_error_t /*result*/, const Identifiers & /*id*/) {}
	virtual void explain_walk(ostrel_error_t /*result*/, const Identifiers & /*id*/) {}
	// Finds the threads that go on with this handle's updates, if the store defers any. Called before the first update.
	virtual std::unique_ptr<RetryFinder> retry_finder() { return nullptr; }

	// ---- What it does so with ----

	[[noreturn]] void fail(ostrel_error_t result, const std::string &what);
	// The general message. Without a hint of the store's own, it gets the one that fits every store.
	Failure general_failure(ostrel_error_t result, const std::string &what, const std::string &hint = "") const;
	ostrel_error_t read(const Identifiers &id, std::optional<Object> *object);
	ostrel_error_t read_with_version(attrlist_t *ids, Object *object);
	ostrel_error_t walk_once(const Identifiers &id, bool exact, const Visit &visit);
	ostrel_error_t try_remove_all();
	// The threads of the update that was just made.
	Retries find_retries() { return finder_ ? finder_->find() : Retries(); }
	const DatabaseName &full_name() const { return name_; }
	bool may_have_retries() const { return finder_ != nullptr; }
	bool given_up() const { return given_up_; }
	// Updates still run on the handle, which therefore stays open.
	void leave_open() { left_open_ = true; }

private:
	List more_of(const Step &step);
	Failure refused_step(const Step &step);
	void begin_update();

	DatabaseName name_;
	const ostrel_db_cmds_t &table_;
	ostrel_db_t db_ = nullptr;
	std::unique_ptr<RetryFinder> finder_; // from the first update on
	std::optional<bool> readable_;
	bool versions_ = false;
	bool given_up_ = false;
	bool left_open_ = false;
};

// Whether a handle had to be left to an update that still runs: the process then ends as it stands.
bool updates_left_running();

#endif
