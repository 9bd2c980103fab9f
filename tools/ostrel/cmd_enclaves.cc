// ostrel enclaves: the enclaves of this host.
#include <memory>
#include <unistd.h>

#include <fmt/format.h>
#include <meridon/enclave.h>

#include "command.h"
#include "shared/enclaves.h"
#include "terminal.h"

namespace {

struct FreeHeap {
	void operator()(void *memory) const { free(memory); }
};

void declare(CLI::App &, Options &) {}

void print_json(const enclave_info_t *infos, size_t count)
{
	Json list = Json::array();
	for (size_t i = 0; i < count; i++)
		list.push_back(enclave_to_json(infos[i]));
	write_json({{"enclave", getenclaveid()}, {"enclaves", list}});
}

void print_rows(const enclave_info_t *infos, size_t count)
{
	Table table = {{"id", "name", "state", "leader", "root"}, {}};
	for (size_t i = 0; i < count; i++)
		table.rows.push_back(enclave_fields(infos[i]));
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
