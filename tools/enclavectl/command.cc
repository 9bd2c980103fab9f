// What the commands of enclavectl do.
#include "command.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>
#include <meridon/enclave.h>

#include "shared/enclaves.h"
#include "shared/failure.h"

namespace {

/* ---- Failures of the registry, by their error number ---- */

struct Row {
	int error;
	Exit code;
	const char *hint;
};
constexpr Row error_rows[] = {
    {EACCES, Exit::permission,
	"only root may change the registry; to try things out, set MERIDON_ROOT to a directory of your own"},
    {EPERM, Exit::permission, "the record must belong to root, and nobody else may write it"},
    {EROFS, Exit::failure, "the file system of the registry is read-only"},
    {ENOENT, Exit::not_found, "'enclavectl list' shows the enclaves"},
    {EINVAL, Exit::invalid, "'enclavectl add --help' has the rules"},
    {EBADMSG, Exit::failure, "its record can't be understood: remove it by its id and add it again"},
    {ENOMEM, Exit::memory, ""},
    {ENOSPC, Exit::failure, "the file system of the registry is full"},
};

Failure failure_of(int error, const std::string &doing)
{
	for (const Row &row : error_rows)
		if (row.error == error)
			return Failure(row.code, fmt::format("{}: {}", doing, std::strerror(error)), row.hint);
	return Failure(Exit::failure, fmt::format("{}: {}", doing, std::strerror(error)), "");
}

struct FreeHeap {
	void operator()(void *memory) const { std::free(memory); }
};

/* ---- What was meant ---- */

std::optional<enclaveid_t> id_of(const std::string &text)
{
	if (text.empty() || text.size() > 4 || text[0] == '0' ||
	    text.find_first_not_of("0123456789") != std::string::npos)
		return std::nullopt;
	return std::stoi(text);
}

enclaveid_t new_id(const std::string &text)
{
	std::optional<enclaveid_t> id = id_of(text);
	if (!id)
		throw Failure(Exit::invalid, fmt::format("'{}' is no id of an enclave", text),
		    fmt::format("give a number from 1 to {}", ENCLAVE_ID_MAX));
	return *id;
}

std::string state_words()
{
	std::string words;
	for (uint32_t i = 0; i < ENCLAVE_STATE_INVALID; i++)
		words += fmt::format("{}{}", i == 0 ? "" : ", ", enclave_state_name(static_cast<enclave_state_t>(i)));
	return words;
}

enclave_state_t state_of(const std::string &word)
{
	enclave_state_t state = enclave_state_by_name(word.c_str());
	if (state == ENCLAVE_STATE_INVALID)
		throw Failure(Exit::invalid, fmt::format("'{}' is no state of an enclave", word),
		    "the states are " + state_words());
	return state;
}

// A root is written down as the host's own path of it, whatever the links on the way there become later.
void set_root(const std::string &root, enclave_info_t *info)
{
	std::unique_ptr<char, FreeHeap> path(realpath(root.c_str(), nullptr));
	struct stat st;
	if (!path || stat(path.get(), &st) == -1)
		throw Failure(errno == EACCES ? Exit::permission : Exit::invalid,
		    fmt::format("the root '{}': {}", root, std::strerror(errno)), "give a directory that exists");
	if (!S_ISDIR(st.st_mode))
		throw Failure(Exit::invalid, fmt::format("the root '{}' isn't a directory", root), "give a directory");
	if (std::strlen(path.get()) > ENCLAVE_ROOT_MAX)
		throw Failure(Exit::invalid, fmt::format("the path of the root '{}' is too long", root),
		    fmt::format("it may have {} bytes", ENCLAVE_ROOT_MAX));
	std::strcpy(info->ei_root, path.get());
}

void set_name(const std::string &name, enclave_info_t *info)
{
	if (name.size() > ENCLAVE_NAME_MAX)
		throw Failure(Exit::invalid, fmt::format("the name '{}' is too long", name),
		    fmt::format("it may have {} bytes", ENCLAVE_NAME_MAX));
	std::strcpy(info->ei_name, name.c_str());
}

void set_leader(int pid, enclave_info_t *info)
{
	int error = enclave_leader_start(pid, &info->ei_leader_start);
	if (error != 0)
		throw Failure(Exit::invalid, fmt::format("the leader {}: {}", pid, std::strerror(error)),
		    "give the id of a running process that lives in the enclave");
	info->ei_leader = pid;
}

enclave_info_t find(const std::string &enclave)
{
	enclave_info_t info;
	std::optional<enclaveid_t> id = id_of(enclave);
	int error = id ? enclave_registry_get(*id, &info) : enclave_registry_find(enclave.c_str(), &info);
	if (error == ENOENT)
		throw Failure(Exit::not_found, fmt::format("there is no enclave '{}'", enclave),
		    "'enclavectl list' shows the enclaves");
	if (error != 0)
		throw failure_of(error, fmt::format("enclave '{}'", enclave));
	return info;
}

/* ---- What is printed ---- */

void print_table(const std::vector<std::vector<std::string>> &rows)
{
	std::vector<size_t> widths(rows.at(0).size());
	for (const auto &row : rows)
		for (size_t i = 0; i < row.size(); i++)
			widths[i] = std::max(widths[i], row[i].size());
	for (const auto &row : rows) {
		for (size_t i = 0; i + 1 < row.size(); i++)
			fmt::print("{:<{}}  ", row[i], widths[i]);
		fmt::print("{}\n", row.back());
	}
}

// An update says what it did, or would do, to whoever asked for data; to people it says so on the standard error.
void print_update(const Options &options, const char *verb, const enclave_info_t &info)
{
	if (options.json) {
		Json document = {{"done", !options.dry_run}, {"enclave", enclave_to_json(info)}};
		write_json(document);
	} else if (options.dry_run) {
		fmt::print(stderr, "would {} enclave {} ({}): state {}, leader {}, root {}\n", verb, info.ei_id,
		    info.ei_name, enclave_state_name(info.ei_state), leader_text(info), visible(info.ei_root));
	}
}

/* ---- add ---- */

void declare_add(CLI::App &app, Options &options)
{
	app.add_option("ID", options.enclave, "its number, from 1 to 9999")->required();
	app.add_option("--name", options.name, "its name")->required();
	app.add_option("--root", options.root, "its root directory")->required();
	app.add_option("--leader", options.leader, "a process that lives in it");
	app.add_option("--state", options.state, "its state; without it: running with a leader, ready without one");
	app.add_flag("-n,--dry-run", options.dry_run, "say what would be done and change nothing");
}

// Which of the two is taken.
Failure taken(const enclave_info_t &info)
{
	enclave_info_t other;
	if (enclave_registry_find(info.ei_name, &other) == 0 && other.ei_id != info.ei_id)
		return Failure(Exit::exists,
		    fmt::format("enclave {} has the name '{}' already", other.ei_id, info.ei_name),
		    "choose another name");
	return Failure(Exit::exists, fmt::format("enclave {} exists already", info.ei_id),
	    "choose another id, or remove that enclave first");
}

void check_is_free(const enclave_info_t &info)
{
	enclave_info_t other;
	for (int error : {enclave_registry_get(info.ei_id, &other), enclave_registry_find(info.ei_name, &other)}) {
		if (error == 0 || error == EBADMSG || error == EPERM)
			throw taken(info);
		if (error != ENOENT)
			throw failure_of(error, fmt::format("enclave {} can't be added", info.ei_id));
	}
}

void run_add(const Options &options)
{
	enclave_info_t info = {};
	info.ei_id = new_id(options.enclave);
	set_name(options.name, &info);
	set_root(options.root, &info);
	if (options.leader)
		set_leader(*options.leader, &info);
	info.ei_state = info.ei_leader != 0 ? ENCLAVE_STATE_RUNNING : ENCLAVE_STATE_READY;
	if (!options.state.empty())
		info.ei_state = state_of(options.state);
	if (enclave_registry_check(&info) != 0)
		throw Failure(Exit::invalid,
		    fmt::format("the name '{}' or the root '{}' can't be written", options.name, options.root),
		    "a name is letters, digits, '.', '_' and '-', begins with a letter, and isn't 'global'; a root has "
		    "no "
		    "control characters");
	if (options.dry_run)
		check_is_free(info);
	int error = options.dry_run ? 0 : enclave_registry_add(&info);
	if (error == EEXIST)
		throw taken(info);
	if (error != 0)
		throw failure_of(error, fmt::format("enclave {} can't be added", info.ei_id));
	print_update(options, "add", info);
}

/* ---- list, show ---- */

void declare_list(CLI::App &, Options &) {}

void run_list(const Options &options)
{
	enclave_info_t *infos = nullptr;
	size_t count = 0;
	if (int error = enclave_registry_list(&infos, &count))
		throw failure_of(error, "the registry can't be read");
	std::unique_ptr<enclave_info_t, FreeHeap> owner(infos);
	std::vector<std::vector<std::string>> rows;
	Json list = Json::array();
	for (size_t i = 0; i < count; i++) {
		const enclave_info_t &info = infos[i];
		list.push_back(enclave_to_json(info));
		rows.push_back(enclave_fields(info));
	}
	if (options.json) {
		write_json({{"enclaves", list}});
	} else if (isatty(STDOUT_FILENO) != 0) {
		rows.insert(rows.begin(), {"ID", "NAME", "STATE", "LEADER", "ROOT"});
		print_table(rows);
	} else {
		for (const auto &row : rows)
			fmt::print("{}\n", fmt::join(row, "\t"));
	}
}

void declare_show(CLI::App &app, Options &options)
{
	app.add_option("ENCLAVE", options.enclave, "its id or its name")->required();
}

void run_show(const Options &options)
{
	enclave_info_t info = find(options.enclave);
	if (options.json) {
		write_json(enclave_to_json(info));
		return;
	}
	fmt::print("id: {}\nname: {}\nstate: {}\nroot: {}\nleader: {}\n", info.ei_id, info.ei_name,
	    enclave_state_name(info.ei_state), visible(info.ei_root), leader_text(info));
}

/* ---- remove, set-state ---- */

void declare_remove(CLI::App &app, Options &options)
{
	app.add_option("ENCLAVE", options.enclave, "its id or its name")->required();
	app.add_flag("-n,--dry-run", options.dry_run, "say what would be done and change nothing");
}

// Also one whose record can't be understood, by its id.
void run_remove(const Options &options)
{
	enclave_info_t info = {};
	std::optional<enclaveid_t> id = id_of(options.enclave);
	int error = id ? enclave_registry_get(*id, &info) : 0;
	if (error == EBADMSG || error == EPERM) {
		info.ei_id = *id;
		info.ei_state = ENCLAVE_STATE_INVALID;
	} else {
		info = find(options.enclave);
	}
	error = options.dry_run ? 0 : enclave_registry_remove(info.ei_id);
	if (error != 0)
		throw failure_of(error, fmt::format("enclave {} can't be removed", info.ei_id));
	print_update(options, "remove", info);
}

void declare_set_state(CLI::App &app, Options &options)
{
	app.add_option("ENCLAVE", options.enclave, "its id or its name")->required();
	app.add_option("STATE", options.state, "its new state")->required();
	auto *leader = app.add_option("--leader", options.leader, "its leader from now on");
	app.add_flag("--no-leader", options.no_leader, "it has no leader from now on")->excludes(leader);
	app.add_flag("-n,--dry-run", options.dry_run, "say what would be done and change nothing");
}

void run_set_state(const Options &options)
{
	enclave_info_t info = find(options.enclave);
	info.ei_state = state_of(options.state);
	if (options.no_leader)
		info.ei_leader = 0;
	if (options.leader)
		set_leader(*options.leader, &info);
	int error = options.dry_run ? 0 : enclave_registry_replace(&info);
	if (error != 0)
		throw failure_of(error, fmt::format("the state of enclave {} can't be set", info.ei_id));
	print_update(options, "change", info);
}

} // namespace

