// Databases: the table of back ends, the operations, and the diagnosis of a failed one.
#include "database.h"
#include "lines.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <linux/magic.h>
#include <new>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

#include "failure.h"
#include "hatch.h"
#include "libostrel_files_newfile.h"
#include "scratch.h"
#include "shared/rights.h"
#include "text.h"
#include "trail.h"
#include "update_threads.h"

namespace {

constexpr BackEnd back_ends[] = {
    {"file", &ostrel_files_db_cmds, true, true, true, false, false, false},
    {"raw", &ostrel_rawfiles_db_cmds, false, false, true, false, false, false},
    {"repo", &ostrel_cairn_db_cmds, true, true, false, true, false, true},
    {"hatch", &ostrel_hatches_db_cmds, true, true, false, true, true, false},
};

const BackEnd *back_end_by_prefix(std::string_view prefix)
{
	for (const BackEnd &row : back_ends)
		if (prefix == row.prefix)
			return &row;
	return nullptr;
}

// A bare path that begins like this was meant to be something else.
bool looks_like_prefix(std::string_view text)
{
	constexpr std::string_view others = "0123456789+-.";
	auto is_letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
	return !text.empty() && is_letter(text[0]) && std::all_of(text.begin(), text.end(), [&](char c) {
		return is_letter(c) || others.find(c) != std::string_view::npos;
	});
}

// A walk's callback lives inside a C library: what it throws is kept, and thrown again outside.
struct WalkState {
	const Database::Visit *visit;
	std::exception_ptr thrown;
};

int visit_object(ostrel_db_t, attrlist_t *id, attrlist_t *props, uint64_t, void *arg)
{
	auto *state = static_cast<WalkState *>(arg);
	try {
		(*state->visit)(object_from_lists(id, props));
		return 0;
	} catch (...) {
		state->thrown = std::current_exception();
		return 1;
	}
}

bool left_running = false;

struct Diagnosis {
	Exit code;
	std::string message;
	std::string hint;
};

constexpr struct {
	mode_t kind;
	const char *word;
} file_kinds[] = {{S_IFDIR, "a directory"}, {S_IFIFO, "a FIFO"}, {S_IFSOCK, "a socket"}, {S_IFCHR, "a device"},
    {S_IFBLK, "a device"}};

// The word for a thing that isn't a regular file; NULL for one that is.
const char *odd_kind(const struct stat &status)
{
	for (const auto &row : file_kinds)
		if ((status.st_mode & S_IFMT) == row.kind)
			return row.word;
	return nullptr;
}

std::string parent_of(const std::string &path)
{
	size_t slash = path.rfind('/');
	if (slash == std::string::npos)
		return ".";
	return slash == 0 ? "/" : path.substr(0, slash);
}

// Where a link leads; nothing if it's no link.
std::optional<std::string> link_target(const std::string &path)
{
	char target[4096];
	ssize_t length = readlink(path.c_str(), target, sizeof(target));
	if (length < 0)
		return std::nullopt;
	return std::string(target, static_cast<size_t>(length));
}

bool holds_no_files(const std::string &directory)
{
	struct statfs fs;
	return statfs(directory.c_str(), &fs) == 0 && (fs.f_type == PROC_SUPER_MAGIC || fs.f_type == SYSFS_MAGIC);
}

// Whether an attribute of a file, as statx() has it, is set.
bool has_attribute(const std::string &path, uint64_t attribute)
{
	struct statx facts;
	return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE, &facts) == 0 &&
	       (facts.stx_attributes & attribute) != 0;
}

// What keeps a file from being made or replaced where rights don't matter. An update makes a new one beside it.
std::optional<Diagnosis> diagnose_place(const std::string &path)
{
	const std::string directory = parent_of(path);
	struct statvfs fs;
	if (has_attribute(path, STATX_ATTR_MOUNT_ROOT))
		return Diagnosis{Exit::invalid, "is mounted there by itself, and an update would have to replace it",
		    "update the file that is mounted, where it lies, or mount the directory around it instead"};
	if (holds_no_files(directory))
		return Diagnosis{Exit::invalid, fmt::format("{} is the kernel's, and takes no files", directory),
		    "give a path in a file system on a disk or in memory"};
	if (statvfs(directory.c_str(), &fs) == 0 && (fs.f_flag & ST_RDONLY) != 0)
		return Diagnosis{Exit::failure, "the file system is read-only",
		    fmt::format("mount it writable, if that is meant: findmnt -T {}", directory)};
	for (const std::string &marked : {path, directory})
		if (has_attribute(marked, STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND))
			return Diagnosis{Exit::permission, fmt::format("{} is marked as not to be changed", marked),
			    fmt::format("lsattr -d {0} shows the mark; chattr -ia {0} takes it away", marked)};
	return std::nullopt;
}

