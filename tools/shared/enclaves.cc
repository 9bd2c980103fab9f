// Enclaves as the tools name and list them.
#include "enclaves.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <unistd.h>

#include <base/guards.h>
#include <fmt/format.h>

#include "failure.h"
#include "visible.h"

namespace {

// A word of digits alone; names begin with a letter.
bool parse_number(const std::string &word, enclaveid_t *id)
{
	const char *end = word.data() + word.size();
	auto [stop, error] = std::from_chars(word.data(), end, *id);
	return error == std::errc() && stop == end;
}

// By number or by name. Errors: 0, or an errno value.
int find_enclave(const std::string &word, enclave_info_t *info)
{
	enclaveid_t id = 0;
	return parse_number(word, &id) ? enclave_registry_get(id, info) : enclave_registry_find(word.c_str(), info);
}

} // namespace

enclaveid_t enclave_option(const std::string &word)
{
	if (word.empty())
		return ENCLAVE_ID_GLOBAL;
	enclaveid_t id = 0;
	const bool number = parse_number(word, &id);
	if (number && (id < 0 || id > ENCLAVE_ID_MAX))
		throw Failure(Exit::usage, fmt::format("enclaves have the numbers 1 to {}", ENCLAVE_ID_MAX));
	if (number && (id == ENCLAVE_ID_GLOBAL || id == getenclaveid()))
		return id;
	enclave_info_t info;
	const int error = find_enclave(word, &info);
	if (number && error == EBADMSG) // the enclave is there; what is wrong with it shows when it is entered
		return id;
	if (error != 0)
		throw Failure(error == EINVAL ? Exit::not_found : exit_of_errno(error),
		    fmt::format("there is no enclave {}", word))
		    .next("ostrel enclaves lists them");
	return info.ei_id;
}

std::vector<enclave_info_t> all_enclaves()
{
	Heap<enclave_info_t> infos;
	size_t count = 0;
	const int error = enclave_registry_list(infos.out(), &count);
	if (error != 0)
		throw Failure(exit_of_errno(error),
		    fmt::format("the registry of enclaves can't be read: {}", std::strerror(error)));
	return {infos.get(), infos.get() + count};
}

Json enclave_to_json(const enclave_info_t &info)
{
	Json row;
	row["id"] = info.ei_id;
	row["name"] = text_to_json(info.ei_name);
	row["state"] = enclave_state_name(info.ei_state);
	row["root"] = text_to_json(info.ei_root);
	if (info.ei_leader != 0) {
		row["leader"] = info.ei_leader;
		row["leader_start"] = number_to_json(info.ei_leader_start);
		row["leader_alive"] = enclave_leader_alive(&info) != 0;
	}
	return row;
}

std::string leader_text(const enclave_info_t &info)
{
	if (info.ei_leader == 0)
		return "-";
	return fmt::format("{}{}", info.ei_leader, enclave_leader_alive(&info) != 0 ? "" : " (gone)");
}

void print_enclaves(const std::vector<enclave_info_t> &infos, Table &&table)
{
	for (const enclave_info_t &info : infos)
		table.rows.push_back({std::to_string(info.ei_id), visible(info.ei_name),
		    enclave_state_name(info.ei_state), leader_text(info), visible(info.ei_root)});
	if (is_terminal(STDOUT_FILENO))
		return table.rows.empty() ? note("no enclaves") : print_table(table);
	for (const auto &row : table.rows)
		fmt::print("{}\n", fmt::join(row, "\t"));
}