const Command commands[] = {
    {"add", "register an enclave",
	"The enclave can be reached at once if its state is ready, running or shutting_down.\n"
	"Its name is letters, digits, '.', '_' and '-', at most 63 of them, and begins with a letter.\n"
	"With a leader, its namespaces are entered, and then the root; if the leader ends, the enclave can't be\n"
	"entered any more until 'set-state' names another one.\n\n"
	"  enclavectl add 5 --name web --root /srv/web\n"
	"  enclavectl add 6 --name db --root /srv/db --leader 4711\n",
	declare_add, run_add},
    {"list", "list the enclaves",
	"On a terminal: an aligned table with a heading. Elsewhere: a line for each, fields divided by TABs.\n"
	"A leader that doesn't run any more is marked as gone. A record that can't be understood has the state "
	"invalid.\n\n"
	"  enclavectl list --json | jq '.enclaves[].name'\n",
	declare_list, run_list},
    {"show", "show one enclave", "  enclavectl show web\n  enclavectl show 5 --json\n", declare_show, run_show},
    {"remove", "take an enclave out of the registry",
	"What lies in its root stays, and what runs in it goes on.\n\n  enclavectl remove web\n", declare_remove,
	run_remove},
    {"set-state", "change the state of an enclave, or its leader",
	"The states are configured, incomplete, unavailable, installed, ready, running, shutting_down, down and "
	"mounted.\n\n"
	"  enclavectl set-state web down --no-leader\n"
	"  enclavectl set-state web running --leader 4711\n",
	declare_set_state, run_set_state},
};
const size_t command_count = sizeof commands / sizeof *commands;
