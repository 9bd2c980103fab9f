// ostrel enclaves: the enclaves of this host.
#include <memory>
#include <unistd.h>

#include <fmt/format.h>
#include <meridon/enclave.h>

#include "command.h"
#include "document.h"
#include "terminal.h"
#include "text.h"

namespace {

struct FreeHeap {
	void operator()(void *memory) const { free(memory); }
};

void declare(CLI::App &, Options &) {}

void print_json(const enclave_info_t *infos, size_t count)
{
	Json list = Json::array();
	for (size_t i = 0; i < count; i++) {
		Json row;
		row["id"] = infos[i].ei_id;
		row["name"] = infos[i].ei_name;
		row["state"] = enclave_state_name(infos[i].ei_state);
		row["root"] = text_to_json(infos[i].ei_root);
		list.push_back(row);
	}
	fmt::print("{}\n", Json{{"enclave", getenclaveid()}, {"enclaves", list}}.dump());
}

void print_rows(const enclave_info_t *infos, size_t count)
{
	Table table = {{"id", "name", "state", "root"}, {}};
	for (size_t i = 0; i < count; i++)
		table.rows.push_back({std::to_string(infos[i].ei_id), visible(infos[i].ei_name),
		    enclave_state_name(infos[i].ei_state), visible(infos[i].ei_root)});
	if (is_terminal(STDOUT_FILENO))
		return table.rows.empty() ? note("no enclaves") : print_table(table);
	for (const auto &row : table.rows)
		fmt::print("{}\n", fmt::join(row, "\t"));
}

Exit run(const Options &options)
{
	enclave_info_t *infos = nullptr;
	size_t count = 0;
	int error = enclave_registry_list(&infos, &count);
	if (error != 0)
		throw Failure(exit_of(ostrel_errno2error(error)), "the registry of enclaves can't be read");
	std::unique_ptr<enclave_info_t, FreeHeap> owned(infos);
	if (options.json)
		print_json(infos, count);
	else
		print_rows(infos, count);
	return Exit::done;
}

} // namespace

const Command enclaves_command = {"enclaves", nullptr, "List the enclaves of this host", declare, run, nullptr};
