// Scratch databases, and the replacing of a file. Divisions: lines, what can't be stored, replacing.
#include "scratch.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <new>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "enclave_child.h"

// ---- Lines ----

namespace {

// Memory first: a scratch file is written once for each object, and doesn't have to outlive anything.
std::string make_scratch_directory()
{
	const char *chosen = std::getenv("TMPDIR");
	for (const char *parent : {chosen, "/dev/shm", "/tmp"}) {
		if (parent == nullptr)
			continue;
		std::string name = fmt::format("{}/ostrel.XXXXXX", parent);
		if (mkdtemp(name.data()) != nullptr)
			return name;
	}
	throw Failure(Exit::failure, "no place for a scratch file")
	    .next("set TMPDIR to a directory that you can write to");
}

} // namespace

// The handle has no name, and each operation names the file: what happens in a nameless database leaves no audit record.
LineMaker::LineMaker() : directory_(make_scratch_directory()), file_(directory_ + "/object")
{
	if (ostrel_db_open("", 0, ostrel_files_db_cmds, OSTREL_DB_CASE_SENSITIVE, &db_) != OSTREL_SUCCESS) {
		(void) rmdir(directory_.c_str()); // empty as it is, it goes; if not, the failed open is the news
		throw std::bad_alloc();
	}
}

LineMaker::~LineMaker()
{
	ostrel_db_close(db_);
	// What is left behind lies in a directory for temporary files, and hurts nobody.
	(void) unlink(file_.c_str());
	(void) unlink((file_ + ".new").c_str());
	(void) rmdir(directory_.c_str());
}

ostrel_error_t LineMaker::write(const Object &object)
{
	List id = id_list(object.id, file_.c_str());
	List props = props_list(object.props);
	if (unlink(file_.c_str()) != 0 && errno != ENOENT)
		return OSTREL_FAILURE;
	return ostrel_db_write(db_, id.get(), 0, props.get());
}

std::string LineMaker::line(const Object &object)
{
	ostrel_error_t result = write(object);
	if (result == OSTREL_INVALID_ARG)
		throw unstorable(object);
	if (result == OSTREL_NO_MEMORY)
		throw Failure(Exit::memory, "there is no memory, or no space left for the scratch file").in(file_);
	std::ifstream in(file_, std::ios::binary);
	std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
	if (result != OSTREL_SUCCESS || !in || text.empty())
		throw Failure(Exit::failure, "the scratch file can't be written").in(file_);
	return text;
}

Object LineMaker::stored()
{
	Object object;
	auto keep = [](ostrel_db_t, attrlist_t *id, attrlist_t *props, uint64_t, void *arg) -> int {
		try {
			*static_cast<Object *>(arg) = object_from_lists(id, props);
			return 0;
		} catch (...) {
			return 1;
		}
	};
	List all = id_list({}, file_.c_str());
	if (ostrel_db_walk(db_, all.get(), 0, keep, nullptr, &object, nullptr) != OSTREL_SUCCESS)
		throw Failure(Exit::failure, "the scratch file can't be read").in(file_);
	return object;
}

// ---- What can't be stored ----

// The library says only that it refuses: so its parts are tried one by one.
Failure unstorable(const Object &object)
{
	LineMaker maker;
	if (maker.write({object.id, {}}) == OSTREL_INVALID_ARG)
		return Failure(Exit::invalid, fmt::format("the identifiers {} can't be stored", id_text(object.id)))
		    .next(
			"a database file takes 255 bytes of name=value; in all, without newlines, TABs and semicolons, "
			"without = in a name, # or white space at its start, or a backslash at the end of either");
	Identifiers probe = {{"a", "b"}};
	for (const Property &property : object.props) {
		if (maker.write({probe, {property}}) == OSTREL_INVALID_ARG)
			return Failure(Exit::invalid,
			    fmt::format("the property {} of {} can't be stored", property.name, id_text(object.id)))
			    .next("a database file takes no newline in a value, at most 511 bytes of it (commas, "
				  "semicolons "
				  "and backslashes count twice), and no ; or = or final backslash in a name");
	}
	return Failure(Exit::invalid, fmt::format("the object {} is too long", id_text(object.id)))
	    .next("an object takes one line of at most 2047 bytes");
}

