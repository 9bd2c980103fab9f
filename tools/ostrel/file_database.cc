/*
 * Divisions: failures; reading; before an update; updates.
 *
 * Database files: flat ones, whose lines are objects, and raw ones, which are read only.
 *
 * An update of a flat file runs in one of two ways. Without a hold the library makes it, as one step that reads the file,
 * locks it and replaces it. With a hold (require_updates()) this process has locked the file itself, so that nothing comes
 * between what a command read and what it writes, and mode and owner of the file stay: then the new text is made here, of the
 * lines as they stand (lines.h), and the audit records are left here (trail.h).
 */
#include <sys/stat.h>

#include <fmt/format.h>

#include "database.h"
#include "database_kinds.h"
#include "file_place.h"
#include "libostrel_files_newfile.h"
#include "lines.h"
#include "scratch.h"
#include "trail.h"

namespace {

class FileDatabase : public Database {
public:
	explicit FileDatabase(DatabaseName &&name) : FileDatabase(std::move(name), ostrel_files_db_cmds) {}

	void warn_of_unread() const override;
	void inspect(Inspector &inspector) const override;
	void require_updates(Loss loss, Hold hold) override;
	void require_place() const override;
	void rehearse(const Object &object, const Presence &before) override;
	void check_import(const Object &object, const Presence &before) override;
	Retries update(const Step &step) override;
	Outcome commit(const Changes &changes) override;
	std::unique_ptr<Replacement> replacement(const std::vector<const Object *> &content) override;

	// Puts this text in the place of a file that is held, and leaves the audit records. Throws Failure.
	void replace(const std::string &text, const std::vector<const Object *> &writes,
	    const std::vector<const Identifiers *> &removals);

protected:
	FileDatabase(DatabaseName &&name, const ostrel_db_cmds_t &table) : Database(std::move(name), table) {}

	std::optional<Failure> diagnose(ostrel_error_t result, const std::string &what) override;
	Failure refused(const Identifiers &id, const Object *object) override;

private:
	bool is_own_path() const { return full_name().is_own_path(); }
	void check_place() const;
	void check_loss() const;
	int take_hold();
	std::string changed_text(const Identifiers &id, const std::function<bool(Object &)> &change) const;
	std::string text_after(const Step &step) const;
	void apply(const Step &step, std::vector<Object> &content);
	void replace_held(const std::string &text);
	[[noreturn]] void fail_replace(int error);

	Loss loss_ = Loss::refused;
	bool holds_ = false;
	NewFile held_;
	int hold_error_ = 0;    // why it couldn't be held: said when there is something to write
	struct stat seen_ = {}; // the file when it was held
	bool exists_ = false;   // at that time
};

class RawFileDatabase final : public FileDatabase {
public:
	explicit RawFileDatabase(DatabaseName &&name) : FileDatabase(std::move(name), ostrel_rawfiles_db_cmds) {}