Diagnosis diagnose_missing(const std::string &path)
{
	struct stat status;
	if (std::optional<std::string> target = link_target(path))
		return {Exit::not_found, fmt::format("is a link to {}, which doesn't exist", *target),
		    "repair or remove the link"};
	if (stat(parent_of(path).c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
		return {
		    Exit::not_found, fmt::format("there is no directory {}", parent_of(path)), "make the directory"};
	if (holds_no_files(parent_of(path)))
		return {Exit::not_found, "there is no such file", "give another path: no database can be made there"};
	return {Exit::not_found, "there is no such file",
	    "ostrel put or ostrel import makes a database where there is none"};
}

// Whether there is no room for what an update of the file would make: the whole of it once more.
bool disk_is_full(const std::string &path)
{
	constexpr uint64_t margin = 64 << 10;
	struct statvfs fs;
	struct stat status;
	if (statvfs(parent_of(path).c_str(), &fs) != 0)
		return false;
	const uint64_t needed = margin + (stat(path.c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0);
	return fs.f_bavail * fs.f_frsize < needed || (fs.f_files > 0 && fs.f_favail == 0);
}

// What can be seen of a file that an operation failed on. Nothing is opened: a FIFO would make the tool wait.
std::optional<Diagnosis> diagnose_path(const std::string &path, ostrel_error_t result)
{
	struct stat status;
	int found = stat(path.c_str(), &status);
	if (result == OSTREL_NO_MEMORY && disk_is_full(path))
		return Diagnosis{Exit::memory, "there is no space left on the file system", "make room, and try again"};
	if (found != 0 && (errno == ENOENT || errno == ENOTDIR))
		return result == OSTREL_NOT_FOUND ? std::optional(diagnose_missing(path)) : std::nullopt;
	if (found != 0)
		return Diagnosis{exit_of(result), std::strerror(errno), "give another path"};
	if (S_ISDIR(status.st_mode))
		return Diagnosis{Exit::invalid, "is a directory, not a database file", "give the path of a file"};
	if (result == OSTREL_EPERM)
		return Diagnosis{Exit::permission, "permission denied",
		    fmt::format(
			"look at the rights with ls -ld {} {}; updates also need the right to write to the directory",
			path, parent_of(path))};
	return std::nullopt;
}

std::string shell_words(const Identifiers &id)
{
	std::string words;
	for (const auto &[name, value] : id)
		words += fmt::format(" '{}={}'", visible(name), visible(value));
	return words;
}

} // namespace

Database::Database(const std::string &name, enclaveid_t enclave, bool case_sensitive)
    : label_(name), name_(name), back_(&back_ends[0]), enclave_(enclave), case_sensitive_(case_sensitive),
      held_(std::make_unique<NewFile>())
{
	size_t colon = name.find(':');
	const BackEnd *prefixed =
	    colon == std::string::npos ? nullptr : back_end_by_prefix(std::string_view(name).substr(0, colon));
	if (prefixed != nullptr) {
		back_ = prefixed;
		name_ = name.substr(colon + 1);
	} else if (colon != std::string::npos && looks_like_prefix(std::string_view(name).substr(0, colon))) {
		throw Failure(Exit::usage, fmt::format("'{}:' is no kind of database", name.substr(0, colon)))
		    .in(label_)
		    .next(fmt::format("write file:PATH, raw:PATH, repo:LOCATOR or hatch:PATH; a file of that name is "
				      "written ./{}",
			name));
	}
	if (name_.empty())
		throw Failure(Exit::usage, "a database needs a name")
		    .in(label_)
		    .next("write PATH, file:PATH, raw:PATH, repo:LOCATOR or hatch:PATH");
	if (name_.size() > OSTREL_DB_NAME_MAX)
		throw Failure(Exit::invalid,
		    fmt::format("the name has {} bytes; {} are possible", name_.size(), OSTREL_DB_NAME_MAX))
		    .in(name_.substr(0, 40) + "...");
	ostrel_error_t result =
	    ostrel_db_open(name_.c_str(), enclave, *back_->table, case_sensitive ? OSTREL_DB_CASE_SENSITIVE : 0, &db_);
	if (result != OSTREL_SUCCESS)
		fail(result, "can't be opened");
}

// An update that is put off goes on with the handle, on a thread of this process. One that has landed ends at once, or with
// its next attempt.
Database::~Database()
{
	constexpr std::chrono::milliseconds last_attempt(2000), pause(10);
	size_t running = back_->repository && updated_ ? own_deferred_updates() : 0;
	for (auto waited = pause; running > 0 && !given_up_ && waited < last_attempt; waited += pause) {
		std::this_thread::sleep_for(pause);
		running = own_deferred_updates();
	}
	left_running = left_running || running > 0;
	if (running == 0)
		ostrel_db_close(db_);
	else if (!given_up_)
		warn(Failure(Exit::deferred, "updates that were deferred before are given up").in(label_));
}

bool updates_left_running()
{
	return left_running;
}

bool Database::here() const
{
	return back_->is_path && (enclave_ == 0 || getenclaveid() != 0);
}

// The level at which an operation works stands beside the identifiers. Files know none: there it would be another file.
List Database::list(const Identifiers &id)
{
	const bool is_special =
	    find_identifier(id, enclave_key) != nullptr || find_identifier(id, level_key) != nullptr;
	if (back_->is_path || (is_special && !holds_groups()))
		return id_list(id);
	Identifiers others;
	for (const auto &pair : id) {
		if (pair.first == enclave_key)
			throw Failure(Exit::invalid, "the enclave isn't an identifier")
			    .in(label_)
			    .next("-E, --enclave names the enclave in which the database lies");
		if (pair.first != level_key)
			others.push_back(pair);
	}
	const std::string *level = find_identifier(id, level_key);
	chose_level_ = chose_level_ || level != nullptr;
	return id_list(others, level == nullptr ? nullptr : level->c_str());
}

void Database::require_selection() const
{
	if (!back_->selects)
		throw Failure(Exit::invalid, "the lines of a raw file can't be selected by identifiers")
		    .in(label_)
		    .next(fmt::format("ostrel walk {} shows all of them", label_));
}

void Database::fail(ostrel_error_t result, const std::string &what)
{
	if (here()) {
		if (std::optional<Diagnosis> found = diagnose_path(name_, result))
			throw Failure(found->code, found->message).in(label_).next(found->hint);
	}
	if (back_->served) {
		if (std::optional<Failure> unreachable = hatch_unreachable(name_))
			throw unreachable->in(label_);
		if (result == OSTREL_EPERM)
			throw Failure(Exit::permission, fmt::format("{}: the server doesn't allow it", what))
			    .in(label_)
			    .next(fmt::format("ostrel auth {} tells what it allows; {}root grants rights in "
					      "/etc/meridon/rights{}",
				label_, chose_level_ ? "object-db-name also needs the right ostrel.elsewhere; " : "",
				rights_fault_at(name_)));
	}
	if (back_->repository)
		fail_repository(result, what);
	if (result == OSTREL_NO_MEMORY)
		throw Failure(Exit::memory, fmt::format("{}: there is no memory, or no space left", what)).in(label_);
	if (result == OSTREL_NOT_FOUND && back_->is_path && !here())
		throw Failure(Exit::not_found, fmt::format("there is no such file in enclave {}", enclave_)).in(label_);
	Failure failure(exit_of(result), fmt::format("{}: {}", what, ostrel_strerror(result)));
	if (back_->served && result == OSTREL_INVALID_ARG)
		failure.next(
		    fmt::format("the store that is served may be one that can only be walked: ostrel walk {}", label_));
	if (back_->served && result == OSTREL_FAILURE)
		failure.next("the server is there; the store behind it may not be: look at the server's log, and for a "
			     "repository at its daemon");
	if (here() && result == OSTREL_FAILURE)
		failure.next("the file system refuses it: a quota may be used up, and the system's log may tell more");
	if (enclave_ != 0)
		failure.next(fmt::format("ostrel enclaves tells whether enclave {} is running", enclave_));
	throw failure.in(label_);
}

// What a repository's results mean. Comes back where the general message says it.
void Database::fail_repository(ostrel_error_t result, const std::string &what)
{
	if (result == OSTREL_FAILURE && (enclave_ == 0 || enclave_ == getenclaveid())) {
		if (std::optional<Failure> unreachable = repository_unreachable())
			throw unreachable->in(label_);
	}
	if (result == OSTREL_NOT_FOUND && db_ == nullptr)
		throw Failure(Exit::not_found, "the repository has no service or instance of that name")
		    .in(label_)
		    .next(fmt::format("cairnctl list tells what it has; cairnctl add {} makes it", name_));
	if (result == OSTREL_EPERM)
		throw Failure(Exit::permission, fmt::format("{}: the repository doesn't allow it", what))
		    .in(label_)
		    .next("root, the daemon's user and who holds the right cairn.modify in /etc/meridon/rights may "
			  "update" +
			  rights_fault(0));
}

// A store that is walked by type alone is walked level by level.
ostrel_error_t Database::walk_levels(const Identifiers &id, bool exact, const Visit &visit)
{
	std::string pattern = "*";
	for (int level = 0; level < 8; level++, pattern += "/*") {
		Identifiers one_level = id;
		one_level.emplace_back(group_type_key, pattern);
		size_t seen = 0;
		ostrel_error_t result = walk_once(one_level, exact, [&](Object &&object) {
			seen++;
			visit(std::move(object));
		});
		if (result != OSTREL_SUCCESS || seen == 0)
			return result;
	}
	return OSTREL_SUCCESS;
}

// A walk of groups goes by their name, or else by their types. With a name, the types are looked at here. An empty value
// stands for any, and an identifier of another name has no group.
ostrel_error_t Database::walk_groups(const Identifiers &id, bool exact, const Visit &visit)
{
	Identifiers wanted;
	for (const auto &pair : id) {
		if (pair.first != group_name_key && pair.first != group_type_key && pair.first != level_key)
			return OSTREL_SUCCESS;
		if (!pair.second.empty())
			wanted.push_back(pair);
	}
	if (!names_groups(wanted))
		return walk_levels(wanted, exact, visit);
	const bool by_name = find_identifier(wanted, group_name_key) != nullptr;
	const std::string *pattern = by_name ? find_identifier(wanted, group_type_key) : nullptr;
	ostrel_error_t result = walk_once(wanted, exact, [&](Object &&object) {
		const std::string *types = find_identifier(object.id, group_type_key);
		if (pattern == nullptr || types == nullptr || fits_types(*types, *pattern))
			visit(std::move(object));
	});
	return result == OSTREL_NOT_FOUND ? OSTREL_SUCCESS : result; // a walk to one name
}

ostrel_error_t Database::try_walk(const Identifiers &id, bool exact, const Visit &visit)
{
	if (is_group(id))
		return walk_groups(id, exact, visit);
	ostrel_error_t result = walk_once(id, exact, visit);
	if (result == OSTREL_INVALID_ARG && holds_groups())
		return walk_groups(id, exact, visit);
	return result;
}

// A repository refuses a walk of everything before it looks at anything; all other stores have it.
bool Database::holds_groups()
{
	if (!back_->served)
		return back_->repository;
	if (!holds_groups_) {
		auto halt = [](ostrel_db_t, attrlist_t *, attrlist_t *, uint64_t, void *) { return 1; };
		List all = id_list({});
		holds_groups_ =
		    ostrel_db_walk(db_, all.get(), 0, halt, nullptr, nullptr, nullptr) == OSTREL_INVALID_ARG;
	}
	return *holds_groups_;
}

ostrel_error_t Database::walk_once(const Identifiers &id, bool exact, const Visit &visit)
{
	List ids = list(id);
	WalkState state = {&visit, nullptr};
	ostrel_error_t result =
	    ostrel_db_walk(db_, ids.get(), exact ? OSTREL_FLAG_EXACT_MATCH : 0, visit_object, nullptr, &state, nullptr);
	if (state.thrown)
		std::rethrow_exception(state.thrown);
	return result;
}

void Database::walk(const Identifiers &id, bool exact, const Visit &visit)
{
	if (!id.empty())
		require_selection();
	ostrel_error_t result = try_walk(id, exact, visit);
	if (result != OSTREL_SUCCESS)
		fail_walk(result, id);
}

void Database::fail_walk(ostrel_error_t result, const Identifiers &id)
{
	if (is_unreadable(result, id))
		explain_unread(id);
	fail(result, "can't be read");
}

namespace {

// The identifiers that choose the level alone.
Identifiers level_of(const Identifiers &id)
{
	const std::string *level = find_identifier(id, level_key);
	return level == nullptr ? Identifiers() : Identifiers{{level_key, *level}};
}

} // namespace

// Whether a read that failed so met a group that can't be read, in a store that answers: no group has this type. Throws
// Failure for a level that isn't there.
bool Database::is_unreadable(ostrel_error_t result, const Identifiers &id)
{
	if ((result != OSTREL_INVALID_ARG && result != OSTREL_FAILURE) || !holds_groups())
		return false;
	Identifiers nothing = level_of(id);
	nothing.emplace_back(group_type_key, "\x01");
	const ostrel_error_t answer = walk_once(nothing, false, [](Object &&) {});
	if (answer == OSTREL_INVALID_ARG)
		throw Failure(Exit::invalid,
		    fmt::format("{} is neither the service of this instance nor an instance of this service",
			id_text(level_of(id))))
		    .in(label_);
	return answer == OSTREL_SUCCESS;
}

Failure Database::unreadable(const Identifiers &id) const
{
	return Failure(Exit::invalid,
	    fmt::format("{} can't be read: a property there has more than 128 values, an empty one among several, or a "
			"type that isn't read",
		names_groups(id) ? id_text(id) : "a group"))
	    .in(label_)
	    .next("ostrel put replaces the properties of a group, ostrel remove removes it");
}

// Which group it was that couldn't be read, as far as that can be told.
void Database::explain_unread(const Identifiers &id)
{
	const bool named = find_identifier(id, group_name_key) != nullptr;
	if (std::optional<Failure> bad = named ? why_bad_path(id) : why_bad_pattern(id))
		throw bad->in(label_);
	if (named)
		throw unreadable(id);
	for (const std::string &name : group_names(id).value_or(std::vector<std::string>())) {
		Identifiers one = level_of(id);
		one.emplace_back(group_name_key, name);
		if (look(one).there && !look(one).object)
			throw unreadable(one);
	}
	throw unreadable(id);
}

// The names of all groups, also of those that can't be read. Nothing where the tool can't list them itself.
std::optional<std::vector<std::string>> Database::group_names(const Identifiers &id) const
{
	if (!back_->repository || (enclave_ != 0 && enclave_ != getenclaveid()))
		return std::nullopt;
	const std::string *level = find_identifier(id, level_key);
	return list_groups(level == nullptr ? name_ : *level);
}

std::optional<size_t> Database::count()
{
	if (!readable())
		return std::nullopt;
	if (std::optional<std::vector<std::string>> names = group_names())
		return names->size();
	std::optional<std::vector<Object>> all = objects_if_any();
	return all ? std::optional(all->size()) : std::nullopt;
}

std::vector<Object> Database::objects(const Identifiers &id, bool exact)
{
	std::vector<Object> all;
	walk(id, exact, [&](Object &&object) { all.push_back(std::move(object)); });
	return all;
}

std::optional<std::vector<Object>> Database::objects_if_any(const Identifiers &id, bool exact)
{
	std::vector<Object> all;
	ostrel_error_t result = try_walk(id, exact, [&](Object &&object) { all.push_back(std::move(object)); });
	if (result == OSTREL_NOT_FOUND)
		return std::nullopt;
	if (result != OSTREL_SUCCESS)
		fail_walk(result, id);
	return all;
}

ostrel_error_t Database::read(const Identifiers &id, std::optional<Object> *object)
{
	List ids = list(id);
	attrlist_t *props = nullptr;
	ostrel_error_t result = ostrel_db_read(db_, ids.get(), 0, &props);
	List owned(props);
	if (result == OSTREL_SUCCESS)
		*object = object_from_lists(ids.get(), props);
	return result;
}

std::optional<Object> Database::find(const Identifiers &id)
{
	std::optional<Object> object;
	ostrel_error_t result = read(id, &object);
	if (result == OSTREL_SUCCESS || result == OSTREL_NOT_FOUND)
		return object;
	if (is_unreadable(result, id)) {
		if (std::optional<Failure> bad = why_bad_path(id))
			throw bad->in(label_);
		throw unreadable(id);
	}
	if (result == OSTREL_INVALID_ARG && objects(id, true).size() > 1)
		throw Failure(Exit::invalid, fmt::format("several objects have the identifiers {}", id_text(id)))
		    .in(label_)
		    .next(fmt::format("ostrel check {} names their lines", label_));
	fail(result, fmt::format("{} can't be read", id_text(id)));
}

Look Database::look(const Identifiers &id)
{
	Look found;
	if (!is_group(id)) {
		std::optional<std::vector<Object>> same = objects_if_any(id, true);
		found.there = same && !same->empty();
		if (found.there)
			found.object = std::move(same->front());
		return found;
	}
	if (std::optional<Failure> bad = why_bad_path(id))
		throw bad->in(label_);
	ostrel_error_t result = read(id, &found.object);
	found.there = result != OSTREL_NOT_FOUND;
	if (found.there && !found.object && !is_unreadable(result, id))
		fail(result, fmt::format("{} can't be read", id_text(id)));
	return found;
}

// A repository that has no such name gives one that differs in case alone.
bool Database::is_gone(const Identifiers &id)
{
	if (!is_group(id))
		return !find(id);
	const Look now = look(id);
	if (!now.object)
		return !now.there;
	const std::string *name = find_identifier(id, group_name_key);
	const std::string *name_now = find_identifier(now.object->id, group_name_key);
	return name != nullptr && name_now != nullptr && *name != *name_now;
}

Object Database::get(const Identifiers &id)
{
	require_selection();
	if (std::optional<Object> found = find(id))
		return std::move(*found);
	std::vector<Object> near = objects(id); // a missing file ends here, with its own message
	Failure missing(Exit::not_found, fmt::format("there is no object {}", id_text(id)));
	if (near.empty())
		missing.next(fmt::format("ostrel walk {} lists what is there", label_));
	else if (near.size() == 1)
		missing.next(fmt::format("an object is named by all its identifiers:{}", shell_words(near[0].id)));
	else
		missing.next(
		    fmt::format("an object is named by all its identifiers; {} objects have these among theirs: "
				"ostrel walk {}{}",
			near.size(), label_, shell_words(id)));
	throw missing.in(label_);
}

Object Database::get_for_update(const Identifiers &id)
{
	if (!is_group(id))
		return get(id);
	Look found = look(id);
	if (found.there && !found.object)
		return {id, {}};
	return found.there ? std::move(*found.object) : get(id);
}

bool Database::allowed(bool write)
{
	ostrel_error_t result = ostrel_db_check_auth(db_, write ? B_TRUE : B_FALSE);
	if (result != OSTREL_SUCCESS && result != OSTREL_EPERM)
		fail(result, "the server can't be asked");
	if (result == OSTREL_EPERM && hatch_unreachable(name_))
		fail(result, "the server can't be asked");
	return result == OSTREL_SUCCESS;
}

bool Database::readable()
{
	if (!readable_)
		readable_ = !back_->served || allowed(false);
	return *readable_;
}

void Database::require_updates(Loss loss, Hold hold)
{
	if (!back_->updates)
		throw Failure(Exit::unsupported, fmt::format("{}: databases are read only", back_->prefix)).in(label_);
	if (back_->served && !allowed(true))
		fail(OSTREL_EPERM, "can't be updated");
	if (here())
		require_regular_file();
	if (!back_->is_path)
		return;
	holds_ = hold == Hold::yes || (hold == Hold::for_owner && !library_keeps_owner());
	// Why it can't be held is said when there is something to be written.
	if (holds_)
		hold_error_ = take_hold();
	loss_ = loss;
}

// A temporary file that was left behind may be open to somebody who may not read the database: another one is made then.
int Database::take_hold()
{
	constexpr mode_t open_to_all = S_IRGRP | S_IROTH;
	constexpr int attempts_max = 100;
	for (int attempt = 0;; attempt++) {
		int error = held_->lock(enclave_, name_.c_str());
		if (error == 0)
			error = held_->find_database(&seen_, &exists_);
		const bool keeps_from_some = exists_ && (seen_.st_mode & open_to_all) != open_to_all;
		if (error != 0 || !keeps_from_some || !held_->was_left_behind())
			return error;
		if (attempt == attempts_max)
			return EBUSY;
		held_->discard();
	}
}

// Whether an update by the library leaves a file's mode and owner: they are those of a file that it makes.
bool Database::library_keeps_owner() const
{
	const std::string temporary = name_ + ".new";
	if (!here() || temporary.size() > OSTREL_DB_NAME_MAX)
		return false;
	const auto is_own = [](const struct stat &file) {
		return file.st_uid == geteuid() && file.st_gid == getegid();
	};
	struct stat status;
	if (lstat(temporary.c_str(), &status) == 0) // its owner and mode may count, or it is in the way
		return false;
	if (stat(name_.c_str(), &status) != 0)
		return errno == ENOENT;
	if (!is_own(status) || (status.st_mode & 07777) != 0644)
		return false;
	const size_t slash = name_.rfind('/');
	const std::string directory = slash == std::string::npos ? "." : name_.substr(0, slash + 1);
	return stat(directory.c_str(), &status) == 0 && ((status.st_mode & S_ISGID) == 0 || status.st_gid == getegid());
}

void Database::check_loss() const
{
	if (back_->is_path && loss_ != Loss::meant)
		look_for_lost_lines(*this, loss_ == Loss::told);
}

void Database::require_regular_file() const
{
	struct stat status;
	if (const char *kind = stat(name_.c_str(), &status) == 0 ? odd_kind(status) : nullptr)
		throw Failure(Exit::invalid, fmt::format("is {}, which can't be updated", kind))
		    .in(label_)
		    .next("give the path of a regular file, or of one that doesn't exist yet");
	if (std::optional<std::string> target = link_target(name_))
		throw Failure(Exit::invalid,
		    fmt::format("is a link to {}: an update would replace the link, not that file", *target))
		    .in(label_)
		    .next("give the path of the file itself");
}

void Database::require_place() const
{
	if (!here())
		return;
	if (std::optional<Diagnosis> found = diagnose_place(name_))
		throw Failure(found->code, found->message).in(label_).next(found->hint);
}

// What the library refuses though the object itself can be stored.
Failure Database::refused(const Identifiers &id, const Object *object)
{
	if (is_group(id) || (back_->served && names_groups(id)))
		return why_refused(id, object);
	if (back_->served) {
		try {
			if (object != nullptr)
				(void) LineMaker().line(*object);
		} catch (const Failure &reason) {
			return reason;
		}
		return {Exit::invalid, "the server refuses it: the store that it serves can't hold this"};
	}
	return others_damaged(); // what the object itself is refused for comes before
}

Failure Database::others_damaged() const
{
	return Failure(Exit::invalid, "another object of the database can't be written back")
	    .next(fmt::format("ostrel check {} tells which lines are damaged", label_));
}

// ---- Files ----

// Why the temporary file beside the database keeps every update from being made.
void Database::fail_replace(int error)
{
	const std::string temporary = name_ + ".new";
	struct stat status;
	const bool found = here() && lstat(temporary.c_str(), &status) == 0;
	if (temporary.size() > OSTREL_DB_NAME_MAX)
		throw Failure(Exit::invalid, "the path is too long for the name of a temporary file beside it");
	if (error == ETIMEDOUT)
		throw Failure(Exit::deferred, fmt::format("another update holds {}", temporary))
		    .next("run the command again; lslocks -u shows who holds it");
	if (found && (!S_ISREG(status.st_mode) || status.st_nlink != 1))
		throw Failure(Exit::invalid, fmt::format("{} is in the way: it isn't a plain file", temporary))
		    .next("move it away: updates are made under this name");
	if (found && error == EACCES && status.st_uid != geteuid())
		throw Failure(
		    Exit::permission, fmt::format("{} belongs to user {}, who would keep a hold of the database",
					  temporary, status.st_uid))
		    .next("remove it, if no update runs, and look at who may write to the directory");
	fail(ostrel_errno2error(error), "can't be written");
}

void Database::replace_held(const std::string &content)
{
	struct stat now;
	bool exists = false;
	int error = hold_error_;
	if (error == 0)
		error = held_->find_database(&now, &exists);
	if (error != 0)
		fail_replace(error);
	// A program that replaces the file in another way isn't kept out.
	if (exists != exists_ || (exists && (!ostrel_same_file(now, seen_) || now.st_size != seen_.st_size)))
		throw Failure(Exit::deferred, "the database was changed by somebody else meanwhile; nothing was done")
		    .next("run the command again");
	error = held_->begin(content.size(), exists ? &now : nullptr);
	if (error == EPERM && exists)
		throw Failure(Exit::permission,
		    fmt::format("the file belongs to user {}, group {}, and an update by this user would change that",
			now.st_uid, now.st_gid))
		    .next("let its owner, or root, make the update");
	if (error == 0)
		error = held_->append(content.data(), content.size());
	if (error == 0)
		error = held_->commit();
	if (error == 0)
		return;
	held_->discard();
	fail_replace(error);
}

void Database::replace(const std::string &content, const std::vector<const Object *> &writes,
    const std::vector<const Identifiers *> &removals)
{
	try {
		replace_held(content);
	} catch (Failure &failure) {
		record_updates(name_, writes, removals, failure.code);
		failure.in(label_);
		throw;
	}
	record_updates(name_, writes, removals, Exit::done);
}

std::string Database::changed_text(const Identifiers &id, const std::function<bool(Object &)> &change) const
{
	return exists_ ? changed_lines(*this, id, change) : "";
}

// ---- Updates ----

void Database::check_group(const Object &object, const Look &before)
{
	if (!is_group(object.id))
		return;
	(void) list(object.id); // what can't be an identifier
	const Object *stored = before.object ? &*before.object : nullptr;
	if (std::optional<Failure> why = why_unstorable(object, stored, !before.there))
		throw why->in(label_);
	if (std::string loss = group_loss(object, stored); !loss.empty())
		warn(Failure(Exit::done, fmt::format("{}: {}", id_text(object.id), loss)).in(label_));
}

void Database::check_group_rename(const Identifiers &from, const Identifiers &to)
{
	if (!is_group(from))
		return;
	if (std::optional<Failure> why = why_unnamable(from, to))
		throw why->in(label_);
	std::vector<Identifiers> all;
	if (std::optional<std::vector<std::string>> names = group_names(from)) {
		for (const std::string &name : *names)
			all.push_back({{group_name_key, name}});
	} else if (readable()) {
		try {
			for (Object &object : objects(level_of(from)))
				all.push_back(std::move(object.id));
		} catch (const Failure &failure) { // some group can't be read; the store itself looks below this one
			if (failure.code != Exit::invalid)
				throw;
		}
	}
	if (std::any_of(all.begin(), all.end(), [&](const Identifiers &id) { return is_below(id, from); }))
		throw Failure(Exit::invalid, "a group that holds groups can't be renamed").in(label_);
}

// Somebody made the new object's group between the look for it and its creation: the update is now one of a group that is
// there. Those who remove it and make it again all the time win in the end.
template <typename Update>
static ostrel_error_t past_others(Update update)
{
	constexpr int attempts_max = 100;
	ostrel_error_t result = OSTREL_EXISTS;
	for (int attempt = 0; attempt < attempts_max && result == OSTREL_EXISTS; attempt++)
		result = update();
	return result;
}

// What an update has to be made after, so that its threads can be told from those before.
void Database::begin_update()
{
	updated_ = true;
	if (!back_->defers || finder_)
		return;
	if (back_->repository)
		watch_ = std::make_unique<UpdateWatch>(UpdateWatch::Keep::all);
	std::optional<pid_t> process = back_->served ? hatch_server(name_) : std::optional(getpid());
	finder_ = std::make_unique<RetryFinder>(process == 0 ? std::nullopt : process, watch_.get());
}

Retries Database::made_update()
{
	return finder_ ? finder_->find() : Retries();
}

Retries Database::put(const Object &object)
{
	if (holds_) {
		bool found = false;
		std::string text = changed_text(object.id, [&](Object &stored) {
			stored.props = object.props;
			return found = true;
		});
		if (!found)
			text += LineMaker().line(object);
		replace(text, {&object}, {});
		return Retries();
	}
	List ids = list(object.id);
	List props = props_list(object.props);
	begin_update();
	ostrel_error_t result = past_others([&] { return ostrel_db_write(db_, ids.get(), 0, props.get()); });
	if (result == OSTREL_INVALID_ARG)
		throw refused(object.id, &object).in(label_);
	if (result != OSTREL_SUCCESS)
		fail(result, fmt::format("{} can't be written", id_text(object.id)));
	return made_update();
}

Retries Database::rename(const Identifiers &from, const Identifiers &to)
{
	if (holds_) {
		const std::string text = changed_text(from, [&](Object &stored) {
			stored.id = to;
			return true;
		});
		const Object renamed = {from, {}};
		replace(text, {&renamed}, {});
		return Retries();
	}
	List old_list = list(from);
	List new_list = list(to);
	begin_update();
	ostrel_error_t result = past_others([&] { return ostrel_db_rename(db_, old_list.get(), 0, new_list.get()); });
	if (result == OSTREL_INVALID_ARG)
		throw refused(to).in(label_);
	if (result != OSTREL_SUCCESS)
		fail(result, fmt::format("{} can't be renamed", id_text(from)));
	return made_update();
}

Retries Database::remove(const Identifiers &id)
{
	if (holds_) {
		replace(changed_text(id, [](Object &) { return false; }), {}, {&id});
		return Retries();
	}
	List ids = list(id);
	begin_update();
	ostrel_error_t result = ostrel_db_remove(db_, ids.get(), 0);
	if (result == OSTREL_INVALID_ARG)
		throw refused(id).in(label_);
	if (result != OSTREL_SUCCESS)
		fail(result, fmt::format("{} can't be removed", id_text(id)));
	return made_update();
}

// What lies below a group goes with it.
Retries Database::destroy()
{
	if (!holds_groups()) {
		begin_update();
		ostrel_error_t result = ostrel_db_remove(db_, nullptr, 0);
		if (result == OSTREL_INVALID_ARG && back_->served && !readable())
			throw Failure(Exit::invalid, "the server refuses to remove everything at once")
			    .in(label_)
			    .next("a repository is emptied group by group, which needs the right to read, too");
		if (result != OSTREL_SUCCESS)
			fail(result, "can't be removed");
		return made_update();
	}
	Retries retries;
	if (std::optional<std::vector<std::string>> names = group_names()) {
		for (const std::string &name : *names)
			if (name.find('/') == std::string::npos)
				retries.add(remove({{group_name_key, name}}));
		return retries;
	}
	for (const Object &object : objects({{group_type_key, "*"}}))
		retries.add(remove(object.id));
	return retries;
}
