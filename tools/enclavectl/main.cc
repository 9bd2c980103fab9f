// enclavectl: the registry of this host's enclaves from the command line. Here: its commands, and their table.
#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "record.h"
#include "shared/enclaves.h"
#include "shared/program.h"
#include "shared/visible.h"

const char *const program_name = "enclavectl";

namespace {

struct Options : CommonOptions {
	std::string enclave; // an id or a name
	std::string name;
	std::string root;
	std::string state;
	std::optional<int> leader;
	bool no_leader = false;
};

using Command = CommandOf<Options>;

void declare_enclave_word(CLI::App &app, Options &options)
{
	app.add_option("ENCLAVE", options.enclave, "Its id or its name")->required();
}

// Tells what an update did: as JSON if that is asked for, else not at all. A dry run tells people what it would do.
Exit tell_update(const Options &options, const char *verb, const char *done, const enclave_info_t &info)
{
	if (options.json) {
		Json answer = update_answer(done, options.dry_run);
		answer["done"] = !options.dry_run;
		answer["enclave"] = enclave_to_json(info);
		write_json(answer);
	} else if (options.dry_run) {
		say(fmt::format("would {} enclave {} ({}): state {}, leader {}, root {}", verb, info.ei_id,
		    info.ei_name, enclave_state_name(info.ei_state), leader_text(info), info.ei_root));
	}
	return Exit::done;
}

// ---- add ----

void declare_add(CLI::App &app, Options &options)
{
	app.add_option("ID", options.enclave, "Its number, from 1 to 9999")->required();
	app.add_option("--name", options.name, "Its name")->required();
	app.add_option("--root", options.root, "Its root directory")->type_name("DIR")->required();
	app.add_option("--leader", options.leader, "A process that lives in it")->type_name("PID");
	app.add_option("--state", options.state, "Its state; without it: running with a leader, ready without one");
	declare_dry_run(app, options);
}

// Which of the two is taken.
Failure taken(const enclave_info_t &info)
{
	enclave_info_t other;
	if (enclave_registry_find(info.ei_name, &other) == 0 && other.ei_id != info.ei_id)
		return Failure(
		    Exit::exists, fmt::format("enclave {} has the name '{}' already", other.ei_id, info.ei_name))
		    .next("choose another name");
	return Failure(Exit::exists, fmt::format("enclave {} exists already", info.ei_id))
	    .next("choose another id, or remove that enclave first");
}

void check_is_free(const enclave_info_t &info)
{
	enclave_info_t other;
	for (int error : {enclave_registry_get(info.ei_id, &other), enclave_registry_find(info.ei_name, &other)}) {
		if (error == 0 || error == EBADMSG || error == EPERM)
			throw taken(info);
		if (error != ENOENT)
			throw registry_failure(error, fmt::format("enclave {} can't be added", info.ei_id));
	}
}

Exit run_add(const Options &options)
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
		    fmt::format("the name '{}' or the root '{}' can't be written", options.name, options.root))
		    .next("a name is letters, digits, '.', '_' and '-', begins with a letter, and isn't 'global'; "
			  "a root has no control characters");
	if (options.dry_run)
		check_is_free(info);
	int error = options.dry_run ? 0 : enclave_registry_add(&info);
	if (error == EEXIST)
		throw taken(info);
	if (error != 0)
		throw registry_failure(error, fmt::format("enclave {} can't be added", info.ei_id));
	return tell_update(options, "add", "added", info);
}

// ---- list, show ----

Exit run_list(const Options &options)
{
	const std::vector<enclave_info_t> infos = all_enclaves();
	if (!options.json) {
		print_enclaves(infos, {{"ID", "NAME", "STATE", "LEADER", "ROOT"}, {}, false});
		return Exit::done;
	}
	Json list = Json::array();
	for (const enclave_info_t &info : infos)
		list.push_back(enclave_to_json(info));
	write_json({{"enclaves", list}});
	return Exit::done;
}

Exit run_show(const Options &options)
{
	enclave_info_t info = find_record(options.enclave);
	if (options.json)
		write_json(enclave_to_json(info));
	else
		fmt::print("id: {}\nname: {}\nstate: {}\nroot: {}\nleader: {}\n", info.ei_id, info.ei_name,
		    enclave_state_name(info.ei_state), visible(info.ei_root), leader_text(info));
	return Exit::done;
}

