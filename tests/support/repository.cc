#include "repository.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <meridon/hatch.h>

#include "test_paths.h"

extern char **environ;

int run_program(const std::vector<std::string> &words, const std::vector<std::string> &environment, std::string *output)
{
	std::vector<char *> arguments, variables;
	for (const std::string &word : words)
		arguments.push_back(const_cast<char *>(word.c_str()));
	arguments.push_back(nullptr);
	for (const std::string &word : environment)
		variables.push_back(const_cast<char *>(word.c_str()));
	for (char **entry = environ; *entry != nullptr; entry++)
		variables.push_back(*entry);
	variables.push_back(nullptr);
	Scratch place;
	std::string printed = place.path("output");
	posix_spawn_file_actions_t actions;
	posix_spawn_file_actions_init(&actions);
	posix_spawn_file_actions_addopen(&actions, 1, printed.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
	posix_spawn_file_actions_adddup2(&actions, 1, 2);
	pid_t pid;
	int error = posix_spawn(&pid, arguments[0], &actions, nullptr, arguments.data(), variables.data());
	posix_spawn_file_actions_destroy(&actions);
	if (error != 0)
		return -1;
	int status;
	if (waitpid(pid, &status, 0) != pid)
		return -1;
	if (output != nullptr)
		*output = file_text(printed);
	return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const char *const daemon_program = TEST_BINARY_DIR "/repository/cairn.configd";

int start_daemon(
    const std::string &hatch, const std::string &file, std::string *output, const std::vector<std::string> &environment)
{
	return run_program({daemon_program, "-d", hatch, "-r", file}, environment, output);
}

pid_t server_of(const std::string &hatch)
{
	Fd fd(open(hatch.c_str(), O_RDONLY | O_CLOEXEC));
	hatch_info_t info;
	if (!fd || hatch_info(fd.get(), &info) != 0 || (info.di_attributes & HATCH_REVOKED) != 0)
		return 0;
	hatch_forget(fd.get());
	return info.di_target;
}

// The state of a process or a thread; "?" if there is none.
static char state_in(const std::string &stat)
{
	const std::string text = file_text(stat);
	const size_t state = text.rfind(") ");
	return state == text.npos ? '?' : text[state + 2];
}

bool is_gone(pid_t pid)
{
	if (::kill(pid, 0) == -1)
		return true;
	const std::string directory = "/proc/" + std::to_string(pid);
	const char state = state_in(directory + "/stat");
	if (state != 'Z')
		return state == '?';
	// Its other threads hold its files until they have ended, too.
	return entries_of(directory + "/task").size() <= 1;
}

int Repository::start(const std::string &hatch_name, std::string *output)
{
	const int status = start_daemon(hatch(hatch_name), file(), output, environment);
	if (status == 0)
		pid_ = server_of(hatch(hatch_name));
	return status;
}

void Repository::end(int signal)
{
	if (pid_ > 0) {
		(void) ::kill(pid_, signal);
		while (!is_gone(pid_))
			usleep(200);
	}
	pid_ = 0;
}

void Repository::freeze()
{
	(void) ::kill(pid_, SIGSTOP);
	const std::string tasks = "/proc/" + std::to_string(pid_) + "/task/";
	while (!std::ranges::all_of(
	    entries_of(tasks), [&](auto &task) { return state_in(tasks + task + "/stat") == 'T'; }))
		usleep(200);
}

StayingChild lock_as_stranger(const std::string &file, const std::function<int(int fd)> &lock)
{
	return StayingChild([&] {
		const int fd = open(file.c_str(), O_RDONLY);
		return setresgid(1, 1, 1) == 0 && setresuid(1, 1, 1) == 0 && lock(fd) == 0;
	});
}

RepositoryClient::~RepositoryClient()
{
	rpy_instance_destroy(instance);
	rpy_service_destroy(service);
	rpy_scope_destroy(scope);
	rpy_handle_destroy(handle);
}

rpy_error_t RepositoryClient::bind(const std::string &hatch)
{
	if (handle == nullptr) {
		handle = rpy_handle_create(RPY_CLIENT_VERSION);
		scope = rpy_scope_create(handle);
		service = rpy_service_create(handle);
		instance = rpy_instance_create(handle);
	} else {
		(void) rpy_handle_unbind(handle);
	}
	Val path(rpy_value_create(handle));
	if (rpy_value_set_astring(path.get(), hatch.c_str()) != 0 ||
	    rpy_handle_decorate(handle, "hatch_path", path.get()) != 0 || rpy_handle_bind(handle) != 0)
		return rpy_error();
	if (find() == RPY_ERROR_NONE)
		return RPY_ERROR_NONE;
	if (rpy_handle_get_scope(handle, RPY_SCOPE_LOCAL, scope) != 0)
		return rpy_error();
	if (rpy_scope_add_service(scope, "net/link", service) != 0 ||
	    rpy_service_add_instance(service, "default", instance) != 0)
		return rpy_error();
	return RPY_ERROR_NONE;
}

rpy_error_t RepositoryClient::find()
{
	int result =
	    rpy_handle_decode_locator(handle, "net/link:default", nullptr, service, instance, nullptr, nullptr, 0);
	return result == 0 ? RPY_ERROR_NONE : rpy_error();
}

rpy_error_t RepositoryClient::add(const std::string &name, const std::string &type, uint32_t flags)
{
	Pg pg = group();
	return rpy_instance_add_pg(instance, name.c_str(), type.c_str(), flags, pg.get()) == 0 ? RPY_ERROR_NONE
											       : rpy_error();
}

int RepositoryClient::write(const std::string &name, const Contents &contents)
{
	Pg pg = group();
	return rpy_instance_get_pg(instance, name.c_str(), pg.get()) == 0 ? write(pg.get(), contents) : -1;
}

int RepositoryClient::write(rpy_propertygroup_t *pg, const Contents &contents)
{
	Tx tx(rpy_transaction_create(handle));
	if (rpy_transaction_start(tx.get(), pg) != 0)
		return -1;
	bool good = true;
	for (const auto &[old, ignored] : this->contents(pg))
		if (contents.count(old) == 0)
			good = good &&
			       rpy_transaction_property_delete(tx.get(), rpy_entry_create(handle), old.c_str()) == 0;
	for (const auto &[name, texts] : contents)
		good = good && put(tx.get(), pg, name, texts);
	int result = good ? rpy_transaction_commit(tx.get()) : -1;
	rpy_transaction_destroy_children(tx.get());
	return result;
}

// Puts a property of the group, there or not, into a transaction.
bool RepositoryClient::put(
    rpy_transaction_t *tx, rpy_propertygroup_t *pg, const std::string &name, const std::vector<std::string> &texts)
{
	const bool is_count =
	    !texts.empty() && !texts[0].empty() && texts[0].find_first_not_of("0123456789") == std::string::npos;
	rpy_type_t type = is_count ? RPY_TYPE_COUNT : RPY_TYPE_ASTRING;
	rpy_transaction_entry_t *entry = rpy_entry_create(handle);
	Prop property(rpy_property_create(handle));
	const bool exists = rpy_pg_get_property(pg, name.c_str(), property.get()) == 0;
	if (exists)
		(void) rpy_property_type(property.get(), &type);
	bool good = (exists ? rpy_transaction_property_change : rpy_transaction_property_new)(
			tx, entry, name.c_str(), type) == 0;
	for (const std::string &text : texts) {
		Val value(rpy_value_create(handle));
		good = good && rpy_value_set_from_string(value.get(), type, text.c_str()) == 0 &&
		       rpy_entry_add_value(entry, value.get()) == 0;
		if (good)
			(void) value.release();
	}
	return good;
}

Contents RepositoryClient::read(const std::string &name)
{
	Pg pg = group();
	return rpy_instance_get_pg(instance, name.c_str(), pg.get()) == 0 ? contents(pg.get()) : Contents();
}

Contents RepositoryClient::contents(rpy_propertygroup_t *pg)
{
	Contents found;
	Iter properties(rpy_iter_create(handle)), values(rpy_iter_create(handle));
	Prop property(rpy_property_create(handle));
	Val value(rpy_value_create(handle));
	EXPECT_EQ(rpy_iter_pg_properties(properties.get(), pg), 0);
	while (rpy_iter_next_property(properties.get(), property.get()) == 1) {
		char name[RPY_NAME_MAX];
		(void) rpy_property_get_name(property.get(), name, sizeof(name));
		auto &texts = found[name];
		EXPECT_EQ(rpy_iter_property_values(values.get(), property.get()), 0);
		while (rpy_iter_next_value(values.get(), value.get()) == 1) {
			uint8_t truth;
			uint64_t number;
			int64_t integer;
			if (rpy_value_get_boolean(value.get(), &truth) == 0)
				texts.push_back(std::to_string(truth));
			else if (rpy_value_get_count(value.get(), &number) == 0)
				texts.push_back(std::to_string(number));
			else if (rpy_value_get_integer(value.get(), &integer) == 0)
				texts.push_back(std::to_string(integer));
			else if (const ssize_t size = rpy_value_get_bytes(value.get(), nullptr, 0); size >= 0)
				(void) rpy_value_get_bytes(value.get(), texts.emplace_back(size, '\0').data(), size);
		}
	}
	return found;
}

std::vector<std::string> RepositoryClient::names(rpy_iter_t *iter)
{
	std::vector<std::string> found;
	Pg pg = group();
	char name[RPY_NAME_MAX];
	while (rpy_iter_next_pg(iter, pg.get()) == 1) {
		(void) rpy_pg_get_name(pg.get(), name, sizeof(name));
		found.emplace_back(name);
	}
	return found;
}

MemoryMount::MemoryMount(const Scratch &place, const char *options)
    : path(place.path("mount")), good(mkdir(path.c_str(), 0755) == 0 && set(0, options))
{}

MemoryMount::~MemoryMount()
{
	(void) umount2(path.c_str(), MNT_DETACH);
}

bool MemoryMount::set(unsigned long flags, const char *options) const
{
	return mount("none", path.c_str(), "tmpfs", flags, options) == 0;
}
