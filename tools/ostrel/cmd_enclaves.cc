// ostrel enclaves: the enclaves of this host.
#include "command.h"
#include "shared/enclaves.h"

namespace {

Exit run(const Options &options)
{
	const std::vector<enclave_info_t> infos = all_enclaves();
	if (!options.json) {
		print_enclaves(infos, {{"id", "name", "state", "leader", "root"}, {}});
		return Exit::done;
	}
	Json list = Json::array();
	for (const enclave_info_t &info : infos)
		list.push_back(enclave_to_json(info));
	write_json({{"enclave", getenclaveid()}, {"enclaves", list}});
	return Exit::done;
}

} // namespace

const Command enclaves_command = {{"enclaves", "List the enclaves of this host"}, declare_nothing<Options>, run};