std::string storage_loss(const Object &wanted, const Object &stored)
{
	for (const Property &property : wanted.props) {
		const Property *back = stored.find(property.name);
		if (back == nullptr)
			return fmt::format("the property {} isn't stored", property.name);
		if (!same_value(property, *back))
			return fmt::format(
			    "the property {} comes back with {} instead of {} values: a database file keeps no "
			    "empty last value",
			    property.name, back->values.size(), property.values.size());
	}
	return stored.id == wanted.id ? "" : "the identifiers come back changed";
}

// ---- Replacing ----

namespace {

// The owner of what is made new in another enclave: the system's network configuration user and group.
constexpr uid_t enclave_owner = 17;
constexpr gid_t enclave_group = 65;

struct Replacement {
	const char *path;
	const char *temporary;
	const char *directory;
	const std::string *content;
	bool give_away;
};

int write_all(int fd, const std::string &content)
{
	size_t done = 0;
	while (done < content.size()) {
		ssize_t count = write(fd, content.data() + done, content.size() - done);
		if (count < 0 && errno != EINTR)
			return errno;
		done += count > 0 ? static_cast<size_t>(count) : 0;
	}
	return 0;
}

int fill(int fd, const Replacement &file)
{
	if (int error = write_all(fd, *file.content))
		return error;
	if (file.give_away && fchown(fd, enclave_owner, enclave_group) != 0)
		return errno;
	if (fchmod(fd, 0644) != 0 || fsync(fd) != 0)
		return errno;
	return 0;
}

// A file system that has nothing to sync in a directory says so; that isn't an error.
int sync_directory(int directory)
{
	int result;
	do
		result = fsync(directory);
	while (result != 0 && errno == EINTR);
	return result == 0 || errno == EINVAL || errno == ENOTSUP ? 0 : errno;
}

// Fills the new file and puts it in place. The directory is opened first, so that what can fail fails while the old
// file stands; one that can't be read is synced with all of its file system, through the file.
int fill_and_rename(int fd, const Replacement &file)
{
	if (int error = fill(fd, file))
		return error;
	int directory = open(file.directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	if (directory < 0 && errno != EACCES)
		return errno;
	int error = rename(file.temporary, file.path) == 0 ? 0 : errno;
	if (error == 0)
		error = directory >= 0 ? sync_directory(directory) : syncfs(fd) == 0 ? 0 : errno;
	if (directory >= 0)
		(void) close(directory); // nothing was written through it
	return error;
}

// System calls only: this also runs in the child of a fork.
int replace(const Replacement &file)
{
	struct stat status;
	if (stat(file.path, &status) == 0 && !S_ISREG(status.st_mode))
		return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
	int fd = open(file.temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
	if (fd < 0)
		return errno;
	int error = fill_and_rename(fd, file);
	if (close(fd) != 0 && error == 0) // synced before: a failure here has lost nothing, and is told all the same
		error = errno;
	if (error != 0)
		(void) unlink(file.temporary); // gone already if the rename came about
	return error;
}

} // namespace

void replace_file(const std::string &path, enclaveid_t enclave, const std::string &content)
{
	std::random_device random;
	std::string temporary = fmt::format("{}.import.{:08x}", path, random());
	size_t slash = path.rfind('/');
	std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
	bool elsewhere = enclave != 0 && getenclaveid() == 0;
	Replacement file = {path.c_str(), temporary.c_str(), directory.c_str(), &content, elsewhere};
	int error = elsewhere ? in_enclave(enclave, [&] { return replace(file); }) : replace(file);
	if (error == ENOSPC)
		throw Failure(Exit::memory, "there is no space left on the file system")
		    .next("make room, and try again");
	if (error != 0)
		throw Failure(
		    exit_of(ostrel_errno2error(error)), fmt::format("can't be replaced: {}", strerror(error)));
}