// ---- remove, set-state ----

void declare_remove(CLI::App &app, Options &options)
{
	declare_enclave_word(app, options);
	declare_dry_run(app, options);
}

// Also one whose record can't be understood, by its id.
Exit run_remove(const Options &options)
{
	enclave_info_t info = {};
	std::optional<enclaveid_t> id = id_of(options.enclave);
	int error = id ? enclave_registry_get(*id, &info) : 0;
	if (error == EBADMSG || error == EPERM) {
		info.ei_id = *id;
		info.ei_state = ENCLAVE_STATE_INVALID;
	} else {
		info = find_record(options.enclave);
	}
	error = options.dry_run ? 0 : enclave_registry_remove(info.ei_id);
	if (error != 0)
		throw registry_failure(error, fmt::format("enclave {} can't be removed", info.ei_id));
	return tell_update(options, "remove", "removed", info);
}

void declare_set_state(CLI::App &app, Options &options)
{
	declare_enclave_word(app, options);
	app.add_option("STATE", options.state, "Its new state")->required();
	auto *leader = app.add_option("--leader", options.leader, "Its leader from now on")->type_name("PID");
	app.add_flag("--no-leader", options.no_leader, "It has no leader from now on")->excludes(leader);
	declare_dry_run(app, options);
}

Exit run_set_state(const Options &options)
{
	enclave_info_t info = find_record(options.enclave);
	info.ei_state = state_of(options.state);
	if (options.no_leader)
		info.ei_leader = 0;
	if (options.leader)
		set_leader(*options.leader, &info);
	int error = options.dry_run ? 0 : enclave_registry_replace(&info);
	if (error != 0)
		throw registry_failure(error, fmt::format("the state of enclave {} can't be set", info.ei_id));
	return tell_update(options, "change", "changed", info);
}

const Command add_command = {
    {"add", "Register an enclave", {}, nullptr,
	"The enclave can be reached at once if its state is ready, running or shutting_down.\n"
	"Its name is letters, digits, '.', '_' and '-', at most 63 of them, and begins with a letter.\n"
	"With a leader, its namespaces are entered, and then the root; if the leader ends, the enclave can't be\n"
	"entered any more until 'set-state' names another one.\n\n"
	"  enclavectl add 5 --name web --root /srv/web\n"
	"  enclavectl add 6 --name db --root /srv/db --leader 4711\n"},
    declare_add, run_add};
const Command list_command = {
    {"list", "List the enclaves", {}, nullptr,
	"On a terminal: an aligned table with a heading. Elsewhere: a line for each, fields divided by TABs.\n"
	"A leader that doesn't run any more is marked as gone. A record that can't be understood has the state "
	"invalid.\n\n"
	"  enclavectl list --json | jq '.enclaves[].name'\n"},
    declare_nothing<Options>, run_list};
const Command show_command = {
    {"show", "Show one enclave", {}, nullptr, "  enclavectl show web\n  enclavectl show 5 --json\n"},
    declare_enclave_word, run_show};
const Command remove_command = {
    {"remove", "Take an enclave out of the registry", {}, nullptr,
	"What lies in its root stays, and what runs in it goes on.\n\n  enclavectl remove web\n"},
    declare_remove, run_remove};
const Command set_state_command = {
    {"set-state", "Change the state of an enclave, or its leader", {}, nullptr,
	"The states are configured, incomplete, unavailable, installed, ready, running, shutting_down, down and "
	"mounted.\n\n"
	"  enclavectl set-state web down --no-leader\n"
	"  enclavectl set-state web running --leader 4711\n"},
    declare_set_state, run_set_state};

const Command *const commands[] = {
    &add_command, &list_command, &show_command, &remove_command, &set_state_command, nullptr};

} // namespace

int main(int argc, char **argv)
{
	static constexpr Completer completers[] = {{"ENCLAVE", "enclavectl list | cut -f2"}};
	const Tool<Options> tool = {"Registers, lists and removes the enclaves of this host.",
	    "MERIDON_ROOT is put before the registry's path, run/enclaves. enclavectl(8) has the whole story.",
	    commands, declare_nothing<Options>, completers, {}};
	return run_tool(tool, argc, argv);
}