	void warn_of_unread() const override {}
	void inspect(Inspector &inspector) const override
	{
		each_line(full_name(), [&](const Line &line) { inspector.see_raw_line(line); });
	}
	void require_updates(Loss, Hold) override
	{
		throw Failure(Exit::unsupported, "raw: databases are read only").in(label());
	}

protected:
	void require_selection() const override
	{
		throw Failure(Exit::invalid, "the lines of a raw file can't be selected by identifiers")
		    .in(label())
		    .next(fmt::format("ostrel list {} shows all of them", label()));
	}
};

class FileReplacement final : public Replacement {
public:
	FileReplacement(FileDatabase &database, std::string &&text) : database_(database), text_(std::move(text)) {}
	void commit(
	    const std::vector<const Object *> &writes, const std::vector<const Identifiers *> &removals) override
	{
		database_.replace(text_, writes, removals);
	}

private:
	FileDatabase &database_;
	std::string text_;
};

// Checks that a line can hold the object, and warns of what won't come back as it was given.
void check_line(const Object &object, const std::string &label)
{
	LineMaker maker;
	(void) maker.line(object);
	std::string loss = storage_loss(object, maker.stored());
	if (!loss.empty())
		warn(Failure(Exit::done, fmt::format("{}: {}", id_text(object.id), loss)).in(label));
}

// ---- Failures ----

std::optional<Failure> FileDatabase::diagnose(ostrel_error_t result, const std::string &what)
{
	if (!is_own_path()) {
		if (result != OSTREL_NOT_FOUND)
			return std::nullopt;
		return Failure(
		    Exit::not_found, fmt::format("there is no such file in enclave {}", full_name().enclave));
	}
	if (std::optional<Failure> why = why_path_fails(name(), result))
		return why;
	if (result != OSTREL_FAILURE)
		return std::nullopt;
	return general_failure(
	    result, what, "the file system refuses it: a quota may be used up, and the system's log may tell more");
}

// What an object itself is refused for is found before.
Failure FileDatabase::refused(const Identifiers &, const Object *)
{
	return others_damaged(label());
}

// ---- Reading ----

void FileDatabase::warn_of_unread() const
{
	tell_unread_lines(full_name());
}

void FileDatabase::inspect(Inspector &inspector) const
{
	each_line(full_name(), [&](const Line &line) { inspector.see_line(line); });
	const std::string temporary = temporary_of(name());
	struct stat status;
	if (is_own_path() && lstat(temporary.c_str(), &status) == 0)
		inspector.see_temporary_file(temporary, S_ISREG(status.st_mode) && status.st_nlink == 1);
}

// ---- Before an update ----

void FileDatabase::require_updates(Loss loss, Hold hold)
{
	if (is_own_path()) {
		if (std::optional<Failure> why = why_not_regular(name()))
			throw why->in(label());
	}
	const auto library_will_do = [&] { return is_own_path() && library_keeps_owner(name()); };
	holds_ = hold == Hold::yes || (hold == Hold::for_owner && !library_will_do());
	if (holds_)
		hold_error_ = take_hold();
	loss_ = loss;
}

// A temporary file that an update left behind may be open to somebody who may not read the database: this takes a new one then.
int FileDatabase::take_hold()
{
	constexpr mode_t open_to_all = S_IRGRP | S_IROTH;
	constexpr int attempts_max = 100;
	for (int attempt = 0;; attempt++) {
		int error = held_.lock(full_name().enclave, name().c_str());
		if (error == 0)
			error = held_.find_database(&seen_, &exists_);
		const bool keeps_from_some = exists_ && (seen_.st_mode & open_to_all) != open_to_all;
		if (error != 0 || !keeps_from_some || !held_.was_left_behind())
			return error;
		if (attempt == attempts_max)
			return EBUSY;
		held_.discard();
	}
}

void FileDatabase::check_place() const
{
	if (!is_own_path())
		return;
	if (std::optional<Failure> why = why_place_fails(name()))
		throw why->in(label());
}

void FileDatabase::check_loss() const
{
	if (loss_ != Loss::meant)
		look_for_lost_lines(full_name(), loss_ == Loss::told);
}

void FileDatabase::require_place() const
{
	check_place();
	check_loss();
}

void FileDatabase::rehearse(const Object &object, const Presence &)
{
	check_place();
	try {
		check_line(object, label());
	} catch (Failure &failure) {
		failure.in(label());
		throw;
	}
	check_loss();
}

void FileDatabase::check_import(const Object &object, const Presence &)
{
	check_line(object, label());
}

// ---- Updates ----

std::string FileDatabase::changed_text(const Identifiers &id, const std::function<bool(Object &)> &change) const
{
	return exists_ ? changed_lines(full_name(), id, change) : "";
}

std::string FileDatabase::text_after(const Step &step) const
{
	if (step.kind == Step::Kind::remove)
		return changed_text(step.id, [](Object &) { return false; });
	if (step.kind == Step::Kind::rename)
		return changed_text(step.id, [&](Object &stored) {
			stored.id = step.new_id;
			return true;
		});
	bool found = false;
	std::string text = changed_text(step.id, [&](Object &stored) {
		stored.props = step.props;
		return found = true;
	});
	if (!found)
		text += LineMaker().line({step.id, step.props});
	return text;
}

Retries FileDatabase::update(const Step &step)
{
	if (!holds_)
		return Database::update(step);
	const std::string text = text_after(step);
	const Object object = {step.id, {}};
	if (step.kind == Step::Kind::remove)
		replace(text, {}, {&step.id});
	else
		replace(text, {&object}, {});
	return Retries();
}

// While the file is held nothing comes between the look at the conditions and the replacement.
Outcome FileDatabase::commit(const Changes &changes)
{
	if (!holds_)
		return Database::commit(changes);
	if (hold_error_ == 0) {
		const std::optional<std::string> &whole = changes.database_version;
		if (!unmet(changes.conditions).empty() || (whole && whole != version()))
			return Outcome::conflict;
	}
	if (changes.steps.size() == 1) {
		(void) update(changes.steps[0]);
		return Outcome::done;
	}
	std::vector<Object> content = objects_if_any().value_or(std::vector<Object>());
	std::vector<const Object *> all, writes;
	std::vector<const Identifiers *> removals;
	std::vector<Object> named;
	named.reserve(changes.steps.size());
	for (const Step &step : changes.steps) {
		apply(step, content);
		if (step.kind == Step::Kind::remove)
			removals.push_back(&step.id);
		else
			writes.push_back(&named.emplace_back(Object{step.id, {}}));
	}
	for (const Object &object : content)
		all.push_back(&object);
	replacement(all)->commit(writes, removals);
	return Outcome::done;
}

// Carries a step out on the objects of the file.
void FileDatabase::apply(const Step &step, std::vector<Object> &content)
{
	const std::string wanted = key(step.id);
	bool found = false;
	for (size_t i = 0; i < content.size(); i++) {
		if (key(content[i].id) != wanted)
			continue;
		found = true;
		if (step.kind == Step::Kind::put)
			content[i].props = step.props;
		else if (step.kind == Step::Kind::rename)
			content[i].id = step.new_id;
		else
			content.erase(content.begin() + static_cast<std::ptrdiff_t>(i--));
	}
	if (!found && step.kind == Step::Kind::put)
		content.push_back({step.id, step.props});
}

std::unique_ptr<Replacement> FileDatabase::replacement(const std::vector<const Object *> &content)
{
	std::string text;
	LineMaker maker;
	for (const Object *object : content)
		text += maker.line(*object);
	return std::make_unique<FileReplacement>(*this, std::move(text));
}

void FileDatabase::fail_replace(int error)
{
	if (std::optional<Failure> why = why_temporary_fails(name(), is_own_path(), error))
		throw Failure(*why);
	fail(ostrel_errno2error(error), "can't be written");
}

void FileDatabase::replace_held(const std::string &text)
{
	struct stat now;
	bool exists = false;
	int error = hold_error_;
	if (error == 0)
		error = held_.find_database(&now, &exists);
	if (error != 0)
		fail_replace(error);
	// The hold doesn't keep out a program that replaces the file in another way.
	if (exists != exists_ || (exists && (!ostrel_same_file(now, seen_) || now.st_size != seen_.st_size)))
		throw Failure(Exit::deferred, "the database was changed by somebody else meanwhile; nothing was done")
		    .next("run the command again");
	error = held_.begin(text.size(), exists ? &now : nullptr);
	if (error == EPERM && exists)
		throw Failure(Exit::permission,
		    fmt::format("the file belongs to user {}, group {}, and an update by this user would change that",
			now.st_uid, now.st_gid))
		    .next("let its owner, or root, make the update");
	if (error == 0)
		error = held_.append(text.data(), text.size());
	if (error == 0)
		error = held_.commit();
	if (error == 0)
		return;
	held_.discard();
	fail_replace(error);
}

void FileDatabase::replace(const std::string &text, const std::vector<const Object *> &writes,
    const std::vector<const Identifiers *> &removals)
{
	try {
		replace_held(text);
	} catch (Failure &failure) {
		record_updates(name(), writes, removals, failure.code);
		failure.in(label());
		throw;
	}
	record_updates(name(), writes, removals, Exit::done);
}

} // namespace

std::unique_ptr<Database> make_file_database(DatabaseName &&name)
{
	return std::make_unique<FileDatabase>(std::move(name));
}

std::unique_ptr<Database> make_raw_file_database(DatabaseName &&name)
{
	return std::make_unique<RawFileDatabase>(std::move(name));
}
