// Enclaves as the tools list them.
#include "enclaves.h"

#include <fmt/format.h>

#include "visible.h"

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

std::vector<std::string> enclave_fields(const enclave_info_t &info)
{
	return {std::to_string(info.ei_id), visible(info.ei_name), enclave_state_name(info.ei_state), leader_text(info),
	    visible(info.ei_root)};
}
